#include <tuqvu/broker/connectionopening.h>
#include <tuqvu/broker/httpsession.h>
#include <tuqvu/broker/httptypes.h>
#include <tuqvu/broker/stream.h>
#include <tuqvu/broker/tlscredentials.h>
#include <vu/log.h>
#include <zr/zrnetworkaccess.h>

#include <boost/asio/dispatch.hpp>
#include <boost/beast/core/detect_ssl.hpp>
#include <boost/beast/http.hpp>

namespace tuqvu {
namespace broker {

namespace beast = boost::beast;
namespace net = boost::asio;

ConnectionOpening::ConnectionOpening(net::ip::tcp::socket&& socket,
                                     std::shared_ptr<ServerContext> context)
    : fStream(std::move(socket)), fContext(std::move(context)) {}

void ConnectionOpening::start() {
  net::dispatch(fStream.get_executor(), [self = shared_from_this()]() {
    self->fStream.expires_after(kHandshakeTimeout);
    beast::async_detect_ssl(self->fStream, self->fBuffer,
                            beast::bind_front_handler(&ConnectionOpening::onDetected, self));
  });
}

void ConnectionOpening::onDetected(beast::error_code error, bool tls) {
  if (error) return;  // the peer went away or sent nothing in time
  if (!tls) {
    beast::error_code ignored;
    const std::string peer = fStream.socket().remote_endpoint(ignored).address().to_string();
    if (fContext->plainHttpBeyondLoopback || ZR::isLoopbackAddress(peer)) {
      return std::make_shared<HttpSession>(Stream(std::move(fStream)), std::move(fBuffer), fContext)
          ->resume();
    }
    return refusePlainText();
  }
  std::shared_ptr<net::ssl::context> credentials = fContext->tls->current();
  auto stream = std::make_shared<Stream::Tls>(std::move(fStream), *credentials);
  auto self = shared_from_this();
  stream->async_handshake(
      net::ssl::stream_base::server, fBuffer.data(),
      [self, stream, credentials](beast::error_code handshakeError, std::size_t used) {
        if (handshakeError) {
          vu::log::write(vu::log::verbose, "tuqvu.tls", "handshake", handshakeError.message());
          return;
        }
        self->fBuffer.consume(used);
        std::make_shared<HttpSession>(Stream(std::move(*stream), credentials),
                                      std::move(self->fBuffer), self->fContext)
            ->resume();
      });
}

void ConnectionOpening::refusePlainText() {
  // Whatever the request carried has crossed the network in clear already; it is not
  // read, and the answer tells the client where the broker really listens.
  auto response = std::make_shared<Response>(
      textResponse(http::status::forbidden,
                   "this robot accepts requests from other machines over HTTPS only: use "
                   "https:// with the same address and port"));
  response->keep_alive(false);
  response->prepare_payload();
  auto self = shared_from_this();
  http::async_write(fStream, *response, [self, response](beast::error_code error, std::size_t) {
    if (error) return;
    beast::error_code ignored;
    self->fStream.socket().shutdown(net::ip::tcp::socket::shutdown_send, ignored);
    self->drain(0);
  });
}

void ConnectionOpening::drain(std::size_t drained) {
  // Closing with unread bytes would reset the connection, and the client might lose the
  // answer: what it still sends is read and dropped, for a while and up to a limit.
  constexpr std::size_t kMaxDrained = 1024 * 1024;
  if (drained > kMaxDrained) return;
  fStream.expires_after(kHandshakeTimeout);
  fStream.async_read_some(fBuffer.prepare(16384), [self = shared_from_this(), drained](
                                                      beast::error_code error, std::size_t bytes) {
    if (error) return;
    self->drain(drained + bytes);
  });
}

}  // namespace broker
}  // namespace tuqvu
