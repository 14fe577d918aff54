// How a shortage that makes accepts fail (no descriptor left, a connection reset before
// it was taken) is reported: at most one line a second. The first failure is reported at
// once, later ones once a second with how many failed meanwhile, and the end of the
// shortage by the first accept a second or more after the last line. A shortage lasts as
// long as its cause and often lets one accept through now and then; a line per retry or
// per such flap would flood the log.
//
//   AcceptFailures failures;
//   if (auto line = failures.failed(error.message(), Clock::now())) log(*line);
//   if (auto line = failures.accepted(Clock::now())) log(*line);
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace tuqvu {
namespace broker {

class AcceptFailures {
public:
  using Clock = std::chrono::steady_clock;

  // Counts one failed accept; the line to log, if one is due.
  std::optional<std::string> failed(const std::string& reason, Clock::time_point now);
  // Counts one accepted connection; the line that ends a shortage, if one is due.
  std::optional<std::string> accepted(Clock::time_point now);

private:
  bool due(Clock::time_point now) const;

  long fInShortage = 0;    // failures since the shortage began
  long fUnreported = 0;    // failures not yet in a line
  bool fReported = false;  // whether any line was logged yet
  Clock::time_point fReportedAt;
};

}  // namespace broker
}  // namespace tuqvu
