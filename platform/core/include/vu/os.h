// vu::os — the few operating-system services the middleware and its modules use.
// Everything takes and returns UTF-8 strings.
#pragma once

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

}  // namespace os
}  // namespace vu
