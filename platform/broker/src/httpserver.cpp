#include <tuqvu/broker/httpserver.h>
#include <tuqvu/broker/listener.h>
#include <vu/log.h>

#include <algorithm>
#include <boost/asio/ip/address.hpp>

namespace tuqvu {
namespace broker {

namespace net = boost::asio;

HttpServer::HttpServer(std::shared_ptr<ServerContext> context, int ioThreads)
    : fContext(std::move(context)), fIoThreads(ioThreads < 1 ? 1 : ioThreads), fIoc(fIoThreads) {
  fContext->inlineCalls = std::make_shared<InlineCalls>(fIoThreads);
}

int HttpServer::defaultIoThreads() {
  const int cores = static_cast<int>(std::thread::hardware_concurrency());
  return std::max(3, cores + 1);
}

HttpServer::~HttpServer() {
  stop();
}

net::ip::tcp::endpoint HttpServer::start(const std::string& address, int port) {
  const net::ip::tcp::endpoint endpoint(net::ip::make_address(address),
                                        static_cast<unsigned short>(port));
  fListener = std::make_shared<Listener>(fIoc, endpoint, fContext);
  fListener->run();
  fWork.emplace(fIoc.get_executor());
  for (int i = 0; i < fIoThreads; ++i) {
    fThreads.emplace_back([this] {
      for (;;) {
        try {
          fIoc.run();
          return;
        } catch (const std::exception& error) {
          // A handler that throws must not take the server down with it.
          vu::log::write(vu::log::error, "tuqvu.http", "run", error.what());
        }
      }
    });
  }
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
  fWork.reset();
  fIoc.stop();
  for (std::thread& thread : fThreads) {
    if (thread.joinable()) thread.join();
  }
  fThreads.clear();
  fListener.reset();
}

}  // namespace broker
}  // namespace tuqvu
