// How a burst of failing accepts (no descriptor left, a connection reset before it was
// taken) is reported: the first failure at once, then at most one line a second saying
// how many failed meanwhile, and one line when a connection is accepted again. A
// descriptor shortage lasts as long as its cause; a line per retry would flood the log.
//
//   AcceptFailures failures;
//   if (auto line = failures.failed(error.message(), Clock::now())) log(*line);
//   if (auto line = failures.accepted()) log(*line);
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
  // Ends a burst; the line to log when there was one.
  std::optional<std::string> accepted();

private:
  long fInBurst = 0;          // failures since the last accepted connection
  long fSinceReport = 0;      // failures not yet reported
  Clock::time_point fReportedAt;
};

}  // namespace broker
}  // namespace tuqvu
