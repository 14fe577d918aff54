// LibraryIndex: the tags of each behavior (see libraryindex.cpp).
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

#include "detail/libraryindexshared.h"
#include "detail/paths.h"
#include "detail/projectfile.h"

namespace vu {
namespace project {
namespace detail {

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
