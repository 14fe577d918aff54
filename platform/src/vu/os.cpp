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

namespace {
// Atomic because other threads may read it through msleepCounterOfThisThread.
thread_local std::atomic<unsigned long> tSleepCount{0};
}  // namespace

unsigned long msleepCountOnThisThread() {
  return tSleepCount.load();
}

const std::atomic<unsigned long>& msleepCounterOfThisThread() {
  return tSleepCount;
}

void msleep(unsigned int milliseconds) {
  ++tSleepCount;
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace os
}  // namespace vu
