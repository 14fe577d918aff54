// A new connection on a port that speaks TLS, before its first request. Its first bytes
// tell a TLS handshake from a request in clear text: TLS gets its handshake and then an
// HttpSession; clear text gets one only from the robot itself (a loopback peer) or when
// the administrator allowed plain HTTP, and otherwise an answer saying to use HTTPS.
// Both steps are bounded by kHandshakeTimeout, so a peer that sends nothing holds nothing.
#pragma once

#include <tuqvu/broker/servercontext.h>
#include <tuqvu/broker/stream.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <chrono>
#include <memory>

namespace tuqvu {
namespace broker {

class ConnectionOpening : public std::enable_shared_from_this<ConnectionOpening> {
public:
  static constexpr auto kHandshakeTimeout = std::chrono::seconds(10);

  // context->tls must be set.
  ConnectionOpening(Stream::Socket&& socket, std::shared_ptr<ServerContext> context);
  void start();

private:
  void onDetected(boost::beast::error_code error, bool tls);
  void refusePlainText();
  // The stream the connection goes on with, which keeps its count.
  Stream opened(Stream stream);

  Stream::Plain fStream;
  boost::beast::flat_buffer fBuffer;  // what was read to tell TLS from clear text
  std::shared_ptr<ServerContext> fContext;
  OpenConnection fCounted;
};

}  // namespace broker
}  // namespace tuqvu
