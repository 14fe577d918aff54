#include <tuqvu/broker/requestguard.h>
#include <vu/base64.h>

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <boost/beast/core/string.hpp>
#include <cctype>

namespace tuqvu {
namespace broker {
namespace {

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool allDigits(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(),
                                      [](unsigned char c) { return std::isdigit(c) != 0; });
}

Response refused(const std::string& why) {
  return textResponse(http::status::forbidden, why);
}

}  // namespace

// The checks that keep pages of other sites and rebound DNS names out.
std::optional<Response> browserRefusal(const Request& request, const ZR::ZRNetworkAccess& access);

std::string hostOfHostHeader(const std::string& value) {
  if (!value.empty() && value[0] == '[') {
    const std::size_t close = value.find(']');
    return close == std::string::npos ? value : value.substr(1, close - 1);
  }
  const std::size_t colon = value.rfind(':');
  if (colon != std::string::npos && value.find(':') == colon &&
      allDigits(value.substr(colon + 1))) {
    return value.substr(0, colon);
  }
  return value;
}

bool isAllowedHost(const std::string& host, const ZR::ZRNetworkAccess& access) {
  const std::string name = lowerCase(host);
  if (name == "localhost") return true;
  boost::system::error_code error;
  boost::asio::ip::make_address(name, error);
  if (!error) return true;
  for (const std::string& allowed : access.hostNames) {
    if (lowerCase(allowed) == name) return true;
  }
  return false;
}

const char* const kSessionCookie = "tuqvu-session";

std::string sessionCookieHeader(const std::string& sessionToken) {
  return std::string(kSessionCookie) + "=" + sessionToken + "; Path=/; HttpOnly; SameSite=Strict";
}

namespace {

// The password of an "Authorization: Basic" header; nothing when there is none.
std::optional<std::string> basicPassword(const Request& request) {
  const auto field = request.find(http::field::authorization);
  if (field == request.end()) return std::nullopt;
  const std::string value(field->value());
  if (value.size() < 6 || !boost::beast::iequals(value.substr(0, 6), "Basic ")) {
    return std::nullopt;
  }
  std::string encoded = value.substr(6);
  encoded.erase(std::remove(encoded.begin(), encoded.end(), ' '), encoded.end());
  if (encoded.size() > 1024) return std::nullopt;
  std::string decoded;
  if (!vu::base64::decode(encoded, decoded)) return std::nullopt;
  const std::size_t colon = decoded.find(':');
  if (colon == std::string::npos) return std::nullopt;
  return decoded.substr(colon + 1);
}

bool hasSessionCookie(const Request& request, const std::string& sessionToken) {
  if (sessionToken.empty()) return false;
  const std::string wanted = std::string(kSessionCookie) + "=" + sessionToken;
  for (auto field = request.find(http::field::cookie);
       field != request.end() && field->name() == http::field::cookie; ++field) {
    const std::string cookies(field->value());
    std::size_t begin = 0;
    while (begin < cookies.size()) {
      std::size_t end = cookies.find(';', begin);
      if (end == std::string::npos) end = cookies.size();
      std::string cookie = cookies.substr(begin, end - begin);
      cookie.erase(0, cookie.find_first_not_of(' '));
      if (cookie.size() == wanted.size()) {
        // Compared like the secret: in time independent of where the texts differ.
        ZR::ZRNetworkAccess token;
        token.secret = wanted;
        if (token.acceptsSecret(cookie)) return true;
      }
      begin = end + 1;
    }
  }
  return false;
}

}  // namespace

GuardVerdict guardRequest(const Request& request, const ZR::ZRNetworkAccess& access,
                          const std::string& sessionToken) {
  GuardVerdict verdict;
  if (std::optional<Response> refusal = browserRefusal(request, access)) {
    verdict.refusal = std::move(refusal);
    return verdict;
  }
  if (!access.requiresCredentials() || hasSessionCookie(request, sessionToken)) return verdict;
  const std::optional<std::string> password = basicPassword(request);
  if (password && access.acceptsSecret(*password)) {
    verdict.signedIn = true;
    return verdict;
  }
  Response challenge = textResponse(
      http::status::unauthorized,
      password ? "wrong secret" : "this robot asks for its secret (HTTP Basic, any user name)");
  challenge.set(http::field::www_authenticate, "Basic realm=\"tuqvu\", charset=\"UTF-8\"");
  verdict.refusal = std::move(challenge);
  return verdict;
}

std::optional<Response> browserRefusal(const Request& request, const ZR::ZRNetworkAccess& access) {
  const auto hostField = request.find(http::field::host);
  const std::string hostValue =
      hostField == request.end() ? std::string() : std::string(hostField->value());
  if (hostField != request.end() && !isAllowedHost(hostOfHostHeader(hostValue), access)) {
    return refused("the host name " + hostValue +
                   " is not one of this robot's; allow it with --host-name");
  }

  const auto origin = request.find(http::field::origin);
  if (origin != request.end() && !(hostField != request.end() &&
                                   boost::beast::iequals(origin->value(), "http://" + hostValue))) {
    return refused("requests from the origin " + std::string(origin->value()) +
                   " are refused; only pages of this robot may call it");
  }
  const auto fetchSite = request.find("Sec-Fetch-Site");
  if (fetchSite != request.end() && (boost::beast::iequals(fetchSite->value(), "cross-site") ||
                                     boost::beast::iequals(fetchSite->value(), "same-site"))) {
    return refused("requests from other sites are refused; only pages of this robot may call it");
  }

  return std::nullopt;
}

bool isJsonContentType(const Request& request) {
  const auto type = request.find(http::field::content_type);
  if (type == request.end()) return false;
  std::string media(
      type->value().substr(0, std::min(type->value().find(';'), type->value().size())));
  media.erase(std::remove(media.begin(), media.end(), ' '), media.end());
  return lowerCase(media) == "application/json";
}

void addPageSecurityHeaders(Response& response) {
  response.set("Content-Security-Policy",
               "default-src 'self'; script-src 'self' 'unsafe-inline'; style-src 'self' "
               "'unsafe-inline'; img-src 'self'; connect-src 'self'; frame-ancestors 'none'; "
               "base-uri 'none'; form-action 'self'");
  response.set("X-Frame-Options", "DENY");
}

}  // namespace broker
}  // namespace tuqvu
