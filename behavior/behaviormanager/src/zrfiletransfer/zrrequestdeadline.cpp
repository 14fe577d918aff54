#include "zrrequestdeadline.h"

#include <algorithm>
#include <limits>

namespace ZR {
namespace detail {

RequestDeadline::RequestDeadline(const ServerLimits& limits)
    : fHeaderTime(limits.headerSeconds), fBodyBytesPerSecond(limits.bodyBytesPerSecond) {}

void RequestDeadline::startHeaders() {
  fDeadline = Clock::now() + fHeaderTime;
}

void RequestDeadline::startBody(std::uint64_t length) {
  const std::uint64_t bodySeconds = length / fBodyBytesPerSecond;
  // Bounded so that the sum stays far inside the clock's range.
  fDeadline = Clock::now() + fHeaderTime +
              std::chrono::seconds(std::min<std::uint64_t>(bodySeconds, 365ULL * 86400));
}

long long RequestDeadline::millisecondsLeft() const {
  if (fDeadline == Clock::time_point::max()) {
    return std::numeric_limits<long long>::max();
  }
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(fDeadline - Clock::now()).count();
  return std::max<long long>(left, 0);
}

}  // namespace detail
}  // namespace ZR
