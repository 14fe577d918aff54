#include <common/environment.h>
#include <gtest/gtest.h>
#include <tuqvu/fleet/fleetsettings.h>
#include <unistd.h>

#include <fstream>

using tuqvu::broker::Options;
using tuqvu::broker::parseOptions;
using tuqvu::fleet::FleetSettings;
using tuqvu::fleet::fleetSettings;
using tuqvu::fleet::FleetSettingsError;

namespace {

FleetSettings settingsOf(std::vector<const char*> args) {
  args.insert(args.begin(), "tuqvu");
  return fleetSettings(parseOptions(static_cast<int>(args.size()), args.data()));
}

}  // namespace

TEST(FleetSettings, WithoutAnMqttUrlThereIsNoFleetLink) {
  tuqvutest::ScopedEnvironment url("TUQVU_MQTT", nullptr);
  EXPECT_FALSE(settingsOf({}).enabled());
}

TEST(FleetSettings, TheCommandLineGivesTheBrokerTheNamesAndTheGroups) {
  const FleetSettings settings =
      settingsOf({"--mqtt", "mqtt://fleet.lan", "--robot-id", "r7", "--mqtt-group", "front",
                  "--mqtt-group", "lab", "--mqtt-prefix", "school", "--mqtt-user", "robot"});
  EXPECT_TRUE(settings.enabled());
  EXPECT_EQ(settings.serverUri(), "tcp://fleet.lan:1883");
  EXPECT_EQ(settings.robotId, "r7");
  EXPECT_EQ(settings.prefix, "school");
  EXPECT_EQ(settings.user, "robot");
  EXPECT_EQ(settings.groups, (std::vector<std::string>{"front", "lab"}));
}

TEST(FleetSettings, MqttsUsesTlsAndItsPortAndAnExplicitPortStays) {
  EXPECT_EQ(settingsOf({"--mqtt", "mqtts://fleet.lan"}).serverUri(), "ssl://fleet.lan:8883");
  EXPECT_EQ(settingsOf({"--mqtt", "mqtt://10.0.0.2:1999/"}).serverUri(), "tcp://10.0.0.2:1999");
  EXPECT_EQ(settingsOf({"--mqtt", "mqtts://[fd00::1]"}).serverUri(), "ssl://[fd00::1]:8883");
}

TEST(FleetSettings, TheEnvironmentFillsWhatTheCommandLineLeavesOut) {
  tuqvutest::ScopedEnvironment url("TUQVU_MQTT", "mqtt://broker.lan");
  tuqvutest::ScopedEnvironment id("TUQVU_ROBOT_ID", "from-env");
  tuqvutest::ScopedEnvironment groups("TUQVU_MQTT_GROUPS", "a,,b");
  tuqvutest::ScopedEnvironment password("TUQVU_MQTT_PASSWORD", "p4ss");
  FleetSettings settings = settingsOf({});
  EXPECT_EQ(settings.url, "mqtt://broker.lan");
  EXPECT_EQ(settings.robotId, "from-env");
  EXPECT_EQ(settings.groups, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(settings.password, "p4ss");
  settings = settingsOf({"--robot-id", "given", "--mqtt-group", "c"});
  EXPECT_EQ(settings.robotId, "given");
  EXPECT_EQ(settings.groups, std::vector<std::string>{"c"});
}

TEST(FleetSettings, TheRobotIdDefaultsToTheHostsFirstName) {
  tuqvutest::ScopedEnvironment id("TUQVU_ROBOT_ID", nullptr);
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  std::string expected(host);
  expected = expected.substr(0, expected.find('.'));
  EXPECT_EQ(settingsOf({"--mqtt", "mqtt://b"}).robotId, expected);
}

TEST(FleetSettings, ThePasswordComesFromItsFileNotTheCommandLine) {
  tuqvutest::ScopedEnvironment password("TUQVU_MQTT_PASSWORD", "from-env");
  char path[] = "/tmp/fleet-password-XXXXXX";
  const int fd = ::mkstemp(path);
  ASSERT_GE(fd, 0);
  ::close(fd);
  std::ofstream(path) << "s3cret\r\nsecond line\n";
  EXPECT_EQ(settingsOf({"--mqtt", "mqtt://b", "--mqtt-password-file", path}).password, "s3cret");
  ::unlink(path);
  EXPECT_THROW(settingsOf({"--mqtt", "mqtt://b", "--mqtt-password-file", path}),
               FleetSettingsError);
}

TEST(FleetSettings, UnusableSettingsAreRefusedSayingWhy) {
  const auto refusal = [](std::vector<const char*> args) -> std::string {
    try {
      settingsOf(args);
    } catch (const FleetSettingsError& error) {
      return error.what();
    }
    return "";
  };
  EXPECT_NE(refusal({"--mqtt", "http://b"}).find("mqtt:// or mqtts://"), std::string::npos);
  EXPECT_NE(refusal({"--mqtt", "mqtt://"}).find("names no host"), std::string::npos);
  EXPECT_NE(refusal({"--mqtt", "mqtt://user@b"}).find("names no host"), std::string::npos);
  EXPECT_NE(refusal({"--mqtt", "mqtt://b", "--robot-id", "a/b"}).find("robot id"),
            std::string::npos);
  EXPECT_NE(refusal({"--mqtt", "mqtt://b", "--robot-id", "+"}).find("robot id"), std::string::npos);
  EXPECT_NE(refusal({"--mqtt", "mqtt://b", "--mqtt-group", "#"}).find("group"), std::string::npos);
  EXPECT_NE(refusal({"--mqtt", "mqtt://b", "--mqtt-group", "all"}).find("group"),
            std::string::npos);
  EXPECT_NE(refusal({"--mqtt", "mqtt://b", "--mqtt-prefix", "a/b"}).find("prefix"),
            std::string::npos);
  EXPECT_NE(refusal({"--mqtt", "mqtts://b", "--mqtt-cert", "c.pem"}).find("go together"),
            std::string::npos);
  EXPECT_NE(refusal({"--mqtt", "mqtt://b", "--mqtt-cert", "c", "--mqtt-key", "k"}).find("mqtts"),
            std::string::npos);
}
