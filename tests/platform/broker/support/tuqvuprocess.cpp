#include "tuqvuprocess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vu/base64.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "httpclient.h"

extern char** environ;

namespace brokertest {

namespace fs = std::filesystem;

namespace {
// Guards against a hang only: a daemon that is slower than this is broken.
constexpr int kGuardMs = 60000;

// Where a daemon started with these arguments and this environment keeps its secret.
std::string secretFileOf(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env) {
  for (std::size_t i = 0; i + 1 < argv.size(); ++i) {
    if (argv[i] == "--secret-file") return argv[i + 1];
  }
  for (const std::string& argument : argv) {
    if (argument.rfind("--secret-file=", 0) == 0) return argument.substr(14);
  }
  const auto config = env.find("XDG_CONFIG_HOME");
  if (config != env.end() && !config->second.empty() && config->second[0] == '/') {
    return config->second + "/tuqvu/secret";
  }
  const auto home = env.find("HOME");
  return (home == env.end() ? std::string() : home->second) + "/.config/tuqvu/secret";
}

}  // namespace

TempDir::TempDir() {
  std::string pattern = (fs::temp_directory_path() / "tuqvu-broker-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  fPath = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(fPath, ignored);
}

TuqvuProcess::TuqvuProcess(const std::vector<std::string>& args) {
  Setup setup;
  setup.args = args;
  start(std::move(setup));
}

TuqvuProcess::TuqvuProcess(Setup setup) {
  start(std::move(setup));
}

TuqvuProcess::~TuqvuProcess() {
  if (!fAuthorization.empty()) setAuthorizationFor(fPort, "");
  if (fPid > 0 && fExitStatus < 0) {
    ::kill(fPid, SIGKILL);
    collect(kGuardMs);
  }
  if (fStdoutFd >= 0) ::close(fStdoutFd);
}

void TuqvuProcess::start(Setup setup) {
  fStderrPath = fScratch.path() + "/stderr.log";
  std::vector<std::string> argv = {setup.program.empty() ? tuqvuPath() : setup.program};
  if (setup.program.empty()) {
    argv.insert(argv.end(), {"--port", "0", "--bind", "127.0.0.1"});
  }
  argv.insert(argv.end(), setup.args.begin(), setup.args.end());

  std::map<std::string, std::string> env;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::size_t equals = text.find('=');
    if (equals != std::string::npos) env[text.substr(0, equals)] = text.substr(equals + 1);
  }
  env.erase("XDG_DATA_HOME");
  env.erase("XDG_CONFIG_HOME");
  env["HOME"] = fHome.path();
  env["TMPDIR"] = fTmp.path();
  env["TUQVU_SDK_PREFIX"] = fPrefix.path();
  for (const auto& extra : setup.env) env[extra.first] = extra.second;

  fSecretFile = secretFileOf(argv, env);

  std::vector<std::string> envText;
  for (const auto& entry : env) envText.push_back(entry.first + "=" + entry.second);
  std::vector<char*> argvPointers, envPointers;
  for (std::string& text : argv) argvPointers.push_back(text.data());
  argvPointers.push_back(nullptr);
  for (std::string& text : envText) envPointers.push_back(text.data());
  envPointers.push_back(nullptr);

  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, fStderrPath.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  // A new process group, so that a script that starts the daemon can be signalled whole.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
  posix_spawnattr_setpgroup(&attributes, 0);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  const int error = posix_spawn(&fPid, argvPointers[0], &actions, &attributes, argvPointers.data(),
                                envPointers.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  ::close(pipeFds[1]);
  fStdoutFd = pipeFds[0];
  if (error != 0) {
    fPid = -1;
    throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(error));
  }
  if (setup.waitUntilListening) readUntilListening(setup.startGuardMs);
}

void TuqvuProcess::readUntilListening(int guardMs) {
  const std::string marker = "tuqvu: listening on ";
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(guardMs);
  while (std::chrono::steady_clock::now() < deadline) {
    const std::size_t found = fStdout.find(marker);
    if (found != std::string::npos && fStdout.find('\n', found) != std::string::npos) {
      const std::string line =
          fStdout.substr(found + marker.size(), fStdout.find('\n', found) - found - marker.size());
      fPort = std::stoi(line.substr(line.rfind(':') + 1));
      fStdoutRead = fStdout.find('\n', found) + 1;
      rememberSecret();
      return;
    }
    pollfd entry{fStdoutFd, POLLIN, 0};
    if (::poll(&entry, 1, 200) > 0) {
      char buffer[4096];
      const ssize_t size = ::read(fStdoutFd, buffer, sizeof buffer);
      if (size <= 0) break;  // the daemon closed its output: it ended
      fStdout.append(buffer, static_cast<std::size_t>(size));
    }
  }
  throw std::runtime_error("tuqvu did not report listening; its output:\n" + fStdout +
                           "\nits log:\n" + stderrText());
}

void TuqvuProcess::rememberSecret() {
  std::ifstream file(fSecretFile);
  std::getline(file, fSecret);
  if (fSecret.empty()) return;  // a daemon that made none (it failed, or was told not to)
  fAuthorization = "Basic " + vu::base64::encode("tuqvu:" + fSecret);
  setAuthorizationFor(fPort, fAuthorization);
}

std::string TuqvuProcess::readLine(int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    const std::size_t end = fStdout.find('\n', fStdoutRead);
    if (end != std::string::npos) {
      const std::string line = fStdout.substr(fStdoutRead, end - fStdoutRead);
      fStdoutRead = end + 1;
      return line;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return "";
    pollfd entry{fStdoutFd, POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(left.count())) <= 0) return "";
    char buffer[4096];
    const ssize_t size = ::read(fStdoutFd, buffer, sizeof buffer);
    if (size <= 0) return "";
    fStdout.append(buffer, static_cast<std::size_t>(size));
  }
}

