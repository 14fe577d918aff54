// Starts the real tuqvu daemon for a test: a free port (--port 0), a temporary HOME,
// TMPDIR and installation prefix, standard output read until "tuqvu: listening on ADDRESS:PORT",
// standard error kept in a file.
//
//   TuqvuProcess tuqvu({"--module", testModulePath()});
//   int port = tuqvu.port();
//   EXPECT_EQ(0, tuqvu.terminate(SIGTERM));
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace brokertest {

// A temporary directory removed with everything in it on destruction.
class TempDir {
public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return fPath; }

private:
  std::string fPath;
};

class TuqvuProcess {
public:
  struct Setup {
    std::vector<std::string> args;
    std::map<std::string, std::string> env;  // added to the child's environment
    std::string program;                     // default: the tuqvu of this build
    bool waitUntilListening = true;
    int startGuardMs = 60000;  // how long to wait for "listening" before giving up
  };

  explicit TuqvuProcess(const std::vector<std::string>& args);
  explicit TuqvuProcess(Setup setup);
  ~TuqvuProcess();  // kills what still runs
  TuqvuProcess(const TuqvuProcess&) = delete;
  TuqvuProcess& operator=(const TuqvuProcess&) = delete;

  int port() const { return fPort; }
  // The "Basic ..." value of an Authorization header with the daemon's secret, read from
  // its secret file once it listens; the helpers of httpclient.h send it to port() by
  // themselves.
  const std::string& authorization() const { return fAuthorization; }
  // The daemon's secret itself.
  const std::string& secret() const { return fSecret; }
  pid_t pid() const { return fPid; }
  const std::string& home() const { return fHome.path(); }
  const std::string& prefix() const { return fPrefix.path(); }
  const std::string& scratch() const { return fScratch.path(); }

  // Sends the signal and waits for the exit; returns the exit status, or 128 + signal
  // when a signal ended it. Fails the test if it does not end within the guard time.
  int terminate(int signal);
  // Waits for an exit on its own (for processes that fail at start-up).
  int waitExit();
  bool running();

  // The next line of standard output after what was read so far; "" when none came
  // within timeoutMs or the output ended.
  std::string readLine(int timeoutMs);

  std::string stderrText() const;
  std::string stdoutText() const { return fStdout; }

private:
  void start(Setup setup);
  void readUntilListening(int guardMs);
  void rememberSecret();
  int collect(int timeoutMs);

  TempDir fHome;
  TempDir fPrefix;
  TempDir fScratch;
  // The daemon's own TMPDIR: at start it removes what dead imports left in its temporary
  // folder, and with the shared one it would remove what other tests planted there.
  TempDir fTmp;
  std::string fStderrPath;
  std::string fStdout;
  std::size_t fStdoutRead = 0;  // bytes of fStdout handed out by readLine
  pid_t fPid = -1;
  int fStdoutFd = -1;
  int fPort = 0;
  int fExitStatus = -1;
  std::string fSecretFile;  // where the daemon keeps its secret
  std::string fSecret;
  std::string fAuthorization;
};

// The files this build made (compile definitions of the test target).
std::string tuqvuPath();
std::string tuqvuCallPath();
std::string testModulePath();
std::string sourceDir();
std::string binaryDir();

// Open descriptors of a process (entries of /proc/PID/fd).
int openDescriptors(pid_t pid);

}  // namespace brokertest

namespace brokertest {

struct CommandResult {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

// Runs a program to its end (guarded against hangs) with extra environment variables.
CommandResult runCommand(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env = {});

}  // namespace brokertest
