// Reads a whole file into a string.
#pragma once

#include <cstddef>
#include <string>

namespace ZR {
namespace detail {

// False when the file does not exist. std::system_error for any other failure, and
// (EFBIG) for a file larger than maxBytes.
bool readWholeFile(const std::string& path, std::string& content, std::size_t maxBytes = 64u << 20);

}  // namespace detail
}  // namespace ZR
