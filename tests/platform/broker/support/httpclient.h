// Small blocking HTTP clients for the broker's tests, over real loopback sockets.
#pragma once

#include <common/rawconnection.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

namespace brokertest {

// The Authorization header value that the broker on `port` accepts: TuqvuProcess records
// its daemon's once it listens ("" forgets it). The helpers below send it to that port by
// themselves; a request that names its own Authorization header sends that instead, and
// an empty one sends none.
std::string authorizationFor(int port);
void setAuthorizationFor(int port, const std::string& value);

struct HttpReply {
  int status = 0;
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;
};

// One keep-alive connection.
class HttpConnection {
public:
  explicit HttpConnection(int port);
  ~HttpConnection();
  HttpConnection(const HttpConnection&) = delete;
  HttpConnection& operator=(const HttpConnection&) = delete;

  HttpReply request(const std::string& method, const std::string& target,
                    const std::string& body = "",
                    const std::map<std::string, std::string>& headers = {});
  // Sends without reading the answer; read it later with readReply().
  void send(const std::string& method, const std::string& target, const std::string& body = "");
  HttpReply readReply();
  // Abortive close.
  void close();

private:
  struct Impl;
  std::unique_ptr<Impl> fImpl;
  int fPort;
};

HttpReply httpGet(int port, const std::string& target);
HttpReply httpPost(int port, const std::string& target, const std::string& body);

// POSTs one JSON-RPC request to /rpc and returns the parsed response (fails the test on a
// non-200 status).
nlohmann::json rpc(int port, const std::string& method, const nlohmann::json& params, int id = 1);
std::string rpcRequest(const std::string& method, const nlohmann::json& params, int id = 1);

// A plain socket for bytes that no client library would send.
using tuqvutest::RawConnection;

// Raw bytes to the port; returns everything the server sends until it closes or goes
// quiet for quietMs.
std::string rawExchange(int port, const std::string& bytes, int quietMs = 2000);

// A raw GET /events connection whose stream the test reads frame by frame.
class EventStream {
public:
  // With `lastEventId`, reconnects as an EventSource does (the Last-Event-ID header).
  EventStream(int port, const std::string& target, const std::string& lastEventId = "");
  ~EventStream();
  // The response head (status line and headers).
  const std::string& head() const { return fHead; }
  // The next "data:" payload; "" when the stream ended or nothing came within the guard.
  std::string next(int timeoutMs = 30000);
  // Reads to the end of the stream; the number of "data:" frames read, or -1 when the
  // server has not closed the stream within timeoutMs.
  int countUntilClosed(int timeoutMs);
  int fd() const { return fFd; }
  // The id of the last event next() returned, "" before the first.
  const std::string& lastId() const { return fLastId; }
  // The "retry:" time the stream gave, once next() has read past it; "" before.
  const std::string& retry() const { return fRetry; }

private:
  static std::string fieldOf(const std::string& frame, const std::string& field);
  static std::string dataOf(const std::string& frame) { return fieldOf(frame, "data"); }
  static std::string idOf(const std::string& frame) { return fieldOf(frame, "id"); }

  int fFd = -1;
  std::string fHead;
  std::string fPending;
  std::string fLastId;
  std::string fRetry;
};

}  // namespace brokertest
