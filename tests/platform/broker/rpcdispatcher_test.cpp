#include <gtest/gtest.h>
#include <tuqvu/broker/registryjson.h>
#include <tuqvu/broker/rpcdispatcher.h>
#include <zr/zrbroker.h>
#include <zr/zrerror.h>

#include "support/inprocessmodule.h"

using nlohmann::json;
using tuqvu::broker::RpcDispatcher;

namespace {

class RpcDispatcherTest : public ::testing::Test {
protected:
  RpcDispatcherTest() : broker(ZR::ZRBroker::create("tuqvu")), module(broker, "Calc"), rpc(broker) {
    module.add("add", {{"a", ZR::TypeCodeInt}, {"b", ZR::TypeCodeInt}}, ZR::TypeCodeInt,
               [](const ZR::ZRValue& args, ZR::ZRValue& result) {
                 result = ZR::ZRValue(args[0].toInt() + args[1].toInt());
               });
    module.add("nothing", {}, ZR::TypeCodeVoid, [](const ZR::ZRValue&, ZR::ZRValue&) {});
    module.add("fail", {{"why", ZR::TypeCodeString}}, ZR::TypeCodeVoid,
               [](const ZR::ZRValue& args, ZR::ZRValue&) {
                 throw ZR::ZRError("Calc", "fail", args[0].toString(), "calc/source", 77);
               });
    module.add("std", {}, ZR::TypeCodeVoid,
               [](const ZR::ZRValue&, ZR::ZRValue&) { throw std::runtime_error("plain failure"); });
    module.add("nested", {}, ZR::TypeCodeValue, [this](const ZR::ZRValue&, ZR::ZRValue& result) {
      result = broker->call("Missing", "method", ZR::ZRValue::array());
    });
    module.add("pair", {{"a", ZR::TypeCodeValue}}, ZR::TypeCodeValue,
               [](const ZR::ZRValue& args, ZR::ZRValue& result) { result = args; });
    module.add(
        "pair", {{"a", ZR::TypeCodeValue}, {"b", ZR::TypeCodeValue}, {"c", ZR::TypeCodeValue}},
        ZR::TypeCodeValue, [](const ZR::ZRValue& args, ZR::ZRValue& result) { result = args; },
        true);
  }

  json call(const std::string& body) { return json::parse(rpc.handle(body)); }

  boost::shared_ptr<ZR::ZRBroker> broker;
  brokertest::InProcessModule module;
  RpcDispatcher rpc;
};

}  // namespace

TEST_F(RpcDispatcherTest, CallsTheMethodAndAnswersItsResult) {
  EXPECT_EQ(json::parse(R"({"jsonrpc":"2.0","id":7,"result":5})"),
            call(R"({"jsonrpc":"2.0","id":7,"method":"Calc.add","params":[2,3]})"));
  EXPECT_EQ(json::parse(R"({"jsonrpc":"2.0","id":"x","result":null})"),
            call(R"({"jsonrpc":"2.0","id":"x","method":"Calc.nothing"})"));
  EXPECT_EQ(
      json::parse(R"({"jsonrpc":"2.0","id":1,"result":[[1,"a"],{"$binary":"AAE="},null]})"),
      call(
          R"({"jsonrpc":"2.0","id":1,"method":"Calc.pair","params":[[1,"a"],{"$binary":"AAE="},null]})"));
}

TEST_F(RpcDispatcherTest, AZRErrorBecomesMinus32000WithItsFields) {
  const json reply = call(R"({"jsonrpc":"2.0","id":1,"method":"Calc.fail","params":["broken"]})");
  ASSERT_TRUE(reply.contains("error")) << reply;
  const json& error = reply["error"];
  EXPECT_EQ(-32000, error["code"]);
  EXPECT_EQ(std::string(ZR::ZRError("Calc", "fail", "broken", "calc/source", 77).what()),
            error["message"]);
  EXPECT_EQ(json::parse(R"({"module":"Calc","method":"fail","description":"broken",
                            "source":"calc/source","line":77})"),
            error["data"]);
  EXPECT_FALSE(reply.contains("result"));
}

TEST_F(RpcDispatcherTest, OtherExceptionsAreCallFailuresToo) {
  const json error = call(R"({"jsonrpc":"2.0","id":1,"method":"Calc.std"})")["error"];
  EXPECT_EQ(-32000, error["code"]);
  EXPECT_EQ("plain failure", error["data"]["description"]);
  EXPECT_EQ("Calc", error["data"]["module"]);
}

