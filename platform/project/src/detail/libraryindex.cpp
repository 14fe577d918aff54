// How a behavior library stays fresh and fast
// ===========================================
//
// The index holds every directory reachable from the root without passing through a
// behavior (a behavior directory is indexed but not descended into), which of them are
// behaviors, and the tags of each behavior. Queries read these maps; each query first
// calls refresh(), which brings the index in step with the disk as it is at that moment.
//
// Freshness comes from one inotify instance per library root. Every indexed directory
// has a watch for entries created, deleted, moved in or out, and files closed after
// writing. The kernel queues an event before the system call that caused it returns,
// so anything done on disk before a query (by this process, a file server, or a person
// copying behaviors in by hand) is in the queue when refresh() reads it. refresh() reads
// the non-blocking descriptor until it is empty; with no change that is one read() and
// one stat() of the root.
//
// An event is a hint of where to look, never trusted for what happened: the named entry
// is examined on disk as it is now.
//   - "behavior.xar" created, deleted or moved in a directory: the directory is examined
//     again. Becoming a behavior drops what was indexed below it; ceasing to be one
//     indexes its subdirectories.
//   - "project.xml" of a behavior created, deleted, moved or written: its tags are read
//     again once the queue is empty (so a file being written is read once it is closed).
//   - any other entry of a plain directory: if it is a directory now (symbolic links
//     followed), it is indexed unless the same watched directory is already there;
//     otherwise whatever was indexed under that name is dropped.
// A new directory gets its watch before it is listed, so an entry made inside it after
// the listing arrives as an event and one made before is found by the listing: a
// directory created and given a behavior.xar later is always seen.
//
// The whole index is rebuilt when the kernel reports a queue overflow, and when the root
// is no longer the directory that was indexed (deleted, moved away, replaced, or made
// after the library was opened). A directory reachable through two paths (a link loop, a
// bind mount) is indexed once, at the first path found. Directories whose name starts
// with ".tuqvu-import-" are the library's own copies in progress and are never indexed.
//
// When no inotify instance or watch can be had (the per-user limits), the library logs a
// warning and rescans the whole tree on every query: slow, but still correct. The same
// happens for every library opened while the environment variable TUQVU_LIBRARY_POLLING
// is set to anything but "" or "0", for file systems whose changes inotify does not see
// (changes made on another machine of a network file system).
#include "detail/libraryindex.h"

#include <dirent.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/log.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "detail/paths.h"
#include "detail/projectfile.h"

