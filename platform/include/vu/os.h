// vu::os — the few operating-system services the middleware and its modules use.
// Everything takes and returns UTF-8 strings.
#pragma once

#include <atomic>
#include <cstdio>
#include <string>

namespace vu {
namespace os {

// The user's home directory: $HOME, or the password database entry when HOME is unset.
std::string home();

// The temporary directory: $TMPDIR when set and non-empty, else "/tmp".
std::string tmp();

// fopen with a UTF-8 path (the native encoding here, so this is a plain fopen).
std::FILE* fopen(const char* path, const char* mode);

// Sleeps for the given number of milliseconds.
void msleep(unsigned int milliseconds);

// How many times the calling thread has called msleep. Polling code is observed through
// it: the number of sleeps says how often a loop looked.
unsigned long msleepCountOnThisThread();

// The calling thread's msleep counter itself, readable from any thread for as long as
// the calling thread lives: another thread can wait until a polling loop has looked.
const std::atomic<unsigned long>& msleepCounterOfThisThread();

}  // namespace os
}  // namespace vu
