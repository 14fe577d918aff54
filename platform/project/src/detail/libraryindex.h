// The index of a behavior library: which directories below the root are behaviors and
// which tags they carry, kept in step with the disk through inotify. The design is
// described at the top of libraryindex.cpp.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace vu {
namespace project {
namespace detail {

class LibraryIndex {
public:
  // The index of root (absolute and normalised), shared by every library of that root
  // in the process.
  static std::shared_ptr<LibraryIndex> acquire(const std::string& root);

  explicit LibraryIndex(std::string root);
  ~LibraryIndex();
  LibraryIndex(const LibraryIndex&) = delete;
  LibraryIndex& operator=(const LibraryIndex&) = delete;

  const std::string& root() const { return fRoot; }

  // Queries take canonical relative paths (see normalizeRelative) and reflect the disk
  // at the time of the call.
  std::set<std::string> behaviorPaths(const std::string& sub, bool recursive);
  bool hasBehavior(const std::string& rel);
  std::set<std::string> tags(const std::string& sub, bool recursive);
  std::set<std::string> findTag(const std::string& tag);

  // Serialises the changes library objects make to this tree (import, removal), so that
  // "was it there before" and the change itself are one step. Taken before any other
  // lock of the index.
  std::mutex& writeMutex() { return fWriteMutex; }

private:
  struct Dir {
    int wd;         // inotify watch, -1 without one
    bool behavior;  // holds behavior.xar (never true for the root)
    dev_t dev;
    ino_t ino;
  };

  void refresh();
  bool rootChanged() const;
  void rebuild();
  void fallBackToPolling(const std::string& reason);
  void openWatcher();
  void closeWatcher();
  void applyEvents(const char* buffer, ssize_t length);
  void entryChanged(const std::string& dir, const std::string& name, uint32_t mask);
  void scan(const std::string& rel);
  void indexDirectory(const std::string& rel, std::vector<std::string>& pending);
  void listSubdirectories(const std::string& rel, std::vector<std::string>& pending);
  void refreshChild(const std::string& child);
  void reexamine(const std::string& rel);
  void drop(const std::string& rel, bool includingSelf);
  void loadTags(const std::string& rel);
  void unloadTags(const std::string& rel);
  template <typename F>
  void forEachBehavior(const std::string& sub, bool recursive, F f) const;

  const std::string fRoot;
  std::mutex fWriteMutex;

  // Lock order: fWriteMutex, fRefreshMutex, fDataMutex.
  // fRefreshMutex guards the watcher (fFd, fPolling, fWatchFailed, fDirtyTags) and makes
  // one thread at a time bring the index up to date. Everything below fDataMutex is
  // written only with both held, so refresh() may read it holding fRefreshMutex alone.
  std::mutex fRefreshMutex;
  int fFd = -1;
  bool fPolling = false;             // no watcher could be had: rescan on every query
  bool fWatchFailed = false;         // a watch could not be added during this refresh
  std::set<std::string> fDirtyTags;  // behaviors whose project.xml changed

  // fDataMutex guards the index proper; queries hold it shared.
  mutable std::shared_mutex fDataMutex;
  std::map<std::string, Dir> fDirs;  // every indexed directory by relative path, root ""
  std::unordered_map<int, std::string> fWatches;               // watch descriptor -> directory
  std::map<std::pair<dev_t, ino_t>, std::string> fInodes;      // one path per directory
  std::map<std::string, std::vector<std::string>> fBehaviors;  // behavior -> its tags
  std::map<std::string, std::set<std::string>> fTagged;        // tag -> behaviors
};

}  // namespace detail
}  // namespace project
}  // namespace vu
