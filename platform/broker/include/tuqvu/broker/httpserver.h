// The broker's HTTP server: a listener and the I/O threads that run its connections.
//
//   HttpServer server(context, 2);
//   auto endpoint = server.start("127.0.0.1", 9600);   // throws when it cannot bind
//   ...
//   server.stopAccepting();
//   server.drain(std::chrono::seconds(5));   // answers still owed are written
//   server.stop();
#pragma once

#include <tuqvu/broker/servercontext.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tuqvu {
namespace broker {

class Listener;

class HttpServer {
public:
  // Sets context->inlineCalls for its `ioThreads` I/O threads.
  HttpServer(std::shared_ptr<ServerContext> context, int ioThreads);
  // One I/O thread per core and one more, at least three: calls run on the I/O threads
  // while one of them stays free (see InlineCalls), so every core can make calls.
  static int defaultIoThreads();
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
  int fIoThreads;
  boost::asio::io_context fIoc;
  // Keeps the I/O threads running while no operation is pending (every connection may be
  // waiting for a call, with the acceptor closed).
  std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> fWork;
  std::shared_ptr<Listener> fListener;
  std::vector<std::thread> fThreads;
};

}  // namespace broker
}  // namespace tuqvu
