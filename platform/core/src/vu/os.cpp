#include <pwd.h>
#include <unistd.h>
#include <vu/os.h>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace vu {
namespace os {

std::string home() {
  if (const char* value = std::getenv("HOME"); value != nullptr && *value != '\0') {
    return value;
  }
  if (const passwd* entry = getpwuid(getuid()); entry != nullptr && entry->pw_dir != nullptr) {
    return entry->pw_dir;
  }
  return "/";
}

std::string tmp() {
  if (const char* value = std::getenv("TMPDIR"); value != nullptr && *value != '\0') {
    return value;
  }
  return "/tmp";
}

std::FILE* fopen(const char* path, const char* mode) {
  return std::fopen(path, mode);
}

void msleep(unsigned int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace os
}  // namespace vu