TEST_F(RpcDispatcherTest, UnknownModuleOrMethodIsMinus32601) {
  EXPECT_EQ(-32601,
            call(R"({"jsonrpc":"2.0","id":1,"method":"Nope.add","params":[]})")["error"]["code"]);
  EXPECT_EQ(-32601,
            call(R"({"jsonrpc":"2.0","id":1,"method":"Calc.sub","params":[]})")["error"]["code"]);
  EXPECT_EQ(-32601, call(R"({"jsonrpc":"2.0","id":1,"method":"noDot"})")["error"]["code"]);
  EXPECT_EQ(-32601, call(R"({"jsonrpc":"2.0","id":1,"method":"ZRBroker.other"})")["error"]["code"]);
}

TEST_F(RpcDispatcherTest, ARefusalFromAnInnerCallIsTheMethodsFailure) {
  // The method exists with this arity; what it called does not.
  const json error = call(R"({"jsonrpc":"2.0","id":1,"method":"Calc.nested"})")["error"];
  EXPECT_EQ(-32000, error["code"]);
  EXPECT_NE(std::string::npos, error["data"]["description"].get<std::string>().find("Missing"));
}

TEST_F(RpcDispatcherTest, WrongArityIsMinus32602AndNamesTheArities) {
  const json error =
      call(R"({"jsonrpc":"2.0","id":1,"method":"Calc.pair","params":[1,2]})")["error"];
  EXPECT_EQ(-32602, error["code"]);
  EXPECT_NE(std::string::npos,
            error["message"].get<std::string>().find("takes 1 or 3 argument(s), not 2"))
      << error;
  EXPECT_EQ(
      -32602,
      call(R"({"jsonrpc":"2.0","id":1,"method":"Calc.add","params":{"a":1}})")["error"]["code"]);
  EXPECT_EQ(
      -32602,
      call(R"({"jsonrpc":"2.0","id":1,"method":"Calc.pair","params":[{"x":1}]})")["error"]["code"]);
}

TEST_F(RpcDispatcherTest, MalformedJsonIsMinus32700) {
  for (const char* body : {"{", "", "[1,", "{\"jsonrpc\":\"2.0\",}", "\"\xff\xfe\""}) {
    const json reply = call(body);
    EXPECT_EQ(-32700, reply["error"]["code"]) << body;
    EXPECT_TRUE(reply["id"].is_null());
  }
}

TEST_F(RpcDispatcherTest, DeeplyNestedJsonIsRefusedWithoutRecursion) {
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  EXPECT_EQ(-32700, call(deep)["error"]["code"]);
  const std::string deepParams = R"({"jsonrpc":"2.0","id":1,"method":"Calc.pair","params":[)" +
                                 std::string(70, '[') + std::string(70, ']') + "]}";
  EXPECT_EQ(-32700, call(deepParams)["error"]["code"]);
}

TEST_F(RpcDispatcherTest, InvalidRequestsAreMinus32600) {
  for (const char* body : {R"(5)", R"({"id":1,"method":"Calc.nothing"})",
                           R"({"jsonrpc":"1.0","id":1,"method":"Calc.nothing"})",
                           R"({"jsonrpc":"2.0","id":1,"method":5})",
                           R"({"jsonrpc":"2.0","id":1,"method":"Calc.nothing","params":"x"})",
                           R"({"jsonrpc":"2.0","id":{},"method":"Calc.nothing"})", R"([])"}) {
    EXPECT_EQ(-32600, call(body)["error"]["code"]) << body;
  }
}

TEST_F(RpcDispatcherTest, BatchesAnswerEachRequestAndSkipNotifications) {
  const json reply = call(R"([
    {"jsonrpc":"2.0","id":1,"method":"Calc.add","params":[1,1]},
    {"jsonrpc":"2.0","method":"Calc.add","params":[5,5]},
    {"jsonrpc":"2.0","id":2,"method":"Calc.fail","params":["x"]},
    7
  ])");
  ASSERT_TRUE(reply.is_array());
  ASSERT_EQ(3u, reply.size()) << reply;
  EXPECT_EQ(2, reply[0]["result"]);
  EXPECT_EQ(1, reply[0]["id"]);
  EXPECT_EQ(-32000, reply[1]["error"]["code"]);
  EXPECT_EQ(2, reply[1]["id"]);
  EXPECT_EQ(-32600, reply[2]["error"]["code"]);
}

