#include "support/mosquitto.h"

#include <arpa/inet.h>
#include <common/shell.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

namespace brokertest {
namespace {

int freePort() {
  const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(probe);
  return ntohs(address.sin_port);
}

bool accepts(int port) {
  const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool connected =
      ::connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(probe);
  return connected;
}

}  // namespace

Mosquitto::Mosquitto(const std::map<std::string, std::string>& users, const std::string& acl)
    : fUsers(users) {
  const std::string dir = fDir.path();
  std::ofstream(dir + "/acl") << acl;
  std::ofstream(dir + "/passwords").close();
  for (const auto& [user, password] : users) {
    const tuqvutest::CommandRun added =
        tuqvutest::run("mosquitto_passwd -b " + tuqvutest::shellWord(dir + "/passwords") + " " +
                       tuqvutest::shellWord(user) + " " + tuqvutest::shellWord(password));
    EXPECT_EQ(added.status, 0) << added.output;
    std::ofstream(dir + "/" + user + ".password") << password << "\n";
  }
  ::chmod((dir + "/passwords").c_str(), 0600);
  ::chmod((dir + "/acl").c_str(), 0600);
  start();
}

Mosquitto::~Mosquitto() {
  if (fPid > 0) {
    ::kill(fPid, SIGKILL);
    ::waitpid(fPid, nullptr, 0);
  }
}

void Mosquitto::start() {
  // A port taken between the probe and the start makes the start fail: another port then.
  for (int attempt = 0; attempt < 5 && fPid <= 0; ++attempt) {
    if (fPort == 0 || attempt > 0) fPort = freePort();
    const std::string dir = fDir.path();
    std::ofstream(dir + "/mosquitto.conf")
        << "listener " << fPort
        << " 127.0.0.1\n"
        // Started as root, it would turn into the user "mosquitto", who cannot read this
        // folder: it stays the user who runs the test.
        << "user " << ::getpwuid(::geteuid())->pw_name << "\n"
        << "allow_anonymous false\n"
        << "password_file " << dir << "/passwords\n"
        << "acl_file " << dir << "/acl\n"
        << "persistence true\n"
        << "persistence_location " << dir << "/\n"
        << "log_dest file " << dir << "/mosquitto.log\n"
        << "log_type error\nlog_type warning\nlog_type notice\n";
    const pid_t child = ::fork();
    if (child == 0) {
      ::execlp("mosquitto", "mosquitto", "-c", (dir + "/mosquitto.conf").c_str(),
               static_cast<char*>(nullptr));
      ::_exit(127);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
      if (accepts(fPort)) {
        fPid = child;
        break;
      }
      if (::waitpid(child, nullptr, WNOHANG) == child) break;  // it gave up (port taken)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (fPid <= 0 && ::waitpid(child, nullptr, WNOHANG) == 0) {
      ::kill(child, SIGKILL);
      ::waitpid(child, nullptr, 0);
    }
  }
  ASSERT_GT(fPid, 0) << "mosquitto did not start: " << log();
}

void Mosquitto::stop() {
  if (fPid <= 0) return;
  ::kill(fPid, SIGTERM);
  ::waitpid(fPid, nullptr, 0);
  fPid = -1;
}

std::string Mosquitto::passwordFile(const std::string& user) const {
  return fDir.path() + "/" + user + ".password";
}

std::string Mosquitto::log() const {
  std::ifstream file(fDir.path() + "/mosquitto.log");
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace brokertest
