#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tuqvu/broker/cli.h>

#include <boost/filesystem.hpp>
#include <fstream>

using namespace tuqvu::broker;
using nlohmann::json;
namespace fs = boost::filesystem;

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
  EXPECT_FALSE(parseUrl("http://host").secure);
  EXPECT_FALSE(parseUrl("host").secure);
  for (const char* bad : {"ftp://host", "http://", "https://", "http://host:", "http://host:70000",
                          "http://host:x1", "http://[::1", "https://host:"}) {
    EXPECT_THROW(parseUrl(bad), UsageError) << bad;
  }
}

TEST(Cli, HttpsUrlsAreSecureWithPort443ByDefault) {
  Url url = parseUrl("https://robot.local");
  EXPECT_TRUE(url.secure);
  EXPECT_EQ("robot.local", url.host);
  EXPECT_EQ("443", url.port);
  EXPECT_EQ("", url.basePath);
  url = parseUrl("https://[fe80::1]:9600/base/");
  EXPECT_TRUE(url.secure);
  EXPECT_EQ("fe80::1", url.host);
  EXPECT_EQ("9600", url.port);
  EXPECT_EQ("/base", url.basePath);
  EXPECT_TRUE(parseUrl("HTTPS://robot:1").secure);
  EXPECT_FALSE(parseUrl("HTTP://robot:1").secure);
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
  EXPECT_EQ("/b/events?key=BehaviorsRun&key=a%20b%26c",
            eventsTarget("/b", {"BehaviorsRun", "a b&c"}));
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
  answer = interpretAnswer(
      R"({"jsonrpc":"2.0","id":1,"error":{"code":-32601,"message":"Method not found"}})");
  EXPECT_EQ(1, answer.exitStatus);
  EXPECT_EQ("Method not found", answer.text);
  EXPECT_THROW(interpretAnswer("<html>"), std::runtime_error);
  EXPECT_THROW(interpretAnswer("{}"), std::runtime_error);
}

TEST(Cli, HelpExplainsCallsAndWatchingWithExamples) {
  const std::string help = cliHelpText();
  for (const char* part :
       {"--url", "--watch", "--help", "Module.method", "Examples:", "http://127.0.0.1:9600"}) {
    EXPECT_NE(std::string::npos, help.find(part)) << part;
  }
}

TEST(Cli, HelpDescribesEveryOptionAndUploads) {
  const std::string help = cliHelpText();
  for (const char* part : {"--put LOCAL REMOTE", "--progress", "/files/REMOTE", "/behaviors/User/",
                           "/tmp/", "Exit status", "-h"}) {
    EXPECT_NE(std::string::npos, help.find(part)) << part;
  }
}

TEST(Cli, CommandLines) {
  CliCommand command = parseCommandLine({"ZRBroker.getMethods", "ZRMemory"});
  EXPECT_EQ(CliCommand::Call, command.kind);
  EXPECT_EQ("ZRBroker.getMethods", command.method);
  EXPECT_EQ(std::vector<std::string>{"ZRMemory"}, command.words);
  EXPECT_EQ("http://127.0.0.1:9600", command.url);
  EXPECT_FALSE(command.progress);

  // After the method everything is an argument, options included.
  command = parseCommandLine({"--url", "http://robot:1", "--progress", "M.m", "--url", "-5"});
  EXPECT_EQ("http://robot:1", command.url);
  EXPECT_TRUE(command.progress);
  EXPECT_EQ((std::vector<std::string>{"--url", "-5"}), command.words);

  command = parseCommandLine({"--watch", "BehaviorsRun", "--url=http://h:2", "A/B"});
  EXPECT_EQ(CliCommand::Watch, command.kind);
  EXPECT_EQ("http://h:2", command.url);
  EXPECT_EQ((std::vector<std::string>{"BehaviorsRun", "A/B"}), command.words);

  command = parseCommandLine({"--put", "wave", "/behaviors/User/", "--progress"});
  EXPECT_EQ(CliCommand::Put, command.kind);
  EXPECT_TRUE(command.progress);
  EXPECT_EQ((std::vector<std::string>{"wave", "/behaviors/User/"}), command.words);

  EXPECT_EQ(CliCommand::Help, parseCommandLine({"--put", "a", "/b", "--help"}).kind);
  EXPECT_EQ(CliCommand::Help, parseCommandLine({"-h"}).kind);
  command = parseCommandLine({"M.m", "--help"});
  EXPECT_EQ(CliCommand::Call, command.kind);
  EXPECT_EQ(std::vector<std::string>{"--help"}, command.words);

  for (const std::vector<std::string>& bad :
       std::vector<std::vector<std::string>>{{},
                                             {"nodot"},
                                             {".m"},
                                             {"M."},
                                             {"--frob", "A.b"},
                                             {"--url"},
                                             {"--url", "ftp://x", "A.b"},
                                             {"--put", "a"},
                                             {"--put", "a", "/b", "c"},
                                             {"--put", "a", "/b", "--put", "c", "/d"},
                                             {"--watch", "--put", "a", "/b"},
                                             {"--watch", "--frob"}}) {
    EXPECT_THROW(parseCommandLine(bad), UsageError) << ::testing::PrintToString(bad);
  }
}

