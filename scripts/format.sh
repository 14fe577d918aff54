#!/usr/bin/env bash
# Keeps the C++ sources in the layout of the repository's .clang-format.
#   scripts/format.sh            rewrites every file that differs
#   scripts/format.sh --check    lists the files that differ and fails if there are any
# Only files tracked by git are looked at, so generated code in build folders is not.
set -euo pipefail
cd "$(dirname "$0")/.."

formatter=$(command -v clang-format-14 || command -v clang-format || true)
if [ -z "$formatter" ]; then
  echo "format: clang-format not found (scripts/deps.sh installs it)" >&2
  exit 1
fi

mapfile -t files < <(git ls-files -- '*.h' '*.cpp')
if [ "${1:-}" = "--check" ]; then
  differ=()
  for file in "${files[@]}"; do
    "$formatter" --style=file "$file" | cmp -s - "$file" || differ+=("$file")
  done
  if ((${#differ[@]})); then
    printf 'format: %s differs from .clang-format\n' "${differ[@]}" >&2
    echo "format: run scripts/format.sh to rewrite them" >&2
    exit 1
  fi
  echo "format: ${#files[@]} files follow .clang-format"
else
  "$formatter" --style=file -i "${files[@]}"
fi
