#include <gtest/gtest.h>
#include <tuqvu/broker/requestguard.h>
#include <zr/zrbrowserguard.h>

#include <boost/beast/core/detail/base64.hpp>

using namespace tuqvu::broker;

namespace {

Request request(const std::map<std::string, std::string>& headers,
                http::verb verb = http::verb::get, const std::string& target = "/") {
  Request message{verb, target, 11};
  for (const auto& header : headers) message.set(header.first, header.second);
  return message;
}

std::string basic(const std::string& credentials) {
  std::string encoded(boost::beast::detail::base64::encoded_size(credentials.size()), '\0');
  encoded.resize(
      boost::beast::detail::base64::encode(encoded.data(), credentials.data(), credentials.size()));
  return "Basic " + encoded;
}

// Loopback as an administrator who trusts it configures it: no secret asked.
ZR::ZRNetworkAccess onLoopback() {
  ZR::ZRNetworkAccess access;
  access.trustLoopback = true;
  return access;
}

ZR::ZRNetworkAccess onTheNetwork() {
  ZR::ZRNetworkAccess access;
  access.bindAddress = "0.0.0.0";
  access.secret = "0123456789abcdef";
  return access;
}

bool passes(const Request& message, const ZR::ZRNetworkAccess& access = onLoopback()) {
  return !guardRequest(message, access, "token").refusal.has_value();
}

int statusOf(const Request& message, const ZR::ZRNetworkAccess& access) {
  const GuardVerdict verdict = guardRequest(message, access, "token");
  return verdict.refusal ? verdict.refusal->result_int() : 0;
}

}  // namespace

TEST(RequestGuard, TheHostPartOfAHostHeaderIsItsNameOrAddress) {
  EXPECT_EQ("127.0.0.1", ZR::hostOfHostHeader("127.0.0.1:9600"));
  EXPECT_EQ("::1", ZR::hostOfHostHeader("[::1]:9600"));
  EXPECT_EQ("robot.local", ZR::hostOfHostHeader("robot.local"));
  EXPECT_EQ("robot.local", ZR::hostOfHostHeader("robot.local:80"));
}

TEST(RequestGuard, AddressesLocalhostAndAllowedNamesAreAcceptedHosts) {
  for (const char* host :
       {"127.0.0.1:9600", "192.168.1.20", "[::1]:9600", "localhost:9600", "LOCALHOST"}) {
    EXPECT_TRUE(passes(request({{"Host", host}}))) << host;
  }
  ZR::ZRNetworkAccess access = onLoopback();
  access.hostNames = {"Robot.Local"};
  EXPECT_TRUE(passes(request({{"Host", "robot.local:9600"}}), access));
}

TEST(RequestGuard, AnyOtherHostNameIsRefusedAsARebindingAttempt) {
  for (const char* host : {"attacker.example", "attacker.example:9600", "127.0.0.1.nip.io", "x"}) {
    EXPECT_EQ(403, statusOf(request({{"Host", host}}), onLoopback())) << host;
  }
}

TEST(RequestGuard, AnOriginOtherThanTheBrokersOwnIsRefused) {
  EXPECT_TRUE(passes(request({{"Host", "127.0.0.1:9600"}, {"Origin", "http://127.0.0.1:9600"}})));
  for (const char* origin :
       {"http://attacker.example", "http://127.0.0.1:15000", "null", "https://127.0.0.1:9600"}) {
    EXPECT_EQ(403,
              statusOf(request({{"Host", "127.0.0.1:9600"}, {"Origin", origin}}), onLoopback()))
        << origin;
  }
  EXPECT_EQ(403, statusOf(request({{"Origin", "http://127.0.0.1:9600"}}), onLoopback()));
}

TEST(RequestGuard, RequestsThatBrowsersMarkAsFromAnotherSiteAreRefused) {
  for (const char* site : {"cross-site", "same-site", "Cross-Site"}) {
    EXPECT_EQ(403, statusOf(request({{"Host", "127.0.0.1:9600"}, {"Sec-Fetch-Site", site}}),
                            onLoopback()))
        << site;
  }
  for (const char* site : {"same-origin", "none"}) {
    EXPECT_TRUE(passes(request({{"Host", "127.0.0.1:9600"}, {"Sec-Fetch-Site", site}}))) << site;
  }
}

TEST(RequestGuard, OnATrustedLoopbackNoCredentialsAreAskedFor) {
  const GuardVerdict verdict = guardRequest(request({{"Host", "127.0.0.1"}}), onLoopback(), "t");
  EXPECT_FALSE(verdict.refusal);
  EXPECT_FALSE(verdict.signedIn);
}

TEST(RequestGuard, OnLoopbackByDefaultARequestWithoutTheSecretIsChallenged) {
  ZR::ZRNetworkAccess access;
  access.secret = "0123456789abcdef";
  EXPECT_EQ(401, statusOf(request({{"Host", "127.0.0.1"}}), access));
  EXPECT_FALSE(
      guardRequest(request({{"Host", "127.0.0.1"}, {"Authorization", basic("x:0123456789abcdef")}}),
                   access, "t")
          .refusal);
}

