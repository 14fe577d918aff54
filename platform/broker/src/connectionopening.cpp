#include <tuqvu/broker/connectionopening.h>
#include <tuqvu/broker/httpsession.h>
#include <tuqvu/broker/stream.h>
#include <tuqvu/broker/tlscredentials.h>
#include <vu/log.h>
#include <zr/zrnetworkaccess.h>

#include <boost/asio/dispatch.hpp>
#include <boost/beast/core/detect_ssl.hpp>

namespace tuqvu {
namespace broker {

namespace beast = boost::beast;
namespace net = boost::asio;

ConnectionOpening::ConnectionOpening(Stream::Socket&& socket,
                                     std::shared_ptr<ServerContext> context)
    : fStream(std::move(socket)),
      fContext(std::move(context)),
      fCounted(fContext->openConnections) {}

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
      return std::make_shared<HttpSession>(opened(Stream(std::move(fStream))), std::move(fBuffer),
                                           fContext)
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
        std::make_shared<HttpSession>(self->opened(Stream(std::move(*stream), credentials)),
                                      std::move(self->fBuffer), self->fContext)
            ->resume();
      });
}

Stream ConnectionOpening::opened(Stream stream) {
  stream.keepCounted(std::move(fCounted));
  return stream;
}

void ConnectionOpening::refusePlainText() {
  // Whatever the request carried has crossed the network in clear already; it is not
  // read, and the answer tells the client where the broker really listens.
  std::make_shared<HttpSession>(opened(Stream(std::move(fStream))), std::move(fBuffer), fContext)
      ->refuse(http::status::forbidden,
               "this robot accepts requests from other machines over HTTPS only: use "
               "https:// with the same address and port");
}

}  // namespace broker
}  // namespace tuqvu
