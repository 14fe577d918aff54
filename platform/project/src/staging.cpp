#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/project/error.h>
#include <vu/project/staging.h>
#include <vu/replacement.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <utility>

#include "detail/filecopy.h"
#include "detail/paths.h"

namespace vu {
namespace project {
namespace {

// The process that made a staging entry, from its name (after `prefix`); 0 when the name
// carries none.
pid_t makerOf(const std::string& name, const char* prefix) {
  const std::string rest = name.substr(std::strlen(prefix));
  const std::size_t dash = rest.find('-');
  if (dash == std::string::npos || dash == 0) {
    return 0;
  }
  char* end = nullptr;
  const long pid = std::strtol(rest.c_str(), &end, 10);
  return end == rest.c_str() + dash && pid > 0 ? static_cast<pid_t>(pid) : 0;
}

// Whether the process has ended but not been collected by its parent yet (a zombie, or
// one being torn down): it will never finish its import.
bool hasEnded(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) {
    return false;
  }
  // "pid (command) state ...": the command may hold blanks and parentheses.
  const std::size_t close = line.rfind(')');
  if (close == std::string::npos || close + 2 >= line.size()) {
    return false;
  }
  const char state = line[close + 2];
  return state == 'Z' || state == 'X' || state == 'x';
}

bool isAlive(pid_t pid) {
  if (pid == ::getpid()) {
    return true;
  }
  const bool exists = ::kill(pid, 0) == 0 || errno == EPERM;
  return exists && !hasEnded(pid);
}

void sweep(const std::string& dir, int depth, std::vector<std::string>& removed) {
  std::unique_ptr<DIR, int (*)(DIR*)> stream(::opendir(dir.c_str()), &::closedir);
  if (!stream) {
    if (errno != ENOENT) {
      detail::logWarning("removeStagingLeftovers",
                         "cannot read " + dir + ": " + std::strerror(errno));
    }
    return;
  }
  std::vector<std::string> folders;
  std::vector<std::pair<std::string, const char*>> leftovers;  // path, what left it
  while (const dirent* entry = ::readdir(stream.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") {
      continue;
    }
    const std::string path = detail::joinPath(dir, name);
    struct stat info;
    if (::lstat(path.c_str(), &info) != 0) {
      continue;
    }
    const bool staging = detail::isStagingName(name);
    if (staging || detail::isPartName(name)) {
      const pid_t maker =
          makerOf(name, staging ? detail::kStagingPrefix : vu::beneath::kPartPrefix);
      if (info.st_uid == ::geteuid() && (maker == 0 || !isAlive(maker))) {
        leftovers.emplace_back(path, staging ? "an import" : "a file write");
      }
    } else if (S_ISDIR(info.st_mode) && depth > 1 && info.st_uid == ::geteuid()) {
      // Only this user's folders: it writes nowhere else, and shared folders such as the
      // temporary one hold others' folders it may not read.
      folders.push_back(path);
    }
  }
  stream.reset();
  for (const auto& [path, maker] : leftovers) {
    try {
      detail::removeTree(path);
      detail::logWarning("removeStagingLeftovers", "removed " + path + ", left by " +
                                                       std::string(maker) + " that did not finish");
      removed.push_back(path);
    } catch (const ProjectError& error) {
      detail::logWarning("removeStagingLeftovers", error.what());
    }
  }
  for (const std::string& folder : folders) {
    sweep(folder, depth - 1, removed);
  }
}

}  // namespace

std::vector<std::string> removeStagingLeftovers(const std::string& dir, int depth) {
  std::vector<std::string> removed;
  if (!dir.empty() && depth > 0) {
    try {
      sweep(dir, depth, removed);
    } catch (const std::exception& error) {
      detail::logWarning("removeStagingLeftovers", dir + ": " + error.what());
    }
  }
  return removed;
}

}  // namespace project
}  // namespace vu
