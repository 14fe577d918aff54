#include <common/environment.h>
#include <common/files.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tuqvu/broker/cli.h>
#include <tuqvu/broker/knownrobots.h>

#include "support/tuqvuprocess.h"

using namespace tuqvu::broker;

namespace {

const std::string kFirst =
    "AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:"
    "89";
const std::string kSecond =
    "01:02:03:04:05:06:07:08:09:0A:0B:0C:0D:0E:0F:10:11:12:13:14:15:16:17:18:19:1A:1B:1C:1D:1E:1F:"
    "20";

unsigned modeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, ::stat(path.c_str(), &status)) << path;
  return status.st_mode & 07777;
}

std::string refusalOf(const std::string& text) {
  try {
    parseKnownRobots(text, "/home/u/.config/tuqvu/known_robots");
  } catch (const ClientError& error) {
    return error.what();
  }
  return "";
}

}  // namespace

TEST(KnownRobots, TheFileIsInTheUsersConfigFolder) {
  tuqvutest::ScopedEnvironment config("XDG_CONFIG_HOME", "/somewhere/config");
  EXPECT_EQ("/somewhere/config/tuqvu/known_robots", defaultKnownRobotsFile());
  tuqvutest::ScopedEnvironment noConfig("XDG_CONFIG_HOME", nullptr);
  tuqvutest::ScopedEnvironment home("HOME", "/home/u");
  EXPECT_EQ("/home/u/.config/tuqvu/known_robots", defaultKnownRobotsFile());
}

TEST(KnownRobots, KeysAreTheHostInLowerCaseAndThePortWithIpv6InBrackets) {
  EXPECT_EQ("robot.local:9600", robotKey("Robot.LOCAL", "9600"));
  EXPECT_EQ("192.168.1.20:443", robotKey("192.168.1.20", "443"));
  EXPECT_EQ("[fe80::1]:9600", robotKey("FE80::1", "9600"));
  EXPECT_EQ("[::1]:9600 " + kFirst, knownRobotLine(robotKey("::1", "9600"), kFirst));
}

TEST(KnownRobots, ReadsLinesSkippingCommentsAndBlankLines) {
  const std::vector<KnownRobot> robots = parseKnownRobots(
      "# robots of the lab\n"
      "\n"
      "robot.local:9600 " +
          kFirst +
          "\n"
          "   # an indented comment\n"
          "[fe80::1]:9600\t" +
          kSecond +
          "\r\n"
          "Other:443 " +
          "abcdef0123456789abcdef0123456789abcdef0123456789abcdef0123456789",
      "file");
  ASSERT_EQ(3u, robots.size());
  EXPECT_EQ("robot.local:9600", robots[0].key);
  EXPECT_EQ(kFirst, robots[0].fingerprint);
  EXPECT_EQ(3, robots[0].line);
  EXPECT_EQ("[fe80::1]:9600", robots[1].key);
  EXPECT_EQ(kSecond, robots[1].fingerprint);
  EXPECT_EQ(5, robots[1].line);
  // Keys are compared in lower case; fingerprints are read as a person may type them.
  EXPECT_EQ("other:443", robots[2].key);
  EXPECT_EQ(kFirst, robots[2].fingerprint);
}

TEST(KnownRobots, ADamagedLineIsRefusedNamingItRatherThanSkipped) {
  for (const std::string& bad :
       {std::string("robot:9600"), std::string("robot:9600 AB:CD"), "robot " + kFirst,
        "robot:http " + kFirst, ":9600 " + kFirst, "robot:9600 " + kFirst + " extra",
        "[fe80::1:9600 " + kFirst, "fe80::1]:9600 " + kFirst}) {
    const std::string message = refusalOf("# fine\n" + bad + "\n");
    EXPECT_NE(std::string::npos, message.find("line 2 of /home/u/.config/tuqvu/known_robots"))
        << bad << ": " << message;
  }
}

TEST(KnownRobots, FindsTheLinesOfOneRobot) {
  const std::vector<KnownRobot> robots = parseKnownRobots(
      "robot:9600 " + kFirst + "\nother:9600 " + kSecond + "\nROBOT:9600 " + kSecond + "\n",
      "file");
  const std::vector<KnownRobot> found = knownRobotsFor(robots, "Robot:9600");
  ASSERT_EQ(2u, found.size());
  EXPECT_EQ(1, found[0].line);
  EXPECT_EQ(3, found[1].line);
  EXPECT_TRUE(knownRobotsFor(robots, "robot:9601").empty());
  EXPECT_TRUE(knownRobotsFor(robots, "robot.local:9600").empty());
}

TEST(KnownRobots, AMissingFileHoldsNoRobot) {
  brokertest::TempDir home;
  EXPECT_TRUE(readKnownRobots(home.path() + "/none/known_robots").empty());
}

TEST(KnownRobots, RememberingMakesAPrivateFileInAPrivateFolderAndAppends) {
  brokertest::TempDir home;
  const std::string file = home.path() + "/config/tuqvu/known_robots";
  rememberRobot(file, robotKey("robot.local", "9600"), kFirst);
  EXPECT_EQ(0600u, modeOf(file));
  EXPECT_EQ(0700u, modeOf(home.path() + "/config/tuqvu"));
  EXPECT_EQ(0700u, modeOf(home.path() + "/config"));
  rememberRobot(file, robotKey("::1", "9600"), kSecond);
  EXPECT_EQ("robot.local:9600 " + kFirst + "\n[::1]:9600 " + kSecond + "\n",
            tuqvutest::readFile(file));

  const std::vector<KnownRobot> robots = readKnownRobots(file);
  ASSERT_EQ(1u, knownRobotsFor(robots, robotKey("::1", "9600")).size());
  EXPECT_EQ(kSecond, knownRobotsFor(robots, robotKey("::1", "9600"))[0].fingerprint);
}

TEST(KnownRobots, RememberingKeepsTheLinesOfAFileWrittenByHand) {
  brokertest::TempDir home;
  const std::string file = home.path() + "/known_robots";
  tuqvutest::writeFile(file, "# mine\nrobot:1 " + kFirst);  // no end of line
  ASSERT_EQ(0, ::chmod(file.c_str(), 0640));
  rememberRobot(file, "robot:2", kSecond);
  EXPECT_EQ("# mine\nrobot:1 " + kFirst + "\nrobot:2 " + kSecond + "\n", tuqvutest::readFile(file));
  EXPECT_EQ(0640u, modeOf(file));  // the owner's choice for a file of their own
  EXPECT_EQ(2u, readKnownRobots(file).size());
}

TEST(KnownRobots, AFileThatCannotBeWrittenIsAClearError) {
  brokertest::TempDir home;
  tuqvutest::writeFile(home.path() + "/config", "a file where a folder should be");
  try {
    rememberRobot(home.path() + "/config/tuqvu/known_robots", "robot:1", kFirst);
    FAIL() << "no error";
  } catch (const ClientError& error) {
    EXPECT_NE(std::string::npos, std::string(error.what()).find(home.path() + "/config"))
        << error.what();
  }
}
