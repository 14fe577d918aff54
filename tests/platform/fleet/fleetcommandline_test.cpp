#include <common/environment.h>
#include <gtest/gtest.h>
#include <tuqvu/broker/cli.h>
#include <tuqvu/fleet/fleetclient.h>

using tuqvu::broker::UsageError;
using tuqvu::fleet::FleetCommandLine;
using tuqvu::fleet::isFleetCommandLine;
using tuqvu::fleet::parseFleetCommandLine;
using tuqvu::fleet::statusLine;

TEST(FleetCommandLine, OnlyACommandLineWithFleetBeforeTheMethodIsTheFleets) {
  EXPECT_TRUE(isFleetCommandLine({"--fleet", "mqtt://b"}));
  EXPECT_TRUE(isFleetCommandLine({"--json", "--fleet=mqtt://b"}));
  EXPECT_FALSE(isFleetCommandLine({"ZRMemory.getData", "--fleet"}));
  EXPECT_FALSE(isFleetCommandLine({"--url", "http://r", "ZRBroker.getModules"}));
}

TEST(FleetCommandLine, WithoutToItListsAndWithToItCallsWithTheArgumentsAsTheyAre) {
  tuqvutest::ScopedEnvironment password("TUQVU_MQTT_PASSWORD", "pw");
  FleetCommandLine list = parseFleetCommandLine({"--fleet", "mqtt://b", "--json"});
  EXPECT_EQ(list.kind, FleetCommandLine::List);
  EXPECT_TRUE(list.json);
  EXPECT_EQ(list.settings.password, "pw");

  FleetCommandLine call =
      parseFleetCommandLine({"--fleet=mqtt://b:1999", "--to", "front", "--timeout", "9",
                             "--mqtt-prefix", "lab", "ZRMemory.insertData", "K", "--x", "-5"});
  EXPECT_EQ(call.kind, FleetCommandLine::Call);
  EXPECT_EQ(call.to, "front");
  EXPECT_EQ(call.timeoutSeconds, 9);
  EXPECT_EQ(call.settings.prefix, "lab");
  EXPECT_EQ(call.method, "ZRMemory.insertData");
  EXPECT_EQ(call.args, (std::vector<std::string>{"K", "--x", "-5"}));
}

TEST(FleetCommandLine, MistakesAreUsageErrors) {
  EXPECT_THROW(parseFleetCommandLine({"--fleet"}), UsageError);
  EXPECT_THROW(parseFleetCommandLine({"--fleet", "http://b"}), UsageError);
  EXPECT_THROW(parseFleetCommandLine({"--fleet", "mqtt://b", "--to", "all"}), UsageError);
  EXPECT_THROW(parseFleetCommandLine({"--fleet", "mqtt://b", "ZRBroker.getModules"}), UsageError);
  EXPECT_THROW(parseFleetCommandLine({"--fleet", "mqtt://b", "--to", "a/b", "M.m"}), UsageError);
  EXPECT_THROW(parseFleetCommandLine({"--fleet", "mqtt://b", "--to", "all", "nomethod"}),
               UsageError);
  EXPECT_THROW(parseFleetCommandLine({"--fleet", "mqtt://b", "--timeout", "0"}), UsageError);
  EXPECT_THROW(parseFleetCommandLine({"--fleet", "mqtt://b", "--bogus"}), UsageError);
}

TEST(FleetCommandLine, AStatusLineNamesTheRobotItsStateVersionUptimeAndGroups) {
  const long long now = std::chrono::duration_cast<std::chrono::seconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count();
  const std::string line = statusLine({{"robot", "r1"},
                                       {"state", "online"},
                                       {"version", "1.2.3"},
                                       {"started", now - 90},
                                       {"groups", {"a", "b"}}});
  EXPECT_EQ(line.rfind("r1  online  1.2.3  up 9", 0), 0u) << line;
  EXPECT_NE(line.find(" s  groups a,b"), std::string::npos) << line;
  EXPECT_EQ(
      statusLine({{"robot", "r2"}, {"state", "offline"}, {"groups", nlohmann::json::array()}}),
      "r2  offline");
}
