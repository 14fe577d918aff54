// tuqvu-call: calls one method of a tuqvu broker, or watches its memory events.
#include <iostream>
#include <string>
#include <vector>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <tuqvu/broker/cli.h>

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using tuqvu::broker::Url;

namespace {

void connect(beast::tcp_stream& stream, const Url& url) {
  tcp::resolver resolver(stream.get_executor());
  stream.connect(resolver.resolve(url.host, url.port));
}

std::string hostField(const Url& url) {
  const bool ipv6 = url.host.find(':') != std::string::npos;
  return (ipv6 ? "[" + url.host + "]" : url.host) + ":" + url.port;
}

int call(const Url& url, const std::string& method, const std::vector<std::string>& args) {
  net::io_context ioc;
  beast::tcp_stream stream(ioc);
  connect(stream, url);
  http::request<http::string_body> request{http::verb::post, url.basePath + "/rpc", 11};
  request.set(http::field::host, hostField(url));
  request.set(http::field::content_type, "application/json");
  request.body() = tuqvu::broker::buildCallRequest(method, args);
  request.prepare_payload();
  http::write(stream, request);

  beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.body_limit(256 * 1024 * 1024);
  http::read(stream, buffer, parser);
  const auto& response = parser.get();
  beast::error_code ignored;
  stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
  if (response.result() != http::status::ok) {
    std::cerr << "tuqvu-call: the broker answered " << response.result_int() << " "
              << response.reason() << ": " << response.body() << "\n";
    return 1;
  }
  const tuqvu::broker::CallAnswer answer = tuqvu::broker::interpretAnswer(response.body());
  (answer.exitStatus == 0 ? std::cout : std::cerr) << answer.text << std::endl;
  return answer.exitStatus;
}

int watch(const Url& url, const std::vector<std::string>& keys) {
  net::io_context ioc;
  beast::tcp_stream stream(ioc);
  connect(stream, url);
  http::request<http::empty_body> request{http::verb::get,
                                          tuqvu::broker::eventsTarget(url.basePath, keys), 11};
  request.set(http::field::host, hostField(url));
  request.set(http::field::accept, "text/event-stream");
  http::write(stream, request);

  beast::flat_buffer buffer;
  http::response_parser<http::buffer_body> parser;
  parser.body_limit(boost::none);
  http::read_header(stream, buffer, parser);
  if (parser.get().result() != http::status::ok) {
    std::cerr << "tuqvu-call: the broker answered " << parser.get().result_int() << " "
              << parser.get().reason() << "\n";
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
    if (error == http::error::end_of_stream || error == net::error::eof) break;
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

int usage(const std::string& message) {
  std::cerr << "tuqvu-call: " << message << "\n(try tuqvu-call --help)\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string urlText = "http://127.0.0.1:9600";
  bool watching = false;
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (!words.empty() && !watching) {
      words.push_back(argument);  // arguments of the call, taken as they are
    } else if (argument == "--help" || argument == "-h") {
      std::cout << tuqvu::broker::cliHelpText();
      return 0;
    } else if (argument == "--url") {
      if (i + 1 >= argc) return usage("--url needs a URL");
      urlText = argv[++i];
    } else if (argument.rfind("--url=", 0) == 0) {
      urlText = argument.substr(6);
    } else if (argument == "--watch") {
      watching = true;
    } else if (argument.rfind("--", 0) == 0 && words.empty()) {
      return usage("unknown option " + argument);
    } else {
      words.push_back(argument);
    }
  }
  Url url;
  try {
    url = tuqvu::broker::parseUrl(urlText);
  } catch (const std::exception& error) {
    return usage(error.what());
  }
  try {
    if (watching) return watch(url, words);
    if (words.empty()) return usage("no method given");
    const std::string& method = words.front();
    if (method.find('.') == std::string::npos) {
      return usage("the method must be written Module.method, not \"" + method + "\"");
    }
    return call(url, method, std::vector<std::string>(words.begin() + 1, words.end()));
  } catch (const std::exception& error) {
    std::cerr << "tuqvu-call: " << urlText << ": " << error.what() << "\n";
    return 1;
  }
}
