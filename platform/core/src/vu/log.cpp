#include <vu/log.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace vu {
namespace log {
namespace {

std::atomic<int> gMaxLevel{4};

// Guards the sink, and serialises delivery so lines never interleave.
std::mutex& sinkMutex() {
  static std::mutex mutex;
  return mutex;
}
Sink& currentSink() {
  static Sink sink;
  return sink;
}

}  // namespace

std::string timestamp(std::chrono::system_clock::time_point time) {
  const auto since = time.time_since_epoch();
  const std::time_t seconds = std::chrono::duration_cast<std::chrono::seconds>(since).count();
  const int millis =
      static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(since).count() % 1000);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, millis);
  return stamp;
}

std::string format(const Message& message) {
  return timestamp(message.time) + " " + std::to_string(message.level) + " " + message.category +
         " " + message.function + ": " + message.text;
}

void writeToStderr(const Message& message) {
  const std::string line = format(message) + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

void write(int level, const std::string& category, const std::string& function,
           const std::string& text) {
  if (level > gMaxLevel.load(std::memory_order_relaxed)) {
    return;
  }
  const Message message{std::chrono::system_clock::now(), level, category, function, text};
  std::lock_guard<std::mutex> lock(sinkMutex());
  if (currentSink()) {
    currentSink()(message);
    return;
  }
  writeToStderr(message);
}

void setMaxLevel(int level) {
  gMaxLevel.store(level);
}
int maxLevel() {
  return gMaxLevel.load();
}

void setSink(Sink sink) {
  std::lock_guard<std::mutex> lock(sinkMutex());
  currentSink() = std::move(sink);
}

}  // namespace log
}  // namespace vu
