// Shell command lines for tests that drive programs nobody here wrote (curl, wget, node,
// python3, openssl).
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace tuqvutest {

struct CommandRun {
  int status = -1;  // exit status; -1 when it did not exit normally
  std::string output;
};

// Runs a shell command line, its standard error with its output.
inline CommandRun run(const std::string& command) {
  CommandRun result;
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return result;
  char buffer[4096];
  std::size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) result.output.append(buffer, got);
  const int status = ::pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

// `text` as one word of a shell command line.
inline std::string shellWord(const std::string& text) {
  std::string result = "'";
  for (const char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return result + "'";
}

}  // namespace tuqvutest