namespace vu {
namespace project {
namespace detail {
namespace {

constexpr uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR |
                                IN_EXCL_UNLINK;
constexpr uint32_t kStructural = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr const char* kLogFunction = "BehaviorLibraryProject";

bool isDirectory(const std::string& path, struct stat& info) {
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool holdsBehaviorFile(const std::string& dir) {
  struct stat info;
  return ::stat(joinPath(dir, kBehaviorFile).c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

std::shared_ptr<LibraryIndex> LibraryIndex::acquire(const std::string& root) {
  static std::mutex registryMutex;  // guards registry
  static std::map<std::string, std::weak_ptr<LibraryIndex>> registry;
  std::lock_guard<std::mutex> lock(registryMutex);
  for (auto it = registry.begin(); it != registry.end();) {
    it = it->second.expired() ? registry.erase(it) : std::next(it);
  }
  std::weak_ptr<LibraryIndex>& slot = registry[root];
  std::shared_ptr<LibraryIndex> index = slot.lock();
  if (!index) {
    index = std::make_shared<LibraryIndex>(root);
    slot = index;
  }
  return index;
}

LibraryIndex::LibraryIndex(std::string root) : root_(std::move(root)) {
  // For file systems whose changes inotify does not report (network file systems).
  const char* polling = std::getenv("TUQVU_LIBRARY_POLLING");
  polling_ = polling != nullptr && *polling != '\0' && std::strcmp(polling, "0") != 0;
  refresh();
}

LibraryIndex::~LibraryIndex() {
  closeWatcher();
}

// ---------------------------------------------------------------------------------------
// Queries

template <typename F>
void LibraryIndex::forEachBehavior(const std::string& sub, bool recursive, F f) const {
  if (sub.empty()) {
    for (const auto& entry : behaviors_) {
      if (recursive || entry.first.find('/') == std::string::npos) {
        f(entry);
      }
    }
    return;
  }
  const auto self = behaviors_.find(sub);
  if (self != behaviors_.end()) {
    f(*self);  // a behavior is not looked into
    return;
  }
  const std::string prefix = sub + "/";
  for (auto it = behaviors_.lower_bound(prefix);
       it != behaviors_.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it) {
    if (recursive || it->first.find('/', prefix.size()) == std::string::npos) {
      f(*it);
    }
  }
}

std::set<std::string> LibraryIndex::behaviorPaths(const std::string& sub, bool recursive) {
  refresh();
  std::shared_lock<std::shared_mutex> lock(dataMutex_);
  std::set<std::string> result;
  forEachBehavior(sub, recursive,
                  [&result](const auto& entry) { result.emplace_hint(result.end(), entry.first); });
  return result;
}

bool LibraryIndex::hasBehavior(const std::string& rel) {
  refresh();
  std::shared_lock<std::shared_mutex> lock(dataMutex_);
  return !rel.empty() && behaviors_.count(rel) != 0;
}

std::set<std::string> LibraryIndex::tags(const std::string& sub, bool recursive) {
  refresh();
  std::shared_lock<std::shared_mutex> lock(dataMutex_);
  std::set<std::string> result;
  if (sub.empty() && recursive) {
    for (const auto& entry : tagged_) {
      result.emplace_hint(result.end(), entry.first);
    }
    return result;
  }
  forEachBehavior(sub, recursive, [&result](const auto& entry) {
    result.insert(entry.second.begin(), entry.second.end());
  });
  return result;
}

std::set<std::string> LibraryIndex::findTag(const std::string& tag) {
  refresh();
  std::shared_lock<std::shared_mutex> lock(dataMutex_);
  const auto found = tagged_.find(tag);
  return found == tagged_.end() ? std::set<std::string>() : found->second;
}

// ---------------------------------------------------------------------------------------
// Keeping in step with the disk

void LibraryIndex::refresh() {
  std::lock_guard<std::mutex> refreshLock(refreshMutex_);
  if (polling_ || rootChanged()) {
    std::unique_lock<std::shared_mutex> lock(dataMutex_);
    rebuild();
  }
  alignas(struct inotify_event) char buffer[64 * 1024];
  while (fd_ >= 0) {
    const ssize_t length = ::read(fd_, buffer, sizeof buffer);
    if (length < 0 && errno == EINTR) {
      continue;
    }
    if (length <= 0 && (length == 0 || errno == EAGAIN)) {
      break;  // the queue is empty
    }
    std::unique_lock<std::shared_mutex> lock(dataMutex_);
    if (length < 0) {
      fallBackToPolling(std::string("cannot read its change notifications: ") +
                        std::strerror(errno));
      break;
    }
    applyEvents(buffer, length);
    if (watchFailed_) {
      fallBackToPolling("cannot watch every directory (inotify limit reached?)");
      break;
    }
  }
  if (!dirtyTags_.empty()) {
    std::unique_lock<std::shared_mutex> lock(dataMutex_);
    for (const std::string& rel : dirtyTags_) {
      const auto dir = dirs_.find(rel);
      if (dir != dirs_.end() && dir->second.behavior) {
        unloadTags(rel);
        loadTags(rel);
      }
    }
    dirtyTags_.clear();
  }
}

void LibraryIndex::fallBackToPolling(const std::string& reason) {
  logWarning(kLogFunction, "Library " + root_ + ": " + reason + "; rescanning on every query");
  watchFailed_ = false;
  closeWatcher();
  polling_ = true;
  rebuild();
}

bool LibraryIndex::rootChanged() const {
  struct stat info;
  const bool exists = !root_.empty() && isDirectory(root_, info);
  const auto indexed = dirs_.find("");
  if (indexed == dirs_.end()) {
    return exists;
  }
  return !exists || indexed->second.dev != info.st_dev || indexed->second.ino != info.st_ino;
}

void LibraryIndex::rebuild() {
  dirs_.clear();
  watches_.clear();
  inodes_.clear();
  behaviors_.clear();
  tagged_.clear();
  dirtyTags_.clear();
  if (!polling_) {
    openWatcher();  // a new instance drops the old watches and their queued events
  }
  struct stat info;
  if (!root_.empty() && isDirectory(root_, info)) {
    scan("");
  }
  if (watchFailed_) {
    fallBackToPolling("cannot watch every directory (inotify limit reached?)");
  }
}

void LibraryIndex::openWatcher() {
  closeWatcher();
  fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd_ < 0) {
    logWarning(kLogFunction, "Library " + root_ + ": cannot watch for changes (" +
                                 std::strerror(errno) + "); rescanning on every query");
    polling_ = true;
  }
}

void LibraryIndex::closeWatcher() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

void LibraryIndex::applyEvents(const char* buffer, ssize_t length) {
  for (ssize_t offset = 0; offset < length;) {
    const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + offset);
    offset += sizeof(struct inotify_event) + event->len;
    if (event->mask & IN_Q_OVERFLOW) {
      vu::log::write(vu::log::info, kLogCategory, kLogFunction,
                     "Library " + root_ + ": change notifications were lost; rescanning");
      rebuild();  // the rest of this buffer belongs to the old watcher
      return;
    }
    const auto watch = watches_.find(event->wd);
    if (watch == watches_.end()) {
      continue;  // a watch already dropped
    }
    const std::string dir = watch->second;
    if (event->mask & IN_IGNORED) {
      // The kernel removed the watch: the directory is gone. Look at its path again.
      watches_.erase(watch);
      const auto indexed = dirs_.find(dir);
      if (indexed != dirs_.end() && indexed->second.wd == event->wd) {
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
  auto indexed = dirs_.find(dir);
  if (indexed == dirs_.end()) {
    return;
  }
  const bool structural = (mask & kStructural) != 0;
  if (structural && !dir.empty() && name == kBehaviorFile) {
    reexamine(dir);
    indexed = dirs_.find(dir);
    if (indexed == dirs_.end()) {
      return;
    }
  }
  if (indexed->second.behavior) {
    if (name == kProjectFile) {
      dirtyTags_.insert(dir);
    }
    return;  // nothing inside a behavior is indexed
  }
  if (structural && !isStagingName(name)) {
    refreshChild(joinPath(dir, name));
  }
}

void LibraryIndex::refreshChild(const std::string& child) {
  const std::string path = joinPath(root_, child);
  struct stat info;
  const auto indexed = dirs_.find(child);
  if (!isDirectory(path, info)) {
    if (indexed != dirs_.end()) {
      drop(child, true);
    }
    return;
  }
  if (indexed != dirs_.end()) {
    // Still the directory that is watched there? Adding a watch to a watched directory
    // returns its descriptor; a directory put in its place gets a new one.
    if (fd_ >= 0 && indexed->second.wd >= 0) {
      const int wd = ::inotify_add_watch(fd_, path.c_str(), kWatchMask);
      if (wd == indexed->second.wd) {
        return;
      }
      if (wd >= 0 && watches_.count(wd) == 0) {
        ::inotify_rm_watch(fd_, wd);  // scan() adds it again if the directory is indexed
      }
    }
    drop(child, true);
  }
  scan(child);
}

void LibraryIndex::reexamine(const std::string& rel) {
  const auto indexed = dirs_.find(rel);
  const bool behavior = holdsBehaviorFile(joinPath(root_, rel));
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

void LibraryIndex::scan(const std::string& rel) {
  std::vector<std::string> pending{rel};
  while (!pending.empty()) {
    const std::string next = std::move(pending.back());
    pending.pop_back();
    indexDirectory(next, pending);
  }
}

void LibraryIndex::indexDirectory(const std::string& rel, std::vector<std::string>& pending) {
  if (dirs_.count(rel) != 0) {
    return;
  }
  const std::string path = joinPath(root_, rel);
  int wd = -1;
  if (fd_ >= 0) {
    // The watch comes before the listing, so nothing made in between is missed.
    wd = ::inotify_add_watch(fd_, path.c_str(), kWatchMask);
    if (wd < 0 && (errno == ENOSPC || errno == ENOMEM)) {
      watchFailed_ = true;
    } else if (wd < 0) {
      return;  // gone again, or not a readable directory
    }
  }
  struct stat info;
  if (!isDirectory(path, info)) {
    if (wd >= 0 && watches_.count(wd) == 0) {
      ::inotify_rm_watch(fd_, wd);
    }
    return;
  }
  const std::pair<dev_t, ino_t> inode(info.st_dev, info.st_ino);
  const auto seen = inodes_.find(inode);
  if (seen != inodes_.end() && dirs_.count(seen->second) != 0) {
    return;  // already indexed under another path (same watch descriptor as well)
  }
  const bool behavior = !rel.empty() && holdsBehaviorFile(path);
  dirs_[rel] = Dir{wd, behavior, info.st_dev, info.st_ino};
  inodes_[inode] = rel;
  if (wd >= 0) {
    watches_[wd] = rel;
  }
  if (behavior) {
    loadTags(rel);
  } else {
    listSubdirectories(rel, pending);
  }
}

void LibraryIndex::listSubdirectories(const std::string& rel, std::vector<std::string>& pending) {
  const std::string path = joinPath(root_, rel);
  DIR* dir = ::opendir(path.c_str());
  if (dir == nullptr) {
    return;
  }
  while (const struct dirent* entry = ::readdir(dir)) {
    const char* name = entry->d_name;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0 || isStagingName(name)) {
      continue;
    }
    bool directory = entry->d_type == DT_DIR;
    if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) {
      struct stat info;
      directory = isDirectory(joinPath(path, name), info);
    }
    if (directory) {
      pending.push_back(joinPath(rel, name));
    }
  }
  ::closedir(dir);
}

void LibraryIndex::drop(const std::string& rel, bool includingSelf) {
  // The directories below rel are the keys starting with rel + "/": a contiguous range,
  // though not contiguous with rel itself ("a-b" sorts between "a" and "a/b").
  std::vector<std::map<std::string, Dir>::iterator> victims;
  if (rel.empty()) {
    for (auto it = dirs_.begin(); it != dirs_.end(); ++it) {
      if (includingSelf || !it->first.empty()) {
        victims.push_back(it);
      }
    }
  } else {
    const auto self = dirs_.find(rel);
    if (includingSelf && self != dirs_.end()) {
      victims.push_back(self);
    }
    const std::string prefix = rel + "/";
    for (auto it = dirs_.lower_bound(prefix);
         it != dirs_.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it) {
      victims.push_back(it);
    }
  }
  for (const auto& victim : victims) {
    const Dir& dir = victim->second;
    if (dir.wd >= 0) {
      if (fd_ >= 0) {
        ::inotify_rm_watch(fd_, dir.wd);
      }
      watches_.erase(dir.wd);
    }
    const auto inode = inodes_.find({dir.dev, dir.ino});
    if (inode != inodes_.end() && inode->second == victim->first) {
      inodes_.erase(inode);
    }
    if (dir.behavior) {
      unloadTags(victim->first);
    }
    dirs_.erase(victim);
  }
}

// ---------------------------------------------------------------------------------------
// Tags

void LibraryIndex::loadTags(const std::string& rel) {
  ProjectFile file;
  readProjectFile(joinPath(root_, rel), file, kLogFunction);
  for (const std::string& tag : file.tags) {
    tagged_[tag].insert(rel);
  }
  behaviors_[rel] = std::move(file.tags);
}

void LibraryIndex::unloadTags(const std::string& rel) {
  const auto behavior = behaviors_.find(rel);
  if (behavior == behaviors_.end()) {
    return;
  }
  for (const std::string& tag : behavior->second) {
    const auto entry = tagged_.find(tag);
    if (entry != tagged_.end()) {
      entry->second.erase(rel);
      if (entry->second.empty()) {
        tagged_.erase(entry);
      }
    }
  }
  behaviors_.erase(behavior);
}

}  // namespace detail
}  // namespace project
}  // namespace vu
