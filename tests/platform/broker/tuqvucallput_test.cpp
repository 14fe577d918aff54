// tuqvu-call --put and the waiting spinner against a real tuqvu with its behavior
// manager: files and directories uploaded through the broker's file API, installed
// and run; progress on a terminal, with --progress, and the summary line otherwise.
#include <common/files.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <fstream>
#include <random>
#include <sstream>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

extern char** environ;

using namespace brokertest;
using nlohmann::json;
namespace fs = boost::filesystem;

using tuqvutest::readFile;

namespace {

void writeFile(const fs::path& file, const std::string& content) {
  fs::create_directories(file.parent_path());
  std::ofstream(file.string(), std::ios::binary) << content;
}

std::string randomBytes(std::size_t size) {
  std::mt19937 generator(12345);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator() & 0xff);
  return bytes;
}

int count(const std::string& text, char c) {
  return static_cast<int>(std::count(text.begin(), text.end(), c));
}

// Runs a program with its standard error on a pseudo-terminal (standard output to
// /dev/null); returns what it wrote there and its exit status.
CommandResult runOnTerminal(const std::vector<std::string>& argv) {
  CommandResult result;
  int master = -1, slave = -1;
  if (::openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) {
    ADD_FAILURE() << "openpty failed";
    return result;
  }
  std::vector<std::string> args = argv;
  std::vector<char*> pointers;
  for (std::string& arg : args) pointers.push_back(arg.data());
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, slave, STDERR_FILENO);
  posix_spawn_file_actions_addclose(&actions, master);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, pointers[0], &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(slave);
  if (error != 0) {
    ::close(master);
    ADD_FAILURE() << "cannot start " << argv[0];
    return result;
  }
  // Read until the terminal has no writer left (EIO), within a guard.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  char buffer[4096];
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd descriptor{master, POLLIN, 0};
    if (::poll(&descriptor, 1, 200) <= 0) continue;
    const ssize_t got = ::read(master, buffer, sizeof buffer);
    if (got <= 0) break;
    result.err.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(master);
  int status = 0;
  ::waitpid(pid, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

const char* const kProject =
    "<project>\n  <metadata key=\"Type\" value=\"Behavior\"/>\n  <tag>greeting</tag>\n</project>\n";

class TuqvuCallPut : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    tmp = new TempDir;
    TuqvuProcess::Setup setup;  // the default module: the behavior manager of this build
    setup.env["TMPDIR"] = tmp->path();
    daemon = new TuqvuProcess(setup);
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(0, daemon->terminate(SIGTERM)) << daemon->stderrText();
    delete daemon;
    delete tmp;
    daemon = nullptr;
    tmp = nullptr;
  }
  static std::vector<std::string> command(std::vector<std::string> args) {
    args.insert(args.begin(),
                {tuqvuCallPath(), "--url", "http://127.0.0.1:" + std::to_string(daemon->port())});
    return args;
  }
  // The command run by env with the HOME of the broker's user.
  static std::vector<std::string> asBrokersUser(std::vector<std::string> args) {
    args.insert(args.begin(), {"/usr/bin/env", "-u", "XDG_CONFIG_HOME", "HOME=" + daemon->home()});
    return args;
  }
  // As the broker's user, whose secret tuqvu-call finds by itself.
  static CommandResult call(std::vector<std::string> args) {
    return runCommand(command(args),
                      {{"HOME", daemon->home()}, {"XDG_CONFIG_HOME", daemon->home() + "/.config"}});
  }
  static fs::path userBehaviors() { return fs::path(daemon->home()) / ".tuqvu" / "behaviors"; }

  void SetUp() override {
    fLocal = fs::path(daemon->scratch()) /
             ::testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::create_directories(fLocal);
  }

  fs::path fLocal;  // this test's local files
  static TuqvuProcess* daemon;
  static TempDir* tmp;
};

TuqvuProcess* TuqvuCallPut::daemon = nullptr;
TempDir* TuqvuCallPut::tmp = nullptr;

}  // namespace

