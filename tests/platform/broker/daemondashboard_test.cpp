// The dashboard at /ui/ of a real tuqvu: it signs in like every page of the broker (the
// secret once, then the session cookie), refuses pages of other origins, and its files
// never lead out of the folder they were installed in.
#include <gtest/gtest.h>
#include <unistd.h>

#include "common/files.h"
#include "support/httpclient.h"
#include "support/shareddaemon.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using tuqvutest::writeFile;

namespace {

const char* const kPage = "<!DOCTYPE html><title>dashboard of the test</title>";

class DaemonDashboard : public SharedDaemonTest {
protected:
  static void SetUpTestSuite() {
    SharedDaemonTest::SetUpTestSuite();
    // The daemon looks the folder up per request: installing it now is installing it.
    writeFile(folder() + "/index.html", kPage);
    writeFile(folder() + "/app.js", "console.log('dashboard');\n");
    writeFile(daemon->prefix() + "/share/tuqvu/outside.txt", "not part of the dashboard");
    ASSERT_EQ(0, ::symlink((daemon->home() + "/.config/tuqvu/secret").c_str(),
                           (folder() + "/secret.txt").c_str()));
  }
  static std::string folder() { return daemon->prefix() + "/share/tuqvu/ui"; }

  // A request with no credentials at all, or with the given headers only.
  static HttpReply bare(const std::string& target,
                        std::map<std::string, std::string> headers = {}) {
    headers.emplace("Authorization", "");
    HttpConnection connection(port());
    return connection.request("GET", target, "", headers);
  }
};

}  // namespace

TEST_F(DaemonDashboard, WithoutTheSecretOrItsCookieThePageIsNotServed) {
  const HttpReply refused = bare("/ui/");
  EXPECT_EQ(401, refused.status);
  ASSERT_EQ(1u, refused.headers.count("www-authenticate"));
  EXPECT_NE(std::string::npos, refused.headers.at("www-authenticate").find("Basic"));
  EXPECT_EQ(std::string::npos, refused.body.find("dashboard of the test"));
  EXPECT_EQ(401, bare("/ui/app.js").status);
  EXPECT_EQ(401, bare("/ui/", {{"Cookie", "tuqvu-session=0123456789abcdef"}}).status);
}

TEST_F(DaemonDashboard, TheSecretSignsInAndTheCookieAloneThenServesIt) {
  const HttpReply signedIn = httpGet(port(), "/ui/");
  ASSERT_EQ(200, signedIn.status);
  EXPECT_EQ(kPage, signedIn.body);
  const std::string cookie = signedIn.headers.at("set-cookie");
  EXPECT_NE(std::string::npos, cookie.find("HttpOnly"));
  EXPECT_NE(std::string::npos, cookie.find("SameSite=Strict"));

  const HttpReply withCookie = bare("/ui/app.js", {{"Cookie", cookie.substr(0, cookie.find(';'))}});
  EXPECT_EQ(200, withCookie.status);
  EXPECT_EQ("console.log('dashboard');\n", withCookie.body);
  EXPECT_EQ("text/javascript; charset=utf-8", withCookie.headers.at("content-type"));
  const std::string policy = withCookie.headers.at("content-security-policy");
  EXPECT_NE(std::string::npos, policy.find("script-src 'self'")) << policy;
  EXPECT_EQ(std::string::npos, policy.find("unsafe-inline")) << policy;
  EXPECT_EQ("DENY", withCookie.headers.at("x-frame-options"));
}

TEST_F(DaemonDashboard, PagesOfOtherOriginsCannotLoadIt) {
  HttpConnection connection(port());
  EXPECT_EQ(403, connection.request("GET", "/ui/", "", {{"Origin", "http://evil.example"}}).status);
  EXPECT_EQ(403,
            connection.request("GET", "/ui/app.js", "", {{"Sec-Fetch-Site", "cross-site"}}).status);
  EXPECT_EQ(403, connection.request("GET", "/ui/", "", {{"Host", "evil.example"}}).status);
}

TEST_F(DaemonDashboard, NeitherDotDotNorALinkLeadsOutOfItsFolder) {
  HttpConnection connection(port());
  for (const std::string target :
       {"/ui/../share/tuqvu/outside.txt", "/ui/%2e%2e/outside.txt", "/ui/..%2foutside.txt",
        "/ui/secret.txt", "/ui/./../outside.txt"}) {
    const HttpReply reply = connection.request("GET", target);
    EXPECT_EQ(404, reply.status) << target;
    EXPECT_EQ(std::string::npos, reply.body.find("not part of the dashboard")) << target;
    EXPECT_EQ(std::string::npos, reply.body.find(daemon->secret())) << target;
  }
  const HttpReply moved = connection.request("GET", "/ui");
  EXPECT_EQ(301, moved.status);
  EXPECT_EQ("/ui/", moved.headers.at("location"));
}