TEST(RequestGuard, AnEvalNeedsTheSessionCookieAndNotOnlyTheSecret) {
  const auto eval = [](std::map<std::string, std::string> headers) {
    headers["Host"] = "192.168.1.20";
    Request message = request(headers);
    message.target("/ZRMemory/?eval=ZRMemory.insertData('k',1)");
    return message;
  };
  const Request basicOnly = eval({{"Authorization", basic("tuqvu:0123456789abcdef")}});
  EXPECT_EQ(403, statusOf(basicOnly, onTheNetwork()));
  EXPECT_TRUE(changesStateThroughAPlainGet(basicOnly));
  EXPECT_FALSE(
      guardRequest(eval({{"Cookie", "tuqvu-session=token"}}), onTheNetwork(), "token").refusal);
  // The same request without "?eval=" only reads: the secret is enough.
  Request page = basicOnly;
  page.target("/ZRMemory/");
  EXPECT_FALSE(changesStateThroughAPlainGet(page));
  EXPECT_FALSE(guardRequest(page, onTheNetwork(), "token").refusal);
}

TEST(RequestGuard, BeyondLoopbackARequestWithoutTheSecretIsChallenged) {
  const GuardVerdict verdict =
      guardRequest(request({{"Host", "192.168.1.20:9600"}}), onTheNetwork(), "token");
  ASSERT_TRUE(verdict.refusal);
  EXPECT_EQ(401, verdict.refusal->result_int());
  EXPECT_EQ("Basic realm=\"tuqvu\", charset=\"UTF-8\"",
            (*verdict.refusal)[http::field::www_authenticate]);
  EXPECT_EQ(401,
            statusOf(request({{"Host", "192.168.1.20"}, {"Authorization", basic("tuqvu:wrong")}}),
                     onTheNetwork()));
  EXPECT_EQ(401, statusOf(request({{"Host", "192.168.1.20"}, {"Authorization", "Basic !!!"}}),
                          onTheNetwork()));
  EXPECT_EQ(401, statusOf(request({{"Host", "192.168.1.20"}, {"Cookie", "tuqvu-session=wrong"}}),
                          onTheNetwork()));
}

TEST(RequestGuard, TheSecretSignsInWithAnyUserNameAndTheCookieKeepsTheSession) {
  const GuardVerdict secret = guardRequest(
      request({{"Host", "192.168.1.20"}, {"Authorization", basic("anyone:0123456789abcdef")}}),
      onTheNetwork(), "token");
  EXPECT_FALSE(secret.refusal);
  EXPECT_TRUE(secret.signedIn);
  const GuardVerdict cookie = guardRequest(
      request({{"Host", "192.168.1.20"}, {"Cookie", "theme=dark; tuqvu-session=token"}}),
      onTheNetwork(), "token");
  EXPECT_FALSE(cookie.refusal);
  EXPECT_FALSE(cookie.signedIn);
  EXPECT_EQ("tuqvu-session=token; Path=/; HttpOnly; SameSite=Strict", sessionCookieHeader("token"));
  EXPECT_EQ("tuqvu-session=token; Path=/; HttpOnly; SameSite=Strict; Secure",
            sessionCookieHeader("token", true));
}

TEST(RequestGuard, OverTlsThePagesOfTheBrokerAreItsHttpsOrigin) {
  const Request fromItsPage =
      request({{"Host", "127.0.0.1:9600"}, {"Origin", "https://127.0.0.1:9600"}});
  EXPECT_FALSE(guardRequest(fromItsPage, onLoopback(), "token", true).refusal);
  EXPECT_EQ(403, guardRequest(fromItsPage, onLoopback(), "token", false).refusal->result_int());
  const Request fromAPlainPage =
      request({{"Host", "127.0.0.1:9600"}, {"Origin", "http://127.0.0.1:9600"}});
  EXPECT_EQ(403, guardRequest(fromAPlainPage, onLoopback(), "token", true).refusal->result_int());
}

TEST(RequestGuard, PagesForbidFramingSniffingAndForeignScripts) {
  Response page = htmlResponse(http::status::ok, "<html></html>");
  EXPECT_EQ("DENY", page["X-Frame-Options"]);
  EXPECT_EQ("nosniff", page["X-Content-Type-Options"]);
  const std::string policy(page["Content-Security-Policy"]);
  EXPECT_NE(std::string::npos, policy.find("default-src 'self'"));
  EXPECT_NE(std::string::npos, policy.find("frame-ancestors 'none'"));
  EXPECT_EQ("nosniff", jsonResponse(http::status::ok, "{}")["X-Content-Type-Options"]);
}

TEST(RequestGuard, CallsComeAsJsonUnderAnyOfTheNamesJsonRpcClientsUse) {
  for (const char* type :
       {"application/json", "application/json; charset=utf-8", "Application/JSON",
        "application/json-rpc", "application/jsonrequest", "application/json-rpc;charset=UTF-8"}) {
    EXPECT_TRUE(isJsonContentType(request({{"Content-Type", type}}, http::verb::post, "/rpc")))
        << type;
  }
  // What a page of another site can send without a preflight, and no type at all.
  for (const char* type : {"text/plain", "application/x-www-form-urlencoded",
                           "multipart/form-data; boundary=x", "application/jsonp", ""}) {
    EXPECT_FALSE(isJsonContentType(request({{"Content-Type", type}}, http::verb::post, "/rpc")))
        << type;
  }
  EXPECT_FALSE(isJsonContentType(request({}, http::verb::post, "/rpc")));
}
