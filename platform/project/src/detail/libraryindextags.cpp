// LibraryIndex: the tags of each behavior (see libraryindex.cpp).
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

void LibraryIndex::loadTags(const std::string& rel) {
  ProjectFile file;
  readProjectFile(joinPath(fRoot, rel), file, kLogFunction);
  for (const std::string& tag : file.tags) {
    fTagged[tag].insert(rel);
  }
  fBehaviors[rel] = std::move(file.tags);
}

void LibraryIndex::unloadTags(const std::string& rel) {
  const auto behavior = fBehaviors.find(rel);
  if (behavior == fBehaviors.end()) {
    return;
  }
  for (const std::string& tag : behavior->second) {
    const auto entry = fTagged.find(tag);
    if (entry != fTagged.end()) {
      entry->second.erase(rel);
      if (entry->second.empty()) {
        fTagged.erase(entry);
      }
    }
  }
  fBehaviors.erase(behavior);
}

}  // namespace detail
}  // namespace project
}  // namespace vu
