// The tuqvu-call client against a real tuqvu process.
#include <gtest/gtest.h>
#include <signal.h>

#include "support/httpclient.h"
#include "support/shareddaemon.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;

namespace {

class TuqvuCall : public SharedDaemonTest {
protected:
  static CommandResult call(std::vector<std::string> args) {
    args.insert(args.begin(),
                {tuqvuCallPath(), "--url", "http://127.0.0.1:" + std::to_string(daemon->port())});
    // As the broker's user, whose secret tuqvu-call finds by itself.
    return runCommand(args,
                      {{"HOME", daemon->home()}, {"XDG_CONFIG_HOME", daemon->home() + "/.config"}});
  }
};

}  // namespace

TEST_F(TuqvuCall, PrintsTheResultAsJsonAndExitsZero) {
  CommandResult result = call({"TestModule.add", "2", "3"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ("5\n", result.out);
  result = call({"TestModule.echo", "dance"});
  EXPECT_EQ("\"dance\"\n", result.out);
  result = call({"TestModule.echo", "\"5\""});
  EXPECT_EQ("\"5\"\n", result.out);
  result = call({"TestModule.echo", R"([1,"a",[true,null]])"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(json::parse(R"([1,"a",[true,null]])"), json::parse(result.out));
  result = call({"TestModule.echo", "-7"});
  EXPECT_EQ("-7\n", result.out);
  result = call({"TestModule.noop"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("null\n", result.out);
}

TEST_F(TuqvuCall, PrintsTheErrorDescriptionAndExitsOne) {
  CommandResult result = call({"TestModule.fail", "out of battery"});
  EXPECT_EQ(1, result.status);
  EXPECT_EQ("out of battery\n", result.err);
  EXPECT_EQ("", result.out);
  result = call({"TestModule.nothing"});
  EXPECT_EQ(1, result.status);
  EXPECT_NE(std::string::npos, result.err.find("has no method nothing")) << result.err;
  result = call({"TestModule.add", "1"});
  EXPECT_EQ(1, result.status);
  EXPECT_NE(std::string::npos, result.err.find("takes 2 argument(s), not 1")) << result.err;
}

TEST_F(TuqvuCall, IntrospectionThroughTheClient) {
  const CommandResult result = call({"ZRBroker.getMethods", "TestModule"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ("echo", json::parse(result.out)[0]["name"]);
}

TEST_F(TuqvuCall, UsageErrorsAndHelp) {
  CommandResult help = runCommand({tuqvuCallPath(), "--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_NE(std::string::npos, help.out.find("--watch"));
  EXPECT_NE(std::string::npos, help.out.find("Examples:"));
  EXPECT_EQ(2, runCommand({tuqvuCallPath()}).status);
  EXPECT_EQ(2, runCommand({tuqvuCallPath(), "nodot"}).status);
  EXPECT_EQ(2, runCommand({tuqvuCallPath(), "--url", "ftp://x", "A.b"}).status);
  EXPECT_EQ(2, runCommand({tuqvuCallPath(), "--frob", "A.b"}).status);
}

TEST_F(TuqvuCall, AnUnreachableBrokerIsAnError) {
  // A port nobody listens on: take one from a daemon that is gone.
  int freePort = 0;
  {
    TuqvuProcess gone({"--module", "TestModule=" + testModulePath()});
    freePort = gone.port();
    EXPECT_EQ(0, gone.terminate(SIGTERM));
  }
  const CommandResult result =
      runCommand({tuqvuCallPath(), "--url", "http://127.0.0.1:" + std::to_string(freePort), "A.b"});
  EXPECT_EQ(1, result.status);
  EXPECT_NE(std::string::npos, result.err.find("tuqvu-call: http://127.0.0.1:")) << result.err;
}
