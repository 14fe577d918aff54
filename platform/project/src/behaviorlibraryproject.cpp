#include <sys/stat.h>
#include <vu/project/behaviorlibraryproject.h>

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
    index_ = detail::LibraryIndex::acquire(path);
    known_ = index_->behaviorPaths("", true);
  }
}

BehaviorLibraryProject::BehaviorLibraryProject(const BehaviorLibraryProject& other)
    : Project(other) {
  std::lock_guard<std::mutex> lock(other.mutex_);
  index_ = other.index_;
  known_ = other.known_;
}

BehaviorLibraryProject& BehaviorLibraryProject::operator=(const BehaviorLibraryProject& other) {
  if (this != &other) {
    std::shared_ptr<detail::LibraryIndex> index;
    std::set<std::string> known;
    {
      std::lock_guard<std::mutex> lock(other.mutex_);
      index = other.index_;
      known = other.known_;
    }
    Project::operator=(other);
    std::lock_guard<std::mutex> lock(mutex_);
    index_ = std::move(index);
    known_.swap(known);
  }
  return *this;
}

BehaviorLibraryProject::~BehaviorLibraryProject() = default;

std::shared_ptr<detail::LibraryIndex> BehaviorLibraryProject::index() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return index_;
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
                       sourceInfo.st_dev == destInfo.st_dev &&
                       sourceInfo.st_ino == destInfo.st_ino;
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
  std::string error;
  if (!moved && !detail::copyTree(source, staging, error)) {
    std::string ignored;
    detail::removeTree(staging, ignored);
    detail::logError(kImport, "Cannot import " + source + ": " + error);
    return false;
  }
  // Undoes the staging after a failure: a moved unpack goes back where it was.
  const auto abandonStaging = [&]() {
    std::string ignored;
    if (moved && std::rename(staging.c_str(), source.c_str()) == 0) {
      detail::rememberFreshUnpack(source);  // moved back: still a fresh unpack
    } else {
      detail::removeTree(staging, ignored);
    }
  };
  if (destExists) {
    if (!detail::exchange(staging, dest, error)) {
      abandonStaging();
      detail::logError(kImport, "Cannot import " + source + ": " + error);
      return false;
    }
    if (!detail::removeTree(staging, error)) {  // now the old destination
      detail::logWarning(kImport, "Imported " + rel + " but the old copy stays: " + error);
    }
  } else if (std::rename(staging.c_str(), dest.c_str()) != 0) {
    error = std::strerror(errno);
    abandonStaging();
    detail::logError(kImport,
                     "Cannot move " + source + " into place at " + dest + ": " + error);
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
      std::lock_guard<std::mutex> lock(mutex_);
      known = known_.count(rel) != 0;
    }
    if (!placeBehavior(source, dest, rel, overwrite)) {
      return false;
    }
    for (const std::string& path : before) {
      if (path != rel) {
        replaced.push_back(path);
      }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (index_ == index) {  // unless another library was assigned meanwhile
      for (const std::string& path : replaced) {
        known_.erase(path);
      }
      known_.insert(rel);
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
    std::string error;
    if (!detail::removeTree(aside, error)) {
      detail::logWarning(kRemove, "Removed " + rel + " from the library, but " + error);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (index_ == index) {
      known_.erase(rel);
    }
  }
  behaviorRemoved(rel);
  return true;
}

}  // namespace project
}  // namespace vu