namespace {

const std::string kFingerprint =
    "AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:"
    "89";

std::string usageErrorOf(const std::vector<std::string>& args) {
  try {
    parseCommandLine(args);
  } catch (const UsageError& error) {
    return error.what();
  }
  return "";
}

}  // namespace

TEST(Cli, FingerprintAndTrustNewAreOptionsOfHttpsCalls) {
  CliCommand command =
      parseCommandLine({"--url", "https://robot:9600", "--fingerprint", kFingerprint, "M.m"});
  EXPECT_EQ(CliCommand::Call, command.kind);
  EXPECT_EQ(kFingerprint, command.fingerprint);
  EXPECT_FALSE(command.trustNew);

  // Read as a person may type it, kept in the canonical form.
  command = parseCommandLine(
      {"--url=https://robot", "--trust-new",
       "--fingerprint=abcdef0123456789abcdef0123456789abcdef0123456789abcdef0123456789", "M.m",
       "--trust-new"});
  EXPECT_EQ(kFingerprint, command.fingerprint);
  EXPECT_TRUE(command.trustNew);
  EXPECT_EQ(std::vector<std::string>{"--trust-new"}, command.words);

  command = parseCommandLine(
      {"--watch", "--url", "https://robot", "--fingerprint", kFingerprint, "BehaviorsRun"});
  EXPECT_EQ(CliCommand::Watch, command.kind);
  EXPECT_EQ(kFingerprint, command.fingerprint);
  EXPECT_EQ(std::vector<std::string>{"BehaviorsRun"}, command.words);

  command = parseCommandLine({"--put", "a", "/tmp/", "--trust-new", "--url", "https://robot"});
  EXPECT_EQ(CliCommand::Put, command.kind);
  EXPECT_TRUE(command.trustNew);
  EXPECT_TRUE(parseCommandLine({"--trust-new", "M.m"}).fingerprint.empty());
}

TEST(Cli, FingerprintAloneAsksForThisMachinesBrokerCertificate) {
  EXPECT_EQ(CliCommand::ShowFingerprint, parseCommandLine({"--fingerprint"}).kind);
  EXPECT_EQ(CliCommand::Help, parseCommandLine({"--fingerprint", "--help"}).kind);
  // With anything else to do, a fingerprint must follow.
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"--url", "https://robot", "--fingerprint"},
                                             {"--fingerprint", "--url", "https://robot", "M.m"},
                                             {"--watch", "--fingerprint"},
                                             {"--fingerprint", "--trust-new"}}) {
    const std::string message = usageErrorOf(args);
    EXPECT_NE(std::string::npos, message.find("--fingerprint needs the fingerprint"))
        << ::testing::PrintToString(args) << ": " << message;
  }
}

TEST(Cli, AFingerprintThatIsNoneIsAUsageErrorNamingIt) {
  for (const std::string& bad : {std::string("ZRBroker.getModules"), std::string("AB:CD"),
                                 kFingerprint + ":00", kFingerprint.substr(0, 94) + "G"}) {
    const std::string message =
        usageErrorOf({"--url", "https://robot", "--fingerprint", bad, "M.m"});
    EXPECT_NE(std::string::npos, message.find("\"" + bad + "\" is not a certificate fingerprint"))
        << bad << ": " << message;
  }
  EXPECT_NE(std::string::npos, usageErrorOf({"--url", "https://robot", "--fingerprint=", "M.m"})
                                   .find("is not a certificate fingerprint"));
}

TEST(Cli, AFingerprintForAPlainHttpUrlIsRefusedAsItWouldCheckNothing) {
  const std::string message = usageErrorOf({"--fingerprint", kFingerprint, "M.m"});
  EXPECT_NE(std::string::npos, message.find("--fingerprint is for https:// URLs")) << message;
  EXPECT_NE(std::string::npos,
            usageErrorOf({"--url", "http://robot", "--fingerprint", kFingerprint, "M.m"})
                .find("http://robot"));
}

