#include <tuqvu/broker/cli.h>

#include <gtest/gtest.h>

using namespace tuqvu::broker;
using nlohmann::json;

TEST(Cli, ParsesUrls) {
  Url url = parseUrl("http://127.0.0.1:9600");
  EXPECT_EQ("127.0.0.1", url.host);
  EXPECT_EQ("9600", url.port);
  EXPECT_EQ("", url.basePath);
  url = parseUrl("robot.local:1234/base/");
  EXPECT_EQ("robot.local", url.host);
  EXPECT_EQ("1234", url.port);
  EXPECT_EQ("/base", url.basePath);
  url = parseUrl("http://[::1]:9600");
  EXPECT_EQ("::1", url.host);
  EXPECT_EQ("9600", url.port);
  EXPECT_EQ("80", parseUrl("http://host").port);
  for (const char* bad : {"https://host", "http://", "http://host:", "http://host:70000",
                          "http://host:x1", "http://[::1"}) {
    EXPECT_THROW(parseUrl(bad), std::invalid_argument) << bad;
  }
}

TEST(Cli, ArgumentsAreJsonLiteralsElseStrings) {
  EXPECT_EQ(json(5), parseCliArgument("5"));
  EXPECT_EQ(json(-1.5), parseCliArgument("-1.5"));
  EXPECT_EQ(json(true), parseCliArgument("true"));
  EXPECT_EQ(json(nullptr), parseCliArgument("null"));
  EXPECT_EQ(json::parse(R"([1,"a"])"), parseCliArgument(R"([1,"a"])"));
  EXPECT_EQ(json("5"), parseCliArgument(R"("5")"));
  EXPECT_EQ(json("dance"), parseCliArgument("dance"));
  EXPECT_EQ(json("System/animations/wave"), parseCliArgument("System/animations/wave"));
  EXPECT_EQ(json("[1,"), parseCliArgument("[1,"));
  EXPECT_EQ(json(""), parseCliArgument(""));
}

TEST(Cli, BuildsTheRequest) {
  EXPECT_EQ(json::parse(R"({"jsonrpc":"2.0","id":1,"method":"M.m","params":["dance",3]})"),
            json::parse(buildCallRequest("M.m", {"dance", "3"})));
  EXPECT_EQ("/events", eventsTarget("", {}));
  EXPECT_EQ("/b/events?key=BehaviorsRun&key=a%20b%26c", eventsTarget("/b", {"BehaviorsRun", "a b&c"}));
}

TEST(Cli, InterpretsAnswers) {
  CallAnswer answer = interpretAnswer(R"({"jsonrpc":"2.0","id":1,"result":[1,2]})");
  EXPECT_EQ(0, answer.exitStatus);
  EXPECT_EQ(json::parse("[1,2]"), json::parse(answer.text));
  answer = interpretAnswer(R"({"jsonrpc":"2.0","id":1,"result":null})");
  EXPECT_EQ("null", answer.text);
  answer = interpretAnswer(
      R"({"jsonrpc":"2.0","id":1,"error":{"code":-32000,"message":"M::m\n\tbad","data":{"description":"bad"}}})");
  EXPECT_EQ(1, answer.exitStatus);
  EXPECT_EQ("bad", answer.text);
  answer = interpretAnswer(R"({"jsonrpc":"2.0","id":1,"error":{"code":-32601,"message":"Method not found"}})");
  EXPECT_EQ(1, answer.exitStatus);
  EXPECT_EQ("Method not found", answer.text);
  EXPECT_THROW(interpretAnswer("<html>"), std::runtime_error);
  EXPECT_THROW(interpretAnswer("{}"), std::runtime_error);
}

TEST(Cli, HelpExplainsCallsAndWatchingWithExamples) {
  const std::string help = cliHelpText();
  for (const char* part : {"--url", "--watch", "--help", "Module.method", "Examples:",
                           "http://127.0.0.1:9600"}) {
    EXPECT_NE(std::string::npos, help.find(part)) << part;
  }
}
