#include <unistd.h>
#include <vu/os.h>
#include <vu/path.h>

#include <boost/filesystem.hpp>
#include <cstdlib>

namespace fs = boost::filesystem;

namespace vu {
namespace path {
namespace {

std::string executablePrefix() {
  boost::system::error_code error;
  const fs::path executable = fs::read_symlink("/proc/self/exe", error);
  if (error) {
    return "";
  }
  return executable.parent_path().parent_path().string();
}

}  // namespace

std::string sdkPrefix() {
  if (const char* value = std::getenv("TUQVU_SDK_PREFIX"); value != nullptr && *value != '\0') {
    return value;
  }
  const std::string prefix = executablePrefix();
  boost::system::error_code error;
  if (!prefix.empty() && fs::is_directory(fs::path(prefix) / "share" / "tuqvu", error)) {
    return prefix;
  }
  // A program run from a build tree: its data lives in the source tree.
  if (fs::is_directory(fs::path(TUQVU_SOURCE_PREFIX) / "share" / "tuqvu", error)) {
    return TUQVU_SOURCE_PREFIX;
  }
  return TUQVU_INSTALL_PREFIX;
}

std::string findData(const std::string& application, const std::string& name) {
  fs::path candidate = fs::path(sdkPrefix()) / "share" / application;
  if (!name.empty()) {
    candidate /= name;
  }
  boost::system::error_code error;
  return fs::exists(candidate, error) ? candidate.string() : std::string();
}

namespace {

// "<$variable or $HOME/<fallback>>/<application>/<name>".
std::string userPath(const char* variable, const char* fallback, const std::string& application,
                     const std::string& name) {
  fs::path base;
  const char* fromEnvironment = std::getenv(variable);
  if (fromEnvironment != nullptr && *fromEnvironment == '/') {
    base = fromEnvironment;
  } else {
    base = fs::path(vu::os::home()) / fallback;
  }
  fs::path result = base / application;
  if (!name.empty()) {
    result /= name;
  }
  return result.string();
}

}  // namespace

std::string userWritableDataPath(const std::string& application, const std::string& name) {
  return userPath("XDG_DATA_HOME", ".local/share", application, name);
}

std::string userConfigPath(const std::string& application, const std::string& name) {
  return userPath("XDG_CONFIG_HOME", ".config", application, name);
}

}  // namespace path
}  // namespace vu