int TuqvuProcess::collect(int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    int status = 0;
    const pid_t done = ::waitpid(fPid, &status, WNOHANG);
    if (done == fPid) {
      fExitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return fExitStatus;
    }
    if (std::chrono::steady_clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

int TuqvuProcess::terminate(int signal) {
  if (fExitStatus >= 0) return fExitStatus;
  ::kill(fPid, signal);
  const int status = collect(kGuardMs);
  EXPECT_GE(status, 0) << "tuqvu did not exit after signal " << signal;
  return status;
}

int TuqvuProcess::waitExit() {
  if (fExitStatus >= 0) return fExitStatus;
  const int status = collect(kGuardMs);
  EXPECT_GE(status, 0) << "tuqvu did not exit by itself";
  return status;
}

bool TuqvuProcess::running() {
  if (fExitStatus >= 0) return false;
  return collect(0) < 0;
}

std::string TuqvuProcess::stderrText() const {
  std::ifstream in(fStderrPath);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string tuqvuPath() {
  return TUQVU_BINARY;
}
std::string tuqvuCallPath() {
  return TUQVU_CALL_BINARY;
}
std::string testModulePath() {
  return TUQVU_TEST_MODULE;
}
std::string sourceDir() {
  return TUQVU_SOURCE_DIR;
}
std::string binaryDir() {
  return TUQVU_BINARY_DIR;
}

int openDescriptors(pid_t pid) {
  int count = 0;
  std::error_code error;
  for (fs::directory_iterator entry("/proc/" + std::to_string(pid) + "/fd", error), end;
       !error && entry != end; entry.increment(error)) {
    ++count;
  }
  return count;
}

}  // namespace brokertest

namespace brokertest {

CommandResult runCommand(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env) {
  TempDir scratch;
  const std::string outPath = scratch.path() + "/out";
  const std::string errPath = scratch.path() + "/err";
  std::vector<std::string> envText;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (env.count(text.substr(0, text.find('='))) == 0) envText.push_back(text);
  }
  for (const auto& extra : env) envText.push_back(extra.first + "=" + extra.second);
  std::vector<std::string> args = argv;
  std::vector<char*> argvPointers, envPointers;
  for (std::string& text : args) argvPointers.push_back(text.data());
  argvPointers.push_back(nullptr);
  for (std::string& text : envText) envPointers.push_back(text.data());
  envPointers.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, argvPointers[0], &actions, nullptr, argvPointers.data(),
                                envPointers.data());
  posix_spawn_file_actions_destroy(&actions);
  CommandResult result;
  if (error != 0) {
    result.err = std::string("cannot start: ") + std::strerror(error);
    return result;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kGuardMs);
  for (;;) {
    int status = 0;
    if (::waitpid(pid, &status, WNOHANG) == pid) {
      result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      break;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      ADD_FAILURE() << argv[0] << " did not end";
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  const auto slurp = [](const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  };
  result.out = slurp(outPath);
  result.err = slurp(errPath);
  return result;
}

}  // namespace brokertest