TEST(Cli, HelpDescribesHttpsAndItsTrust) {
  const std::string help = cliHelpText();
  for (const char* part :
       {"https://HOST[:PORT][/PATH]", "port 443", "--fingerprint FP", "tuqvu-call --fingerprint\n",
        "--trust-new", "TUQVU_FINGERPRINT", "TUQVU_SECRET", "~/.config/tuqvu/known_robots",
        "HOST:PORT FINGERPRINT", "intercepting"}) {
    EXPECT_NE(std::string::npos, help.find(part)) << part;
  }
}

TEST(Cli, RemotePathsTheBrokerCanTake) {
  EXPECT_NO_THROW(checkRemotePath("/behaviors/User/wave/behavior.xar"));
  EXPECT_NO_THROW(checkRemotePath("/tmp/wave.zip"));
  EXPECT_NO_THROW(checkRemotePath("/behaviors/User/caf\xc3\xa9/a..b"));
  // Sent percent-encoded, these are ordinary names.
  for (const char* good : {"/a b", "/a?b", "/a#b", "/100%.txt"}) {
    EXPECT_NO_THROW(checkRemotePath(good)) << good;
  }
  for (const char* bad : {"", "behaviors/x", "/a\tb", "/a\x7f", "/behaviors/../etc/passwd",
                          "/behaviors/User/..", "/tmp/dir/"}) {
    EXPECT_THROW(checkRemotePath(bad), UsageError) << bad;
  }
}

namespace {

class UploadPlan : public ::testing::Test {
protected:
  void SetUp() override {
    fRoot = fs::temp_directory_path() / fs::unique_path("cli-upload-%%%%-%%%%");
    fs::create_directories(fRoot);
  }
  void TearDown() override { fs::remove_all(fRoot); }
  void write(const std::string& relative, const std::string& content) {
    const fs::path file = fRoot / relative;
    fs::create_directories(file.parent_path());
    std::ofstream(file.string(), std::ios::binary) << content;
  }
  std::string path(const std::string& relative) const { return (fRoot / relative).string(); }
  fs::path fRoot;
};

}  // namespace

TEST_F(UploadPlan, AFileGoesToTheRemotePathOrUnderADirectoryPath) {
  write("wave.xar", "12345");
  std::vector<UploadItem> items = planUpload(path("wave.xar"), "/behaviors/User/wave/behavior.xar");
  ASSERT_EQ(1u, items.size());
  EXPECT_EQ(path("wave.xar"), items[0].local);
  EXPECT_EQ("/behaviors/User/wave/behavior.xar", items[0].remote);
  EXPECT_EQ(5u, items[0].size);
  items = planUpload(path("wave.xar"), "/tmp/");
  ASSERT_EQ(1u, items.size());
  EXPECT_EQ("/tmp/wave.xar", items[0].remote);
}

TEST_F(UploadPlan, ADirectoryIsSentFileByFileInNameOrder) {
  write("hello/project.xml", "<project/>");
  write("hello/behavior.xar", "<behavior/>");
  write("hello/sounds/hi.wav", "");
  fs::create_directories(fRoot / "hello" / "empty");
  const std::vector<UploadItem> items =
      planUpload(path("hello") + "/", "/behaviors/User/greetings/");
  ASSERT_EQ(3u, items.size());
  EXPECT_EQ("/behaviors/User/greetings/hello/behavior.xar", items[0].remote);
  EXPECT_EQ("/behaviors/User/greetings/hello/project.xml", items[1].remote);
  EXPECT_EQ("/behaviors/User/greetings/hello/sounds/hi.wav", items[2].remote);
  EXPECT_EQ(path("hello/sounds/hi.wav"), items[2].local);
  EXPECT_EQ(0u, items[2].size);
  EXPECT_EQ("/behaviors/User/hi/behavior.xar",
            planUpload(path("hello"), "/behaviors/User/hi")[0].remote);
}

TEST_F(UploadPlan, WhatCannotBeSentIsRefusedBeforeAnythingIsSent) {
  EXPECT_THROW(planUpload(path("missing"), "/tmp/x"), std::runtime_error);
  fs::create_directories(fRoot / "empty" / "inner");
  EXPECT_THROW(planUpload(path("empty"), "/tmp/x"), std::runtime_error);
  write("ok/a.txt", "a");
  write("ok/with\ttab.txt", "b");
  EXPECT_THROW(planUpload(path("ok"), "/tmp/x"), UsageError);
  EXPECT_THROW(planUpload(path("ok/a.txt"), "tmp/x"), UsageError);
  write("fifo/a.txt", "a");
  ASSERT_EQ(0, ::mkfifo(path("fifo/pipe").c_str(), 0600));
  EXPECT_THROW(planUpload(path("fifo"), "/tmp/x"), std::runtime_error);
  EXPECT_THROW(planUpload(path("fifo/pipe"), "/tmp/x"), std::runtime_error);
}

