// What a request must pass before the hooks act, against the real server over raw
// sockets: no CORS, no OPTIONS, no pages of other sites, no rebound host names, and the
// secret once the server listens beyond loopback.
#include <gtest/gtest.h>
#include <zr/zrnetworkaccess.h>

#include <boost/beast/core/detail/base64.hpp>
#include <boost/filesystem/operations.hpp>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/logcapture.h"
#include "support/rawclient.h"
#include "support/requests.h"
#include "support/testenvironment.h"

namespace fs = boost::filesystem;
using namespace std::chrono_literals;
using zrft_test::kOk;
using zrft_test::paths;
using zrft_test::RawConnection;
using zrft_test::readFile;
using zrft_test::Reply;
using zrft_test::writeFile;

namespace {

std::string basic(const std::string& credentials) {
  std::string encoded(boost::beast::detail::base64::encoded_size(credentials.size()), '\0');
  encoded.resize(
      boost::beast::detail::base64::encode(encoded.data(), credentials.data(), credentials.size()));
  return "Basic " + encoded;
}

// A request with these extra header lines ("Name: value\n" each).
std::string request(const std::string& method, const std::string& path, const std::string& headers,
                    const std::string& body = "") {
  return method + " " + path + " HTTP/1.1\nHost: robot\n" + headers +
         (method == "PUT" ? "Content-Length: " + std::to_string(body.size()) + "\n" : "") + "\n" +
         body;
}

// Sets the process's network access for the lifetime of the object.
class AccessOverride {
public:
  explicit AccessOverride(const ZR::ZRNetworkAccess& access) : fSaved(ZR::networkAccess()) {
    ZR::setNetworkAccess(access);
  }
  ~AccessOverride() { ZR::setNetworkAccess(fSaved); }

private:
  ZR::ZRNetworkAccess fSaved;
};

class RequestGuard : public ::testing::Test {
protected:
  void SetUp() override { fPort = zrft_test::sharedServerPort(); }

  // The whole answer to one request on a new connection, read until the server closes or
  // stays silent for a second.
  std::string exchange(const std::string& bytes) {
    bool closed = false;
    return zrft_test::requestUntilClosed(fPort, bytes, &closed, 1000ms);
  }

  void expectRefused(const std::string& bytes, const std::string& status) {
    bool closed = false;
    const std::string received = zrft_test::requestUntilClosed(fPort, bytes, &closed);
    EXPECT_EQ(received.find("HTTP/1.1 " + status + "\nServer: TuqVu\nContent-Type: text/plain\n"),
              0u)
        << received;
    EXPECT_NE(received.find("\nConnection: close\n\n"), std::string::npos) << received;
    EXPECT_TRUE(closed) << bytes;
  }

  int fPort = 0;
};

}  // namespace

TEST_F(RequestGuard, OptionsHeadAndPatchAre405WithoutCorsHeaders) {
  for (const char* method : {"OPTIONS", "HEAD", "PATCH"}) {
    const std::string received =
        exchange(std::string(method) +
                 " /tmp/x.txt HTTP/1.1\nHost: robot\nOrigin: http://attacker.example\n"
                 "Access-Control-Request-Method: PUT\nContent-Length: 0\n\n");
    EXPECT_EQ(received,
              "HTTP/1.1 405 Method Not Allowed\nServer: TuqVu\nAllow: GET, PUT, DELETE\n"
              "Content-Type: text/plain\nContent-Length: 25\n\n405 - Method Not Allowed\n")
        << method;
  }
}

TEST_F(RequestGuard, EveryOtherMethodIs405OfTheServiceAndNeverAFaultNamingItsEngine) {
  for (const char* method : {"BREW", "PROPFIND", "TRACE", "CONNECT", "MKCOL", "FOO"}) {
    bool closed = false;
    const std::string received = zrft_test::requestUntilClosed(
        fPort, std::string(method) + " /tmp/x.txt HTTP/1.1\nHost: robot\n\n", &closed);
    EXPECT_EQ(received,
              "HTTP/1.1 405 Method Not Allowed\nServer: TuqVu\nAllow: GET, PUT, DELETE\n"
              "Content-Type: text/plain\nContent-Length: 25\n\n405 - Method Not Allowed\n")
        << method;
    EXPECT_TRUE(closed) << method;
  }
  writeFile(paths().tmp / "after.txt", "served");
  EXPECT_EQ(zrft_test::request(fPort, "GET /tmp/after.txt HTTP/1.1\nHost: robot\n\n").body,
            "served");
}

