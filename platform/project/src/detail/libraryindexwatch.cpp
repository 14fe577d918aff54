// LibraryIndex: keeping in step with the disk through inotify (see libraryindex.cpp).
#include <dirent.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/log.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "detail/libraryindex.h"
#include "detail/libraryindexshared.h"
#include "detail/paths.h"
#include "detail/projectfile.h"

namespace vu {
namespace project {
namespace detail {

void LibraryIndex::refresh() {
  std::lock_guard<std::mutex> refreshLock(fRefreshMutex);
  if (fPolling || rootChanged()) {
    std::unique_lock<std::shared_mutex> lock(fDataMutex);
    rebuild();
  }
  alignas(struct inotify_event) char buffer[64 * 1024];
  while (fFd >= 0) {
    const ssize_t length = ::read(fFd, buffer, sizeof buffer);
    if (length < 0 && errno == EINTR) {
      continue;
    }
    if (length <= 0 && (length == 0 || errno == EAGAIN)) {
      break;  // the queue is empty
    }
    std::unique_lock<std::shared_mutex> lock(fDataMutex);
    if (length < 0) {
      fallBackToPolling(std::string("cannot read its change notifications: ") +
                        std::strerror(errno));
      break;
    }
    applyEvents(buffer, length);
    if (fWatchFailed) {
      fallBackToPolling("cannot watch every directory (inotify limit reached?)");
      break;
    }
  }
  if (!fDirtyTags.empty()) {
    std::unique_lock<std::shared_mutex> lock(fDataMutex);
    for (const std::string& rel : fDirtyTags) {
      const auto dir = fDirs.find(rel);
      if (dir != fDirs.end() && dir->second.behavior) {
        unloadTags(rel);
        loadTags(rel);
      }
    }
    fDirtyTags.clear();
  }
}

void LibraryIndex::fallBackToPolling(const std::string& reason) {
  logWarning(kLogFunction, "Library " + fRoot + ": " + reason + "; rescanning on every query");
  fWatchFailed = false;
  closeWatcher();
  fPolling = true;
  rebuild();
}

bool LibraryIndex::rootChanged() const {
  struct stat info;
  const bool exists = !fRoot.empty() && isDirectory(fRoot, info);
  const auto indexed = fDirs.find("");
  if (indexed == fDirs.end()) {
    return exists;
  }
  return !exists || indexed->second.dev != info.st_dev || indexed->second.ino != info.st_ino;
}

void LibraryIndex::rebuild() {
  fDirs.clear();
  fWatches.clear();
  fInodes.clear();
  fBehaviors.clear();
  fTagged.clear();
  fDirtyTags.clear();
  if (!fPolling) {
    openWatcher();  // a new instance drops the old watches and their queued events
  }
  struct stat info;
  if (!fRoot.empty() && isDirectory(fRoot, info)) {
    scan("");
  }
  if (fWatchFailed) {
    fallBackToPolling("cannot watch every directory (inotify limit reached?)");
  }
}

void LibraryIndex::openWatcher() {
  closeWatcher();
  fFd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fFd < 0) {
    logWarning(kLogFunction, "Library " + fRoot + ": cannot watch for changes (" +
                                 std::strerror(errno) + "); rescanning on every query");
    fPolling = true;
  }
}

void LibraryIndex::closeWatcher() {
  if (fFd >= 0) {
    ::close(fFd);
    fFd = -1;
  }
}

void LibraryIndex::applyEvents(const char* buffer, ssize_t length) {
  for (ssize_t offset = 0; offset < length;) {
    const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + offset);
    offset += sizeof(struct inotify_event) + event->len;
    if (event->mask & IN_Q_OVERFLOW) {
      vu::log::write(vu::log::info, kLogCategory, kLogFunction,
                     "Library " + fRoot + ": change notifications were lost; rescanning");
      rebuild();  // the rest of this buffer belongs to the old watcher
      return;
    }
    const auto watch = fWatches.find(event->wd);
    if (watch == fWatches.end()) {
      continue;  // a watch already dropped
    }
    const std::string dir = watch->second;
    if (event->mask & IN_IGNORED) {
      // The kernel removed the watch: the directory is gone. Look at its path again.
      fWatches.erase(watch);
      const auto indexed = fDirs.find(dir);
      if (indexed != fDirs.end() && indexed->second.wd == event->wd) {
        indexed->second.wd = -1;
        if (dir.empty()) {
          drop("", true);
        } else {
          refreshChild(dir);
        }
      }
      continue;
    }
    if (event->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
      if (dir.empty()) {
        drop("", true);  // the root went away; rootChanged() notices when it is back
      }
      continue;  // below the root, the parent's event tells where the directory went
    }
    if (event->len > 0) {
      entryChanged(dir, event->name, event->mask);
    }
  }
}

void LibraryIndex::entryChanged(const std::string& dir, const std::string& name, uint32_t mask) {
  auto indexed = fDirs.find(dir);
  if (indexed == fDirs.end()) {
    return;
  }
  const bool structural = (mask & kStructural) != 0;
  if (structural && !dir.empty() && name == kBehaviorFile) {
    reexamine(dir);
    indexed = fDirs.find(dir);
    if (indexed == fDirs.end()) {
      return;
    }
  }
  if (indexed->second.behavior) {
    if (name == kProjectFile) {
      fDirtyTags.insert(dir);
    }
    return;  // nothing inside a behavior is indexed
  }
  if (structural && !isStagingName(name)) {
    refreshChild(joinPath(dir, name));
  }
}

void LibraryIndex::refreshChild(const std::string& child) {
  const std::string path = joinPath(fRoot, child);
  struct stat info;
  const auto indexed = fDirs.find(child);
  if (!isDirectory(path, info)) {
    if (indexed != fDirs.end()) {
      drop(child, true);
    }
    return;
  }
  if (indexed != fDirs.end()) {
    // Still the directory that is watched there? Adding a watch to a watched directory
    // returns its descriptor; a directory put in its place gets a new one.
    if (fFd >= 0 && indexed->second.wd >= 0) {
      const int wd = ::inotify_add_watch(fFd, path.c_str(), kWatchMask);
      if (wd == indexed->second.wd) {
        return;
      }
      if (wd >= 0 && fWatches.count(wd) == 0) {
        ::inotify_rm_watch(fFd, wd);  // scan() adds it again if the directory is indexed
      }
    }
    drop(child, true);
  }
  scan(child);
}

void LibraryIndex::reexamine(const std::string& rel) {
  const auto indexed = fDirs.find(rel);
  const bool behavior = holdsBehaviorFile(joinPath(fRoot, rel));
  if (behavior == indexed->second.behavior) {
    return;
  }
  indexed->second.behavior = behavior;
  if (behavior) {
    drop(rel, false);
    loadTags(rel);
    return;
  }
  unloadTags(rel);
  std::vector<std::string> pending;
  listSubdirectories(rel, pending);
  for (const std::string& child : pending) {
    scan(child);
  }
}

}  // namespace detail
}  // namespace project
}  // namespace vu
