// Commands that reach a robot over MQTT, run through the broker's own dispatcher, share
// of calls and call threads: answered with the request's correlation data and the
// robot's name, or on the answer topic of a requester that named itself in the command
// topic (MQTT 3.1.1), not run once their message expiry has passed, refused when too large.
#include <gtest/gtest.h>
#include <mqtt/async_client.h>
#include <tuqvu/broker/calladmission.h>
#include <tuqvu/broker/callexecutor.h>
#include <tuqvu/broker/httptypes.h>
#include <tuqvu/broker/rpcdispatcher.h>
#include <tuqvu/fleet/fleetcommands.h>
#include <zr/zrbroker.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <nlohmann/json.hpp>
#include <vector>

#include "support/inprocessmodule.h"

using nlohmann::json;
using tuqvu::fleet::FleetCommands;
using tuqvu::fleet::FleetTopics;

namespace {

class FleetCommandsTest : public ::testing::Test {
protected:
  FleetCommandsTest() : broker(ZR::ZRBroker::create("tuqvu")), module(broker, "Counter") {
    module.add("add", {{"n", ZR::TypeCodeInt}}, ZR::TypeCodeInt,
               [this](const ZR::ZRValue& args, ZR::ZRValue& result) {
                 result = ZR::ZRValue(total += args[0].toInt());
               });
    context->rpc = std::make_shared<tuqvu::broker::RpcDispatcher>(broker);
    context->executor = std::make_shared<tuqvu::broker::CallExecutor>();
    context->admission =
        std::make_shared<tuqvu::broker::CallAdmission>(tuqvu::broker::CallAdmission::Limits{4, 8});
    commands = std::make_shared<FleetCommands>(context, FleetTopics("tuqvu", "r7"),
                                               [this](mqtt::message_ptr message) {
                                                 std::lock_guard<std::mutex> lock(mutex);
                                                 sent.push_back(std::move(message));
                                                 arrived.notify_all();
                                               });
  }
  ~FleetCommandsTest() override { context->executor->stop(); }

  static mqtt::const_message_ptr request(const std::string& body, mqtt::properties properties,
                                         const std::string& topic = "tuqvu/all/command") {
    return mqtt::message_ptr_builder()
        .topic(topic)
        .payload(body)
        .qos(1)
        .properties(std::move(properties))
        .finalize();
  }
  static mqtt::properties answered(const std::string& correlation) {
    return {{mqtt::property::RESPONSE_TOPIC, std::string("tuqvu/clients/c1/responses")},
            {mqtt::property::CORRELATION_DATA, correlation}};
  }

  mqtt::message_ptr nextSent() {
    std::unique_lock<std::mutex> lock(mutex);
    if (!arrived.wait_for(lock, std::chrono::seconds(10), [this] { return !sent.empty(); })) {
      return nullptr;
    }
    mqtt::message_ptr message = sent.front();
    sent.erase(sent.begin());
    return message;
  }

  // Paho's C library keeps its own record of what it allocates once a client exists, as
  // one always does in a robot; a message with properties built before any client is
  // reported as lost by leak checkers although the library frees it.
  mqtt::async_client paho{"tcp://127.0.0.1:1", "fleet-commands-test",
                          mqtt::create_options(MQTTVERSION_5)};
  boost::shared_ptr<ZR::ZRBroker> broker;
  brokertest::InProcessModule module;
  std::atomic<int> total{0};
  std::shared_ptr<tuqvu::broker::ServerContext> context =
      std::make_shared<tuqvu::broker::ServerContext>();
  std::shared_ptr<FleetCommands> commands;
  std::mutex mutex;  // guards sent
  std::condition_variable arrived;
  std::vector<mqtt::message_ptr> sent;
};

std::string robotOf(const mqtt::message_ptr& message) {
  const mqtt::properties& properties = message->get_properties();
  return std::get<1>(mqtt::get<mqtt::string_pair>(properties, mqtt::property::USER_PROPERTY, 0));
}

}  // namespace

TEST_F(FleetCommandsTest, ARequestIsRunAndAnsweredOnItsResponseTopicWithItsCorrelation) {
  commands->take(
      request(R"({"jsonrpc":"2.0","id":5,"method":"Counter.add","params":[3]})", answered("abc")));
  const mqtt::message_ptr answer = nextSent();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->get_topic(), "tuqvu/clients/c1/responses");
  EXPECT_EQ(json::parse(answer->to_string()),
            json::parse(R"({"jsonrpc":"2.0","id":5,"result":3})"));
  EXPECT_EQ(mqtt::get<std::string>(answer->get_properties(), mqtt::property::CORRELATION_DATA),
            "abc");
  EXPECT_EQ(robotOf(answer), "r7");
}

