// Base64 (RFC 4648, standard alphabet, with padding): binary memory values in JSON,
// preference values that XML text cannot hold, HTTP Basic credentials.
//
//   std::string text = vu::base64::encode(bytes);
//   std::string back;
//   if (!vu::base64::decode(text, back)) ...   // not base64
#pragma once

#include <string>

namespace vu {
namespace base64 {

std::string encode(const std::string& bytes);
// False when the text is not base64 (wrong length, a character outside the alphabet, data
// after the padding); ASCII blanks and line ends in it are ignored.
bool decode(const std::string& text, std::string& bytes);

}  // namespace base64
}  // namespace vu