TEST_F(TuqvuCallPut, ABehaviorDirectoryIsUploadedInstalledAndRun) {
  const fs::path hello = fLocal / "hello";
  const std::string sound = randomBytes(6 * 1024 * 1024 + 17);
  writeFile(hello / "behavior.xar",
            "<behavior>\n  <raise key=\"Put/Hello\" type=\"int\" value=\"7\"/>\n</behavior>\n");
  writeFile(hello / "project.xml", kProject);
  writeFile(hello / "sounds" / "hi.wav", sound);

  CommandResult put = call({"--put", hello.string(), "/behaviors/User/greetings/"});
  ASSERT_EQ(0, put.status) << put.err << daemon->stderrText();
  EXPECT_EQ(
      "/behaviors/User/greetings/hello/behavior.xar\n"
      "/behaviors/User/greetings/hello/project.xml\n"
      "/behaviors/User/greetings/hello/sounds/hi.wav\n",
      put.out);
  // Not a terminal, no --progress: one summary line, nothing rewritten in place.
  EXPECT_EQ(0, count(put.err, '\r')) << put.err;
  EXPECT_EQ(1, count(put.err, '\n')) << put.err;
  EXPECT_EQ(0u, put.err.find("tuqvu-call: sent 6.0 MiB in 3 files to 127.0.0.1:")) << put.err;

  const fs::path installed = userBehaviors() / "greetings" / "hello";
  EXPECT_EQ(readFile(hello / "behavior.xar"), readFile(installed / "behavior.xar"));
  EXPECT_EQ(kProject, readFile(installed / "project.xml"));
  EXPECT_TRUE(readFile(installed / "sounds" / "hi.wav") == sound);

  EventStream events(daemon->port(), "/events?key=Put/Hello");
  EXPECT_EQ("true\n", call({"ZRBehaviorManager.installBehavior", "greetings/hello"}).out);
  const json names = json::parse(call({"ZRBehaviorManager.getInstalledBehaviors"}).out);
  EXPECT_NE(names.end(), std::find(names.begin(), names.end(), "greetings/hello")) << names;
  const CommandResult run = call({"ZRBehaviorManager.runBehavior", "greetings/hello"});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("null\n", run.out);
  EXPECT_EQ(json({{"key", "Put/Hello"}, {"value", 7}}), json::parse(events.next()));
}

TEST_F(TuqvuCallPut, AReplacedFileHasTheNewContentOnly) {
  writeFile(fLocal / "long.zip", randomBytes(300000));
  writeFile(fLocal / "short.zip", "PK");
  ASSERT_EQ(0, call({"--put", (fLocal / "long.zip").string(), "/tmp/package.zip"}).status);
  const CommandResult put = call({"--put", (fLocal / "short.zip").string(), "/tmp/package.zip"});
  ASSERT_EQ(0, put.status) << put.err;
  EXPECT_EQ("/tmp/package.zip\n", put.out);
  EXPECT_EQ("PK", readFile(fs::path(tmp->path()) / "package.zip"));
  EXPECT_EQ(0u, put.err.find("tuqvu-call: sent 2 B in 1 file to ")) << put.err;
}

TEST_F(TuqvuCallPut, NamesWithBlanksAndSignsArriveAsTheyAre) {
  writeFile(fLocal / "odd names" / "a b#1?.xar", "a");
  writeFile(fLocal / "odd names" / "100%.txt", "b");
  const CommandResult put =
      call({"--put", (fLocal / "odd names").string(), "/behaviors/User/odd names"});
  ASSERT_EQ(0, put.status) << put.err;
  EXPECT_EQ("a", readFile(userBehaviors() / "odd names" / "a b#1?.xar"));
  EXPECT_EQ("b", readFile(userBehaviors() / "odd names" / "100%.txt"));
}

TEST_F(TuqvuCallPut, ProgressIsShownWithTheOption) {
  writeFile(fLocal / "big.bin", randomBytes(3 * 1024 * 1024));
  const CommandResult put =
      call({"--progress", "--put", (fLocal / "big.bin").string(), "/behaviors/User/big/big.bin"});
  ASSERT_EQ(0, put.status) << put.err;
  EXPECT_NE(std::string::npos, put.err.find("\r3.0 MiB / 3.0 MiB  100%")) << put.err;
  EXPECT_NE(std::string::npos, put.err.find("\rtuqvu-call: sent 3.0 MiB in 1 file")) << put.err;
  EXPECT_EQ('\n', put.err.back());
  EXPECT_EQ(1, count(put.err, '\n')) << put.err;
  EXPECT_EQ(readFile(fLocal / "big.bin"), readFile(userBehaviors() / "big" / "big.bin"));
}

