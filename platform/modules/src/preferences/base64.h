// Base64 (RFC 4648, with padding) for preference values that XML text cannot hold.
#pragma once

#include <string>

namespace ZR {
namespace detail {

std::string base64Encode(const std::string& bytes);
// False when the text is not base64; ASCII whitespace in it is ignored.
bool base64Decode(const std::string& text, std::string& bytes);

}  // namespace detail
}  // namespace ZR
