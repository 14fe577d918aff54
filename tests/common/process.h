// Processes for tests that need one with a known fate.
#pragma once

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

namespace tuqvutest {

// The id of a process that has already ended (and been reaped): a stand-in for the
// maker of something a crash left behind.
inline pid_t endedProcess() {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  int status = 0;
  ::waitpid(child, &status, 0);
  return child;
}

// Waits (up to 10 s) until the child `pid`, which has exited and is not waited for, shows
// as a zombie in /proc.
inline bool waitUntilZombie(pid_t pid) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const std::size_t close = line.rfind(')');
    if (close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'Z') {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

}  // namespace tuqvutest