TEST_F(TuqvuCallPut, ProgressIsShownOnATerminal) {
  writeFile(fLocal / "a" / "one.bin", randomBytes(1024 * 1024));
  writeFile(fLocal / "a" / "two.bin", randomBytes(1024 * 1024));
  const CommandResult put =
      runOnTerminal(asBrokersUser(command({"--put", (fLocal / "a").string(), "/tmp/a"})));
  EXPECT_EQ(0, put.status) << put.err;
  // Several files: the line says which one is on its way.
  EXPECT_NE(std::string::npos, put.err.find("\r[2/2] 2.0 MiB / 2.0 MiB  100%")) << put.err;
  EXPECT_NE(std::string::npos, put.err.find("\rtuqvu-call: sent 2.0 MiB in 2 files")) << put.err;
  EXPECT_EQ(readFile(fLocal / "a" / "two.bin"), readFile(fs::path(tmp->path()) / "a" / "two.bin"));
}

TEST_F(TuqvuCallPut, ALongCallShowsTheWaitingSpinnerOnATerminalOrWithTheOption) {
  writeFile(fLocal / "slow" / "behavior.xar", "<behavior><wait ms=\"1600\"/></behavior>\n");
  ASSERT_EQ(0, call({"--put", (fLocal / "slow").string(), "/behaviors/User/"}).status);
  ASSERT_EQ("true\n", call({"ZRBehaviorManager.installBehavior", "slow"}).out);

  CommandResult run = call({"--progress", "ZRBehaviorManager.runBehavior", "slow"});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("null\n", run.out);
  EXPECT_EQ(0u, run.err.find("\r| waiting for ZRBehaviorManager.runBehavior  ")) << run.err;
  // The spinner is wiped before the answer is printed.
  EXPECT_EQ('\r', run.err.back()) << run.err;
  EXPECT_EQ(0, count(run.err, '\n'));

  run = runOnTerminal(asBrokersUser(command({"ZRBehaviorManager.runBehavior", "slow"})));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.err.find("waiting for ZRBehaviorManager.runBehavior"))
      << run.err;

  // Standard error is a file: nothing but the answer.
  run = call({"ZRBehaviorManager.runBehavior", "slow"});
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("", run.err);
  EXPECT_EQ("null\n", run.out);
}

TEST_F(TuqvuCallPut, FailuresAreReportedAndNothingIsSentForABadPlan) {
  // A path the broker does not serve.
  writeFile(fLocal / "page.html", "<html/>");
  CommandResult put = call({"--put", (fLocal / "page.html").string(), "/web/page.html"});
  EXPECT_EQ(1, put.status);
  EXPECT_EQ("", put.out);
  EXPECT_NE(std::string::npos, put.err.find("tuqvu-call: /web/page.html on 127.0.0.1:")) << put.err;
  EXPECT_NE(std::string::npos, put.err.find("404 Not Found")) << put.err;

  put = call({"--put", (fLocal / "missing").string(), "/tmp/missing"});
  EXPECT_EQ(1, put.status);
  EXPECT_NE(std::string::npos, put.err.find("missing: no such file or directory")) << put.err;

  // One name no file on the robot may have: not even the good files are sent.
  writeFile(fLocal / "mixed" / "a.xar", "a");
  writeFile(fLocal / "mixed" / "b\tc.xar", "b");
  put = call({"--put", (fLocal / "mixed").string(), "/behaviors/User/mixed"});
  EXPECT_EQ(2, put.status);
  EXPECT_NE(std::string::npos, put.err.find("control character")) << put.err;
  EXPECT_FALSE(fs::exists(userBehaviors() / "mixed"));

  put = call({"--put", (fLocal / "mixed" / "a.xar").string(), "/behaviors/User/../x"});
  EXPECT_EQ(2, put.status);
}

TEST(TuqvuCallPutWithoutBehaviorManager, SaysNoModuleServesFiles) {
  TuqvuProcess daemon({"--module", "TestModule=" + testModulePath()});
  TempDir local;
  writeFile(fs::path(local.path()) / "x.xar", "x");
  const CommandResult put =
      runCommand({tuqvuCallPath(), "--url", "http://127.0.0.1:" + std::to_string(daemon.port()),
                  "--put", local.path() + "/x.xar", "/tmp/x.xar"},
                 {{"TUQVU_SECRET", daemon.secret()}});
  EXPECT_EQ(1, put.status);
  EXPECT_NE(std::string::npos,
            put.err.find("404 Not Found: 404 - Not Found: no module of this robot serves files"))
      << put.err;
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << daemon.stderrText();
}
