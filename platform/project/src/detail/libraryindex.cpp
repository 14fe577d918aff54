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
#include <vu/settings.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "detail/libraryindexshared.h"
#include "detail/paths.h"
#include "detail/projectfile.h"

namespace vu {
namespace project {
namespace detail {

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

LibraryIndex::LibraryIndex(std::string root) : fRoot(std::move(root)) {
  // For file systems whose changes inotify does not report (network file systems).
  fPolling = vu::settings::text("TUQVU_LIBRARY_POLLING", "0") != "0";
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
    for (const auto& entry : fBehaviors) {
      if (recursive || entry.first.find('/') == std::string::npos) {
        f(entry);
      }
    }
    return;
  }
  const auto self = fBehaviors.find(sub);
  if (self != fBehaviors.end()) {
    f(*self);  // a behavior is not looked into
    return;
  }
  const std::string prefix = sub + "/";
  for (auto it = fBehaviors.lower_bound(prefix);
       it != fBehaviors.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it) {
    if (recursive || it->first.find('/', prefix.size()) == std::string::npos) {
      f(*it);
    }
  }
}

std::set<std::string> LibraryIndex::behaviorPaths(const std::string& sub, bool recursive) {
  refresh();
  std::shared_lock<std::shared_mutex> lock(fDataMutex);
  std::set<std::string> result;
  forEachBehavior(sub, recursive,
                  [&result](const auto& entry) { result.emplace_hint(result.end(), entry.first); });
  return result;
}

bool LibraryIndex::hasBehavior(const std::string& rel) {
  refresh();
  std::shared_lock<std::shared_mutex> lock(fDataMutex);
  return !rel.empty() && fBehaviors.count(rel) != 0;
}

std::set<std::string> LibraryIndex::tags(const std::string& sub, bool recursive) {
  refresh();
  std::shared_lock<std::shared_mutex> lock(fDataMutex);
  std::set<std::string> result;
  if (sub.empty() && recursive) {
    for (const auto& entry : fTagged) {
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
  std::shared_lock<std::shared_mutex> lock(fDataMutex);
  const auto found = fTagged.find(tag);
  return found == fTagged.end() ? std::set<std::string>() : found->second;
}

}  // namespace detail
}  // namespace project
}  // namespace vu
