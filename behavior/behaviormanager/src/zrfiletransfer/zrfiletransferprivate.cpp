// The listening side of the file-transfer server: port probe, context set-up, and the
// listener thread that serves one connection at a time.
#include "zrfiletransferprivate.h"

#include <netinet/in.h>
#include <poll.h>
#include <stdsoap2.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vu/log.h>
#include <vu/os.h>
#include <zr/zrerror.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "zracceptbackoff.h"
#include "zrhttphandlers.h"
#include "zrhttpreply.h"

namespace ZR {
namespace {

// Send and receive time-outs of a connection, in seconds: an idle client is dropped
// after this long and the next one is served.
constexpr int kIoTimeout = 15;
// soap_accept returns at least this often (seconds), so the listener sees the stop flag.
constexpr int kAcceptTimeout = 1;
constexpr int kBacklog = 1000;
// Connections accepted ahead of their turn, at most: the rest wait in the kernel's queue.
constexpr std::size_t kMaxPending = 128;
// How long the listener waits, while no pending connection can be served yet, before it
// looks again (a silent connection's time may have run out).
constexpr int kPendingPollMs = 50;
// Binds tried when the probed port is taken by another process before the server binds it.
constexpr int kBindAttempts = 16;

void finalise(soap* context) {
  soap_destroy(context);
  soap_end(context);
  soap_done(context);
}

}  // namespace

ZRFileTransferPrivate::ZRFileTransferPrivate(std::unique_ptr<const ZRFileServerMetrics> metrics)
    : fServer(nullptr),
      fStop(0),
      fPort(0),
      fLimits(detail::ServerLimits::fromEnvironment()),
      fMetrics(std::move(metrics)) {}

ZRFileTransferPrivate::~ZRFileTransferPrivate() {
  stop();
  if (fServer != nullptr) {
    soap_free(fServer);
  }
}

int ZRFileTransferPrivate::findFreePort(int port) {
  sockaddr_in address;
  std::memset(&address, 0, sizeof(address));
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  address.sin_port = htons(static_cast<uint16_t>(port & 0xFFFF));

  const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
  // The server binds with SO_REUSEADDR; probing the same way keeps the connections of a
  // previous run still in TIME_WAIT from pushing it to another port.
  const int reuse = 1;
  ::setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
  for (;;) {
    const int bound = ::bind(probe, reinterpret_cast<const sockaddr*>(&address), 16);
    if (port > 65536 || bound == 0) {
      break;
    }
    ++port;
    address.sin_port = htons(static_cast<uint16_t>(port & 0xFFFF));
  }
  const int closed = ::close(probe);
  if (closed != 0) {
    vu::log::write(vu::log::error, "core.common.network", "findFreePort",
                   "findFreePort Socket Close Last Error: " + std::to_string(closed) + "\n");
  }
  return port;
}

int ZRFileTransferPrivate::newServer(const std::string& host, int port) {
  fPort = findFreePort(port);
  // The probe frees the port again before the server binds it, so another process that
  // probed at the same moment may take it first: then look again above it.
  for (int attempt = 1;; ++attempt) {
    fServer = newContext();
    const SOAP_SOCKET socket = soap_bind(fServer, host.c_str(), fPort, kBacklog);
    if (soap_valid_socket(socket)) {
      return socket;
    }
    // An address this machine does not have fails on every port alike.
    const bool addressUnusable =
        fServer->errnum == EADDRNOTAVAIL || fServer->errnum == EAFNOSUPPORT;
    finalise(fServer);
    soap_free(fServer);
    fServer = nullptr;
    if (addressUnusable || attempt == kBindAttempts || fPort >= 65535) {
      throw ZRError("ZRFileTransfer", "Run server",
                    "Port " + std::to_string(port) + " is not free. Could not bind to this port.",
                    "behavior/behaviormanager/src/zrfiletransfer", __LINE__);
    }
    fPort = findFreePort(fPort + 1);
  }
}

soap* ZRFileTransferPrivate::newContext() {
  soap* context = soap_new();
  soap_init2(context, SOAP_IO_KEEPALIVE, 0);
  // Naming the table also links the generated runtime (zrgsoaptables.cpp) into the program.
  soap_set_namespaces(context, namespaces);
  context->send_timeout = kIoTimeout;
  context->recv_timeout = kIoTimeout;
  context->accept_timeout = kAcceptTimeout;
  context->max_keep_alive = -1;
  context->fget = httpGet;
  context->fput = httpPut;
  context->fdel = httpDel;
  // A client that disconnects during a reply must not raise SIGPIPE in the process.
  context->socket_flags = MSG_NOSIGNAL;
  context->bind_flags = SO_REUSEADDR;
  return context;
}

void ZRFileTransferPrivate::start() {
  // Cleared before the thread exists, so that a stop() issued right after start() is
  // never lost.
  fStop = 0;
  fThread = boost::thread(&ZRFileTransferPrivate::listenRequest, this);
}

void ZRFileTransferPrivate::stop() {
  fStop = 1;
  if (fThread.joinable()) {
    fThread.join();
  }
}

void ZRFileTransferPrivate::listenRequest() {
  // A failing accept (no descriptor or memory left, a connection reset while queued) is
  // a passing state of the machine, not the end of the service: the listener waits and
  // tries again, so the robot is reachable as soon as the flood is over.
  detail::AcceptBackOff backOff;
  detail::PendingConnections pending(kMaxPending);
  while (fStop == 0) {
    if (pending.empty()) {
      // Waits up to the accept time-out.
      if (std::optional<detail::AcceptedConnection> accepted = acceptOne(backOff)) {
        pending.add(*accepted);
      }
      continue;
    }
    while (!pending.full() && clientsArriving()) {
      std::optional<detail::AcceptedConnection> accepted = acceptOne(backOff);
      if (!accepted) break;
      pending.add(*accepted);
    }
    if (std::optional<detail::AcceptedConnection> next = pending.takeNext(clientsArriving())) {
      serve(*next, [this, &pending] { return !pending.empty() || clientsArriving(); });
    } else {
      pending.waitForActivity(fServer->master, kPendingPollMs);
    }
  }
  finalise(fServer);
}

std::optional<detail::AcceptedConnection> ZRFileTransferPrivate::acceptOne(
    detail::AcceptBackOff& backOff) {
  const SOAP_SOCKET accepted = soap_accept(fServer);
  if (!soap_valid_socket(accepted)) {
    if (fServer->errnum != 0) {
      pause(backOff.failed(fServer->errnum));  // a real accept error, not the time-out
    }
    return std::nullopt;
  }
  backOff.succeeded();
  // The listening context describes the last connection accepted; the socket is the
  // caller's from here on.
  detail::AcceptedConnection connection;
  connection.socket = accepted;
  connection.host = fServer->host;
  connection.port = fServer->port;
  connection.ip = fServer->ip;
  std::memcpy(connection.ip6, fServer->ip6, sizeof(connection.ip6));
  std::memcpy(&connection.peer, &fServer->peer, sizeof(connection.peer));
  connection.peerLength = fServer->peerlen;
  fServer->socket = SOAP_INVALID_SOCKET;
  return connection;
}

soap* ZRFileTransferPrivate::contextFor(const detail::AcceptedConnection& accepted) {
  soap* connection = soap_copy(fServer);
  if (connection == nullptr) return nullptr;
  connection->socket = accepted.socket;
  std::snprintf(connection->host, sizeof(connection->host), "%s", accepted.host.c_str());
  connection->port = accepted.port;
  connection->ip = accepted.ip;
  std::memcpy(connection->ip6, accepted.ip6, sizeof(connection->ip6));
  std::memcpy(&connection->peer, &accepted.peer, sizeof(connection->peer));
  connection->peerlen = accepted.peerLength;
  std::memset(connection->buf, 0, sizeof(connection->buf));
  connection->recv_timeout = kIoTimeout;
  connection->send_timeout = kIoTimeout;
  return connection;
}

bool ZRFileTransferPrivate::clientsArriving() const {
  pollfd waiting{fServer->master, POLLIN, 0};
  return ::poll(&waiting, 1, 0) > 0;
}

void ZRFileTransferPrivate::release(soap* connection) {
  finalise(connection);
  soap_free(connection);
}

void ZRFileTransferPrivate::pause(int milliseconds) const {
  // In short steps, so that stop() is not kept waiting by a long pause.
  constexpr int kStepMs = 50;
  for (int waited = 0; waited < milliseconds && fStop == 0; waited += kStepMs) {
    vu::os::msleep(static_cast<unsigned int>(std::min(kStepMs, milliseconds - waited)));
  }
}

void ZRFileTransferPrivate::serve(const detail::AcceptedConnection& accepted,
                                  std::function<bool()> othersWaiting) {
  soap* connection = contextFor(accepted);
  if (connection == nullptr) {
    vu::log::write(vu::log::error, detail::kNetworkLog, "serve",
                   "No memory to serve the connection of " + accepted.host + " port " +
                       std::to_string(accepted.port) + "; closing it");
    ::close(accepted.socket);
    return;
  }
  run(connection, std::move(othersWaiting));
}

void ZRFileTransferPrivate::run(soap* connection, std::function<bool()> othersWaiting) {
  ZR::soap_serve(connection, fLimits, std::move(othersWaiting), fMetrics.get());
  release(connection);
}

}  // namespace ZR
