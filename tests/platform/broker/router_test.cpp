#include <gtest/gtest.h>
#include <tuqvu/broker/router.h>
#include <zr/zrbroker.h>

#include "support/inprocessmodule.h"

using namespace tuqvu::broker;
using nlohmann::json;

namespace {

class RouterTest : public ::testing::Test {
protected:
  RouterTest()
      : broker(ZR::ZRBroker::create("tuqvu")),
        module(broker, "Echo"),
        rpc(std::make_shared<RpcDispatcher>(broker)) {
    module.add("echo", {{"value", ZR::TypeCodeValue}}, ZR::TypeCodeValue,
               [](const ZR::ZRValue& args, ZR::ZRValue& result) { result = args[0]; });
  }

  Routed routeOf(http::verb verb, const std::string& target, const std::string& body = "") {
    Request request{verb, target, 11};
    if (verb == http::verb::post) request.set(http::field::content_type, "application/json");
    request.body() = body;
    return route(request, rpc);
  }
  // Routes and, for a call, runs it here.
  Response answer(http::verb verb, const std::string& target, const std::string& body = "") {
    Routed routed = routeOf(verb, target, body);
    if (routed.kind == Routed::Kind::Call) return routed.call();
    EXPECT_EQ(Routed::Kind::Respond, routed.kind);
    return routed.response;
  }

  boost::shared_ptr<ZR::ZRBroker> broker;
  brokertest::InProcessModule module;
  std::shared_ptr<const RpcDispatcher> rpc;
};

}  // namespace

TEST_F(RouterTest, RpcIsAPostCall) {
  Routed routed = routeOf(http::verb::post, "/rpc",
                          R"({"jsonrpc":"2.0","id":1,"method":"Echo.echo","params":[4]})");
  ASSERT_EQ(Routed::Kind::Call, routed.kind);
  const Response response = routed.call();
  EXPECT_EQ(http::status::ok, response.result());
  EXPECT_EQ("application/json", response[http::field::content_type]);
  EXPECT_EQ(json::parse(R"({"jsonrpc":"2.0","id":1,"result":4})"), json::parse(response.body()));
  EXPECT_EQ(
      http::status::no_content,
      answer(http::verb::post, "/rpc", R"({"jsonrpc":"2.0","method":"Echo.echo","params":[4]})")
          .result());
  const Response get = answer(http::verb::get, "/rpc");
  EXPECT_EQ(http::status::method_not_allowed, get.result());
  EXPECT_EQ("POST", get[http::field::allow]);
}

TEST_F(RouterTest, CallsMustBeSentAsJson) {
  for (const char* type :
       {"", "text/plain", "application/x-www-form-urlencoded", "multipart/form-data; boundary=x"}) {
    Request request{http::verb::post, "/rpc", 11};
    if (*type != '\0') request.set(http::field::content_type, type);
    request.body() = R"({"jsonrpc":"2.0","id":1,"method":"Echo.echo","params":[4]})";
    Routed routed = route(request, rpc);
    ASSERT_EQ(Routed::Kind::Respond, routed.kind) << type;
    EXPECT_EQ(http::status::unsupported_media_type, routed.response.result()) << type;
  }
  Request charset{http::verb::post, "/rpc", 11};
  charset.set(http::field::content_type, "Application/JSON; charset=utf-8");
  charset.body() = R"({"jsonrpc":"2.0","id":1,"method":"Echo.echo","params":[4]})";
  EXPECT_EQ(Routed::Kind::Call, route(charset, rpc).kind);
}

TEST_F(RouterTest, EventsTakeDecodedKeys) {
  Routed routed = routeOf(http::verb::get, "/events?key=Behaviors%20Run&key=A/B&other=1");
  ASSERT_EQ(Routed::Kind::EventStream, routed.kind);
  EXPECT_EQ((std::vector<std::string>{"Behaviors Run", "A/B"}), routed.keys);
  EXPECT_TRUE(routeOf(http::verb::get, "/events").keys.empty());
  EXPECT_EQ(http::status::bad_request, answer(http::verb::get, "/events?key=%ff").result());
  EXPECT_EQ(http::status::method_not_allowed, answer(http::verb::post, "/events").result());
}

