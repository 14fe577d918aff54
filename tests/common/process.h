// Processes for tests that need one with a known fate.
#pragma once

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

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

}  // namespace tuqvutest
