// ZRFileTransferPrivate — the server behind ZRFileTransfer: the listening gSOAP context,
// the stop flag, the bound port and the listener thread that serves one connection at a
// time. Internal to the file-transfer library (tests use it to reach findFreePort).
#pragma once

#include <zr/zrfileservermetrics.h>

#include <atomic>
#include <boost/thread/thread.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "zrpendingconnections.h"
#include "zrserverlimits.h"

struct soap;

namespace ZR {
namespace detail {
class AcceptBackOff;
}

class ZRFileTransferPrivate {
public:
  // Counts requests and bytes in `metrics` unless it is null.
  explicit ZRFileTransferPrivate(std::unique_ptr<const ZRFileServerMetrics> metrics = nullptr);
  ~ZRFileTransferPrivate();

  ZRFileTransferPrivate(const ZRFileTransferPrivate&) = delete;
  ZRFileTransferPrivate& operator=(const ZRFileTransferPrivate&) = delete;

  // The first port at or above `port` to which a TCP socket can be bound.
  int findFreePort(int port);

  // Creates, configures and binds the listening context on `host` and the first free
  // port at or above `port`; returns the bound socket. Throws ZRError when binding fails.
  int newServer(const std::string& host, int port);
  // A gSOAP context configured for this server (time-outs, hooks, flags), not yet bound.
  soap* newContext();

  // Starts the listener thread. Call once, after newServer.
  void start();

  // Sets the stop flag and joins the listener (returns within the 1 s accept time-out
  // when idle, or when the connection being served ends).
  void stop();

  // The listener thread's body: accepts connections and serves them one at a time until
  // stopped, those whose request has arrived first (see PendingConnections). Accept
  // errors do not end it: it backs off (see AcceptBackOff) and accepts again.
  void listenRequest();

  // Sleeps about `milliseconds`, or less when the stop flag is set meanwhile.
  void pause(int milliseconds) const;

  // Serves one accepted connection in a context of its own, then closes it.
  // `othersWaiting` tells whether other clients wait meanwhile (empty: none are watched).
  void serve(const detail::AcceptedConnection& accepted, std::function<bool()> othersWaiting = {});
  // Serves a connection whose context is ready, then closes and releases it.
  void run(soap* connection, std::function<bool()> othersWaiting = {});
  // A copy of the listening context set up to serve `accepted`; null without memory.
  soap* contextFor(const detail::AcceptedConnection& accepted);

  // Accepts one connection, waiting up to the accept time-out; empty on a time-out or an
  // error (after backing off).
  std::optional<detail::AcceptedConnection> acceptOne(detail::AcceptBackOff& backOff);
  // Whether the kernel holds connections for the listener to accept.
  bool clientsArriving() const;
  // Closes and frees an accepted connection.
  static void release(soap* connection);

  // The listening context: null until newServer runs. Finalised by the listener thread
  // when it ends, released by the destructor.
  soap* fServer;
  // Set by the owner's thread to stop the listener; read by the listener thread.
  std::atomic<int> fStop;
  // The port chosen by findFreePort, 0 until then.
  int fPort;
  // The limits every connection is held to, read from the environment when this server
  // is made; fixed from then on.
  const detail::ServerLimits fLimits;
  // The counts of this server in the broker's metrics; null: not counted.
  const std::unique_ptr<const ZRFileServerMetrics> fMetrics;
  // The listener thread (not-a-thread until start()).
  boost::thread fThread;
};

}  // namespace ZR
