// How the file server's listener rides out a burst of failing accepts (no descriptor
// left, no memory for a socket, a connection reset before it was taken): it waits a
// little longer after each failure, up to a second, logs the burst once when it begins
// and once when a connection is accepted again, and never gives up.
//
//   AcceptBackOff backOff;
//   accepted:   backOff.succeeded();
//   failed:     sleep backOff.failed(errno) milliseconds, then accept again
#pragma once

#include <string>

namespace ZR {
namespace detail {

class AcceptBackOff {
public:
  static constexpr int kFirstDelayMs = 10;
  static constexpr int kLongestDelayMs = 1000;

  // Records a failed accept with its errno; returns how long to wait before the next one
  // (10 ms, then twice as long each time, at most 1 s). The first failure of a burst is
  // logged with its reason.
  int failed(int error);

  // Records an accepted connection; ends a burst (logged with the number of failures).
  void succeeded();

  // Failed accepts since the last accepted connection.
  long failures() const { return fFailures; }

private:
  long fFailures = 0;
  int fDelayMs = 0;
};

}  // namespace detail
}  // namespace ZR
