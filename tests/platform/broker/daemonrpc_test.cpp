// The remote API of a real tuqvu process: JSON-RPC answers, error codes, introspection.
#include <gtest/gtest.h>
#include <signal.h>

#include "support/httpclient.h"
#include "support/shareddaemon.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;

namespace {

class DaemonRpc : public SharedDaemonTest {};

}  // namespace

TEST_F(DaemonRpc, SuccessCarriesTheResultOrNullForVoid) {
  EXPECT_EQ(json::parse(R"({"jsonrpc":"2.0","id":1,"result":5})"),
            rpc(port(), "TestModule.add", {2, 3}));
  EXPECT_EQ(json::parse(R"({"jsonrpc":"2.0","id":2,"result":null})"),
            rpc(port(), "TestModule.noop", json::array(), 2));
  const json value = json::parse(R"(["dance", 1.5, true, [1, ["x"]], null])");
  EXPECT_EQ(value, rpc(port(), "TestModule.echo", json::array({value}))["result"]);
}

TEST_F(DaemonRpc, AZRErrorIsMinus32000WithModuleMethodDescriptionSourceAndLine) {
  const json reply = rpc(port(), "TestModule.fail", {"out of battery"});
  ASSERT_TRUE(reply.contains("error")) << reply;
  const json& error = reply["error"];
  EXPECT_EQ(-32000, error["code"]);
  EXPECT_EQ("TestModule::fail\n\tout of battery\n\ttests/broker/test_module:4242",
            error["message"]);
  EXPECT_EQ(json::parse(R"({"module":"TestModule","method":"fail","description":"out of battery",
                            "source":"tests/broker/test_module","line":4242})"),
            error["data"]);
}

TEST_F(DaemonRpc, ErrorDataNameSourceFilesRelativeToTheRepository) {
  const json reply = rpc(port(), "ZRFrameManager.completeBehavior", {"no-such-id"});
  ASSERT_TRUE(reply.contains("error")) << reply;
  const std::string source = reply["error"]["data"]["source"];
  // Relative to the repository (a compiler cache may have made it relative to the build
  // folder instead): never a path of the machine that built it.
  EXPECT_NE('/', source.front()) << source;
  const std::string file = "platform/modules/src/framemanager/zrframemanager.cpp";
  ASSERT_GE(source.size(), file.size());
  EXPECT_EQ(file, source.substr(source.size() - file.size())) << source;
  EXPECT_EQ(std::string::npos, reply.dump().find(sourceDir())) << reply;
}

TEST_F(DaemonRpc, TheFrameManagerReadsNoFileButBehaviorFiles) {
  const json reply = rpc(port(), "ZRFrameManager.newBehaviorFromFile", {"/etc/passwd", "x"});
  ASSERT_TRUE(reply.contains("error")) << reply;
  EXPECT_EQ("refused to read /etc/passwd: a behavior file is named behavior.xar",
            reply["error"]["data"]["description"]);
  EXPECT_EQ(std::string::npos, reply.dump().find("root:")) << reply;
}

TEST_F(DaemonRpc, ErrorCodes) {
  EXPECT_EQ(-32601, rpc(port(), "NoModule.echo", {1})["error"]["code"]);
  EXPECT_EQ(-32601, rpc(port(), "TestModule.noSuchMethod", {1})["error"]["code"]);
  EXPECT_EQ(-32602, rpc(port(), "TestModule.add", {1})["error"]["code"]);
  EXPECT_EQ(-32602, rpc(port(), "TestModule.pair", {1, 2, 3})["error"]["code"]);
  EXPECT_EQ(-32600, json::parse(httpPost(port(), "/rpc", R"({"id":1,"method":"TestModule.noop"})")
                                    .body)["error"]["code"]);
  const HttpReply malformed = httpPost(port(), "/rpc", R"({"jsonrpc":"2.0",)");
  EXPECT_EQ(200, malformed.status);
  EXPECT_EQ(-32700, json::parse(malformed.body)["error"]["code"]);
}

TEST_F(DaemonRpc, AnUnknownMethodIsMethodNotFoundWhateverItsParameters) {
  for (const char* params : {"[]", "[1,2,3]", "{\"a\":1}", "[[[]]]"}) {
    for (const char* method : {"NoModule.echo", "TestModule.noSuchMethod", "noDot"}) {
      const std::string body = std::string(R"({"jsonrpc":"2.0","id":1,"method":")") + method +
                               R"(","params":)" + params + "}";
      EXPECT_EQ(-32601, json::parse(httpPost(port(), "/rpc", body).body)["error"]["code"]) << body;
    }
  }
}

