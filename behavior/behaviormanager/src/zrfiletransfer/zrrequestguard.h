// What a request must pass before a hook acts on it, and the replies that refuse it.
//
//   ConnectionGuard guard(connection, limits);   // in the dispatcher, for one connection
//   guard.beginRequest();                     // before each request is read
//   ...
//   if (refuseRequest(connection, Access::Write)) return 0;   // in a hook: already answered
//
// The guard captures the headers browsers send (Host, Origin, Sec-Fetch-Site) as gSOAP
// parses them, and keeps Origin and the CORS request headers from gSOAP itself, so that
// gSOAP never adds Access-Control-* headers to a reply of its own. It also answers OPTIONS,
// HEAD and PATCH with 405 instead of gSOAP's permissive defaults, and every other method
// the service does not have with the same 405 instead of gSOAP's SOAP fault (which would
// name gSOAP and its version). And it holds each
// request to its deadline (zrrequestdeadline.h): a read after the deadline ends the
// connection without a reply.
#pragma once

#include <stdsoap2.h>
#include <zr/zrfileservermetrics.h>

#include <cstdint>
#include <functional>
#include <string>

#include "zrrequestdeadline.h"
#include "zrserverlimits.h"

namespace ZR {
namespace detail {

// The headers of one request that the checks look at.
struct RequestHeaders {
  bool hasHost = false;
  std::string host;
  bool hasOrigin = false;
  std::string origin;
  std::string fetchSite;           // Sec-Fetch-Site, "" when absent
  std::string contentLength;       // the first Content-Length, "" when absent
  bool conflictingLength = false;  // a later Content-Length said something else
};

class ConnectionGuard {
public:
  // `limits` are the serving server's; the guard keeps a copy. `othersWaiting` tells
  // whether other clients wait to be served (empty: none are watched for).
  ConnectionGuard(soap* connection, const ServerLimits& limits,
                  std::function<bool()> othersWaiting = {},
                  const ZRFileServerMetrics* metrics = nullptr);
  ~ConnectionGuard();
  ConnectionGuard(const ConnectionGuard&) = delete;
  ConnectionGuard& operator=(const ConnectionGuard&) = delete;

  // Forgets the headers and credentials of the previous request on the connection, and
  // starts the deadline of the next request's headers.
  void beginRequest();

  // The headers of the request being served; null when the connection has no guard.
  static const RequestHeaders* headersOf(const soap* connection);

  // The limits of the server serving the connection; null when it has no guard.
  static const ServerLimits* limitsOf(const soap* connection);

  // The body of `length` bytes is read next: its deadline starts.
  static void beginBody(soap* connection, std::uint64_t length);
  // A reply body of `length` bytes is sent next: its deadline starts.
  static void beginSending(soap* connection, std::uint64_t length);
  // Whether the reply being sent is past its deadline (logged once); false without a guard.
  static bool sendingTooSlow(soap* connection);
  // Counts `bytes` of a request body as received; nothing without a guard or metrics.
  static void bodyReceived(const soap* connection, std::size_t bytes);

private:
  static int parseRequest(soap* connection);
  static int parseHeader(soap* connection, const char* key, const char* value);
  static size_t receive(soap* connection, char* buffer, size_t length);
  static int sendCounted(soap* connection, const char* data, size_t length);
  static const char* methodName(int status);
  // Whether another client waits to be served.
  bool othersWaiting() const;
  // What is left, while others wait, of the time a connection may take to begin its next
  // request or to send its headers; no limit outside those waits.
  long long contestedMillisecondsLeft() const;

  soap* fConnection;
  void* fPreviousUser;
  int (*fPreviousParse)(soap*);
  int (*fPreviousParseHeader)(soap*, const char*, const char*);
  size_t (*fPreviousReceive)(soap*, char*, size_t);
  int (*fPreviousSend)(soap*, const char*, size_t);
  const ZRFileServerMetrics* const fMetrics;  // null: not counted
  RequestHeaders fHeaders;
  const ServerLimits fLimits;
  RequestDeadline fDeadline;
  bool fDeadlineLogged = false;
  const std::function<bool()> fOthersWaiting;
  bool fRequestBegun = false;  // bytes of the current request have arrived
  bool fGaveWay = false;       // closed for a waiting client: reads end at once
};

enum class Access { Read, Write };

// The checks of a request, in this order:
// - Host must be an IP literal, "localhost" or a name of ZRNetworkAccess::hostNames (a
//   rebound DNS name is refused): 403.
// - For writes, an Origin other than "http://" + Host and Sec-Fetch-Site "cross-site" or
//   "same-site" (a page of another site) are refused: 403.
// - Once the server listens beyond loopback, the installation's secret must come as the
//   password of HTTP Basic (any user name): 401 with WWW-Authenticate: Basic realm="tuqvu".
// Returns true when the request was refused; the reply is sent and the connection ends.
bool refuseRequest(soap* connection, Access access);

// "<code> <reason>" replies of refused requests: a text/plain body "<code> - <reason>:
// <why>\n", and the connection ends (the body of the request, if any, is not read).
void sendRefusal(soap* connection, const std::string& status, const std::string& why);

// The 405 of methods the service does not have: "Allow: GET, PUT, DELETE"; the connection
// ends.
void sendMethodNotAllowed(soap* connection);

}  // namespace detail
}  // namespace ZR
