// How long one request may take to arrive. The server serves one connection at a time,
// so a client that sends slowly would hold every other client back: the headers of a
// request must all arrive within a deadline, and a body at a minimum rate.
//
//   RequestDeadline deadline;
//   deadline.startHeaders();             // before a request is read
//   deadline.startBody(contentLength);   // when its body is about to be read
//   deadline.millisecondsLeft();         // before each read; 0: the time is up
//
// The limits come from the environment, read by loadRequestTimeLimits() (each
// ZRFileTransfer constructor calls it):
//   TUQVU_FILE_HEADER_DEADLINE_S   seconds for the request line and headers (default 15)
//   TUQVU_FILE_BODY_MIN_RATE       bytes per second a body must keep up (default 32768);
//                                  a body of n bytes may take the header deadline plus
//                                  n / rate seconds.
// A value that is not a positive whole number is logged and the default kept.
#pragma once

#include <chrono>
#include <cstdint>

namespace ZR {
namespace detail {

struct RequestTimeLimits {
  static constexpr int kDefaultHeaderSeconds = 15;
  static constexpr std::uint64_t kDefaultBodyBytesPerSecond = 32768;

  int headerSeconds = kDefaultHeaderSeconds;
  std::uint64_t bodyBytesPerSecond = kDefaultBodyBytesPerSecond;
};

void loadRequestTimeLimits();
RequestTimeLimits requestTimeLimits();

class RequestDeadline {
public:
  using Clock = std::chrono::steady_clock;

  // The headers of the next request must arrive within the header deadline from now.
  void startHeaders();
  // A body of `length` bytes must arrive within the header deadline plus length / rate.
  void startBody(std::uint64_t length);

  // What is left of the deadline, 0 once it has passed.
  long long millisecondsLeft() const;

  bool passed() const { return Clock::now() >= fDeadline; }

private:
  Clock::time_point fDeadline = Clock::time_point::max();
};

}  // namespace detail
}  // namespace ZR
