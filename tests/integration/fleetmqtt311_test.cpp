// Robots and clients on a broker without MQTT 5: the real Mosquitto behind a proxy that
// refuses MQTT 5 as a 3.1.1 broker does (or hangs up on it). A robot there connects with
// MQTT 3.1.1 and shows online, its last will still says when it dies, a client there lists
// the fleet and commands robots through the command topics' requester level, also a robot
// that is on MQTT 5 directly, and the access list still keeps a viewer from commanding.
#include <common/eventually.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "support/fleetbroker.h"
#include "support/fleetoutput.h"
#include "support/httpclient.h"
#include "support/mosquitto.h"
#include "support/mqtt311proxy.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;
using tuqvutest::eventually;

namespace {

constexpr std::chrono::milliseconds kSettle{20000};

// robot-0 behind the proxy that answers MQTT 5 with "unacceptable protocol version",
// robot-1 on Mosquitto itself with MQTT 5, robot-2 behind a proxy that hangs up on MQTT 5.
class FleetWithoutMqtt5 : public ::testing::Test {
protected:
  void SetUp() override {
    mqtt = std::make_unique<Mosquitto>(kFleetUsers, kFleetAcl);
    ASSERT_TRUE(mqtt->running()) << mqtt->log();
    refusing = std::make_unique<Mqtt311Proxy>(mqtt->port());
    hangingUp = std::make_unique<Mqtt311Proxy>(mqtt->port(), Mqtt311Proxy::Refusal::Hangup);
    robots.push_back(startRobot("robot-0", refusing->url()));
    robots.push_back(startRobot("robot-1", mqtt->url()));
    robots.push_back(startRobot("robot-2", hangingUp->url()));
    ASSERT_TRUE(eventually([&] { return onlineRobots() == 3; }, kSettle))
        << fleetList().out << fleetList().err;
  }

  std::unique_ptr<TuqvuProcess> startRobot(const std::string& id, const std::string& url) {
    TuqvuProcess::Setup setup;
    setup.args = {"--no-file-server",
                  "--mqtt",
                  url,
                  "--mqtt-user",
                  "robot",
                  "--mqtt-password-file",
                  mqtt->passwordFile("robot"),
                  "--robot-id",
                  id};
    return std::make_unique<TuqvuProcess>(setup);
  }

  // tuqvu-call --fleet through the refusing proxy, so on MQTT 3.1.1.
  CommandResult callWithout5(const std::string& user, std::vector<std::string> args) {
    return runCommand(
        fleetCallArgv(tuqvuCallPath(), refusing->url(), user, mqtt->passwordFile(user), args));
  }
  CommandResult fleetList() { return callWithout5("operator", {"--json"}); }

  std::map<std::string, json> statuses() { return statusesByRobot(fleetList().out); }
  int onlineRobots() { return onlineCount(statuses()); }
  json memory(int index, const std::string& key) { return robotMemory(robots[index]->port(), key); }

  std::unique_ptr<Mosquitto> mqtt;
  std::unique_ptr<Mqtt311Proxy> refusing;
  std::unique_ptr<Mqtt311Proxy> hangingUp;
  std::vector<std::unique_ptr<TuqvuProcess>> robots;
};

}  // namespace

TEST_F(FleetWithoutMqtt5, ARobotRefusedMqtt5ConnectsWith311AndSaysSo) {
  EXPECT_GT(refusing->refusedConnects(), 0);
  EXPECT_EQ(statuses()["robot-0"]["state"], "online");
  EXPECT_TRUE(eventually(
      [&] { return robots[0]->stderrText().find("with MQTT 3.1.1") != std::string::npos; },
      kSettle))
      << robots[0]->stderrText();
  EXPECT_NE(robots[1]->stderrText().find("with MQTT 5 "), std::string::npos)
      << robots[1]->stderrText();
}

TEST_F(FleetWithoutMqtt5, ARobotHungUpOnForMqtt5ConnectsWith311) {
  EXPECT_GT(hangingUp->refusedConnects(), 0);
  EXPECT_EQ(statuses()["robot-2"]["state"], "online");
  EXPECT_TRUE(eventually(
      [&] { return robots[2]->stderrText().find("with MQTT 3.1.1") != std::string::npos; },
      kSettle))
      << robots[2]->stderrText();
}

