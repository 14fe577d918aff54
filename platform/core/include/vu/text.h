// Small questions asked of text from outside: names in requests, files and the kernel's
// tables.
//
//   if (vu::text::holdsControlCharacter(name)) refuse();
//   if (vu::text::isAllDigits(entry->d_name)) ...   // a process id in /proc
//   std::optional<std::uint64_t> port = vu::text::wholeNumber(text, 65535);
//   if (vu::text::asciiLowerCase(host) == "localhost") ...
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vu {
namespace text {

// Whether any byte is a control character (below 0x20, or 0x7f).
bool holdsControlCharacter(std::string_view text);

// Whether the text is not empty and holds only the ASCII digits 0-9.
bool isAllDigits(std::string_view text);

// The number a text of ASCII digits only (no sign, no blank) writes, if it is at most
// largest; nothing for an empty text, any other byte or a larger number.
std::optional<std::uint64_t> wholeNumber(std::string_view text, std::uint64_t largest);

// The text with the ASCII letters A-Z in lower case (host names, header values, keys);
// other bytes as they are.
std::string asciiLowerCase(std::string_view text);

}  // namespace text
}  // namespace vu
