// Line and column (both from 1) of a byte offset in a text, for error messages about
// files. Columns count characters: UTF-8 continuation bytes do not advance them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

namespace ZR {
namespace detail {

struct TextPosition {
  int line = 1;
  int column = 1;
};

inline TextPosition positionOfOffset(const std::string& text, std::ptrdiff_t offset) {
  TextPosition position;
  if (offset < 0) return position;
  const std::size_t end = std::min(static_cast<std::size_t>(offset), text.size());
  for (std::size_t i = 0; i < end; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '\n') {
      ++position.line;
      position.column = 1;
    } else if ((c & 0xC0) != 0x80) {
      ++position.column;
    }
  }
  return position;
}

inline std::string describePosition(const TextPosition& position) {
  return "line " + std::to_string(position.line) + ", column " + std::to_string(position.column);
}

}  // namespace detail
}  // namespace ZR
