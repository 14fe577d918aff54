// The checks a request passes before it reaches a route. They keep web pages of other
// origins from driving the robot through a visitor's browser (zr/zrbrowserguard.h, shared
// with the file server):
//   - Host must be an IP literal, "localhost" or a name the administrator allowed, so a
//     DNS name rebound to the robot's address is refused;
//   - an Origin header must name the broker itself, and Sec-Fetch-Site must not say the
//     request comes from another site;
// and calls must come as application/json, application/json-rpc or
// application/jsonrequest (isJsonContentType), which a page of another origin cannot send
// without the browser asking the broker first.
//
//   if (auto refusal = guardRequest(request, ZR::networkAccess())) send(*refusal);
#pragma once

#include <tuqvu/broker/httptypes.h>
#include <zr/zrnetworkaccess.h>

#include <optional>
#include <string>

namespace tuqvu {
namespace broker {

// Once the broker listens beyond loopback, every request must also present the secret
// (HTTP Basic, any user name) or the session cookie handed out for it; "?eval=" needs the
// cookie (changesStateThroughAPlainGet).
struct GuardVerdict {
  std::optional<Response> refusal;  // to send instead of routing the request
  bool signedIn = false;            // the secret came with it: hand out the session cookie
};
// `encrypted`: the request came over TLS.
GuardVerdict guardRequest(const Request& request, const ZR::ZRNetworkAccess& access,
                          const std::string& sessionToken, bool encrypted = false);

// The cookie that carries the session token, and its Set-Cookie value; over TLS the
// cookie is marked Secure, so a browser never sends it in clear.
extern const char* const kSessionCookie;
std::string sessionCookieHeader(const std::string& sessionToken, bool encrypted = false);

// True for the requests a page can make a browser send without asking, whatever site it
// comes from, and that still change the robot: "?eval=". Beyond the secret they need the
// session cookie, which the browser keeps to the robot's own pages.
bool changesStateThroughAPlainGet(const Request& request);

// True when Content-Type is application/json, application/json-rpc or
// application/jsonrequest, parameters such as charset aside.
bool isJsonContentType(const Request& request);

// What a kind of page may load and run, in its security headers.
struct PagePolicy {
  const char* contentSecurityPolicy;
  bool sendsNoReferrer;  // Referrer-Policy: no-referrer
};

// The modules' pages and the console: their scripts and styles may be inline (a module
// writes its page whole), and load only from the broker.
inline constexpr PagePolicy kModulePagePolicy{
    "default-src 'self'; script-src 'self' 'unsafe-inline'; style-src 'self' "
    "'unsafe-inline'; img-src 'self'; connect-src 'self'; frame-ancestors 'none'; "
    "base-uri 'none'; form-action 'self'",
    false};

// The dashboard: no inline code anywhere, so that a behavior's name that slipped into the
// page as markup could neither run as script nor restyle it; requests to the broker alone.
inline constexpr PagePolicy kDashboardPolicy{
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
    "connect-src 'self'; manifest-src 'self'; frame-ancestors 'none'; base-uri 'none'; "
    "form-action 'none'",
    true};

// Headers every page of the web interface carries: no framing, and what `policy` allows.
void addPageSecurityHeaders(Response& response, const PagePolicy& policy = kModulePagePolicy);

}  // namespace broker
}  // namespace tuqvu