TEST_F(FleetCommandsTest, ErrorsAreTheBrokersOwn) {
  commands->take(
      request(R"({"jsonrpc":"2.0","id":1,"method":"Counter.nope","params":[]})", answered("x")));
  const mqtt::message_ptr answer = nextSent();
  ASSERT_TRUE(answer);
  EXPECT_EQ(json::parse(answer->to_string())["error"]["code"], -32601);
}

TEST_F(FleetCommandsTest, ARequestWithoutAResponseTopicIsRunAndNotAnswered) {
  commands->take(request(R"({"jsonrpc":"2.0","id":1,"method":"Counter.add","params":[2]})", {}));
  ASSERT_TRUE(context->executor->waitIdle(std::chrono::seconds(10)));
  EXPECT_EQ(total.load(), 2);
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_TRUE(sent.empty());
}

TEST_F(FleetCommandsTest, ACommandWhoseExpiryHasPassedIsNotRunAndSaysSo) {
  mqtt::properties properties = answered("late");
  properties.add({mqtt::property::MESSAGE_EXPIRY_INTERVAL, uint32_t{0}});
  commands->take(request(R"({"jsonrpc":"2.0","id":9,"method":"Counter.add","params":[1]})",
                         std::move(properties)));
  const mqtt::message_ptr answer = nextSent();
  ASSERT_TRUE(answer);
  const json reply = json::parse(answer->to_string());
  EXPECT_EQ(reply["id"], 9);
  EXPECT_EQ(reply["error"]["code"], tuqvu::fleet::kCommandExpired);
  EXPECT_EQ(total.load(), 0);
}

TEST_F(FleetCommandsTest, ARequestLargerThanAnHttpBodyIsRefusedUnrun) {
  const std::string padding(tuqvu::broker::kMaxBodyBytes, ' ');
  commands->take(
      request(R"({"jsonrpc":"2.0","id":2,"method":"Counter.add","params":[1]})" + padding,
              answered("big")));
  const mqtt::message_ptr answer = nextSent();
  ASSERT_TRUE(answer);
  EXPECT_EQ(json::parse(answer->to_string())["error"]["code"], -32600);
  EXPECT_EQ(total.load(), 0);
}

TEST_F(FleetCommandsTest, NoCommandIsRunOnceTheBrokerShutsDown) {
  context->refusingCalls = true;
  commands->take(
      request(R"({"jsonrpc":"2.0","id":3,"method":"Counter.add","params":[1]})", answered("bye")));
  const mqtt::message_ptr answer = nextSent();
  ASSERT_TRUE(answer);
  EXPECT_EQ(json::parse(answer->to_string())["error"]["code"], -32005);
  EXPECT_EQ(total.load(), 0);
}

TEST_F(FleetCommandsTest,
       ARequesterNamedInTheTopicIsAnsweredOnItsTopicForThisRobotWithoutProperties) {
  commands->take(request(R"({"jsonrpc":"2.0","id":"k1","method":"Counter.add","params":[4]})", {},
                         "tuqvu/groups/front/command/c2"));
  const mqtt::message_ptr answer = nextSent();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->get_topic(), "tuqvu/clients/c2/responses/r7");
  EXPECT_EQ(json::parse(answer->to_string()),
            json::parse(R"({"jsonrpc":"2.0","id":"k1","result":4})"));
  EXPECT_TRUE(answer->get_properties().empty());
}

TEST_F(FleetCommandsTest, ARefusalOfANamedRequesterGoesToItsTopicToo) {
  context->refusingCalls = true;
  commands->take(request(R"({"jsonrpc":"2.0","id":8,"method":"Counter.add","params":[1]})", {},
                         "tuqvu/robots/r7/command/c3"));
  const mqtt::message_ptr answer = nextSent();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->get_topic(), "tuqvu/clients/c3/responses/r7");
  EXPECT_EQ(json::parse(answer->to_string())["id"], 8);
  EXPECT_EQ(total.load(), 0);
}

TEST_F(FleetCommandsTest, AResponseTopicWinsOverARequesterNamedInTheTopic) {
  commands->take(request(R"({"jsonrpc":"2.0","id":6,"method":"Counter.add","params":[1]})",
                         answered("both"), "tuqvu/all/command/c4"));
  const mqtt::message_ptr answer = nextSent();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->get_topic(), "tuqvu/clients/c1/responses");
  EXPECT_EQ(robotOf(answer), "r7");
}