TEST_F(RouterTest, IndexListsModulesWithLinks) {
  const Response response = answer(http::verb::get, "/");
  EXPECT_EQ(http::status::ok, response.result());
  EXPECT_EQ("text/html; charset=utf-8", response[http::field::content_type]);
  EXPECT_NE(std::string::npos, response.body().find("<a href=\"/Echo/\">Echo</a>"));
}

TEST_F(RouterTest, ModulePageComesFromItsHook) {
  const Response response = answer(http::verb::get, "/Echo/");
  EXPECT_EQ(http::status::ok, response.result());
  EXPECT_EQ(module.httpGet(), response.body());
  EXPECT_EQ("text/html; charset=utf-8", response[http::field::content_type]);
}

TEST_F(RouterTest, ModuleWithoutSlashIsRedirectedKeepingTheQuery) {
  const Response response = answer(http::verb::get, "/Echo?eval=Echo.echo(1)");
  EXPECT_EQ(http::status::moved_permanently, response.result());
  EXPECT_EQ("/Echo/?eval=Echo.echo(1)", response[http::field::location]);
}

TEST_F(RouterTest, EvalAnswersInTheBody) {
  Response response = answer(http::verb::get, "/Echo/?eval=Echo.echo(%27a%20b%27)");
  EXPECT_EQ(http::status::ok, response.result());
  EXPECT_EQ(R"({"result":"a b"})", response.body());
  response = answer(http::verb::get, "/Echo/?eval=Echo.missing()");
  EXPECT_EQ(http::status::ok, response.result());
  EXPECT_EQ(-32601, json::parse(response.body())["error"]["code"]);
  response = answer(http::verb::get, "/?eval=Echo.echo([1,true])");
  EXPECT_EQ(R"({"result":[1,true]})", response.body());
}

TEST_F(RouterTest, UnparsableEvalIs400) {
  for (const char* target : {"/Echo/?eval=Echo.echo(", "/Echo/?eval=", "/Echo/?eval=%zz",
                             "/Echo/?eval=Echo.echo(%27%ff%27)"}) {
    Routed routed = routeOf(http::verb::get, target);
    ASSERT_EQ(Routed::Kind::Respond, routed.kind) << target;
    EXPECT_EQ(http::status::bad_request, routed.response.result()) << target;
    EXPECT_EQ(rpc::kParseError, json::parse(routed.response.body())["error"]["code"]) << target;
  }
}

TEST_F(RouterTest, UnknownPathsAre404AndOtherMethods405) {
  EXPECT_EQ(http::status::not_found, answer(http::verb::get, "/Nope/").result());
  EXPECT_EQ(http::status::not_found, answer(http::verb::get, "/Echo/deeper").result());
  EXPECT_EQ(http::status::not_found, answer(http::verb::get, "/favicon.ico").result());
  EXPECT_EQ(http::status::not_found, answer(http::verb::post, "/nothing").result());
  for (const http::verb verb : {http::verb::put, http::verb::delete_, http::verb::head,
                                http::verb::options, http::verb::patch}) {
    const Response response = answer(verb, "/rpc");
    EXPECT_EQ(http::status::method_not_allowed, response.result());
    EXPECT_EQ("GET, POST", response[http::field::allow]);
    EXPECT_EQ(verb == http::verb::head, response.body().empty());
  }
  EXPECT_EQ(http::status::method_not_allowed, answer(http::verb::post, "/Echo/").result());
  EXPECT_EQ(http::status::bad_request, answer(http::verb::get, "/%zz").result());
}

TEST(Html, EscapesMarkup) {
  EXPECT_EQ("&lt;a href=&quot;x&quot;&gt;&amp;&#39;", escapeHtml("<a href=\"x\">&'"));
}
