// A fleet of five real tuqvu robots on a real Mosquitto broker with passwords and an
// access list: the robots listed online, a command to all of them, a robot killed and
// shown offline by its last will, a broker restart, a user the access list does not let
// command, and HTTP served while the broker is away. The fleet is seen through tuqvu-call
// and through Mosquitto's own clients.
#include <common/eventually.h>
#include <common/shell.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/fleetbroker.h"
#include "support/fleetoutput.h"
#include "support/httpclient.h"
#include "support/mosquitto.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;
namespace fs = boost::filesystem;
using tuqvutest::eventually;

namespace {

constexpr int kRobots = 5;

// A system library holding "mark", which sets Fleet/Ran to 1.
class SystemLibrary {
public:
  SystemLibrary() {
    const fs::path root = fs::path(prefix.path()) / "share" / "tuqvu" / "behaviors";
    fs::create_directories(root / "mark");
    std::ofstream((root / "project.xml").string())
        << "<project><metadata key=\"Type\" value=\"BehaviorLibrary\"/></project>\n";
    std::ofstream((root / "mark" / "behavior.xar").string())
        << "<behavior><set key=\"Fleet/Ran\" type=\"int\" value=\"1\"/></behavior>\n";
    std::ofstream((root / "mark" / "project.xml").string())
        << "<project><metadata key=\"Type\" value=\"Behavior\"/></project>\n";
  }
  TempDir prefix;
};

std::string robotId(int index) {
  return "robot-" + std::to_string(index);
}

class Fleet : public ::testing::Test {
protected:
  void SetUp() override {
    mqtt = std::make_unique<Mosquitto>(kFleetUsers, kFleetAcl);
    ASSERT_TRUE(mqtt->running()) << mqtt->log();
    for (int i = 0; i < kRobots; ++i) robots.push_back(startRobot(i));
    ASSERT_TRUE(
        eventually([&] { return onlineRobots() == kRobots; }, std::chrono::milliseconds(20000)))
        << fleetList("operator").out << fleetList("operator").err;
  }

  std::unique_ptr<TuqvuProcess> startRobot(int index) {
    TuqvuProcess::Setup setup;
    setup.args = {"--no-file-server",
                  "--mqtt",
                  mqtt->url(),
                  "--mqtt-user",
                  "robot",
                  "--mqtt-password-file",
                  mqtt->passwordFile("robot"),
                  "--robot-id",
                  robotId(index),
                  "--mqtt-group",
                  index < 2 ? "front" : "back"};
    setup.env["TUQVU_SDK_PREFIX"] = library.prefix.path();
    return std::make_unique<TuqvuProcess>(setup);
  }

  CommandResult tuqvuCall(const std::string& user, std::vector<std::string> args) {
    return runCommand(
        fleetCallArgv(tuqvuCallPath(), mqtt->url(), user, mqtt->passwordFile(user), args));
  }
  CommandResult fleetList(const std::string& user) { return tuqvuCall(user, {"--json"}); }

  // The statuses the fleet list shows, by robot.
  std::map<std::string, json> statuses() { return statusesByRobot(fleetList("operator").out); }
  int onlineRobots() { return onlineCount(statuses()); }
  json memory(int index, const std::string& key) { return robotMemory(robots[index]->port(), key); }

  SystemLibrary library;
  std::unique_ptr<Mosquitto> mqtt;
  std::vector<std::unique_ptr<TuqvuProcess>> robots;
};

}  // namespace

TEST_F(Fleet, TheListShowsEveryRobotOnlineWithItsVersionAndGroups) {
  const std::map<std::string, json> shown = statuses();
  ASSERT_EQ(shown.size(), static_cast<std::size_t>(kRobots));
  for (int i = 0; i < kRobots; ++i) {
    const json& status = shown.at(robotId(i));
    EXPECT_EQ(status["state"], "online");
    EXPECT_FALSE(status.value("version", "").empty());
    EXPECT_EQ(status["groups"], json::array({i < 2 ? "front" : "back"}));
  }
  const CommandResult text = tuqvuCall("viewer", {});
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_NE(text.out.find("robot-3  online"), std::string::npos) << text.out;
}

TEST_F(Fleet, ACommandToAllRunsABehaviorOnEveryRobotAndEachAnswers) {
  const CommandResult ran = tuqvuCall("operator", {"--to", "all", "--timeout", "20",
                                                   "ZRBehaviorManager.runBehavior", "System/mark"});
  EXPECT_EQ(ran.status, 0) << ran.out << ran.err;
  std::set<std::string> answered;
  for (const json& line : jsonLines(ran.out)) {
    EXPECT_TRUE(line.contains("result")) << line.dump();
    answered.insert(line.value("robot", ""));
  }
  EXPECT_EQ(answered.size(), static_cast<std::size_t>(kRobots)) << ran.out;
  for (int i = 0; i < kRobots; ++i) EXPECT_EQ(memory(i, "Fleet/Ran"), json(1)) << robotId(i);
}

