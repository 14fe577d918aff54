#include <tuqvu/broker/cli_client.h>

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/core/detail/base64.hpp>
#include <boost/beast/http.hpp>

#include <tuqvu/broker/json_io.h>
#include <tuqvu/broker/secret_file.h>

namespace tuqvu {
namespace broker {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;

namespace {

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string hostField(const Url& url) {
  const bool ipv6 = url.host.find(':') != std::string::npos;
  return (ipv6 ? "[" + url.host + "]" : url.host) + ":" + url.port;
}

template <typename Socket>
void connectTo(Socket& socket, const Url& url) {
  tcp::resolver resolver(socket.get_executor());
  net::connect(socket, resolver.resolve(url.host, url.port));
}

// "Basic ..." with the installation's secret ($TUQVU_SECRET, else the secret file of
// this user), for brokers that listen beyond loopback; "" when there is none.
std::string authorization() {
  std::string secret;
  if (const char* fromEnvironment = std::getenv("TUQVU_SECRET")) {
    secret = fromEnvironment;
  } else {
    try {
      secret = readSecret(defaultSecretFile());
    } catch (const SecretFileError&) {
      secret.clear();  // a broker on loopback asks for none
    }
  }
  if (secret.empty()) return "";
  const std::string credentials = "tuqvu:" + secret;
  std::string encoded(beast::detail::base64::encoded_size(credentials.size()), '\0');
  encoded.resize(
      beast::detail::base64::encode(encoded.data(), credentials.data(), credentials.size()));
  return "Basic " + encoded;
}

template <typename Body>
void setAuthorization(http::request<Body>& message) {
  const std::string credentials = authorization();
  if (!credentials.empty()) message.set(http::field::authorization, credentials);
}

struct RpcResponse {
  unsigned status = 0;
  std::string reason;
  std::string body;
};

// POSTs one JSON-RPC request. With a live feedback line, a spinner shows how long the
// answer has been awaited once a second has passed without it.
RpcResponse postRpc(const Url& url, const std::string& request, const std::string& method,
                    Feedback* feedback) {
  net::io_context ioc;
  beast::tcp_stream stream(ioc);
  connectTo(stream.socket(), url);
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
  beast::error_code ignored;
  stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
  const auto& response = parser.get();
  return {response.result_int(), std::string(response.reason()), response.body()};
}

// The port of the file-transfer service, asked from the behavior manager.
int fileTransferPort(const Url& url) {
  const std::string method = "ZRBehaviorManager._httpFileTransferPort";
  const RpcResponse response = postRpc(url, buildCallRequest(method, {}), method, nullptr);
  if (response.status != 200) {
    throw std::runtime_error("the broker answered " + std::to_string(response.status) + " " +
                             response.reason + " to " + method);
  }
  const CallAnswer answer = interpretAnswer(response.body);
  if (answer.exitStatus != 0) {
    throw std::runtime_error("the broker offers no file-transfer service (" + method + ": " +
                             answer.text + ")");
  }
  const nlohmann::json port = nlohmann::json::parse(answer.text, nullptr, false);
  if (!port.is_number_integer() || port.get<long long>() <= 0 || port.get<long long>() > 65535) {
    throw std::runtime_error(method + " answered " + answer.text + ", which is no port");
  }
  return port.get<int>();
}

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// One PUT on a connection of its own. onSent is told every block written.
void putFile(const Url& server, const UploadItem& item,
             const std::function<void(std::uint64_t)>& onSent) {
  const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(item.local.c_str(), "rb"));
  if (!file) throw std::runtime_error(item.local + ": " + std::strerror(errno));
  net::io_context ioc;
  tcp::socket socket(ioc);
  connectTo(socket, server);
  const std::string credentials = authorization();
  const std::string head = "PUT " + item.remote + " HTTP/1.1\r\nHost: " + hostField(server) +
                           (credentials.empty() ? "" : "\r\nAuthorization: " + credentials) +
                           "\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
                           std::to_string(item.size) + "\r\n\r\n";
  beast::error_code error;
  net::write(socket, net::buffer(head), error);
  std::vector<char> block(64 * 1024);
  std::uint64_t left = item.size;
  while (!error && left > 0) {
    const std::size_t wanted = left < block.size() ? static_cast<std::size_t>(left) : block.size();
    const std::size_t got = std::fread(block.data(), 1, wanted, file.get());
    if (got == 0) {
      throw std::runtime_error(item.local + ": " +
                               (std::ferror(file.get()) ? std::strerror(errno)
                                                        : "the file became shorter while it was sent"));
    }
    net::write(socket, net::buffer(block.data(), got), error);
    if (!error) {
      left -= got;
      onSent(got);
    }
  }
  if (error) {
    // The service stops reading when it refuses a request; it says nothing then.
    throw std::runtime_error("the file-transfer service ended the connection after " +
                             std::to_string(item.size - left) + " of " +
                             std::to_string(item.size) + " bytes (" + error.message() +
                             "); the broker's log may say why");
  }

