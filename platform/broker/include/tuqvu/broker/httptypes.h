// The HTTP message types of the server and helpers that build its plain responses.
#pragma once

#include <boost/beast/http.hpp>
#include <string>

namespace tuqvu {
namespace broker {

namespace http = boost::beast::http;

using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

constexpr std::size_t kMaxBodyBytes = 1024 * 1024;
constexpr std::size_t kMaxHeaderBytes = 64 * 1024;

Response makeResponse(http::status status, const std::string& contentType, std::string body);
// text/plain with a line feed added.
Response textResponse(http::status status, const std::string& text);
Response jsonResponse(http::status status, std::string json);
Response htmlResponse(http::status status, std::string html);
// 405 with the Allow header.
Response methodNotAllowed(const std::string& allowed);

// The bytes of `response` on the wire, in one piece, as Beast's serializer writes them for
// a body of known length (after prepare_payload): into `out`, whose capacity is kept so
// that a connection reuses it for every answer.
void serializeResponse(const Response& response, std::string& out);

}  // namespace broker
}  // namespace tuqvu
