// Connections accepted and not yet served, in the order they came. The server serves one
// connection at a time; the others wait here rather than in the kernel's queue, where a
// connection that has sent nothing cannot be told from one whose request is there. Those
// that have waited kSilentMs without sending anything are closed, all at once, so what a
// client with a request waits for does not grow with the number of silent connections.
// A waiting connection is its socket and its peer's address only: the serving context (a
// gSOAP copy with its 64 KiB buffer) is made when its turn comes, so a crowd of waiting
// connections costs a few hundred bytes each.
//
//   PendingConnections pending(kCapacity);
//   pending.add(accepted);                         // the socket is now owned
//   if (std::optional<AcceptedConnection> next = pending.takeNext(arriving))
//     serve(*next);                                // nullopt: nobody to serve yet
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>

namespace ZR {
namespace detail {

// An accepted socket and the peer as the accept saw it.
struct AcceptedConnection {
  int socket = -1;
  std::string host;  // the peer's numeric address
  int port = 0;
  unsigned int ip = 0;  // IPv4 address, host order; 0 for IPv6
  unsigned int ip6[4] = {0, 0, 0, 0};
  sockaddr_storage peer{};
  std::size_t peerLength = 0;
};

class PendingConnections {
public:
  using Clock = std::chrono::steady_clock;
  // How long a connection may wait for its turn without sending anything.
  static constexpr int kSilentMs = 200;

  // Closes every connection still held.
  explicit PendingConnections(std::size_t capacity) : fCapacity(capacity) {}
  ~PendingConnections();
  PendingConnections(const PendingConnections&) = delete;
  PendingConnections& operator=(const PendingConnections&) = delete;

  bool full() const { return fWaiting.size() >= fCapacity; }
  bool empty() const { return fWaiting.empty(); }
  std::size_t size() const { return fWaiting.size(); }

  void add(const AcceptedConnection& connection);

  // The connection to serve next: the first whose request has begun to arrive (or that
  // the client closed); one that has sent nothing only when it is alone, has waited less
  // than kSilentMs and no other is `arriving` (it then waits for its request as usual).
  // First closes the connections silent for kSilentMs. Empty when none is to be served yet.
  std::optional<AcceptedConnection> takeNext(bool arriving);

  // Waits up to `milliseconds` for a pending connection to send something, or for
  // `listener` (-1: none) to have a connection to accept.
  void waitForActivity(int listener, int milliseconds) const;

private:
  struct Waiting {
    AcceptedConnection connection;
    Clock::time_point since;
  };

  const std::size_t fCapacity;
  std::deque<Waiting> fWaiting;  // used by the listener thread alone
};

}  // namespace detail
}  // namespace ZR