  std::string bytes;
  FileReply reply;
  char chunk[4096];
  for (;;) {
    const std::size_t got = socket.read_some(net::buffer(chunk), error);
    const bool closed = error == net::error::eof || error == net::error::connection_reset;
    if (error && !closed) throw beast::system_error(error);
    bytes.append(chunk, got);
    if (parseFileReply(bytes, closed, reply)) break;
    if (closed) {
      throw std::runtime_error(
          "the file-transfer service closed the connection without an answer: it refuses "
          "this path or could not write the file (the broker's log says which)");
    }
  }
  socket.shutdown(tcp::socket::shutdown_both, error);
  if (reply.status != 200 || reply.body != "ok\n") {
    std::string body = reply.body.substr(0, 200);
    while (!body.empty() && (body.back() == '\n' || body.back() == '\r')) body.pop_back();
    throw std::runtime_error("the file-transfer service answered " + std::to_string(reply.status) +
                             " " + reply.reason + (body.empty() ? "" : ": " + body));
  }
}

}  // namespace

Feedback Feedback::forStandardError(bool forced) {
  return Feedback(std::cerr, forced || ::isatty(STDERR_FILENO) == 1);
}

void Feedback::show(const std::string& text) {
  if (!fLive) return;
  fOut << '\r' << text;
  if (text.size() < fShown) fOut << std::string(fShown - text.size(), ' ');
  fShown = text.size();
  fOut.flush();
}

void Feedback::clear() {
  if (!fLive || fShown == 0) return;
  fOut << '\r' << std::string(fShown, ' ') << '\r';
  fShown = 0;
  fOut.flush();
}

void Feedback::finish(const std::string& text) {
  if (fLive) {
    show(text);
    fOut << '\n';
    fShown = 0;
  } else {
    fOut << text << '\n';
  }
  fOut.flush();
}

int runCall(const Url& url, const std::string& method, const std::vector<std::string>& args,
            Feedback& feedback) {
  const RpcResponse response = postRpc(url, buildCallRequest(method, args), method, &feedback);
  if (response.status != 200) {
    std::cerr << "tuqvu-call: the broker answered " << response.status << " " << response.reason
              << ": " << response.body << "\n";
    return 1;
  }
  const CallAnswer answer = interpretAnswer(response.body);
  (answer.exitStatus == 0 ? std::cout : std::cerr) << answer.text << std::endl;
  return answer.exitStatus;
}

int runWatch(const Url& url, const std::vector<std::string>& keys) {
  net::io_context ioc;
  beast::tcp_stream stream(ioc);
  connectTo(stream.socket(), url);
  http::request<http::empty_body> request{http::verb::get, eventsTarget(url.basePath, keys), 11};
  request.set(http::field::host, hostField(url));
  setAuthorization(request);
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

int runPut(const Url& url, const std::vector<UploadItem>& items, Feedback& feedback) {
  const Url server{url.host, std::to_string(fileTransferPort(url)), ""};
  std::uint64_t total = 0;
  for (const UploadItem& item : items) total += item.size;

  const Clock::time_point start = Clock::now();
  Clock::time_point shown = start - std::chrono::seconds(1);
  std::uint64_t sent = 0;
  std::size_t done = 0;
  const auto progress = [&](std::uint64_t bytes) {
    sent += bytes;
    const Clock::time_point now = Clock::now();
    if (!feedback.live() || (now - shown < std::chrono::milliseconds(100) && sent < total)) return;
    shown = now;
    std::string text = formatTransfer(sent, total, secondsSince(start));
    if (items.size() > 1) {
      text = "[" + std::to_string(done + 1) + "/" + std::to_string(items.size()) + "] " + text;
    }
    feedback.show(text);
  };
  for (const UploadItem& item : items) {
    try {
      putFile(server, item, progress);
    } catch (const std::exception& error) {
      feedback.clear();
      std::cerr << "tuqvu-call: " << item.remote << " on " << hostField(server) << ": "
                << error.what() << "\n";
      if (done > 0) {
        std::cerr << "tuqvu-call: " << done << " of " << items.size()
                  << " files were sent before this one\n";
      }
      return 1;
    }
    ++done;
    feedback.clear();  // the path gets a line of its own when both streams are the terminal
    std::cout << item.remote << std::endl;
  }
  const double seconds = secondsSince(start);
  char timing[64];
  std::snprintf(timing, sizeof timing, " in %.2f s", seconds);
  std::string summary = "tuqvu-call: sent " + formatBytes(total) + " in " +
                        std::to_string(items.size()) + (items.size() == 1 ? " file" : " files") +
                        " to " + hostField(server) + timing;
  if (seconds >= 0.1) {
    summary += " (" + formatBytes(static_cast<std::uint64_t>(static_cast<double>(total) / seconds)) + "/s)";
  }
  feedback.finish(summary);
  return 0;
}

}  // namespace broker
}  // namespace tuqvu
