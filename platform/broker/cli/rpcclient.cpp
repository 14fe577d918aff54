// tuqvu-call: one JSON-RPC call, and the event stream (--watch).
#include "rpcclient.h"

#include <tuqvu/broker/jsonio.h>
#include <tuqvu/broker/secretfile.h>

#include <boost/asio/ssl/error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <functional>
#include <iostream>
#include <stdexcept>

#include "connection.h"

namespace tuqvu {
namespace broker {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;

namespace cli {

RpcResponse postRpc(const Url& url, const ServerTrust& trust, const std::string& request,
                    const std::string& method, Feedback* feedback) {
  net::io_context ioc;
  Stream stream = connectToServer(ioc, url, trust);
  http::request<http::string_body> message{http::verb::post, url.basePath + "/rpc", 11};
  message.set(http::field::host, hostField(url));
  message.set(http::field::content_type, "application/json");
  setAuthorization(message);
  message.body() = request;
  message.prepare_payload();
  http::write(stream, message);

  beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.body_limit(256 * 1024 * 1024);
  beast::error_code readError;
  bool answered = false;
  net::steady_timer timer(ioc);
  http::async_read(stream, buffer, parser, [&](beast::error_code error, std::size_t) {
    readError = error;
    answered = true;
    timer.cancel();
  });
  const Clock::time_point start = Clock::now();
  unsigned frame = 0;
  std::function<void(beast::error_code)> tick = [&](beast::error_code error) {
    if (error || answered) return;
    feedback->show(formatWaiting(method, secondsSince(start), frame++));
    timer.expires_after(std::chrono::milliseconds(200));
    timer.async_wait(tick);
  };
  if (feedback != nullptr && feedback->live()) {
    timer.expires_after(std::chrono::seconds(1));
    timer.async_wait(tick);
  }
  ioc.run();
  if (feedback != nullptr) feedback->clear();
  if (readError) throw beast::system_error(readError);
  closeConnection(ioc, stream);
  const auto& response = parser.get();
  return {response.result_int(), std::string(response.reason()), response.body()};
}

}  // namespace cli

using cli::Clock;
using cli::hostField;
using cli::postRpc;
using cli::RpcResponse;
using cli::setAuthorization;

namespace {

// What to do about a refusal that the user can fix.
void explainRefusal(int status) {
  if (status == 401) {
    std::cerr << "tuqvu-call: the broker wants its secret: run tuqvu-call as the broker's user, "
                 "who has it in "
              << defaultSecretFile() << ", or set TUQVU_SECRET\n";
  }
}

}  // namespace

int runCall(const Url& url, const ServerTrust& trust, const std::string& method,
            const std::vector<std::string>& args, Feedback& feedback) {
  const RpcResponse response =
      postRpc(url, trust, buildCallRequest(method, args), method, &feedback);
  if (response.status != 200) {
    std::cerr << "tuqvu-call: the broker answered " << response.status << " " << response.reason
              << ": " << response.body << "\n";
    explainRefusal(response.status);
    return 1;
  }
  const CallAnswer answer = interpretAnswer(response.body);
  (answer.exitStatus == 0 ? std::cout : std::cerr) << answer.text << std::endl;
  return answer.exitStatus;
}

int runWatch(const Url& url, const ServerTrust& trust, const std::vector<std::string>& keys) {
  net::io_context ioc;
  Stream stream = connectToServer(ioc, url, trust);
  http::request<http::empty_body> request{http::verb::get, eventsTarget(url.basePath, keys), 11};
  request.set(http::field::host, hostField(url));
  setAuthorization(request);
  request.set(http::field::accept, "text/event-stream");
  http::write(stream, request);

  beast::flat_buffer buffer;
  http::response_parser<http::buffer_body> parser;
  parser.body_limit(boost::none);
  beast::error_code headerError;
  http::read_header(stream, buffer, parser, headerError);
  // A refusal's small body may arrive with its header; only the header matters here.
  if (headerError && !parser.is_header_done()) throw beast::system_error(headerError);
  if (parser.get().result() != http::status::ok) {
    std::cerr << "tuqvu-call: the broker answered " << parser.get().result_int() << " "
              << parser.get().reason() << "\n";
    explainRefusal(parser.get().result_int());
    return 1;
  }
  std::string pending;
  char chunk[8192];
  while (!parser.is_done()) {
    parser.get().body().data = chunk;
    parser.get().body().size = sizeof chunk;
    beast::error_code error;
    // read_some returns as soon as some of the body arrived: events are printed as they
    // come, not when a buffer fills.
    http::read_some(stream, buffer, parser, error);
    if (error == http::error::need_buffer) error = {};
    if (error == http::error::end_of_stream || error == net::error::eof ||
        error == net::ssl::error::stream_truncated) {
      break;  // an encrypted stream may end without TLS's own end
    }
    if (error) throw beast::system_error(error);
    pending.append(chunk, sizeof chunk - parser.get().body().size);
    // One event per "data:" line; comment lines (": keep-alive") are skipped.
    std::size_t end;
    while ((end = pending.find('\n')) != std::string::npos) {
      const std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (line.rfind("data: ", 0) == 0) std::cout << line.substr(6) << std::endl;
    }
  }
  return 0;
}

}  // namespace broker
}  // namespace tuqvu
