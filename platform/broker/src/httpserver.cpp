#include <tuqvu/broker/httpserver.h>
#include <tuqvu/broker/listener.h>
#include <zr/zrnetworkaccess.h>

#include <boost/asio/ip/address.hpp>
#include <thread>

namespace tuqvu {
namespace broker {

namespace net = boost::asio;

HttpServer::HttpServer(std::shared_ptr<ServerContext> context, int lanes)
    : fContext(std::move(context)), fLanes(std::make_unique<IoLanes>(lanes)) {
  fContext->lanes = fLanes.get();
}

HttpServer::~HttpServer() {
  stop();
  fContext->lanes = nullptr;  // the context may outlive the server (no lane thread runs now)
}

net::ip::tcp::endpoint HttpServer::start(const std::string& address, int port) {
  const net::ip::tcp::endpoint endpoint(net::ip::make_address(address),
                                        static_cast<unsigned short>(port));
  fContext->access = ZR::networkAccess();
  fListener = std::make_shared<Listener>(*fLanes, endpoint, fContext);
  fListener->run();
  fLanes->start();
  return fListener->localEndpoint();
}

void HttpServer::stopAccepting() {
  if (fListener) fListener->stop();
}

bool HttpServer::drain(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (fContext->pendingAnswers.load() > 0) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

void HttpServer::stop() {
  fLanes->stop();
  fListener.reset();
}

}  // namespace broker
}  // namespace tuqvu
