// The dashboard's files as the router hands them out: their types, the headers that keep
// inline code from running, and a folder that neither "..", a link nor a FIFO leads out of.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tuqvu/broker/dashboard.h>
#include <tuqvu/broker/router.h>
#include <unistd.h>
#include <zr/zrbroker.h>

#include <filesystem>

#include "common/environment.h"
#include "common/files.h"
#include "support/tuqvuprocess.h"

using namespace tuqvu::broker;
using tuqvutest::writeFile;

namespace {

class Dashboard : public ::testing::Test {
protected:
  Dashboard() : folder(scratch.path() + "/share/tuqvu/ui") {
    writeFile(folder + "/index.html", "<!DOCTYPE html><title>robot</title>");
    writeFile(folder + "/app.js", "export const answer = 42;\n");
    writeFile(folder + "/style/app.css", "body { margin: 0 }\n");
    writeFile(scratch.path() + "/share/tuqvu/private.txt", "outside the dashboard");
  }

  brokertest::TempDir scratch;
  const std::string folder;
};

std::string policyOf(const Response& response) {
  return std::string(response["Content-Security-Policy"]);
}

}  // namespace

TEST_F(Dashboard, FilesComeWithTheirTypeAndAPolicyWithoutInlineCode) {
  const Response page = dashboardFile(folder, "");
  EXPECT_EQ(http::status::ok, page.result());
  EXPECT_EQ("<!DOCTYPE html><title>robot</title>", page.body());
  EXPECT_EQ("text/html; charset=utf-8", page[http::field::content_type]);
  EXPECT_EQ("DENY", page["X-Frame-Options"]);
  EXPECT_EQ("nosniff", page["X-Content-Type-Options"]);
  const std::string policy = policyOf(page);
  EXPECT_NE(std::string::npos, policy.find("script-src 'self'")) << policy;
  EXPECT_NE(std::string::npos, policy.find("style-src 'self'")) << policy;
  EXPECT_NE(std::string::npos, policy.find("default-src 'none'")) << policy;
  EXPECT_NE(std::string::npos, policy.find("frame-ancestors 'none'")) << policy;
  EXPECT_EQ(std::string::npos, policy.find("unsafe")) << policy;

  const Response script = dashboardFile(folder, "app.js");
  EXPECT_EQ(http::status::ok, script.result());
  EXPECT_EQ("text/javascript; charset=utf-8", script[http::field::content_type]);
  EXPECT_EQ(policy, policyOf(script));
  const Response style = dashboardFile(folder, "style/app.css");
  EXPECT_EQ("text/css; charset=utf-8", style[http::field::content_type]);
  EXPECT_EQ("body { margin: 0 }\n", style.body());
}

TEST_F(Dashboard, NothingOutsideTheFolderIsServed) {
  for (const std::string relative : {"../private.txt", "style/../../private.txt", "missing.js",
                                     "style/", "/etc/passwd", "//etc/passwd", "..", "style"}) {
    const Response refused = dashboardFile(folder, relative);
    EXPECT_EQ(http::status::not_found, refused.result()) << relative;
    EXPECT_EQ(std::string::npos, refused.body().find("outside the dashboard")) << relative;
    EXPECT_EQ(std::string::npos, refused.body().find("root:")) << relative;
  }
}

TEST_F(Dashboard, LinksInTheFolderLeadNowhere) {
  ASSERT_EQ(0, ::symlink((scratch.path() + "/share/tuqvu/private.txt").c_str(),
                         (folder + "/leak.txt").c_str()));
  ASSERT_EQ(0, ::symlink("../private.txt", (folder + "/relative.txt").c_str()));
  ASSERT_EQ(0, ::symlink(scratch.path().c_str(), (folder + "/up").c_str()));
  ASSERT_EQ(0, ::symlink("app.js", (folder + "/same.js").c_str()));
  for (const std::string relative :
       {"leak.txt", "relative.txt", "up/share/tuqvu/private.txt", "same.js"}) {
    const Response refused = dashboardFile(folder, relative);
    EXPECT_EQ(http::status::not_found, refused.result()) << relative;
    EXPECT_EQ(std::string::npos, refused.body().find("outside the dashboard")) << relative;
    EXPECT_EQ(std::string::npos, refused.body().find("answer")) << relative;
  }
}

TEST_F(Dashboard, AFifoIsRefusedWithoutWaitingForAWriter) {
  ASSERT_EQ(0, ::mkfifo((folder + "/pipe.js").c_str(), 0600));
  EXPECT_EQ(http::status::not_found, dashboardFile(folder, "pipe.js").result());
}

TEST_F(Dashboard, AnInstallationWithoutTheFolderSaysSo) {
  const Response none = dashboardFile("", "index.html");
  EXPECT_EQ(http::status::not_found, none.result());
  EXPECT_NE(std::string::npos, none.body().find("no dashboard"));
}

TEST_F(Dashboard, TheRouterServesTheFolderOfTheInstallationAtUi) {
  tuqvutest::ScopedEnvironment prefix("TUQVU_SDK_PREFIX", scratch.path());
  ASSERT_EQ(folder, dashboardFolder());
  const boost::shared_ptr<ZR::ZRBroker> broker = ZR::ZRBroker::create("tuqvu");
  const auto rpc = std::make_shared<RpcDispatcher>(broker);
  auto get = [&](http::verb verb, const std::string& target) {
    Request request{verb, target, 11};
    Routed routed = route(request, rpc);
    EXPECT_EQ(Routed::Kind::Respond, routed.kind) << target;
    return routed.response;
  };
  const Response moved = get(http::verb::get, "/ui");
  EXPECT_EQ(http::status::moved_permanently, moved.result());
  EXPECT_EQ("/ui/", moved[http::field::location]);
  EXPECT_EQ("<!DOCTYPE html><title>robot</title>", get(http::verb::get, "/ui/").body());
  EXPECT_EQ("export const answer = 42;\n", get(http::verb::get, "/ui/app.js?v=1").body());
  // Escapes are decoded before the path is looked at: "%2e%2e" is "..".
  for (const std::string target :
       {"/ui/../share/tuqvu/private.txt", "/ui/%2e%2e/private.txt",
        "/ui/style/%2E%2E/%2e%2e/private.txt", "/ui/%2e%2e%2fprivate.txt"}) {
    const Response refused = get(http::verb::get, target);
    EXPECT_EQ(http::status::not_found, refused.result()) << target;
    EXPECT_EQ(std::string::npos, refused.body().find("outside the dashboard")) << target;
  }
  const Response posted = get(http::verb::post, "/ui/");
  EXPECT_EQ(http::status::method_not_allowed, posted.result());
}
