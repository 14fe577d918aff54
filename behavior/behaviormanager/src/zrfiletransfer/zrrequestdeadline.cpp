#include "zrrequestdeadline.h"

#include <algorithm>
#include <limits>

namespace ZR {
namespace detail {

namespace {

// The header time plus length / rate, bounded so that the sum stays far inside the
// clock's range.
RequestDeadline::Clock::time_point transferDeadline(std::chrono::seconds headerTime,
                                                    std::uint64_t length,
                                                    std::uint64_t bytesPerSecond) {
  const std::uint64_t seconds = length / bytesPerSecond;
  return RequestDeadline::Clock::now() + headerTime +
         std::chrono::seconds(std::min<std::uint64_t>(seconds, 365ULL * 86400));
}

}  // namespace

RequestDeadline::RequestDeadline(const ServerLimits& limits)
    : fHeaderTime(limits.headerSeconds),
      fBodyBytesPerSecond(limits.bodyBytesPerSecond),
      fSendBytesPerSecond(limits.sendBytesPerSecond) {}

void RequestDeadline::startHeaders() {
  fHeadersStarted = Clock::now();
  fDeadline = fHeadersStarted + fHeaderTime;
  fAwaitingHeaders = true;
}

void RequestDeadline::startBody(std::uint64_t length) {
  fDeadline = transferDeadline(fHeaderTime, length, fBodyBytesPerSecond);
  fAwaitingHeaders = false;
}

void RequestDeadline::startSending(std::uint64_t length) {
  fDeadline = transferDeadline(fHeaderTime, length, fSendBytesPerSecond);
  fAwaitingHeaders = false;
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
