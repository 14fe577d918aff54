#include <tuqvu/broker/httptypes.h>
#include <tuqvu/broker/requestguard.h>

#ifndef TUQVU_VERSION
#define TUQVU_VERSION "unknown"
#endif

namespace tuqvu {
namespace broker {

Response makeResponse(http::status status, const std::string& contentType, std::string body) {
  Response response{status, 11};
  response.set(http::field::server, "tuqvu/" TUQVU_VERSION);
  response.set(http::field::content_type, contentType);
  response.set(http::field::cache_control, "no-store");
  response.set("X-Content-Type-Options", "nosniff");
  response.body() = std::move(body);
  return response;
}

Response textResponse(http::status status, const std::string& text) {
  return makeResponse(status, "text/plain; charset=utf-8", text + "\n");
}

Response jsonResponse(http::status status, std::string json) {
  return makeResponse(status, "application/json", std::move(json));
}

Response htmlResponse(http::status status, std::string html) {
  Response response = makeResponse(status, "text/html; charset=utf-8", std::move(html));
  addPageSecurityHeaders(response);
  return response;
}

Response methodNotAllowed(const std::string& allowed) {
  Response response = textResponse(http::status::method_not_allowed,
                                   "method not allowed here; allowed: " + allowed);
  response.set(http::field::allow, allowed);
  return response;
}

}  // namespace broker
}  // namespace tuqvu
