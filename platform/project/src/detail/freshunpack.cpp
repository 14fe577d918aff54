#include "detail/freshunpack.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

#include <map>
#include <mutex>
#include <tuple>

namespace vu {
namespace project {
namespace detail {
namespace {

// Device, inode and change time: inode numbers are reused as soon as a directory is
// deleted, and any change made to the directory since its unpacking (an entry added or
// removed) moves its change time, after which it is copied like any other.
using Identity = std::tuple<dev_t, ino_t, time_t, long>;

bool identityOf(const std::string& dir, Identity& identity) {
  struct stat info;
  if (::lstat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    return false;
  }
  identity = Identity(info.st_dev, info.st_ino, info.st_ctim.tv_sec, info.st_ctim.tv_nsec);
  return true;
}

struct Registry {
  // Guards unpacks. Taken alone: no other lock is held or taken while it is.
  std::mutex mutex;
  std::map<std::string, Identity> unpacks;  // path -> the directory unpacked there

  // Drops the records whose directory was deleted or replaced since, so that unpacks
  // nobody imports do not pile up.
  void prune() {
    for (auto it = unpacks.begin(); it != unpacks.end();) {
      Identity now;
      if (!identityOf(it->first, now) || now != it->second) {
        it = unpacks.erase(it);
      } else {
        ++it;
      }
    }
  }
};

Registry& registry() {
  static Registry instance;
  return instance;
}

}  // namespace

void rememberFreshUnpack(const std::string& dir) {
  Identity identity;
  if (!identityOf(dir, identity)) {
    return;
  }
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.prune();
  r.unpacks[dir] = identity;
}

bool moveFreshUnpack(const std::string& dir, int targetDirectory, const std::string& targetName) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  const auto it = r.unpacks.find(dir);
  Identity now;
  if (it == r.unpacks.end() || !identityOf(dir, now) || now != it->second) {
    return false;
  }
  // dir is a folder this library made itself; the target is opened beneath its root.
  if (::renameat(AT_FDCWD, dir.c_str(), targetDirectory, targetName.c_str()) != 0) {
    return false;
  }
  r.unpacks.erase(it);
  return true;
}

}  // namespace detail
}  // namespace project
}  // namespace vu
