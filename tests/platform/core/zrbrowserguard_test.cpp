#include <gtest/gtest.h>
#include <zr/zrbrowserguard.h>

using namespace ZR;

namespace {

ZRRequestOrigin from(std::optional<std::string> host, std::optional<std::string> origin = {},
                     const std::string& fetchSite = "") {
  ZRRequestOrigin request;
  request.host = std::move(host);
  request.origin = std::move(origin);
  request.fetchSite = fetchSite;
  return request;
}

ZRBrowserRefusal check(const ZRRequestOrigin& request,
                       ZRSiteCheck siteCheck = ZRSiteCheck::Always) {
  ZRNetworkAccess access;
  access.hostNames = {"Robot.Local"};
  return browserRefusal(request, access, siteCheck);
}

}  // namespace

TEST(ZRBrowserGuard, TheHostPartOfAHostHeaderIsItsNameOrAddress) {
  EXPECT_EQ("127.0.0.1", hostOfHostHeader("127.0.0.1:9600"));
  EXPECT_EQ("::1", hostOfHostHeader("[::1]:15000"));
  EXPECT_EQ("robot", hostOfHostHeader("robot:80"));
  EXPECT_EQ("robot", hostOfHostHeader("robot"));
  EXPECT_EQ("::1", hostOfHostHeader("::1"));  // a bare IPv6 address keeps its colons
  EXPECT_EQ("robot:8x", hostOfHostHeader("robot:8x"));
}

TEST(ZRBrowserGuard, AddressesLocalhostAndAllowedNamesInAnyCaseAreThisRobots) {
  for (const char* host : {"127.0.0.1:9600", "192.168.1.20", "[::1]:9600", "[fe80::1]:15000",
                           "LOCALHOST", "robot.local", "ROBOT.LOCAL:9600"}) {
    EXPECT_EQ(ZRBrowserRefusal::None, check(from(std::string(host)))) << host;
  }
  for (const char* host : {"attacker.example", "127.0.0.1.nip.io:9600", "robot", ""}) {
    EXPECT_EQ(ZRBrowserRefusal::UnknownHost, check(from(std::string(host)))) << host;
  }
  // HTTP/1.0 clients may send no Host at all.
  EXPECT_EQ(ZRBrowserRefusal::None, check(from(std::nullopt)));
}

TEST(ZRBrowserGuard, OnlyTheRobotsOwnOriginPasses) {
  EXPECT_EQ(ZRBrowserRefusal::None, check(from("127.0.0.1:9600", "http://127.0.0.1:9600")));
  EXPECT_EQ(ZRBrowserRefusal::None, check(from("Robot.Local", "HTTP://robot.local")));
  EXPECT_EQ(ZRBrowserRefusal::ForeignOrigin, check(from("127.0.0.1:9600", "http://evil.example")));
  EXPECT_EQ(ZRBrowserRefusal::ForeignOrigin, check(from("127.0.0.1:9600", "null")));
  EXPECT_EQ(ZRBrowserRefusal::ForeignOrigin, check(from(std::nullopt, "http://127.0.0.1")));
}

TEST(ZRBrowserGuard, RequestsABrowserMarksAsFromAnotherSiteAreRefused) {
  EXPECT_EQ(ZRBrowserRefusal::OtherSite, check(from("127.0.0.1", {}, "cross-site")));
  EXPECT_EQ(ZRBrowserRefusal::OtherSite, check(from("127.0.0.1", {}, "Same-Site")));
  EXPECT_EQ(ZRBrowserRefusal::None, check(from("127.0.0.1", {}, "same-origin")));
  EXPECT_EQ(ZRBrowserRefusal::None, check(from("127.0.0.1", {}, "none")));
}

TEST(ZRBrowserGuard, WithoutTheSiteCheckOnlyTheHostIsLookedAt) {
  const ZRRequestOrigin page = from("127.0.0.1", "http://evil.example", "cross-site");
  EXPECT_EQ(ZRBrowserRefusal::None, check(page, ZRSiteCheck::NotForThisRequest));
  EXPECT_EQ(ZRBrowserRefusal::UnknownHost,
            check(from("evil.example", "http://evil.example"), ZRSiteCheck::NotForThisRequest));
}
