#include <tuqvu/broker/connectionopening.h>
#include <tuqvu/broker/httpsession.h>
#include <tuqvu/broker/listener.h>
#include <vu/log.h>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <chrono>

namespace tuqvu {
namespace broker {

namespace net = boost::asio;
using tcp = net::ip::tcp;

Listener::Listener(IoLanes& lanes, const tcp::endpoint& endpoint,
                   std::shared_ptr<ServerContext> context)
    : fLanes(lanes),
      fAcceptor(net::make_strand(lanes.lane(0))),
      fRetry(fAcceptor.get_executor()),
      fContext(std::move(context)) {
  fAcceptor.open(endpoint.protocol());
  fAcceptor.set_option(net::socket_base::reuse_address(true));
  fAcceptor.bind(endpoint);
  fAcceptor.listen(net::socket_base::max_listen_connections);
}

void Listener::run() {
  net::dispatch(fAcceptor.get_executor(),
                boost::beast::bind_front_handler(&Listener::doAccept, shared_from_this()));
}

void Listener::stop() {
  net::dispatch(fAcceptor.get_executor(), [self = shared_from_this()]() {
    boost::system::error_code ignored;
    self->fAcceptor.close(ignored);
    self->fRetry.cancel();
  });
}

tcp::endpoint Listener::localEndpoint() const {
  return fAcceptor.local_endpoint();
}

void Listener::doAccept() {
  fAcceptor.async_accept(net::make_strand(fLanes.next()),
                         boost::beast::bind_front_handler(&Listener::onAccept, shared_from_this()));
}

void Listener::onAccept(boost::beast::error_code error, Stream::Socket socket) {
  if (error == net::error::operation_aborted || !fAcceptor.is_open()) return;
  if (error) {
    // Out of descriptors and the like: log, pause, and accept again; connections that
    // end meanwhile free what is missing.
    if (auto line = fFailures.failed(error.message(), AcceptFailures::Clock::now())) {
      vu::log::write(vu::log::warning, "tuqvu.http", "accept", *line);
    }
    fRetry.expires_after(std::chrono::milliseconds(100));
    fRetry.async_wait([self = shared_from_this()](boost::beast::error_code waitError) {
      if (!waitError && self->fAcceptor.is_open()) self->doAccept();
    });
    return;
  } else {
    if (auto line = fFailures.accepted(AcceptFailures::Clock::now())) {
      vu::log::write(vu::log::warning, "tuqvu.http", "accept", *line);
    }
    boost::system::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    if (fContext->tls) {
      std::make_shared<ConnectionOpening>(std::move(socket), fContext)->start();
    } else {
      std::make_shared<HttpSession>(std::move(socket), fContext)->run();
    }
  }
  doAccept();
}

}  // namespace broker
}  // namespace tuqvu
