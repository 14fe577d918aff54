// Sets an environment variable for the lifetime of the object, then puts back what was
// there (or unsets it).
//
//   tuqvutest::ScopedEnvironment limit("TUQVU_FILE_PUT_MAX_BYTES", "1000");
#pragma once

#include <stdlib.h>

#include <string>

namespace tuqvutest {

class ScopedEnvironment {
public:
  ScopedEnvironment(const char* name, const std::string& value) : fName(name) {
    const char* old = ::getenv(name);
    fHadOld = old != nullptr;
    if (fHadOld) fOld = old;
    ::setenv(name, value.c_str(), 1);
  }
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
