// vu::log — the middleware's logging. A message has a level, a category, the name
// of the function that wrote it and a text:
//
//   vu::log::write(vu::log::warning, "behavior.manager", "getBehaviorNames",
//                  "getBehaviorNames is deprecated.");
//
// The default sink writes one line per message on stderr,
//   "2026-11-21T10:00:00.123Z 3 behavior.manager getBehaviorNames: getBehaviorNames is deprecated."
// and drops messages above the maximum level. Tests install a capturing sink.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace vu {
namespace log {

enum Level {
  fatal = 1,
  error = 2,
  warning = 3,
  info = 4,
  verbose = 5,
  debug = 6,
};

struct Message {
  std::chrono::system_clock::time_point time;
  int level;
  std::string category;
  std::string function;
  std::string text;
};

using Sink = std::function<void(const Message&)>;

// Delivers a message to the sink when its level is at most maxLevel(). Thread-safe.
void write(int level, const std::string& category, const std::string& function,
           const std::string& text);

// Messages with a higher level are dropped before they reach any sink. Default 4.
void setMaxLevel(int level);
int maxLevel();

// Replaces the sink; an empty function restores the stderr sink. The sink is called
// with the log's own lock held, one message at a time.
void setSink(Sink sink);

// "TIMESTAMP LEVEL CATEGORY FUNCTION: TEXT", the stderr sink's line without its end.
std::string format(const Message& message);

// The TIMESTAMP of format(): UTC, ISO 8601 with milliseconds, "2026-11-21T10:00:00.123Z".
std::string timestamp(std::chrono::system_clock::time_point time);

// What the default sink does: the formatted line on stderr. For a sink that also keeps
// or forwards messages.
void writeToStderr(const Message& message);

}  // namespace log
}  // namespace vu