TEST_F(Fleet, ACommandToAGroupReachesItsRobotsOnly) {
  const CommandResult set =
      tuqvuCall("operator", {"--to", "front", "ZRMemory.insertData", "Fleet/Group", "\"front\""});
  EXPECT_EQ(set.status, 0) << set.out << set.err;
  EXPECT_EQ(jsonLines(set.out).size(), 2u) << set.out;
  for (int i = 0; i < kRobots; ++i) {
    EXPECT_EQ(memory(i, "Fleet/Group"), i < 2 ? json("front") : json()) << robotId(i);
  }
}

TEST_F(Fleet, AnErrorOfOneRobotMakesTheCallFailAndIsPrintedAsItsLine) {
  const CommandResult call =
      tuqvuCall("operator", {"--to", robotId(1), "ZRBehaviorManager.noSuchMethod"});
  EXPECT_EQ(call.status, 1);
  const std::vector<json> lines = jsonLines(call.out);
  ASSERT_EQ(lines.size(), 1u) << call.out;
  EXPECT_EQ(lines[0]["robot"], robotId(1));
  EXPECT_EQ(lines[0]["error"]["code"], -32601);
}

TEST_F(Fleet, ARobotKilledShowsOfflineThroughItsLastWillAndIsNamedAsNotAnswering) {
  ::kill(robots[4]->pid(), SIGKILL);
  robots[4]->waitExit();
  ASSERT_TRUE(eventually([&] { return statuses()[robotId(4)]["state"] == "offline"; },
                         std::chrono::milliseconds(10000)));
  const CommandResult call =
      tuqvuCall("operator", {"--to", robotId(4), "--timeout", "2", "ZRBroker.getModules"});
  EXPECT_EQ(call.status, 1);
  EXPECT_NE(call.err.find("no answer within 2 s from: " + robotId(4)), std::string::npos)
      << call.err;
  // "all" addresses the robots online: the other four answer.
  const CommandResult all = tuqvuCall("operator", {"--to", "all", "ZRBroker.getModules"});
  EXPECT_EQ(all.status, 0) << all.err;
  EXPECT_EQ(jsonLines(all.out).size(), 4u);
}

TEST_F(Fleet, ABrokerRestartLosesNoRetainedState) {
  mqtt->stop();
  mqtt->start();
  // Every robot's status, running list and library are there again, and online.
  EXPECT_TRUE(
      eventually([&] { return onlineRobots() == kRobots; }, std::chrono::milliseconds(40000)));
  // Mosquitto's own client reads the robots' retained running lists.
  const tuqvutest::CommandRun running =
      tuqvutest::run("mosquitto_sub -p " + std::to_string(mqtt->port()) +
                     " -u viewer -P viewer-secret -t 'tuqvu/robots/+/running' -C " +
                     std::to_string(kRobots) + " -W 5");
  EXPECT_EQ(running.status, 0) << running.output;
  for (const json& list : jsonLines(running.output)) EXPECT_EQ(list, json::array());
  EXPECT_EQ(jsonLines(running.output).size(), static_cast<std::size_t>(kRobots)) << running.output;
}

TEST_F(Fleet, AUserTheAccessListDoesNotAllowCannotCommand) {
  const auto publish = [&](const std::string& user, const std::string& key) {
    const std::string request =
        R"({"jsonrpc":"2.0","method":"ZRMemory.insertData","params":[")" + key + R"(",1]})";
    tuqvutest::run("mosquitto_pub -p " + std::to_string(mqtt->port()) + " -u " + user + " -P " +
                   user + "-secret -V mqttv5 -q 1 -t tuqvu/all/command -m " +
                   tuqvutest::shellWord(request));
  };
  publish("viewer", "Fleet/Viewer");
  publish("operator", "Fleet/Operator");
  // The operator's command, sent after the viewer's, arrives; the viewer's never does.
  for (int i = 0; i < kRobots; ++i) {
    EXPECT_TRUE(eventually([&] { return memory(i, "Fleet/Operator") == json(1); },
                           std::chrono::milliseconds(10000)))
        << robotId(i);
    EXPECT_EQ(memory(i, "Fleet/Viewer"), json()) << robotId(i);
  }
  // Through tuqvu-call as well: the broker refuses the viewer's command, and it says so.
  const CommandResult call =
      tuqvuCall("viewer", {"--to", "all", "--timeout", "2", "ZRBroker.getModules"});
  EXPECT_EQ(call.status, 1);
  EXPECT_NE(call.err.find("Not authorized"), std::string::npos) << call.err;
  EXPECT_EQ(call.out, "");
}

TEST_F(Fleet, ARobotKeepsServingHttpWhileTheBrokerIsDownAndComesBackOnline) {
  mqtt->stop();
  for (int i = 0; i < kRobots; ++i) {
    const json reply = rpc(robots[i]->port(), "ZRBroker.getModules", json::array());
    EXPECT_TRUE(reply.contains("result")) << reply.dump();
  }
  const json ran =
      rpc(robots[0]->port(), "ZRBehaviorManager.runBehavior", json::array({"System/mark"}));
  EXPECT_FALSE(ran.contains("error")) << ran.dump();
  EXPECT_EQ(memory(0, "Fleet/Ran"), json(1));
  mqtt->start();
  EXPECT_TRUE(
      eventually([&] { return onlineRobots() == kRobots; }, std::chrono::milliseconds(40000)));
}
