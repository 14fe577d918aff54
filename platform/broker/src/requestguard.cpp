#include <tuqvu/broker/requestguard.h>
#include <tuqvu/broker/url.h>
#include <vu/base64.h>
#include <zr/zrbrowserguard.h>

#include <algorithm>
#include <boost/beast/core/string.hpp>
#include <cctype>

namespace tuqvu {
namespace broker {
namespace {

Response refused(const std::string& why) {
  return textResponse(http::status::forbidden, why);
}

}  // namespace

// The checks that keep pages of other sites and rebound DNS names out.
std::optional<Response> browserRefusal(const Request& request, const ZR::ZRNetworkAccess& access,
                                       bool encrypted);

const char* const kSessionCookie = "tuqvu-session";

std::string sessionCookieHeader(const std::string& sessionToken, bool encrypted) {
  return std::string(kSessionCookie) + "=" + sessionToken + "; Path=/; HttpOnly; SameSite=Strict" +
         (encrypted ? "; Secure" : "");
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
                          const std::string& sessionToken, bool encrypted) {
  GuardVerdict verdict;
  if (std::optional<Response> refusal = browserRefusal(request, access, encrypted)) {
    verdict.refusal = std::move(refusal);
    return verdict;
  }
  if (!access.requiresCredentials() || hasSessionCookie(request, sessionToken)) return verdict;
  const std::optional<std::string> password = basicPassword(request);
  if (password && access.acceptsSecret(*password)) {
    // A browser sends the Basic credentials it holds with any request a page of another
    // site makes it send, an image included; the SameSite=Strict cookie it never sends
    // there. So what a plain GET can change needs the cookie.
    if (changesStateThroughAPlainGet(request)) {
      verdict.refusal = refused(
          "this request changes the robot and needs the session of a signed-in page: open "
          "the robot's page in the browser, sign in there and use its controls");
      return verdict;
    }
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

std::optional<Response> browserRefusal(const Request& request, const ZR::ZRNetworkAccess& access,
                                       bool encrypted) {
  ZR::ZRRequestOrigin seen;
  seen.encrypted = encrypted;
  const auto host = request.find(http::field::host);
  if (host != request.end()) seen.host = std::string(host->value());
  const auto origin = request.find(http::field::origin);
  if (origin != request.end()) seen.origin = std::string(origin->value());
  const auto fetchSite = request.find("Sec-Fetch-Site");
  if (fetchSite != request.end()) seen.fetchSite = std::string(fetchSite->value());

  switch (ZR::browserRefusal(seen, access, ZR::ZRSiteCheck::Always)) {
    case ZR::ZRBrowserRefusal::None: return std::nullopt;
    case ZR::ZRBrowserRefusal::UnknownHost:
      return refused("the host name " + *seen.host +
                     " is not one of this robot's; allow it with --host-name");
    case ZR::ZRBrowserRefusal::ForeignOrigin:
      return refused("requests from the origin " + *seen.origin +
                     " are refused; only pages of this robot may call it");
    case ZR::ZRBrowserRefusal::OtherSite:
      return refused("requests from other sites are refused; only pages of this robot may call it");
  }
  return std::nullopt;
}

bool changesStateThroughAPlainGet(const Request& request) {
  const Target target = splitTarget(std::string(request.target()));
  return target.hasQuery && evalParameter(target.query).has_value();
}

bool isJsonContentType(const Request& request) {
  const auto type = request.find(http::field::content_type);
  if (type == request.end()) return false;
  std::string media(
      type->value().substr(0, std::min(type->value().find(';'), type->value().size())));
  media.erase(std::remove(media.begin(), media.end(), ' '), media.end());
  // The names JSON-RPC clients use; none of them may be sent by a page of another site
  // without a preflight, which the broker does not answer.
  return boost::beast::iequals(media, "application/json") ||
         boost::beast::iequals(media, "application/json-rpc") ||
         boost::beast::iequals(media, "application/jsonrequest");
}

void addPageSecurityHeaders(Response& response, const PagePolicy& policy) {
  response.set("Content-Security-Policy", policy.contentSecurityPolicy);
  response.set("X-Frame-Options", "DENY");
  if (policy.sendsNoReferrer) response.set("Referrer-Policy", "no-referrer");
}

}  // namespace broker
}  // namespace tuqvu
