#include <tuqvu/broker/acceptfailures.h>

namespace tuqvu {
namespace broker {

namespace {
constexpr std::chrono::seconds kReportInterval(1);
}

bool AcceptFailures::due(Clock::time_point now) const {
  return !fReported || now - fReportedAt >= kReportInterval;
}

std::optional<std::string> AcceptFailures::failed(const std::string& reason,
                                                  Clock::time_point now) {
  ++fInShortage;
  ++fUnreported;
  if (!due(now)) {
    return std::nullopt;
  }
  fReported = true;
  fReportedAt = now;
  const long count = fUnreported;
  fUnreported = 0;
  if (fInShortage == 1) {
    return "accepting connections failed: " + reason + "; retrying until it works again";
  }
  return "accepting connections still fails: " + reason + " (" + std::to_string(count) +
         " failed attempts since the last report, " + std::to_string(fInShortage) + " in all)";
}

std::optional<std::string> AcceptFailures::accepted(Clock::time_point now) {
  if (fInShortage == 0 || !due(now)) {
    return std::nullopt;
  }
  const long count = fInShortage;
  fInShortage = 0;
  fUnreported = 0;
  fReportedAt = now;
  return "accepting connections again after " + std::to_string(count) + " failed attempts";
}

}  // namespace broker
}  // namespace tuqvu
