#include <vu/log.h>
#include <vu/settings.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace vu {
namespace settings {

std::uint64_t wholeNumber(const char* name, std::uint64_t fallback, std::uint64_t smallest,
                          std::uint64_t largest) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') {
    return fallback;
  }
  char* end = nullptr;
  errno = 0;
  const unsigned long long parsed = std::strtoull(text, &end, 10);
  if (*text >= '0' && *text <= '9' && *end == '\0' && errno == 0 && parsed >= smallest &&
      parsed <= largest) {
    return parsed;
  }
  vu::log::write(vu::log::warning, "vu.settings", "wholeNumber",
                 std::string(name) + " is not a whole number from " + std::to_string(smallest) +
                     " to " + std::to_string(largest) + ": \"" + text + "\"; it stays " +
                     std::to_string(fallback));
  return fallback;
}

std::uint64_t positiveNumber(const char* name, std::uint64_t fallback, std::uint64_t largest) {
  return wholeNumber(name, fallback, 1, largest);
}

std::string text(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::string(value) : fallback;
}

}  // namespace settings
}  // namespace vu
