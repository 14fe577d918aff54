#include "zrrequestdeadline.h"

#include <vu/settings.h>

#include <algorithm>
#include <atomic>
#include <limits>

namespace ZR {
namespace detail {
namespace {

// Written by loadRequestTimeLimits (a server's constructor), read by listener threads.
std::atomic<int> gHeaderSeconds{RequestTimeLimits::kDefaultHeaderSeconds};
std::atomic<std::uint64_t> gBodyBytesPerSecond{RequestTimeLimits::kDefaultBodyBytesPerSecond};

}  // namespace

void loadRequestTimeLimits() {
  gHeaderSeconds = static_cast<int>(vu::settings::positiveNumber(
      "TUQVU_FILE_HEADER_DEADLINE_S", RequestTimeLimits::kDefaultHeaderSeconds, 86400));
  gBodyBytesPerSecond = vu::settings::positiveNumber("TUQVU_FILE_BODY_MIN_RATE",
                                                     RequestTimeLimits::kDefaultBodyBytesPerSecond,
                                                     std::uint64_t{1} << 40);
}

RequestTimeLimits requestTimeLimits() {
  RequestTimeLimits limits;
  limits.headerSeconds = gHeaderSeconds.load();
  limits.bodyBytesPerSecond = gBodyBytesPerSecond.load();
  return limits;
}

void RequestDeadline::startHeaders() {
  fDeadline = Clock::now() + std::chrono::seconds(requestTimeLimits().headerSeconds);
}

void RequestDeadline::startBody(std::uint64_t length) {
  const RequestTimeLimits limits = requestTimeLimits();
  const std::uint64_t bodySeconds = length / limits.bodyBytesPerSecond;
  // Bounded so that the sum stays far inside the clock's range.
  fDeadline = Clock::now() + std::chrono::seconds(limits.headerSeconds) +
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
