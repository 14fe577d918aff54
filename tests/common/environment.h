// Sets an environment variable (or unsets it, for a null value) for the lifetime of the
// object, then puts back what was there (or unsets it).
//
//   tuqvutest::ScopedEnvironment limit("TUQVU_FILE_PUT_MAX_BYTES", "1000");
//   tuqvutest::ScopedEnvironment none("TMPDIR", nullptr);
#pragma once

#include <stdlib.h>

#include <string>

namespace tuqvutest {

class ScopedEnvironment {
public:
  ScopedEnvironment(const char* name, const char* value) : fName(name) {
    const char* old = ::getenv(name);
    fHadOld = old != nullptr;
    if (fHadOld) fOld = old;
    if (value != nullptr) {
      ::setenv(name, value, 1);
    } else {
      ::unsetenv(name);
    }
  }
  ScopedEnvironment(const char* name, const std::string& value)
      : ScopedEnvironment(name, value.c_str()) {}
  ~ScopedEnvironment() {
    if (fHadOld) {
      ::setenv(fName, fOld.c_str(), 1);
    } else {
      ::unsetenv(fName);
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
  const char* fName;
  bool fHadOld = false;
  std::string fOld;
};

}  // namespace tuqvutest
