// Accepts connections and starts an HttpSession for each, on a strand of its own on the
// next I/O lane.
#pragma once

#include <tuqvu/broker/acceptfailures.h>
#include <tuqvu/broker/iolanes.h>
#include <tuqvu/broker/servercontext.h>
#include <tuqvu/broker/stream.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/error.hpp>
#include <memory>

namespace tuqvu {
namespace broker {

class Listener : public std::enable_shared_from_this<Listener> {
public:
  // Binds and listens; throws boost::system::system_error when it cannot.
  Listener(IoLanes& lanes, const boost::asio::ip::tcp::endpoint& endpoint,
           std::shared_ptr<ServerContext> context);

  void run();
  // Closes the acceptor; established connections go on.
  void stop();
  boost::asio::ip::tcp::endpoint localEndpoint() const;

private:
  void doAccept();
  void onAccept(boost::beast::error_code error, Stream::Socket socket);

  IoLanes& fLanes;
  boost::asio::ip::tcp::acceptor fAcceptor;
  boost::asio::steady_timer fRetry;  // a pause after a failed accept (out of descriptors)
  std::shared_ptr<ServerContext> fContext;
  AcceptFailures fFailures;  // touched only on the acceptor's strand
};

}  // namespace broker
}  // namespace tuqvu
