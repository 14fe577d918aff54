#include <tuqvu/broker/acceptfailures.h>

namespace tuqvu {
namespace broker {

namespace {
constexpr std::chrono::seconds kReportInterval(1);
}

std::optional<std::string> AcceptFailures::failed(const std::string& reason,
                                                  Clock::time_point now) {
  ++fInBurst;
  ++fSinceReport;
  if (fInBurst == 1) {
    fReportedAt = now;
    fSinceReport = 0;
    return "accepting connections failed: " + reason + "; retrying until it works again";
  }
  if (now - fReportedAt < kReportInterval) {
    return std::nullopt;
  }
  const long count = fSinceReport;
  fReportedAt = now;
  fSinceReport = 0;
  return "accepting connections still fails: " + reason + " (" + std::to_string(count) +
         " failed attempts in the last " +
         std::to_string(std::chrono::duration_cast<std::chrono::seconds>(kReportInterval).count()) +
         " s or more, " + std::to_string(fInBurst) + " in all)";
}

std::optional<std::string> AcceptFailures::accepted() {
  if (fInBurst == 0) {
    return std::nullopt;
  }
  const long count = fInBurst;
  fInBurst = 0;
  fSinceReport = 0;
  return "accepting connections again after " + std::to_string(count) + " failed attempts";
}

}  // namespace broker
}  // namespace tuqvu
