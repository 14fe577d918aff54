// Reading a package's archive into a folder, safely: every entry checked (no absolute
// path, no "..", no link pointing outside, only files, folders and links), written with
// libarchive's secure options, and the whole within the size limits (docs/limits.md).
#pragma once

#include <vu/project/package.h>

#include <cstdint>
#include <string>

namespace vu {
namespace project {
namespace detail {

// Unpacks `package` (of `packageBytes` bytes) into `into`, an existing real directory
// (no link in its path), reading only the formats `format` allows; returns the format
// found. Throws ProjectError: "<package> is not a package: <reason>" for what is no
// sound archive, "<package> is refused: <reason>" beyond a limit. What was written so far
// stays in `into`; the caller removes it.
ArchiveFormat unpackInto(const std::string& package, const std::string& into,
                         std::uint64_t packageBytes, ArchiveFormat format);

}  // namespace detail
}  // namespace project
}  // namespace vu
