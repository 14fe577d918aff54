#include <vu/text.h>

#include <algorithm>
#include <charconv>
#include <system_error>

namespace vu {
namespace text {

bool holdsControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const unsigned char byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
  });
}

bool isAllDigits(std::string_view text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::optional<std::uint64_t> wholeNumber(std::string_view text, std::uint64_t largest) {
  if (!isAllDigits(text)) return std::nullopt;
  std::uint64_t number = 0;
  const char* end = text.data() + text.size();
  const std::from_chars_result read = std::from_chars(text.data(), end, number);
  if (read.ec != std::errc() || read.ptr != end || number > largest) return std::nullopt;
  return number;
}

std::string asciiLowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

}  // namespace text
}  // namespace vu
