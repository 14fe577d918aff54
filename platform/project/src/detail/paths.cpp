#include "detail/paths.h"

#include <sys/stat.h>
#include <unistd.h>
#include <vu/log.h>
#include <vu/replacement.h>

#include <cerrno>
#include <climits>
#include <random>
#include <vector>

namespace vu {
namespace project {
namespace detail {
namespace {

std::string currentDirectory() {
  std::vector<char> buffer(PATH_MAX);
  while (::getcwd(buffer.data(), buffer.size()) == nullptr) {
    if (errno != ERANGE) {
      return "/";
    }
    buffer.resize(buffer.size() * 2);
  }
  return buffer.data();
}

template <typename F>
void forEachComponent(const std::string& path, F f) {
  std::string::size_type start = 0;
  while (start <= path.size()) {
    std::string::size_type end = path.find('/', start);
    if (end == std::string::npos) {
      end = path.size();
    }
    if (end > start) {
      f(path.substr(start, end - start));
    }
    start = end + 1;
  }
}

}  // namespace

std::string normalizeAbsolute(const std::string& dir) {
  if (dir.empty()) {
    return "";
  }
  const std::string full = dir[0] == '/' ? dir : currentDirectory() + "/" + dir;
  std::vector<std::string> parts;
  forEachComponent(full, [&parts](const std::string& part) {
    if (part == ".") {
      return;
    }
    if (part == "..") {
      if (!parts.empty()) {
        parts.pop_back();
      }
      return;
    }
    parts.push_back(part);
  });
  std::string result;
  for (const std::string& part : parts) {
    result += "/";
    result += part;
  }
  return result.empty() ? "/" : result;
}

bool normalizeRelative(const std::string& path, std::string& out) {
  std::string result;
  bool ok = true;
  forEachComponent(path, [&](const std::string& part) {
    if (part == ".") {
      return;
    }
    if (part == "..") {
      ok = false;
      return;
    }
    if (!result.empty()) {
      result += "/";
    }
    result += part;
  });
  if (ok) {
    out = result;
  }
  return ok;
}

std::string joinPath(const std::string& root, const std::string& rel) {
  if (rel.empty()) {
    return root;
  }
  if (root.empty() || root.back() == '/') {
    return root + rel;
  }
  return root + "/" + rel;
}

bool isStagingName(const std::string& name) {
  return name.rfind(kStagingPrefix, 0) == 0;
}

bool isPartName(const std::string& name) {
  return name.rfind(vu::beneath::kPartPrefix, 0) == 0;
}

std::string stagingName(const std::string& suffix) {
  thread_local std::mt19937_64 generator(std::random_device{}());
  static const char digits[] = "0123456789abcdef";
  // The process id lets a later start tell leftovers of a crash from the copies of a
  // process that still works on them.
  std::string name = kStagingPrefix + std::to_string(::getpid()) + "-";
  for (int i = 0; i < 12; ++i) {
    name += digits[generator() % 16];
  }
  return name + suffix;
}

std::string stagingPath(const std::string& parentDir, const std::string& suffix) {
  for (;;) {
    const std::string candidate = joinPath(parentDir, stagingName(suffix));
    struct stat info;
    if (::lstat(candidate.c_str(), &info) != 0 && errno == ENOENT) {
      return candidate;
    }
  }
}

void logWarning(const char* function, const std::string& text) {
  vu::log::write(vu::log::warning, kLogCategory, function, text);
}

void logError(const char* function, const std::string& text) {
  vu::log::write(vu::log::error, kLogCategory, function, text);
}

}  // namespace detail
}  // namespace project
}  // namespace vu
