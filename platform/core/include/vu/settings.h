// Settings an administrator gives the robot through the environment (the service's
// configuration file sets them; tests set them directly). A value that cannot be used is
// logged with the setting's name and the default stays in force: a typo never stops the
// robot, and never goes unnoticed.
//
//   const std::uint64_t limit = vu::settings::positiveNumber("TUQVU_FILE_PUT_MAX_BYTES",
//                                                           512ULL << 20);
#pragma once

#include <cstdint>
#include <limits>
#include <string>

namespace vu {
namespace settings {

// The whole number from `smallest` to `largest` in the environment variable `name`;
// `fallback` when the variable is unset or empty, and (logged at the warning level,
// category "vu.settings") when it holds anything else.
std::uint64_t wholeNumber(const char* name, std::uint64_t fallback, std::uint64_t smallest,
                          std::uint64_t largest = std::numeric_limits<std::uint64_t>::max());

// The same from 1 to `largest`.
std::uint64_t positiveNumber(const char* name, std::uint64_t fallback,
                             std::uint64_t largest = std::numeric_limits<std::uint64_t>::max());

// The text of the environment variable `name`; `fallback` when it is unset or empty.
std::string text(const char* name, const std::string& fallback = std::string());

}  // namespace settings
}  // namespace vu