TEST_F(RpcDispatcherTest, NotificationsAloneGetNoAnswer) {
  EXPECT_EQ("", rpc.handle(R"({"jsonrpc":"2.0","method":"Calc.nothing"})"));
  EXPECT_EQ(
      "",
      rpc.handle(
          R"([{"jsonrpc":"2.0","method":"Calc.nothing"},{"jsonrpc":"2.0","method":"Calc.fail","params":["x"]}])"));
}

TEST_F(RpcDispatcherTest, MalformedRequestsWithoutIdAreStillAnsweredWithANullId) {
  for (const char* body :
       {R"({"jsonrpc":"2.0"})", R"({"method":"Calc.nothing"})",
        R"({"jsonrpc":"1.0","method":"Calc.nothing"})", R"({"jsonrpc":"2.0","method":7})",
        R"({"jsonrpc":"2.0","method":"Calc.nothing","params":3})"}) {
    const json reply = call(body);
    EXPECT_EQ(-32600, reply["error"]["code"]) << body;
    EXPECT_TRUE(reply.contains("id") && reply["id"].is_null()) << body;
  }
  const json batch = call(R"([{"jsonrpc":"2.0"},{"jsonrpc":"2.0","method":"Calc.nothing"}])");
  ASSERT_TRUE(batch.is_array());
  ASSERT_EQ(1u, batch.size()) << batch;
  EXPECT_EQ(-32600, batch[0]["error"]["code"]);
}

TEST_F(RpcDispatcherTest, IntrospectionListsModulesAndMethodsInRegistrationOrder) {
  brokertest::InProcessModule second(broker, "Second");
  EXPECT_EQ(json::parse(R"(["Calc","Second"])"),
            call(R"({"jsonrpc":"2.0","id":1,"method":"ZRBroker.getModules"})")["result"]);
  const json methods = call(
      R"({"jsonrpc":"2.0","id":1,"method":"ZRBroker.getMethods","params":["Calc"]})")["result"];
  ASSERT_EQ(7u, methods.size());
  std::vector<std::string> names;
  for (const json& method : methods) names.push_back(method["name"]);
  EXPECT_EQ((std::vector<std::string>{"add", "nothing", "fail", "std", "nested", "pair", "pair"}),
            names);
  EXPECT_EQ(json::parse(R"({"name":"add","description":"does add","returnType":"int",
      "returnName":"return","returnDescription":"what add gives",
      "parameters":[{"name":"a","description":"the a","type":"int"},
                    {"name":"b","description":"the b","type":"int"}]})"),
            methods[0]);
  EXPECT_EQ("void", methods[1]["returnType"]);
  EXPECT_EQ(3u, methods[6]["parameters"].size());
}

TEST_F(RpcDispatcherTest, IntrospectionErrors) {
  const json unknown =
      call(R"({"jsonrpc":"2.0","id":1,"method":"ZRBroker.getMethods","params":["Nope"]})")["error"];
  EXPECT_EQ(-32000, unknown["code"]);
  EXPECT_EQ("ZRBroker", unknown["data"]["module"]);
  EXPECT_EQ("getMethods", unknown["data"]["method"]);
  EXPECT_EQ(-32602,
            call(R"({"jsonrpc":"2.0","id":1,"method":"ZRBroker.getMethods"})")["error"]["code"]);
  EXPECT_EQ(
      -32602,
      call(R"({"jsonrpc":"2.0","id":1,"method":"ZRBroker.getMethods","params":[3]})")["error"]
                                                                                     ["code"]);
  EXPECT_EQ(
      -32602,
      call(R"({"jsonrpc":"2.0","id":1,"method":"ZRBroker.getModules","params":[1]})")["error"]
                                                                                     ["code"]);
}

