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

void serializeResponse(const Response& response, std::string& out) {
  out.clear();
  const unsigned version = response.version();
  const unsigned status = response.result_int();
  const char startLine[] = {'H',
                            'T',
                            'T',
                            'P',
                            '/',
                            static_cast<char>('0' + version / 10 % 10),
                            '.',
                            static_cast<char>('0' + version % 10),
                            ' ',
                            static_cast<char>('0' + status / 100 % 10),
                            static_cast<char>('0' + status / 10 % 10),
                            static_cast<char>('0' + status % 10),
                            ' '};
  out.append(startLine, sizeof startLine);
  const auto reason = response.reason();
  out.append(reason.data(), reason.size());
  out.append("\r\n");
  for (const auto& field : response) {
    const auto name = field.name_string();
    const auto value = field.value();
    out.append(name.data(), name.size());
    out.append(": ");
    out.append(value.data(), value.size());
    out.append("\r\n");
  }
  out.append("\r\n");
  out.append(response.body());
}

}  // namespace broker
}  // namespace tuqvu
