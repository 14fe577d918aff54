// How long one request may take. The server serves one connection at a time, so a
// client that sends or reads slowly would hold every other client back: the headers of a
// request must all arrive within a deadline, a body at a minimum rate, and a reply must
// be taken at a minimum rate.
//
//   RequestDeadline deadline(limits);    // the server's limits (zrserverlimits.h)
//   deadline.startHeaders();             // before a request is read
//   deadline.startBody(contentLength);   // when its body is about to be read
//   deadline.millisecondsLeft();         // before each read; 0: the time is up
#pragma once

#include <chrono>
#include <cstdint>

#include "zrserverlimits.h"

namespace ZR {
namespace detail {

class RequestDeadline {
public:
  using Clock = std::chrono::steady_clock;

  explicit RequestDeadline(const ServerLimits& limits);

  // The headers of the next request must arrive within the header deadline from now.
  void startHeaders();
  // A body of `length` bytes must arrive within the header deadline plus length / rate.
  void startBody(std::uint64_t length);
  // A reply of `length` bytes must be taken within the header deadline plus
  // length / the send rate.
  void startSending(std::uint64_t length);
  // Whether the headers of a request are awaited (startHeaders was the last start).
  bool awaitingHeaders() const { return fAwaitingHeaders; }
  // When the headers began to be awaited.
  Clock::time_point headersStarted() const { return fHeadersStarted; }

  // What is left of the deadline, 0 once it has passed.
  long long millisecondsLeft() const;

  bool passed() const { return Clock::now() >= fDeadline; }

private:
  std::chrono::seconds fHeaderTime;
  std::uint64_t fBodyBytesPerSecond;
  std::uint64_t fSendBytesPerSecond;
  Clock::time_point fDeadline = Clock::time_point::max();
  Clock::time_point fHeadersStarted;
  bool fAwaitingHeaders = false;
};

}  // namespace detail
}  // namespace ZR
