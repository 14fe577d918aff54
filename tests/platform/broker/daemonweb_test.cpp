// The web interface of a real tuqvu process: module list, module pages and "?eval=".
#include <gtest/gtest.h>
#include <signal.h>

#include "support/httpclient.h"
#include "support/shareddaemon.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;

namespace {

class DaemonWeb : public SharedDaemonTest {
protected:
  // A GET as the robot's own page sends it once signed in: with the session cookie that
  // signing in handed out, and no credentials of its own ("?eval=" needs the cookie).
  static HttpReply fromPage(const std::string& target) {
    const HttpReply signIn = httpGet(port(), "/");
    EXPECT_EQ(200, signIn.status);
    const std::string cookie =
        signIn.headers.count("set-cookie") ? signIn.headers.at("set-cookie") : "";
    HttpConnection connection(port());
    return connection.request(
        "GET", target, "", {{"Cookie", cookie.substr(0, cookie.find(';'))}, {"Authorization", ""}});
  }
};

}  // namespace

TEST_F(DaemonWeb, RootListsTheModulesWithLinks) {
  const HttpReply reply = httpGet(port(), "/");
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ("text/html; charset=utf-8", reply.headers.at("content-type"));
  EXPECT_NE(std::string::npos, reply.body.find("<a href=\"/TestModule/\">TestModule</a>"))
      << reply.body;
}

TEST_F(DaemonWeb, ModulePageComesFromItsHttpGet) {
  const HttpReply reply = httpGet(port(), "/TestModule/");
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ("text/html; charset=utf-8", reply.headers.at("content-type"));
  EXPECT_EQ("<html><body><h1>test page of TestModule</h1></body></html>", reply.body);
  const HttpReply moved = httpGet(port(), "/TestModule");
  EXPECT_EQ(301, moved.status);
  EXPECT_EQ("/TestModule/", moved.headers.at("location"));
  EXPECT_EQ(404, httpGet(port(), "/NoModule/").status);
}

TEST_F(DaemonWeb, EvalAnswersResultsWith200) {
  // The shape the status page's script sends, quotes and all, percent-encoded as a
  // browser would.
  HttpReply reply = fromPage("/TestModule/?eval=TestModule.echo(%27x%27)");
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ("application/json", reply.headers.at("content-type"));
  EXPECT_EQ(R"({"result":"x"})", reply.body);
  reply = fromPage("/TestModule/?eval=TestModule.echo('it%5C's')");
  EXPECT_EQ(R"({"result":"it's"})", reply.body);
  reply = fromPage("/TestModule/?eval=TestModule.add(40,%202)");
  EXPECT_EQ(R"({"result":42})", reply.body);
  reply = fromPage("/TestModule/?eval=TestModule.echo([1,%20-2.5,%20true,%20%22a%20b%22,%20[]])");
  EXPECT_EQ(R"({"result":[1,-2.5,true,"a b",[]]})", reply.body);
  reply = fromPage("/TestModule/?eval=TestModule.noop()");
  EXPECT_EQ(R"({"result":null})", reply.body);
}

TEST_F(DaemonWeb, EvalOfAFailingCallIsStill200WithTheErrorInTheBody) {
  HttpReply reply = fromPage("/TestModule/?eval=TestModule.fail('no%20way')");
  EXPECT_EQ(200, reply.status);
  json body = json::parse(reply.body);
  EXPECT_EQ(-32000, body["error"]["code"]);
  EXPECT_EQ("no way", body["error"]["data"]["description"]);
  EXPECT_FALSE(body.contains("result"));
  // The status page's stop script calls a method the module does not publish.
  reply = fromPage("/TestModule/?eval=TestModule.unloadBehavior('x')");
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ(-32601, json::parse(reply.body)["error"]["code"]);
  reply = fromPage("/TestModule/?eval=TestModule.add(1)");
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ(-32602, json::parse(reply.body)["error"]["code"]);
}

TEST_F(DaemonWeb, UnparsableEvalIs400) {
  for (const char* target :
       {"/TestModule/?eval=TestModule.echo(", "/TestModule/?eval=TestModule.echo(x)",
        "/TestModule/?eval=", "/TestModule/?eval=TestModule.echo('a')garbage",
        "/TestModule/?eval=%zz", "/TestModule/?eval=TestModule.echo(%27%C3%28%27)"}) {
    const HttpReply reply = fromPage(target);
    EXPECT_EQ(400, reply.status) << target;
    EXPECT_EQ(-32700, json::parse(reply.body)["error"]["code"]) << target;
  }
}

TEST_F(DaemonWeb, AnEvalWithTheSecretButNoSessionIsRefusedAndRunsNothing) {
  const HttpReply refused = httpGet(port(), "/TestModule/?eval=ZRMemory.insertData('Web/Evil',1)");
  EXPECT_EQ(403, refused.status);
  EXPECT_NE(std::string::npos, refused.body.find("sign in")) << refused.body;
  EXPECT_EQ(json::array(), rpc(port(), "ZRMemory.getDataList", {"Web/Evil"})["result"]);
}
