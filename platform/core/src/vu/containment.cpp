#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/containment.h>
#include <vu/path.h>

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <vector>

namespace fs = boost::filesystem;

namespace vu {
namespace path {

bool isWithin(const fs::path& inner, const fs::path& outer) {
  // Boost's iteration yields "." for a trailing separator; it names no folder.
  const auto next = [](fs::path::iterator at, const fs::path::iterator& end) {
    while (at != end && *at == ".") ++at;
    return at;
  };
  auto i = next(inner.begin(), inner.end());
  auto o = next(outer.begin(), outer.end());
  while (o != outer.end()) {
    if (i == inner.end() || *i != *o) return false;
    i = next(std::next(i), inner.end());
    o = next(std::next(o), outer.end());
  }
  return true;
}

namespace {

std::vector<std::string> componentsOf(const std::string& path) {
  std::vector<std::string> components;
  std::size_t begin = 0;
  while (begin <= path.size()) {
    std::size_t end = path.find('/', begin);
    if (end == std::string::npos) end = path.size();
    if (end > begin) components.push_back(path.substr(begin, end - begin));
    begin = end + 1;
  }
  return components;
}

// The real path of an existing file; "" when it cannot be told.
std::string realPathOf(const std::string& path) {
  std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
  return real ? std::string(real.get()) : std::string();
}

std::string parentOf(const std::string& resolved) {
  const std::size_t slash = resolved.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : resolved.substr(0, slash);
}

}  // namespace

fs::path resolvedPath(const std::string& path) {
  if (path.empty()) return {};
  std::string absolute = path;
  if (absolute[0] != '/') {
    char here[PATH_MAX];
    if (::getcwd(here, sizeof here) == nullptr) return {};
    absolute = std::string(here) + "/" + absolute;
  }
  std::string current = "/";
  bool existing = true;  // every component so far exists, so links may still follow
  for (const std::string& component : componentsOf(absolute)) {
    if (component == ".") continue;
    if (component == "..") {
      current = parentOf(current);
      continue;
    }
    const std::string next = current == "/" ? "/" + component : current + "/" + component;
    struct stat status {};
    if (existing && ::lstat(next.c_str(), &status) == 0) {
      current = realPathOf(next);
      if (current.empty()) return {};
    } else if (existing && errno != ENOENT) {
      return {};
    } else {
      existing = false;
      current = next;
    }
  }
  return fs::path(current);
}

fs::path resolvedSdkPrefix() {
  const std::string prefix = sdkPrefix();
  if (prefix.empty()) return {};
  return resolvedPath(prefix);
}

bool liesInInstallation(const fs::path& path) {
  const fs::path prefix = resolvedSdkPrefix();
  return !prefix.empty() && isWithin(path, prefix);
}

}  // namespace path
}  // namespace vu
