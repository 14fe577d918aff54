#include "httpclient.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <cctype>
#include <chrono>
#include <map>
#include <mutex>
#include <stdexcept>

namespace brokertest {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;

namespace {

// Guards gAuthorizations: tests may start daemons from several threads.
std::mutex gAuthorizationMutex;
std::map<int, std::string> gAuthorizations;

}  // namespace

std::string authorizationFor(int port) {
  std::lock_guard<std::mutex> lock(gAuthorizationMutex);
  const auto found = gAuthorizations.find(port);
  return found == gAuthorizations.end() ? std::string() : found->second;
}

void setAuthorizationFor(int port, const std::string& value) {
  std::lock_guard<std::mutex> lock(gAuthorizationMutex);
  if (value.empty()) {
    gAuthorizations.erase(port);
  } else {
    gAuthorizations[port] = value;
  }
}

struct HttpConnection::Impl {
  net::io_context ioc;
  beast::tcp_stream stream{ioc};
  beast::flat_buffer buffer;
};

HttpConnection::HttpConnection(int port) : fImpl(std::make_unique<Impl>()), fPort(port) {
  fImpl->stream.connect(
      tcp::endpoint(net::ip::make_address("127.0.0.1"), static_cast<unsigned short>(port)));
  fImpl->stream.socket().set_option(tcp::no_delay(true));
}

HttpConnection::~HttpConnection() = default;

void HttpConnection::send(const std::string& method, const std::string& target,
                          const std::string& body) {
  http::request<http::string_body> request{http::string_to_verb(method), target, 11};
  if (request.method() == http::verb::unknown) request.method_string(method);
  request.set(http::field::host, "127.0.0.1");
  const std::string authorization = authorizationFor(fPort);
  if (!authorization.empty()) request.set(http::field::authorization, authorization);
  if (!body.empty() || method == "POST") {
    request.set(http::field::content_type, "application/json");
    request.body() = body;
  }
  request.prepare_payload();
  http::write(fImpl->stream, request);
}

HttpReply HttpConnection::readReply() {
  http::response_parser<http::string_body> parser;
  parser.body_limit(64 * 1024 * 1024);
  http::read(fImpl->stream, fImpl->buffer, parser);
  const auto& response = parser.get();
  HttpReply reply;
  reply.status = response.result_int();
  for (const auto& field : response) {
    std::string name(field.name_string());
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    reply.headers[name] = std::string(field.value());
  }
  reply.body = response.body();
  return reply;
}

HttpReply HttpConnection::request(const std::string& method, const std::string& target,
                                  const std::string& body,
                                  const std::map<std::string, std::string>& headers) {
  if (headers.empty()) {
    send(method, target, body);
    return readReply();
  }
  http::request<http::string_body> request{http::string_to_verb(method), target, 11};
  request.set(http::field::host, "127.0.0.1");
  const std::string authorization = authorizationFor(fPort);
  if (!authorization.empty()) request.set(http::field::authorization, authorization);
  for (const auto& header : headers) {
    if (header.second.empty()) {
      request.erase(header.first);  // an empty value: none of that header at all
    } else {
      request.set(header.first, header.second);
    }
  }
  request.body() = body;
  request.prepare_payload();
  http::write(fImpl->stream, request);
  return readReply();
}

void HttpConnection::close() {
  beast::error_code ignored;
  fImpl->stream.socket().set_option(net::socket_base::linger(true, 0), ignored);
  fImpl->stream.socket().close(ignored);
}

HttpReply httpGet(int port, const std::string& target) {
  HttpConnection connection(port);
  return connection.request("GET", target);
}

HttpReply httpPost(int port, const std::string& target, const std::string& body) {
  HttpConnection connection(port);
  return connection.request("POST", target, body);
}

std::string rpcRequest(const std::string& method, const nlohmann::json& params, int id) {
  return nlohmann::json{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}}
      .dump();
}

