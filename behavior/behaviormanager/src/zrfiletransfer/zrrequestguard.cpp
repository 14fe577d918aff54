#include "zrrequestguard.h"

#include <poll.h>
#include <strings.h>
#include <vu/log.h>
#include <zr/zrbrowserguard.h>
#include <zr/zrnetworkaccess.h>

#include <algorithm>
#include <boost/algorithm/string/trim.hpp>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <limits>

#include "zrhttpreply.h"

namespace ZR {
namespace detail {
namespace {

// The longest wait for one read when the connection has no time-out of its own.
constexpr int kLongestReadSeconds = 15;

bool named(const char* key, const char* name) {
  return ::strcasecmp(key, name) == 0;
}

void logRefusal(const soap* connection, const std::string& why) {
  vu::log::write(vu::log::warning, kNetworkLog, "refuseRequest",
                 std::string("Refused request: ") + connection->path + " (" + why + ")");
}

// Sends a plain-text answer and ends the connection after it, since the body that may
// follow the request's head is not read. `headers` (each line ending in "\n") come
// after the Server line; "Connection: close" is said only where `sayClose` asks for it.
void sendFinalAnswer(soap* connection, const std::string& status, const std::string& headers,
                     const std::string& body, bool sayClose) {
  sendNow(connection,
          statusLine(connection, status) + "Server: TuqVu\n" + headers +
              "Content-Type: text/plain\nContent-Length: " + std::to_string(body.size()) + "\n" +
              (sayClose ? "Connection: close\n" : "") + "\n" + body);
  connection->keep_alive = 0;
}

void sendUnauthorized(soap* connection) {
  sendFinalAnswer(connection, "401 Unauthorized", "WWW-Authenticate: Basic realm=\"tuqvu\"\n",
                  "401 - Unauthorized: this robot asks for its secret\n", true);
}

}  // namespace

ConnectionGuard::ConnectionGuard(soap* connection, const ServerLimits& limits,
                                 std::function<bool()> othersWaiting,
                                 const ZRFileServerMetrics* metrics)
    : fConnection(connection),
      fPreviousUser(connection->user),
      fPreviousParse(connection->fparse),
      fPreviousParseHeader(connection->fparsehdr),
      fPreviousReceive(connection->frecv),
      fPreviousSend(connection->fsend),
      fMetrics(metrics),
      fLimits(limits),
      fDeadline(fLimits),
      fOthersWaiting(std::move(othersWaiting)) {
  connection->user = this;
  connection->fparse = &ConnectionGuard::parseRequest;
  connection->fparsehdr = &ConnectionGuard::parseHeader;
  connection->frecv = &ConnectionGuard::receive;
  if (fMetrics != nullptr) connection->fsend = &ConnectionGuard::sendCounted;
  // gSOAP's own answers to these carry "Access-Control-Allow-Origin: *" and claim PUT,
  // PATCH and POST; the service has none of that.
  connection->fopt = [](soap* c) {
    sendMethodNotAllowed(c);
    return static_cast<int>(SOAP_OK);
  };
  connection->fhead = connection->fopt;
  connection->fpatch = connection->fopt;
}

ConnectionGuard::~ConnectionGuard() {
  fConnection->user = fPreviousUser;
  fConnection->fparse = fPreviousParse;
  fConnection->fparsehdr = fPreviousParseHeader;
  fConnection->frecv = fPreviousReceive;
  fConnection->fsend = fPreviousSend;
}

int ConnectionGuard::sendCounted(soap* connection, const char* data, size_t length) {
  ConnectionGuard* guard = static_cast<ConnectionGuard*>(connection->user);
  const int result = guard->fPreviousSend(connection, data, length);
  if (result == SOAP_OK) guard->fMetrics->sent->increment(length);
  return result;
}

void ConnectionGuard::bodyReceived(const soap* connection, std::size_t bytes) {
  if (connection->frecv == &ConnectionGuard::receive && connection->user != nullptr) {
    const ConnectionGuard* guard = static_cast<const ConnectionGuard*>(connection->user);
    if (guard->fMetrics != nullptr) guard->fMetrics->received->increment(bytes);
  }
}

const char* ConnectionGuard::methodName(int status) {
  switch (status) {
    case SOAP_GET: return "GET";
    case SOAP_HEAD: return "HEAD";
    case SOAP_PUT: return "PUT";
    case SOAP_DEL: return "DELETE";
    default: return "other";
  }
}

void ConnectionGuard::beginRequest() {
  fHeaders = RequestHeaders();
  fRequestBegun = false;
  // Credentials belong to the request that carried them.
  fConnection->userid = nullptr;
  fConnection->passwd = nullptr;
  fConnection->origin = nullptr;
  fDeadline.startHeaders();
}

const ServerLimits* ConnectionGuard::limitsOf(const soap* connection) {
  if (connection->frecv == &ConnectionGuard::receive && connection->user != nullptr) {
    return &static_cast<const ConnectionGuard*>(connection->user)->fLimits;
  }
  return nullptr;
}

void ConnectionGuard::beginBody(soap* connection, std::uint64_t length) {
  if (connection->frecv == &ConnectionGuard::receive && connection->user != nullptr) {
    static_cast<ConnectionGuard*>(connection->user)->fDeadline.startBody(length);
  }
}

void ConnectionGuard::beginSending(soap* connection, std::uint64_t length) {
  if (connection->frecv == &ConnectionGuard::receive && connection->user != nullptr) {
    ConnectionGuard* guard = static_cast<ConnectionGuard*>(connection->user);
    guard->fDeadline.startSending(length);
    guard->fDeadlineLogged = false;
  }
}

bool ConnectionGuard::sendingTooSlow(soap* connection) {
  if (connection->frecv != &ConnectionGuard::receive || connection->user == nullptr) {
    return false;
  }
  ConnectionGuard* guard = static_cast<ConnectionGuard*>(connection->user);
  if (!guard->fDeadline.passed()) {
    return false;
  }
  if (!guard->fDeadlineLogged) {
    guard->fDeadlineLogged = true;
    vu::log::write(vu::log::warning, kNetworkLog, "send",
                   "The client takes the reply too slowly; closing the connection of " +
                       std::string(connection->host) + " port " + std::to_string(connection->port));
  }
  return true;
}

bool ConnectionGuard::othersWaiting() const {
  return fOthersWaiting && fOthersWaiting();
}

long long ConnectionGuard::contestedMillisecondsLeft() const {
  if (!fDeadline.awaitingHeaders()) {
    return std::numeric_limits<long long>::max();
  }
  const int allowedMs =
      fRequestBegun ? ServerLimits::kContestedHeaderMs : ServerLimits::kContestedIdleMs;
  const long long spentMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                                RequestDeadline::Clock::now() - fDeadline.headersStarted())
                                .count();
  return std::max<long long>(allowedMs - spentMs, 0);
}

size_t ConnectionGuard::receive(soap* connection, char* buffer, size_t length) {
  ConnectionGuard* guard = static_cast<ConnectionGuard*>(connection->user);
  // Wait here for the next bytes, for no longer than the connection's own time-out for
  // one read and what is left of the request's deadline; gSOAP's read then finds them.
  // While it waits, waiting clients are looked for now and then: a connection that holds
  // the server idle or trickles its headers gives way to a client waiting behind it.
  constexpr int kWaitingCheckMs = 100;
  const int longestMs =
      connection->recv_timeout > 0 ? connection->recv_timeout * 1000 : kLongestReadSeconds * 1000;
  const auto waitStarted = RequestDeadline::Clock::now();
  if (guard->fGaveWay) {
    connection->errnum = 0;  // ended already: nothing more is read
    return 0;
  }
  for (;;) {
    long long leftMs = guard->fDeadline.millisecondsLeft();
    bool givingWay = false;
    if (leftMs > 0 && guard->othersWaiting()) {
      const long long contestedMs = guard->contestedMillisecondsLeft();
      if (contestedMs <= 0) givingWay = true;
      leftMs = std::min(leftMs, contestedMs);
    }
    if (givingWay) {
      guard->fGaveWay = true;
      vu::log::write(vu::log::info, kNetworkLog, "receive",
                     std::string("Another client waits; closing the connection of ") +
                         connection->host + " port " + std::to_string(connection->port) +
                         (guard->fRequestBegun ? ", whose request is slow to arrive"
                                               : ", which sent no request"));
      connection->errnum = 0;
      return 0;
    }
    if (leftMs <= 0) {
      if (!guard->fDeadlineLogged) {
        guard->fDeadlineLogged = true;
        vu::log::write(vu::log::warning, kNetworkLog, "receive",
                       "The request did not arrive in time; closing the connection of " +
                           std::string(connection->host) + " port " +
                           std::to_string(connection->port));
      }
      connection->errnum = ETIMEDOUT;
      return 0;
    }
    const long long idleLeftMs = longestMs - std::chrono::duration_cast<std::chrono::milliseconds>(
                                                 RequestDeadline::Clock::now() - waitStarted)
                                                 .count();
    if (idleLeftMs <= 0) {
      connection->errnum = 0;  // the read time-out of an idle connection
      return 0;
    }
    const long long stepMs =
        std::min({leftMs, idleLeftMs,
                  guard->fOthersWaiting ? static_cast<long long>(kWaitingCheckMs) : leftMs});
    pollfd ready{connection->socket, POLLIN, 0};
    const int waited = ::poll(&ready, 1, static_cast<int>(stepMs));
    if (waited > 0) {
      break;
    }
    if (waited < 0 && errno != EINTR) {
      connection->errnum = errno;
      return 0;
    }
  }
  const size_t received = guard->fPreviousReceive(connection, buffer, length);
  if (received > 0) {
    guard->fRequestBegun = true;
  }
  return received;
}

const RequestHeaders* ConnectionGuard::headersOf(const soap* connection) {
  if (connection->fparsehdr != &ConnectionGuard::parseHeader || connection->user == nullptr) {
    return nullptr;
  }
  return &static_cast<const ConnectionGuard*>(connection->user)->fHeaders;
}

int ConnectionGuard::parseRequest(soap* connection) {
  ConnectionGuard* guard = static_cast<ConnectionGuard*>(connection->user);
  const int error = guard->fPreviousParse(connection);
  // A request line was read (SOAP_OK, or a method it has no hook for); a connection that
  // ended or timed out before one is no request.
  const bool refusedMethod =
      error == 405 || (error >= SOAP_GET_METHOD && error <= SOAP_HTTP_METHOD);
  if (guard->fMetrics != nullptr && (error == SOAP_OK || refusedMethod)) {
    guard->fMetrics->request(refusedMethod ? "other" : methodName(connection->status)).increment();
  }
  // gSOAP's errors for a method without a hook (405 for one it does not know at all); it
  // would answer them with a SOAP fault.
  if (refusedMethod) {
    sendMethodNotAllowed(connection);
    // The end of the exchange without a reply of gSOAP's: with the connection's send and
    // receive time-outs set it sends no fault for SOAP_EOF, and the dispatcher closes.
    return connection->error = SOAP_EOF;
  }
  return error;
}

int ConnectionGuard::parseHeader(soap* connection, const char* key, const char* value) {
  ConnectionGuard* guard = static_cast<ConnectionGuard*>(connection->user);
  const std::string text = value != nullptr ? value : "";
  if (named(key, "Origin")) {
    guard->fHeaders.hasOrigin = true;
    guard->fHeaders.origin = text;
    return SOAP_OK;  // not for gSOAP: it would answer with CORS headers
  }
  if (named(key, "Access-Control-Request-Method") || named(key, "Access-Control-Request-Headers")) {
    return SOAP_OK;
  }
  if (named(key, "Sec-Fetch-Site")) {
    guard->fHeaders.fetchSite = text;
    return SOAP_OK;
  }
  if (named(key, "Content-Length")) {
    // Two lengths that differ let a proxy and this server disagree on where the next
    // request starts (request smuggling): the request is refused before any hook.
    const std::string length = boost::algorithm::trim_copy(text);
    if (guard->fHeaders.contentLength.empty()) {
      guard->fHeaders.contentLength = length;
    } else if (guard->fHeaders.contentLength != length) {
      guard->fHeaders.conflictingLength = true;
    }
  }
  if (named(key, "Host")) {
    guard->fHeaders.hasHost = true;
    guard->fHeaders.host = text;
  }
  return guard->fPreviousParseHeader(connection, key, value);
}

bool refuseRequest(soap* connection, Access access) {
  const ZRNetworkAccess network = networkAccess();
  RequestHeaders headers;
  if (const RequestHeaders* captured = ConnectionGuard::headersOf(connection)) {
    headers = *captured;
  } else if (connection->origin != nullptr) {
    // Without a guard on the connection gSOAP parsed the Origin itself.
    headers.hasOrigin = true;
    headers.origin = connection->origin;
  }

  if (headers.conflictingLength) {
    logRefusal(connection, "two different Content-Length headers");
    sendRefusal(connection, "400 Bad Request",
                "the request has two Content-Length headers that differ");
    return true;
  }

  ZRRequestOrigin seen;
  if (headers.hasHost) seen.host = headers.host;
  if (headers.hasOrigin) seen.origin = headers.origin;
  seen.fetchSite = headers.fetchSite;
  // Other sites may make a browser read files (it never lets them see the answer), not
  // change them.
  const ZRSiteCheck siteCheck =
      access == Access::Write ? ZRSiteCheck::Always : ZRSiteCheck::NotForThisRequest;
  switch (browserRefusal(seen, network, siteCheck)) {
    case ZRBrowserRefusal::None: break;
    case ZRBrowserRefusal::UnknownHost:
      logRefusal(connection, "host name " + headers.host);
      sendRefusal(connection, "403 Forbidden",
                  "this host name is not one of this robot's; allow it with --host-name");
      return true;
    case ZRBrowserRefusal::ForeignOrigin:
      logRefusal(connection, "origin " + headers.origin);
      sendRefusal(connection, "403 Forbidden",
                  "requests from pages of other origins are refused; only pages of this robot "
                  "may change its files");
      return true;
    case ZRBrowserRefusal::OtherSite:
      logRefusal(connection, "Sec-Fetch-Site " + headers.fetchSite);
      sendRefusal(connection, "403 Forbidden",
                  "requests from other sites are refused; only pages of this robot may change "
                  "its files");
      return true;
  }
  if (network.requiresCredentials() &&
      !(connection->passwd != nullptr && network.acceptsSecret(connection->passwd))) {
    sendUnauthorized(connection);
    return true;
  }
  return false;
}

void sendRefusal(soap* connection, const std::string& status, const std::string& why) {
  const std::size_t blank = status.find(' ');
  const std::string body = status.substr(0, blank) + " -" +
                           (blank == std::string::npos ? "" : status.substr(blank)) + ": " + why +
                           "\n";
  sendFinalAnswer(connection, status, "", body, true);
}

void sendMethodNotAllowed(soap* connection) {
  sendFinalAnswer(connection, "405 Method Not Allowed", "Allow: GET, PUT, DELETE\n",
                  "405 - Method Not Allowed\n", false);
}

}  // namespace detail
}  // namespace ZR