TEST_F(DaemonRpc, CallsAreAcceptedAsJsonRpcAndJsonRequestTooButNotAsPlainText) {
  const std::string body = R"({"jsonrpc":"2.0","id":3,"method":"TestModule.add","params":[2,3]})";
  for (const char* type : {"application/json-rpc", "application/jsonrequest"}) {
    HttpConnection connection(port());
    const HttpReply reply = connection.request("POST", "/rpc", body, {{"Content-Type", type}});
    EXPECT_EQ(200, reply.status) << type;
    EXPECT_EQ(5, json::parse(reply.body)["result"]) << type;
  }
  HttpConnection connection(port());
  const HttpReply plain =
      connection.request("POST", "/rpc", body, {{"Content-Type", "text/plain"}});
  EXPECT_EQ(415, plain.status);
}

TEST_F(DaemonRpc, OverloadsAreChosenByArity) {
  EXPECT_EQ(json::parse("[1]"), rpc(port(), "TestModule.pair", {1})["result"]);
  EXPECT_EQ(json::parse("[1,2]"), rpc(port(), "TestModule.pair", {1, 2})["result"]);
}

TEST_F(DaemonRpc, BatchesAreAccepted) {
  const HttpReply reply = httpPost(port(), "/rpc",
                                   "[" + rpcRequest("TestModule.add", {1, 2}, 1) + "," +
                                       rpcRequest("TestModule.fail", {"x"}, 2) + "," +
                                       rpcRequest("Nope.x", json::array(), 3) + "]");
  ASSERT_EQ(200, reply.status);
  const json answers = json::parse(reply.body);
  ASSERT_EQ(3u, answers.size());
  EXPECT_EQ(3, answers[0]["result"]);
  EXPECT_EQ(-32000, answers[1]["error"]["code"]);
  EXPECT_EQ(-32601, answers[2]["error"]["code"]);
}

TEST_F(DaemonRpc, NotificationsAreAnsweredWithNoContent) {
  const HttpReply reply =
      httpPost(port(), "/rpc", R"({"jsonrpc":"2.0","method":"TestModule.noop","params":[]})");
  EXPECT_EQ(204, reply.status);
  EXPECT_EQ("", reply.body);
}

TEST_F(DaemonRpc, AnObjectWithoutIdOrMethodIsAnsweredAsAnInvalidRequest) {
  const HttpReply reply = httpPost(port(), "/rpc", R"({"jsonrpc":"2.0"})");
  EXPECT_EQ(200, reply.status);
  const json answer = json::parse(reply.body);
  EXPECT_EQ(-32600, answer["error"]["code"]);
  EXPECT_TRUE(answer["id"].is_null());
}

TEST_F(DaemonRpc, IntrospectionListsModulesAndMethods) {
  const json modules = rpc(port(), "ZRBroker.getModules", json::array())["result"];
  ASSERT_TRUE(modules.is_array());
  EXPECT_EQ("TestModule", modules.back());
  const json methods = rpc(port(), "ZRBroker.getMethods", {"TestModule"})["result"];
  std::vector<std::string> names;
  for (const json& method : methods) names.push_back(method["name"]);
  EXPECT_EQ((std::vector<std::string>{"echo", "add", "noop", "fail", "pair", "pair", "block",
                                      "release", "blockedCount", "completedCount", "sleep",
                                      "waitForFile", "raise", "callOther"}),
            names);
  EXPECT_EQ(json::parse(R"({"name":"add","description":"adds two integers",
      "parameters":[{"name":"a","description":"the a","type":"int"},
                    {"name":"b","description":"the b","type":"int"}],
      "returnType":"int","returnName":"return","returnDescription":"the result"})"),
            methods[1]);
  EXPECT_EQ("void", methods[2]["returnType"]);
  EXPECT_EQ(-32000, rpc(port(), "ZRBroker.getMethods", {"Nope"})["error"]["code"]);
}

TEST_F(DaemonRpc, OneKeepAliveConnectionCarriesManyCalls) {
  HttpConnection connection(port());
  for (int i = 0; i < 50; ++i) {
    const HttpReply reply =
        connection.request("POST", "/rpc", rpcRequest("TestModule.add", {i, i}));
    ASSERT_EQ(200, reply.status);
    EXPECT_EQ(2 * i, json::parse(reply.body)["result"]);
  }
}