nlohmann::json rpc(int port, const std::string& method, const nlohmann::json& params, int id) {
  const HttpReply reply = httpPost(port, "/rpc", rpcRequest(method, params, id));
  EXPECT_EQ(200, reply.status) << reply.body;
  EXPECT_EQ("application/json",
            reply.headers.count("content-type") ? reply.headers.at("content-type") : std::string());
  return nlohmann::json::parse(reply.body);
}

namespace {

int connectRaw(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    throw std::runtime_error("cannot connect to port " + std::to_string(port));
  }
  return fd;
}

void sendAll(int fd, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return;  // the server may close early (oversized input)
    sent += static_cast<std::size_t>(n);
  }
}

// Reads what is there within timeoutMs; false when the peer closed.
bool readSome(int fd, std::string& into, int timeoutMs) {
  pollfd entry{fd, POLLIN, 0};
  if (::poll(&entry, 1, timeoutMs) <= 0) return true;
  char buffer[65536];
  const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
  if (n <= 0) return false;
  into.append(buffer, static_cast<std::size_t>(n));
  return true;
}

}  // namespace

std::string rawExchange(int port, const std::string& bytes, int quietMs) {
  RawConnection connection(port);
  try {
    connection.send(bytes);
  } catch (const std::runtime_error&) {
    // The server may close before all was sent (oversized input): read its answer.
  }
  return connection.readUntilClosed(std::chrono::milliseconds(quietMs));
}

EventStream::EventStream(int port, const std::string& target, const std::string& lastEventId)
    : fFd(connectRaw(port)) {
  const std::string authorization = authorizationFor(port);
  sendAll(fFd, "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: text/event-stream\r\n" +
                   (authorization.empty() ? "" : "Authorization: " + authorization + "\r\n") +
                   (lastEventId.empty() ? "" : "Last-Event-ID: " + lastEventId + "\r\n") + "\r\n");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (fPending.find("\r\n\r\n") == std::string::npos &&
         std::chrono::steady_clock::now() < deadline) {
    if (!readSome(fFd, fPending, 200)) break;
  }
  const std::size_t end = fPending.find("\r\n\r\n");
  if (end == std::string::npos) throw std::runtime_error("no event stream head: " + fPending);
  fHead = fPending.substr(0, end + 4);
  fPending.erase(0, end + 4);
}

std::string EventStream::fieldOf(const std::string& frame, const std::string& field) {
  const std::string prefix = field + ": ";
  std::size_t line = 0;
  while (line < frame.size()) {
    std::size_t end = frame.find('\n', line);
    if (end == std::string::npos) end = frame.size();
    if (frame.compare(line, prefix.size(), prefix) == 0) {
      return frame.substr(line + prefix.size(), end - line - prefix.size());
    }
    line = end + 1;
  }
  return "";
}

EventStream::~EventStream() {
  if (fFd >= 0) ::close(fFd);
}

std::string EventStream::next(int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    std::size_t end;
    while ((end = fPending.find("\n\n")) != std::string::npos) {
      const std::string frame = fPending.substr(0, end);
      fPending.erase(0, end + 2);
      if (!fieldOf(frame, "retry").empty()) fRetry = fieldOf(frame, "retry");
      const std::string data = dataOf(frame);
      if (!data.empty()) {
        fLastId = idOf(frame).empty() ? fLastId : idOf(frame);
        return data;
      }
    }
    if (std::chrono::steady_clock::now() >= deadline) return "";
    if (!readSome(fFd, fPending, 100)) return "";
  }
}

int EventStream::countUntilClosed(int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  int frames = 0;
  while (std::chrono::steady_clock::now() < deadline) {
    std::size_t end;
    while ((end = fPending.find("\n\n")) != std::string::npos) {
      if (!dataOf(fPending.substr(0, end)).empty()) ++frames;
      fPending.erase(0, end + 2);
    }
    if (!readSome(fFd, fPending, 100)) return frames;
  }
  return -1;
}

}  // namespace brokertest
