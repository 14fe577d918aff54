#include "tlspeer.h"

#include <common/files.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace brokertest {
namespace {

std::string opensslProgram() {
  const char* path = std::getenv("PATH");
  std::string folders = path != nullptr ? path : "/usr/bin:/bin";
  std::size_t start = 0;
  while (start <= folders.size()) {
    const std::size_t end = std::min(folders.find(':', start), folders.size());
    const std::string candidate = folders.substr(start, end - start) + "/openssl";
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  throw std::runtime_error("the openssl program is not installed");
}

void openssl(std::vector<std::string> args) {
  args.insert(args.begin(), opensslProgram());
  const CommandResult result = runCommand(args);
  if (result.status != 0) {
    throw std::runtime_error("openssl " + args[1] + " failed: " + result.err);
  }
}

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ",") + name;
  return text;
}

const std::vector<std::string> kNewKey = {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                                          "-nodes"};

}  // namespace

TestCertificate makeSelfSignedCertificate(const std::string& stem,
                                          const std::vector<std::string>& names) {
  const TestCertificate made{stem + ".pem", stem + ".key"};
  std::vector<std::string> args = {"req", "-x509"};
  args.insert(args.end(), kNewKey.begin(), kNewKey.end());
  args.insert(args.end(), {"-keyout", made.key, "-out", made.certificate, "-days", "2", "-subj",
                           "/CN=tuqvu test robot", "-addext", "subjectAltName=" + joined(names)});
  openssl(args);
  return made;
}

std::pair<TestCertificate, TestCertificate> makeAuthorityAndServer(
    const std::string& stem, const std::vector<std::string>& names) {
  const TestCertificate authority{stem + ".pem", stem + ".key"};
  std::vector<std::string> args = {"req", "-x509"};
  args.insert(args.end(), kNewKey.begin(), kNewKey.end());
  args.insert(args.end(), {"-keyout", authority.key, "-out", authority.certificate, "-days", "2",
                           "-subj", "/CN=tuqvu test authority"});
  openssl(args);

  const TestCertificate server{stem + "-server.pem", stem + "-server.key"};
  const std::string request = stem + "-server.csr";
  const std::string extensions = stem + "-server.ext";
  args = {"req", "-new"};
  args.insert(args.end(), kNewKey.begin(), kNewKey.end());
  args.insert(args.end(),
              {"-keyout", server.key, "-out", request, "-subj", "/CN=tuqvu test server"});
  openssl(args);
  tuqvutest::writeFile(extensions,
                       "basicConstraints = CA:FALSE\n"
                       "extendedKeyUsage = serverAuth\n"
                       "subjectAltName = " +
                           joined(names) + "\n");
  openssl({"x509", "-req", "-in", request, "-CA", authority.certificate, "-CAkey", authority.key,
           "-set_serial", "2", "-days", "2", "-extfile", extensions, "-out", server.certificate});
  return {authority, server};
}

OpensslServer::OpensslServer(const TestCertificate& certificate, int port,
                             const std::vector<std::string>& extraArgs) {
  std::vector<std::string> args = {opensslProgram(), "s_server",
                                   "-accept",        "127.0.0.1:" + std::to_string(port),
                                   "-cert",          certificate.certificate,
                                   "-key",           certificate.key};
  args.insert(args.end(), extraArgs.begin(), extraArgs.end());
  std::vector<char*> argv;
  for (std::string& text : args) argv.push_back(text.data());
  argv.push_back(nullptr);

  int input[2];
  if (::pipe2(input, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  const std::string outPath = fOutput.path() + "/out";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (fOutput.path() + "/err").c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const int error = posix_spawn(&fPid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(input[0]);
  fInput = input[1];
  if (error != 0) {
    ::close(fInput);
    throw std::runtime_error("cannot start openssl s_server");
  }

  // Once it listens: "ACCEPT 127.0.0.1:PORT" for a port it chose, "ACCEPT" for one given.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  const std::string marker = "ACCEPT";
  for (;;) {
    const std::string out = received();
    const std::size_t at = out.find(marker);
    const std::size_t end = at == std::string::npos ? at : out.find('\n', at);
    if (end != std::string::npos) {
      const std::size_t colon = out.rfind(':', end);
      fPort = port != 0 ? port : std::atoi(out.c_str() + colon + 1);
      return;
    }
    int status = 0;
    if (std::chrono::steady_clock::now() > deadline || ::waitpid(fPid, &status, WNOHANG) == fPid) {
      const std::string err = tuqvutest::readFile(fOutput.path() + "/err");
      ::kill(fPid, SIGKILL);
      ::waitpid(fPid, &status, 0);
      ::close(fInput);
      throw std::runtime_error("openssl s_server did not start: " + err);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

OpensslServer::~OpensslServer() {
  if (fPid > 0) {
    ::kill(fPid, SIGKILL);
    int status = 0;
    ::waitpid(fPid, &status, 0);
  }
  if (fInput >= 0) ::close(fInput);
}

std::string OpensslServer::received() const {
  return tuqvutest::readFile(fOutput.path() + "/out");
}

}  // namespace brokertest