TEST_F(RpcDispatcherTest, DescribeModuleGivesTheModulesDescriptionWithItsMethods) {
  module.setModuleDescription("adds numbers");
  const json described = call(
      R"({"jsonrpc":"2.0","id":1,"method":"ZRBroker.describeModule","params":["Calc"]})")["result"];
  EXPECT_EQ("Calc", described["name"]);
  EXPECT_EQ("adds numbers", described["description"]);
  EXPECT_EQ(
      call(
          R"({"jsonrpc":"2.0","id":1,"method":"ZRBroker.getMethods","params":["Calc"]})")["result"],
      described["methods"]);
  const json unknown = call(
      R"({"jsonrpc":"2.0","id":1,"method":"ZRBroker.describeModule","params":["Nope"]})")["error"];
  EXPECT_EQ(-32000, unknown["code"]);
  EXPECT_EQ("describeModule", unknown["data"]["method"]);
  EXPECT_EQ(-32602, call(R"({"jsonrpc":"2.0","id":1,"method":"ZRBroker.describeModule",
                             "params":[1]})")["error"]["code"]);
  EXPECT_EQ(
      -32602,
      call(R"({"jsonrpc":"2.0","id":1,"method":"ZRBroker.describeModule"})")["error"]["code"]);
}

TEST_F(RpcDispatcherTest, DiscoverAnswersAnOpenRpcDocumentOfEveryMethod) {
  const json document = call(R"({"jsonrpc":"2.0","id":1,"method":"rpc.discover"})")["result"];
  EXPECT_EQ("1.2.6", document["openrpc"]);
  EXPECT_EQ("tuqvu", document["info"]["title"]);
  std::vector<std::string> names;
  for (const json& method : document["methods"]) names.push_back(method["name"]);
  EXPECT_EQ((std::vector<std::string>{"ZRBroker.getModules", "ZRBroker.getMethods",
                                      "ZRBroker.describeModule", "Calc.add", "Calc.nothing",
                                      "Calc.fail", "Calc.std", "Calc.nested", "Calc.pair"}),
            names);
  const json add = document["methods"][3];
  EXPECT_EQ("does add", add["description"]);
  EXPECT_EQ("by-position", add["paramStructure"]);
  EXPECT_EQ(json::parse(R"({"name":"a","description":"the a","schema":{"type":"integer"},
                            "required":true})"),
            add["params"][0]);
  EXPECT_EQ(json::parse(R"({"name":"return","description":"what add gives",
                            "schema":{"type":"integer"}})"),
            add["result"]);
  EXPECT_EQ(json::parse(R"({"type":"null"})"), document["methods"][4]["result"]["schema"]);
  // Two forms of "pair": one entry, the parameters of the longer form beyond the shorter
  // one optional, any value for ZRValue.
  const json pair = document["methods"][8];
  ASSERT_EQ(3u, pair["params"].size());
  EXPECT_TRUE(pair["params"][0]["required"].get<bool>());
  EXPECT_FALSE(pair["params"][1]["required"].get<bool>());
  EXPECT_EQ(json::object(), pair["params"][2]["schema"]);
  // Parameters are not taken.
  EXPECT_EQ(
      -32602,
      call(R"({"jsonrpc":"2.0","id":1,"method":"rpc.discover","params":[1]})")["error"]["code"]);
}

TEST(RegistryJson, EveryTypeCodeHasTheSchemaOfItsJsonValues) {
  EXPECT_EQ(json::parse(R"({"type":"boolean"})"), tuqvu::broker::schemaOfType("bool"));
  EXPECT_EQ(json::parse(R"({"type":"number"})"), tuqvu::broker::schemaOfType("float"));
  EXPECT_EQ(json::parse(R"({"type":"string"})"), tuqvu::broker::schemaOfType("std::string"));
  EXPECT_EQ(json::parse(R"({"type":"array","items":{"type":"string"}})"),
            tuqvu::broker::schemaOfType("std::vector<std::string>"));
  EXPECT_EQ(json::object(), tuqvu::broker::schemaOfType("ZRValue"));
}

TEST_F(RpcDispatcherTest, EvaluateAnswersResultOrError) {
  ZR::ZRValue args = ZR::ZRValue::array();
  args.arrayPush(ZR::ZRValue(40));
  args.arrayPush(ZR::ZRValue(2));
  EXPECT_EQ(R"({"result":42})", rpc.evaluate("Calc", "add", args));
  const json failed = json::parse(rpc.evaluate("Calc", "sub", ZR::ZRValue::array()));
  EXPECT_EQ(-32601, failed["error"]["code"]);
}

TEST_F(RpcDispatcherTest, ACallDuringShutdownIsRefusedAsAFailure) {
  broker->shutdown(0);
  const json error = call(R"({"jsonrpc":"2.0","id":1,"method":"Calc.nothing"})")["error"];
  EXPECT_EQ(-32000, error["code"]);
  EXPECT_NE(std::string::npos, error["message"].get<std::string>().find("shutting down"));
}
