// The broker's HTTP server: a listener and the I/O lanes that run its connections.
//
//   HttpServer server(context, IoLanes::defaultCount());
//   auto endpoint = server.start("127.0.0.1", 9600);   // throws when it cannot bind
//   ...
//   server.stopAccepting();
//   server.drain(std::chrono::seconds(5));   // answers still owed are written
//   server.stop();
#pragma once

#include <tuqvu/broker/iolanes.h>
#include <tuqvu/broker/servercontext.h>

#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <memory>
#include <string>

namespace tuqvu {
namespace broker {

class Listener;

class HttpServer {
public:
  // Runs its connections on `lanes` I/O lanes (see IoLanes) and sets context->lanes.
  HttpServer(std::shared_ptr<ServerContext> context, int lanes);
  ~HttpServer();  // stop()
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  boost::asio::ip::tcp::endpoint start(const std::string& address, int port);
  void stopAccepting();
  // Waits until every call handed out has its answer written; false on time-out.
  bool drain(std::chrono::milliseconds timeout);
  // Stops the I/O threads and drops every connection.
  void stop();

private:
  std::shared_ptr<ServerContext> fContext;
  // Destroyed after the listener and before the context: the lanes' io_contexts drop the
  // handlers still pending, and with them the sessions.
  std::unique_ptr<IoLanes> fLanes;
  std::shared_ptr<Listener> fListener;
};

}  // namespace broker
}  // namespace tuqvu
