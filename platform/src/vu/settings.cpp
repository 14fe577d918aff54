#include <vu/settings.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include <vu/log.h>

namespace vu {
namespace settings {

std::uint64_t positiveNumber(const char* name, std::uint64_t fallback, std::uint64_t largest) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') {
    return fallback;
  }
  char* end = nullptr;
  errno = 0;
  const unsigned long long parsed = std::strtoull(text, &end, 10);
  if (*text >= '0' && *text <= '9' && *end == '\0' && errno == 0 && parsed > 0 &&
      parsed <= largest) {
    return parsed;
  }
  vu::log::write(vu::log::warning, "vu.settings", "positiveNumber",
                 std::string(name) + " is not a whole number from 1 to " +
                     std::to_string(largest) + ": \"" + text + "\"; it stays " +
                     std::to_string(fallback));
  return fallback;
}

}  // namespace settings
}  // namespace vu