TEST_F(RequestGuard, RepliesOfGsoapItselfCarryNoCorsHeadersWhateverTheOrigin) {
  writeFile(paths().tmp / "cors.txt", "x");
  for (const std::string& bytes :
       {std::string("GET /tmp/cors.txt HTTP/1.1\nHost: robot\nOrigin: http://attacker.example\n\n"),
        std::string(
            "BREW /tmp/cors.txt HTTP/1.1\nHost: robot\nOrigin: http://attacker.example\n\n"),
        std::string("POST /tmp/cors.txt HTTP/1.1\nHost: robot\nOrigin: http://attacker.example\n"
                    "Content-Type: text/xml\nContent-Length: 4\n\n<a/>")}) {
    const std::string received = exchange(bytes);
    EXPECT_FALSE(received.empty()) << bytes;
    EXPECT_EQ(received.find("Access-Control-"), std::string::npos) << received;
  }
}

TEST_F(RequestGuard, WritesFromAPageOfAnotherOriginAre403AndChangeNothing) {
  writeFile(paths().tmp / "victim.txt", "untouched");
  zrft_test::LogCapture log;
  expectRefused(request("PUT", "/tmp/victim.txt", "Origin: http://attacker.example\n", "x"),
                "403 Forbidden");
  expectRefused(request("DELETE", "/tmp/victim.txt", "Origin: null\n"), "403 Forbidden");
  expectRefused(request("PUT", "/tmp/victim.txt", "Origin: http://robot:9600\n", "x"),
                "403 Forbidden");
  EXPECT_EQ(readFile(paths().tmp / "victim.txt"), "untouched");
  EXPECT_EQ(log.find("refuseRequest", "origin").size(), 3u);
}

TEST_F(RequestGuard, TwoContentLengthsThatDifferAre400AndChangeNothing) {
  writeFile(paths().tmp / "smuggled.txt", "untouched");
  zrft_test::LogCapture log;
  // The first length covers "x"; the second would take the rest as the body.
  expectRefused(
      "PUT /tmp/smuggled.txt HTTP/1.1\nHost: robot\nContent-Length: 1\nContent-Length: 30\n\n"
      "xGET /tmp/other.txt HTTP/1.1\n\n",
      "400 Bad Request");
  expectRefused(
      "DELETE /tmp/smuggled.txt HTTP/1.1\nHost: robot\nContent-Length: 5\n"
      "Content-Length: 0\n\nhello",
      "400 Bad Request");
  EXPECT_EQ(readFile(paths().tmp / "smuggled.txt"), "untouched");
  EXPECT_EQ(log.find("refuseRequest", "two different Content-Length headers").size(), 2u);
}

TEST_F(RequestGuard, TwoEqualContentLengthsAreOneLength) {
  EXPECT_EQ(exchange("PUT /tmp/twice.txt HTTP/1.1\nHost: robot\nContent-Length: 3\n"
                     "Content-Length:  3\n\nabc"),
            kOk);
  EXPECT_EQ(readFile(paths().tmp / "twice.txt"), "abc");
}

TEST_F(RequestGuard, WritesFromThisOriginAreServed) {
  EXPECT_EQ(exchange(request("PUT", "/tmp/own.txt", "Origin: http://robot\n", "own")), kOk);
  EXPECT_EQ(readFile(paths().tmp / "own.txt"), "own");
  EXPECT_EQ(exchange(request("DELETE", "/tmp/own.txt", "Origin: http://robot\n")), kOk);
  EXPECT_FALSE(fs::exists(paths().tmp / "own.txt"));
}

TEST_F(RequestGuard, WritesThatABrowserMarksCrossSiteOrSameSiteAre403) {
  writeFile(paths().tmp / "site.txt", "untouched");
  expectRefused(request("PUT", "/tmp/site.txt", "Sec-Fetch-Site: cross-site\n", "x"),
                "403 Forbidden");
  expectRefused(request("DELETE", "/tmp/site.txt", "Sec-Fetch-Site: same-site\n"), "403 Forbidden");
  EXPECT_EQ(readFile(paths().tmp / "site.txt"), "untouched");
  EXPECT_EQ(exchange(request("PUT", "/tmp/site.txt", "Sec-Fetch-Site: same-origin\n", "new")), kOk);
  EXPECT_EQ(readFile(paths().tmp / "site.txt"), "new");
}