TEST_F(FleetWithoutMqtt5, AClientOn311CallsARobotOn311AndGetsItsAnswer) {
  const CommandResult call = callWithout5("operator", {"--to", "robot-0", "ZRBroker.getModules"});
  EXPECT_EQ(call.status, 0) << call.out << call.err;
  const std::vector<json> lines = jsonLines(call.out);
  ASSERT_EQ(lines.size(), 1u) << call.out;
  EXPECT_EQ(lines[0]["robot"], "robot-0");
  ASSERT_TRUE(lines[0].contains("result")) << call.out;
  EXPECT_TRUE(lines[0]["result"].is_array()) << call.out;
}

TEST_F(FleetWithoutMqtt5, AClientOn311CommandsARobotOnMqtt5AndEveryRobotAnswersACommandToAll) {
  const CommandResult one = callWithout5("operator", {"--to", "robot-1", "ZRBroker.getModules"});
  EXPECT_EQ(one.status, 0) << one.out << one.err;
  const std::vector<json> lines = jsonLines(one.out);
  ASSERT_EQ(lines.size(), 1u) << one.out;
  EXPECT_EQ(lines[0]["robot"], "robot-1");
  EXPECT_TRUE(lines[0].contains("result")) << one.out;

  const CommandResult all = callWithout5(
      "operator", {"--to", "all", "--timeout", "20", "ZRMemory.insertData", "Fleet/All", "7"});
  EXPECT_EQ(all.status, 0) << all.out << all.err;
  std::set<std::string> answered;
  for (const json& line : jsonLines(all.out)) answered.insert(line.value("robot", ""));
  EXPECT_EQ(answered, (std::set<std::string>{"robot-0", "robot-1", "robot-2"})) << all.out;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(memory(i, "Fleet/All"), json(7)) << i;
}

TEST_F(FleetWithoutMqtt5, ARobotOn311KilledShowsOfflineThroughItsLastWill) {
  ::kill(robots[0]->pid(), SIGKILL);
  robots[0]->waitExit();
  EXPECT_TRUE(eventually([&] { return statuses()["robot-0"]["state"] == "offline"; }, kSettle));
  EXPECT_EQ(statuses()["robot-1"]["state"], "online");
}

TEST_F(FleetWithoutMqtt5, AViewerOn311CannotCommandAndAnOperatorCan) {
  // MQTT 3.1.1 cannot tell a publisher that the broker dropped its message: the viewer's
  // call simply gets no answer.
  const CommandResult viewer = callWithout5(
      "viewer", {"--to", "all", "--timeout", "2", "ZRMemory.insertData", "Fleet/Viewer", "1"});
  EXPECT_EQ(viewer.status, 1);
  EXPECT_EQ(viewer.out, "");
  const CommandResult operatorCall = callWithout5(
      "operator", {"--to", "all", "--timeout", "20", "ZRMemory.insertData", "Fleet/Operator", "1"});
  EXPECT_EQ(operatorCall.status, 0) << operatorCall.err;
  // The operator's command, sent after the viewer's, has run; the viewer's never does.
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(memory(i, "Fleet/Operator"), json(1)) << i;
    EXPECT_EQ(memory(i, "Fleet/Viewer"), json()) << i;
  }
}

TEST_F(FleetWithoutMqtt5, BadCredentialsAreReportedAsSuchNotHiddenByTheFallback) {
  const std::string wrong = mqtt->passwordFile("viewer");  // the viewer's password
  const CommandResult call = runCommand({tuqvuCallPath(), "--fleet", refusing->url(), "--mqtt-user",
                                         "operator", "--mqtt-password-file", wrong});
  EXPECT_EQ(call.status, 1);
  EXPECT_NE(call.err.find("with MQTT 3.1.1"), std::string::npos) << call.err;
  EXPECT_NE(call.err.find("not authorized"), std::string::npos) << call.err;
}
