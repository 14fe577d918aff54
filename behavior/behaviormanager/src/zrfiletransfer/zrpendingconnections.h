// Connections accepted and not yet served, in the order they came. The server serves one
// connection at a time; the others wait here rather than in the kernel's queue, where a
// connection that has sent nothing cannot be told from one whose request is there. Those
// that have waited kSilentMs without sending anything are closed, all at once, so what a
// client with a request waits for does not grow with the number of silent connections.
//
//   PendingConnections pending(kCapacity);
//   pending.add(connection);                      // an accepted gSOAP context, now owned
//   if (soap* next = pending.takeNext(arriving))  // null: nobody to serve yet
//     serve(next);
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>

struct soap;

namespace ZR {
namespace detail {

class PendingConnections {
public:
  using Clock = std::chrono::steady_clock;
  // How long a connection may wait for its turn without sending anything.
  static constexpr int kSilentMs = 200;

  // Frees every connection still held; `release` is how (closing the socket included).
  PendingConnections(std::size_t capacity, void (*release)(soap*));
  ~PendingConnections();
  PendingConnections(const PendingConnections&) = delete;
  PendingConnections& operator=(const PendingConnections&) = delete;

  bool full() const { return fWaiting.size() >= fCapacity; }
  bool empty() const { return fWaiting.empty(); }
  std::size_t size() const { return fWaiting.size(); }

  void add(soap* connection);

  // The connection to serve next: the first whose request has begun to arrive (or that
  // the client closed); one that has sent nothing only when it is alone, has waited less
  // than kSilentMs and no other is `arriving` (it then waits for its request as usual).
  // First closes the connections silent for kSilentMs. Null when none is to be served yet.
  soap* takeNext(bool arriving);

  // Waits up to `milliseconds` for a pending connection to send something, or for
  // `listener` (-1: none) to have a connection to accept.
  void waitForActivity(int listener, int milliseconds) const;

private:
  struct Waiting {
    soap* connection;
    Clock::time_point since;
  };

  const std::size_t fCapacity;
  void (*const fRelease)(soap*);
  std::deque<Waiting> fWaiting;  // used by the listener thread alone
};

}  // namespace detail
}  // namespace ZR