TEST_F(RequestGuard, ReadsFromOtherSitesAreServedAsBefore) {
  writeFile(paths().tmp / "read.txt", "read");
  const Reply reply = zrft_test::request(
      fPort, request("GET", "/tmp/read.txt",
                     "Origin: http://attacker.example\nSec-Fetch-Site: cross-site\n"));
  EXPECT_EQ(reply.statusLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(reply.body, "read");
}

TEST_F(RequestGuard, AReboundHostNameIsRefusedForEveryMethod) {
  writeFile(paths().tmp / "rebound.txt", "untouched");
  for (const std::string method : {"GET", "PUT", "DELETE"}) {
    const std::string bytes = method +
                              " /tmp/rebound.txt HTTP/1.1\nHost: attacker.example:15000\n" +
                              (method == "PUT" ? "Content-Length: 1\n\nx" : "\n");
    expectRefused(bytes, "403 Forbidden");
  }
  EXPECT_EQ(readFile(paths().tmp / "rebound.txt"), "untouched");
}

TEST_F(RequestGuard, AddressesLocalhostAndConfiguredNamesAreAcceptedHosts) {
  writeFile(paths().tmp / "host.txt", "host");
  for (const char* host : {"127.0.0.1:15000", "[::1]:15000", "192.168.1.20", "localhost",
                           "LOCALHOST:15000", "robot", "Robot:15000"}) {
    const Reply reply = zrft_test::request(
        fPort, std::string("GET /tmp/host.txt HTTP/1.1\nHost: ") + host + "\n\n");
    EXPECT_EQ(reply.body, "host") << host;
  }
  // HTTP/1.0 clients may send no Host at all.
  EXPECT_EQ(zrft_test::request(fPort, "GET /tmp/host.txt HTTP/1.0\n\n").body, "host");
}

TEST_F(RequestGuard, BeyondLoopbackEveryMethodNeedsTheSecret) {
  ZR::ZRNetworkAccess access = ZR::networkAccess();
  access.bindAddress = "0.0.0.0";
  access.secret = "0123456789abcdef0123456789abcdef";
  AccessOverride opened(access);
  writeFile(paths().tmp / "guarded.txt", "guarded");

  const std::string challenge =
      "HTTP/1.1 401 Unauthorized\nServer: TuqVu\nWWW-Authenticate: Basic realm=\"tuqvu\"\n";
  for (const std::string& bytes :
       {request("GET", "/tmp/guarded.txt", ""), request("PUT", "/tmp/guarded.txt", "", "x"),
        request("DELETE", "/tmp/guarded.txt", ""),
        request("GET", "/tmp/guarded.txt", "Authorization: " + basic("tuqvu:wrong") + "\n"),
        request("PUT", "/tmp/guarded.txt", "Authorization: " + basic("tuqvu") + "\n", "x")}) {
    bool closed = false;
    const std::string received = zrft_test::requestUntilClosed(fPort, bytes, &closed);
    EXPECT_EQ(received.find(challenge), 0u) << bytes << "\n" << received;
    EXPECT_TRUE(closed);
  }
  EXPECT_EQ(readFile(paths().tmp / "guarded.txt"), "guarded");

  const std::string signedIn = "Authorization: " + basic("anyone:" + access.secret) + "\n";
  EXPECT_EQ(zrft_test::request(fPort, request("GET", "/tmp/guarded.txt", signedIn)).body,
            "guarded");
  EXPECT_EQ(exchange(request("PUT", "/tmp/guarded.txt", signedIn, "new")), kOk);
  EXPECT_EQ(readFile(paths().tmp / "guarded.txt"), "new");
  EXPECT_EQ(exchange(request("DELETE", "/tmp/guarded.txt", signedIn)), kOk);
  EXPECT_FALSE(fs::exists(paths().tmp / "guarded.txt"));
}

TEST_F(RequestGuard, CredentialsCountForTheRequestThatCarriesThemOnly) {
  ZR::ZRNetworkAccess access = ZR::networkAccess();
  access.bindAddress = "192.168.1.20";
  access.secret = "0123456789abcdef0123456789abcdef";
  AccessOverride opened(access);
  writeFile(paths().tmp / "first.txt", "first");
  writeFile(paths().tmp / "second.txt", "second");

  RawConnection connection(fPort);
  connection.send(
      request("GET", "/tmp/first.txt", "Authorization: " + basic("tuqvu:" + access.secret) + "\n"));
  EXPECT_EQ(connection.readReply(10s).body, "first");
  connection.send(request("GET", "/tmp/second.txt", ""));
  EXPECT_EQ(connection.readReply(10s).statusLine, "HTTP/1.1 401 Unauthorized");
}

TEST_F(RequestGuard, OnLoopbackNoCredentialsAreAsked) {
  ASSERT_FALSE(ZR::networkAccess().requiresCredentials());
  writeFile(paths().tmp / "open.txt", "open");
  EXPECT_EQ(zrft_test::request(fPort, request("GET", "/tmp/open.txt", "")).body, "open");
}
