// LibraryIndex: scanning a tree and dropping what left it (see libraryindex.cpp).
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

void LibraryIndex::scan(const std::string& rel) {
  std::vector<std::string> pending{rel};
  while (!pending.empty()) {
    const std::string next = std::move(pending.back());
    pending.pop_back();
    indexDirectory(next, pending);
  }
}

void LibraryIndex::indexDirectory(const std::string& rel, std::vector<std::string>& pending) {
  if (fDirs.count(rel) != 0) {
    return;
  }
  const std::string path = joinPath(fRoot, rel);
  int wd = -1;
  if (fFd >= 0) {
    // The watch comes before the listing, so nothing made in between is missed.
    wd = ::inotify_add_watch(fFd, path.c_str(), kWatchMask);
    if (wd < 0 && (errno == ENOSPC || errno == ENOMEM)) {
      fWatchFailed = true;
    } else if (wd < 0) {
      return;  // gone again, or not a readable directory
    }
  }
  struct stat info;
  if (!isDirectory(path, info)) {
    if (wd >= 0 && fWatches.count(wd) == 0) {
      ::inotify_rm_watch(fFd, wd);
    }
    return;
  }
  const std::pair<dev_t, ino_t> inode(info.st_dev, info.st_ino);
  const auto seen = fInodes.find(inode);
  if (seen != fInodes.end() && fDirs.count(seen->second) != 0) {
    return;  // already indexed under another path (same watch descriptor as well)
  }
  const bool behavior = !rel.empty() && holdsBehaviorFile(path);
  fDirs[rel] = Dir{wd, behavior, info.st_dev, info.st_ino};
  fInodes[inode] = rel;
  if (wd >= 0) {
    fWatches[wd] = rel;
  }
  if (behavior) {
    loadTags(rel);
  } else {
    listSubdirectories(rel, pending);
  }
}

void LibraryIndex::listSubdirectories(const std::string& rel, std::vector<std::string>& pending) {
  const std::string path = joinPath(fRoot, rel);
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
    for (auto it = fDirs.begin(); it != fDirs.end(); ++it) {
      if (includingSelf || !it->first.empty()) {
        victims.push_back(it);
      }
    }
  } else {
    const auto self = fDirs.find(rel);
    if (includingSelf && self != fDirs.end()) {
      victims.push_back(self);
    }
    const std::string prefix = rel + "/";
    for (auto it = fDirs.lower_bound(prefix);
         it != fDirs.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it) {
      victims.push_back(it);
    }
  }
  for (const auto& victim : victims) {
    const Dir& dir = victim->second;
    if (dir.wd >= 0) {
      if (fFd >= 0) {
        ::inotify_rm_watch(fFd, dir.wd);
      }
      fWatches.erase(dir.wd);
    }
    const auto inode = fInodes.find({dir.dev, dir.ino});
    if (inode != fInodes.end() && inode->second == victim->first) {
      fInodes.erase(inode);
    }
    if (dir.behavior) {
      unloadTags(victim->first);
    }
    fDirs.erase(victim);
  }
}

}  // namespace detail
}  // namespace project
}  // namespace vu
