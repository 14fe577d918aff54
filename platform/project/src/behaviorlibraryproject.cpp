#include <sys/stat.h>
#include <vu/project/behaviorlibraryproject.h>
#include <vu/project/error.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "detail/filecopy.h"
#include "detail/freshunpack.h"
#include "detail/libraryindex.h"
#include "detail/paths.h"

namespace vu {
namespace project {
namespace {

constexpr const char* kImport = "BehaviorLibraryProject::importBehavior";
constexpr const char* kRemove = "BehaviorLibraryProject::removeBehavior";

std::string parentOf(const std::string& path) {
  const std::string::size_type slash = path.rfind('/');
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

}  // namespace

BehaviorLibraryProject::BehaviorLibraryProject(const std::string& root) : Project(root) {
  const std::string path = projectPath();
  if (!path.empty()) {
    fIndex = detail::LibraryIndex::acquire(path);
    fKnown = fIndex->behaviorPaths("", true);
  }
}

BehaviorLibraryProject::BehaviorLibraryProject(const BehaviorLibraryProject& other)
    : Project(other) {
  std::lock_guard<std::mutex> lock(other.fMutex);
  fIndex = other.fIndex;
  fKnown = other.fKnown;
}

BehaviorLibraryProject& BehaviorLibraryProject::operator=(const BehaviorLibraryProject& other) {
  if (this != &other) {
    std::shared_ptr<detail::LibraryIndex> index;
    std::set<std::string> known;
    {
      std::lock_guard<std::mutex> lock(other.fMutex);
      index = other.fIndex;
      known = other.fKnown;
    }
    Project::operator=(other);
    std::lock_guard<std::mutex> lock(fMutex);
    fIndex = std::move(index);
    fKnown.swap(known);
  }
  return *this;
}

BehaviorLibraryProject::~BehaviorLibraryProject() = default;

std::shared_ptr<detail::LibraryIndex> BehaviorLibraryProject::index() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fIndex;
}

std::set<std::string> BehaviorLibraryProject::behaviorPaths(const std::string& subPath,
                                                            bool recursive) const {
  const std::shared_ptr<detail::LibraryIndex> index = this->index();
  std::string rel;
  if (!index || !detail::normalizeRelative(subPath, rel)) {
    return {};
  }
  return index->behaviorPaths(rel, recursive);
}

bool BehaviorLibraryProject::hasBehavior(const std::string& relPath) const {
  const std::shared_ptr<detail::LibraryIndex> index = this->index();
  std::string rel;
  return index && detail::normalizeRelative(relPath, rel) && index->hasBehavior(rel);
}

std::set<std::string> BehaviorLibraryProject::tags(const std::string& subPath,
                                                   bool recursive) const {
  const std::shared_ptr<detail::LibraryIndex> index = this->index();
  std::string rel;
  if (!index || !detail::normalizeRelative(subPath, rel)) {
    return {};
  }
  return index->tags(rel, recursive);
}

std::set<std::string> BehaviorLibraryProject::findTag(const std::string& tag) const {
  const std::shared_ptr<detail::LibraryIndex> index = this->index();
  return index ? index->findTag(tag) : std::set<std::string>();
}

namespace {

// Why `rel` cannot take the behavior `source` in the library of `index`: a root that is
// no directory, or a behavior above `rel`; "" when it can. Called under the index's
// write mutex.
std::string destinationProblem(detail::LibraryIndex& index, const std::string& rel,
                               const std::string& source) {
  struct stat rootInfo;
  if (::stat(index.root().c_str(), &rootInfo) != 0 || !S_ISDIR(rootInfo.st_mode)) {
    return "The library root " + index.root() + " is not a directory";
  }
  for (std::string::size_type slash = rel.find('/'); slash != std::string::npos;
       slash = rel.find('/', slash + 1)) {
    if (index.hasBehavior(rel.substr(0, slash))) {
      return "Cannot import " + source + " to " + rel + ": " + rel.substr(0, slash) +
             " is a behavior";
    }
  }
  return "";
}

// Puts a copy of `source` (or, for a package's fresh unpack, `source` itself) at `dest`:
// built in a staging folder beside it, then moved into place in one rename (or exchanged
// with what is there, which is then removed). Nothing to do when `dest` already is
// `source`. False, logged (naming the behavior `rel`), when it cannot be done; `dest` is
// then as it was.
bool placeBehavior(const std::string& source, const std::string& dest, const std::string& rel,
                   bool overwrite) {
  struct stat sourceInfo, destInfo;
  const bool destExists = ::lstat(dest.c_str(), &destInfo) == 0;
  const bool inPlace = destExists && ::stat(dest.c_str(), &destInfo) == 0 &&
                       ::stat(source.c_str(), &sourceInfo) == 0 &&
                       sourceInfo.st_dev == destInfo.st_dev && sourceInfo.st_ino == destInfo.st_ino;
  if (inPlace) {
    return true;
  }
  if (destExists && !overwrite) {
    detail::logWarning(kImport, "Not importing " + source + ": " + dest +
                                    " exists and overwriting was not asked for");
    return false;
  }
  if (dest.compare(0, source.size() + 1, source + "/") == 0) {
    detail::logWarning(kImport, "Cannot import " + source + " into itself (" + dest + ")");
    return false;
  }
  const std::string parent = parentOf(dest);
  boost::system::error_code code;
  boost::filesystem::create_directories(parent, code);
  if (code) {
    detail::logError(kImport, "Cannot create " + parent + ": " + code.message());
    return false;
  }
  // Copied (or, for a package's fresh unpack, moved) beside the destination, then
  // put in its place in one rename.
  const std::string staging = detail::stagingPath(parent, "");
  const bool moved = detail::moveFreshUnpack(source, staging);
  if (!moved) {
    try {
      detail::copyTree(source, staging);
    } catch (const ProjectError& error) {
      detail::removeTreeIfPossible(staging);
      detail::logError(kImport, "Cannot import " + source + ": " + error.what());
      return false;
    }
  }
  // Undoes the staging after a failure: a moved unpack goes back where it was.
  const auto abandonStaging = [&]() {
    if (moved && std::rename(staging.c_str(), source.c_str()) == 0) {
      detail::rememberFreshUnpack(source);  // moved back: still a fresh unpack
    } else {
      detail::removeTreeIfPossible(staging);
    }
  };
  if (destExists) {
    try {
      detail::exchange(staging, dest);
    } catch (const ProjectError& error) {
      abandonStaging();
      detail::logError(kImport, "Cannot import " + source + ": " + error.what());
      return false;
    }
    try {
      detail::removeTree(staging);  // now the old destination
    } catch (const ProjectError& error) {
      detail::logWarning(
          kImport, std::string("Imported " + rel + " but the old copy stays: ") + error.what());
    }
  } else if (std::rename(staging.c_str(), dest.c_str()) != 0) {
    const std::string error = std::strerror(errno);
    abandonStaging();
    detail::logError(kImport, "Cannot move " + source + " into place at " + dest + ": " + error);
    return false;
  }
  return true;
}

}  // namespace

bool BehaviorLibraryProject::importBehavior(const std::string& sourceDir,
                                            const std::string& localPath, bool overwrite) {
  const std::shared_ptr<detail::LibraryIndex> index = this->index();
  if (!index) {
    detail::logWarning(kImport, "The library has no root; " + sourceDir + " is not imported");
    return false;
  }
  std::string rel;
  if (!detail::normalizeRelative(localPath, rel) || rel.empty()) {
    detail::logWarning(kImport, "Invalid destination \"" + localPath + "\" for " + sourceDir);
    return false;
  }
  const std::string source = detail::normalizeAbsolute(sourceDir);
  if (!isBehavior(source)) {
    detail::logWarning(kImport,
                       source + " is not a behavior: it holds no " + detail::kBehaviorFile);
    return false;
  }
  const std::string dest = detail::joinPath(index->root(), rel);
  std::vector<std::string> replaced;  // behaviors below rel that rel now hides
  bool known = false;
  {
    std::lock_guard<std::mutex> write(index->writeMutex());
    const std::string problem = destinationProblem(*index, rel, source);
    if (!problem.empty()) {
      detail::logWarning(kImport, problem);
      return false;
    }
    const std::set<std::string> before = index->behaviorPaths(rel, true);
    {
      std::lock_guard<std::mutex> lock(fMutex);
      known = fKnown.count(rel) != 0;
    }
    if (!placeBehavior(source, dest, rel, overwrite)) {
      return false;
    }
    for (const std::string& path : before) {
      if (path != rel) {
        replaced.push_back(path);
      }
    }
    std::lock_guard<std::mutex> lock(fMutex);
    if (fIndex == index) {  // unless another library was assigned meanwhile
      for (const std::string& path : replaced) {
        fKnown.erase(path);
      }
      fKnown.insert(rel);
    }
  }
  // Announced with no lock held: slots query the library.
  for (const std::string& path : replaced) {
    behaviorRemoved(path);
  }
  if (known) {
    behaviorUpdated(rel);
  } else {
    behaviorAdded(rel);
  }
  return true;
}

bool BehaviorLibraryProject::removeBehavior(const std::string& relPath) {
  const std::shared_ptr<detail::LibraryIndex> index = this->index();
  std::string rel;
  if (!index || !detail::normalizeRelative(relPath, rel) || rel.empty()) {
    return false;
  }
  {
    std::lock_guard<std::mutex> write(index->writeMutex());
    if (!index->hasBehavior(rel)) {
      return false;
    }
    // Renamed away first, so the behavior leaves the listing at once and whole.
    const std::string dest = detail::joinPath(index->root(), rel);
    const std::string aside = detail::stagingPath(parentOf(dest), ".removed");
    if (std::rename(dest.c_str(), aside.c_str()) != 0) {
      detail::logError(kRemove, "Cannot remove " + dest + ": " + std::strerror(errno));
      return false;
    }
    try {
      detail::removeTree(aside);
    } catch (const ProjectError& error) {
      detail::logWarning(kRemove,
                         std::string("Removed " + rel + " from the library, but ") + error.what());
    }
    std::lock_guard<std::mutex> lock(fMutex);
    if (fIndex == index) {
      fKnown.erase(rel);
    }
  }
  behaviorRemoved(rel);
  return true;
}

}  // namespace project
}  // namespace vu
