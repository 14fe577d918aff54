#include "zrpendingconnections.h"

#include <poll.h>
#include <unistd.h>
#include <vu/log.h>

#include <string>
#include <vector>

#include "zrhttpreply.h"

namespace ZR {
namespace detail {
namespace {

// Something to read, or the client's end closed: either way serving it is quick.
bool hasSentSomething(const AcceptedConnection& connection) {
  pollfd ready{connection.socket, POLLIN, 0};
  return ::poll(&ready, 1, 0) > 0 && (ready.revents & (POLLIN | POLLHUP | POLLERR)) != 0;
}

}  // namespace

PendingConnections::~PendingConnections() {
  for (const Waiting& waiting : fWaiting) ::close(waiting.connection.socket);
}

void PendingConnections::add(const AcceptedConnection& connection) {
  fWaiting.push_back({connection, Clock::now()});
}

std::optional<AcceptedConnection> PendingConnections::takeNext(bool arriving) {
  const Clock::time_point now = Clock::now();
  std::size_t closed = 0;
  for (auto waiting = fWaiting.begin(); waiting != fWaiting.end();) {
    const bool silentTooLong = now - waiting->since >= std::chrono::milliseconds(kSilentMs) &&
                               !hasSentSomething(waiting->connection);
    if (!silentTooLong) {
      ++waiting;
      continue;
    }
    ::close(waiting->connection.socket);
    waiting = fWaiting.erase(waiting);
    ++closed;
  }
  if (closed > 0) {
    vu::log::write(vu::log::info, kNetworkLog, "accept",
                   "Closed " + std::to_string(closed) +
                       " connection(s) that sent nothing while waiting for their turn");
  }
  for (auto waiting = fWaiting.begin(); waiting != fWaiting.end(); ++waiting) {
    if (hasSentSomething(waiting->connection)) {
      AcceptedConnection next = std::move(waiting->connection);
      fWaiting.erase(waiting);
      return next;
    }
  }
  if (fWaiting.size() == 1 && !arriving) {
    AcceptedConnection next = std::move(fWaiting.front().connection);
    fWaiting.pop_front();
    return next;
  }
  return std::nullopt;
}

void PendingConnections::waitForActivity(int listener, int milliseconds) const {
  std::vector<pollfd> watched;
  watched.reserve(fWaiting.size() + 1);
  if (listener >= 0) watched.push_back({listener, POLLIN, 0});
  for (const Waiting& waiting : fWaiting) watched.push_back({waiting.connection.socket, POLLIN, 0});
  ::poll(watched.data(), watched.size(), milliseconds);
}

}  // namespace detail
}  // namespace ZR