TEST(Cli, FileServiceReplies) {
  FileReply reply;
  // That server ends its lines with "\n" alone.
  const std::string ok =
      "HTTP/1.1 200 OK\nServer: TuqVu\nContent-Length: 3\nContent-Type: "
      "text/plain\nConnection: keep-alive\n\nok\n";
  for (std::size_t cut = 0; cut < ok.size(); ++cut) {
    EXPECT_FALSE(parseFileReply(ok.substr(0, cut), false, reply)) << cut;
  }
  ASSERT_TRUE(parseFileReply(ok, false, reply));
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ("OK", reply.reason);
  EXPECT_EQ("ok\n", reply.body);

  ASSERT_TRUE(parseFileReply("HTTP/1.1 411 Length Required\r\ncontent-length: 5\r\n\r\n411 -",
                             false, reply));
  EXPECT_EQ(411, reply.status);
  EXPECT_EQ("Length Required", reply.reason);
  EXPECT_EQ("411 -", reply.body);

  // Without a length the body lasts until the connection ends.
  EXPECT_FALSE(parseFileReply("HTTP/1.1 404 Not Found\n\n404 - Not", false, reply));
  ASSERT_TRUE(parseFileReply("HTTP/1.1 404 Not Found\n\n404 - Not", true, reply));
  EXPECT_EQ("404 - Not", reply.body);

  EXPECT_FALSE(parseFileReply("", true, reply));
  EXPECT_THROW(parseFileReply("HTTP/1.1 200 OK\nContent-Length: 3\n\no", true, reply),
               std::runtime_error);
  EXPECT_THROW(parseFileReply("HTTP/1.1 200 OK\nContent", true, reply), std::runtime_error);
  EXPECT_THROW(parseFileReply("<html>\n\n", false, reply), std::runtime_error);
  EXPECT_THROW(parseFileReply("HTTP/1.1 2x0 OK\n\n", false, reply), std::runtime_error);
  EXPECT_THROW(parseFileReply("\n\n", false, reply), std::runtime_error);
  EXPECT_THROW(parseFileReply("HTTP/1.1 200 OK\nContent-Length: -1\n\n", false, reply),
               std::runtime_error);
}

TEST(Cli, ProgressTexts) {
  EXPECT_EQ("0 B", formatBytes(0));
  EXPECT_EQ("1023 B", formatBytes(1023));
  EXPECT_EQ("1.0 KiB", formatBytes(1024));
  EXPECT_EQ("1.5 KiB", formatBytes(1536));
  EXPECT_EQ("12.5 MiB", formatBytes(12 * 1024 * 1024 + 512 * 1024));
  EXPECT_EQ("3.00 GiB", formatBytes(3ull << 30));
  EXPECT_EQ("2.00 TiB", formatBytes(2ull << 40));

  EXPECT_EQ("0 B / 4.0 MiB  0%", formatTransfer(0, 4 << 20, 0.0));
  EXPECT_EQ("1.0 MiB / 4.0 MiB  25%  2.0 MiB/s", formatTransfer(1 << 20, 4 << 20, 0.5));
  EXPECT_EQ("4.0 MiB / 4.0 MiB  100%  4.0 MiB/s", formatTransfer(4 << 20, 4 << 20, 1.0));
  EXPECT_EQ("0 B / 0 B  100%", formatTransfer(0, 0, 0.0));
  // 99.99 % is not yet 100 %.
  EXPECT_EQ("999 B / 1000 B  99%", formatTransfer(999, 1000, 0.05));

  EXPECT_EQ("| waiting for M.m  1.0 s", formatWaiting("M.m", 1.0, 0));
  EXPECT_EQ("/ waiting for M.m  1.2 s", formatWaiting("M.m", 1.2, 1));
  EXPECT_EQ("- waiting for M.m  61.4 s", formatWaiting("M.m", 61.4, 2));
  EXPECT_EQ("\\ waiting for M.m  1.0 s", formatWaiting("M.m", 1.0, 3));
  EXPECT_EQ("| waiting for M.m  1.0 s", formatWaiting("M.m", 1.0, 4));
}

TEST(Cli, HelpFitsATerminalOfEightyColumns) {
  const std::string help = cliHelpText();
  std::size_t start = 0, end;
  while ((end = help.find('\n', start)) != std::string::npos) {
    EXPECT_LT(end - start, 80u) << help.substr(start, end - start);
    start = end + 1;
  }
  EXPECT_EQ(help.size(), start);  // ends with a newline
}
