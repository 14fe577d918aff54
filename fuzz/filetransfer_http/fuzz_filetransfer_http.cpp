// Fuzzes whole HTTP exchanges with the file server: the input is what a client sends on
// one connection (any number of requests, pipelined), fed through a socket pair to the
// server's own connection handler (ZRFileTransferPrivate::run, which runs ZR::soap_serve
// and the GET, PUT and DELETE hooks) in a temporary home. A client thread writes the
// input, closes its sending side and reads every reply until the server closes.
//
// After every input the sandbox proves that nothing outside the served roots was read,
// listed, written or deleted; then the roots are put back as they were. A crash, a leak
// or a connection that does not end (the fuzzer's time-out) is a finding too.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdsoap2.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zr/zrnetworkaccess.h>
#include <zrfiletransfer/zrfiletransferprivate.h>
#include <zrfiletransfer/zrhttphandlers.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "../common/sandbox.h"

namespace {

[[noreturn]] void die(const char* what) {
  std::fprintf(stderr, "http harness: %s: %s\n", what, std::strerror(errno));
  std::abort();
}

// Writes all of `request` and reads until the peer closes; returns the bytes read.
std::size_t converse(int fd, const std::string& request) {
  std::size_t written = 0;
  std::size_t received = 0;
  bool sending = true;
  if (request.empty()) {
    ::shutdown(fd, SHUT_WR);
    sending = false;
  }
  char buffer[65536];
  for (;;) {
    pollfd p{fd, static_cast<short>(POLLIN | (sending ? POLLOUT : 0)), 0};
    if (::poll(&p, 1, -1) < 0) {
      if (errno == EINTR) continue;
      die("poll");
    }
    if (sending && (p.revents & (POLLOUT | POLLERR | POLLHUP))) {
      const ssize_t n = ::send(fd, request.data() + written, request.size() - written,
                               MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) written += static_cast<std::size_t>(n);
      if (n < 0 && errno != EAGAIN && errno != EINTR) written = request.size();  // peer gone
      if (written == request.size()) {
        ::shutdown(fd, SHUT_WR);
        sending = false;
      }
    }
    if (p.revents & (POLLIN | POLLHUP | POLLERR)) {
      const ssize_t n = ::recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return received;
      if (n > 0) received += static_cast<std::size_t>(n);
    }
  }
}

// The server side, set up the way ZRFileTransferPrivate::newServer sets up the contexts
// it accepts connections with.
soap* newConnection(int fd) {
  soap* connection = soap_new();
  if (connection == nullptr) die("soap_new");
  soap_init2(connection, SOAP_IO_KEEPALIVE, 0);
  connection->send_timeout = 15;
  connection->recv_timeout = 15;
  connection->max_keep_alive = -1;
  connection->fget = ZR::httpGet;
  connection->fput = ZR::httpPut;
  connection->fdel = ZR::httpDel;
  connection->socket_flags = MSG_NOSIGNAL;
  connection->socket = fd;
  return connection;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::silenceLog();
  fuzzsupport::Sandbox::instance();
  ZR::fillContentTypeTable();
  // The seed inputs call the robot "robot", a name it would be configured with.
  ZR::ZRNetworkAccess access;
  access.hostNames = {"robot"};
  ZR::setNetworkAccess(access);
  ::signal(SIGPIPE, SIG_IGN);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string request(reinterpret_cast<const char*>(data), size);
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) die("socketpair");
  std::thread client([&] { converse(pair[0], request); });

  soap* connection = newConnection(pair[1]);
  {
    ZR::ZRFileTransferPrivate server;
    server.run(connection);  // serves the connection, then closes and releases it
  }
  client.join();
  ::close(pair[0]);

  fuzzsupport::Sandbox& sandbox = fuzzsupport::Sandbox::instance();
  sandbox.check(fuzzsupport::printable(request));
  sandbox.reset();
  return 0;
}
