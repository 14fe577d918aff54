// What the parts of LibraryIndex (libraryindex*.cpp) share: the inotify events a watch
// asks for, and the two questions about a directory on disk.
#pragma once

#include <sys/inotify.h>
#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "detail/paths.h"

namespace vu {
namespace project {
namespace detail {

constexpr uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR |
                                IN_EXCL_UNLINK;
// Events that change which entries a directory holds.
constexpr uint32_t kStructural = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr const char* kLogFunction = "BehaviorLibraryProject";

// A directory, links followed; `info` receives its status.
inline bool isDirectory(const std::string& path, struct stat& info) {
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Whether `dir` holds a regular behavior.xar.
inline bool holdsBehaviorFile(const std::string& dir) {
  struct stat info;
  return ::stat(joinPath(dir, kBehaviorFile).c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace detail
}  // namespace project
}  // namespace vu
