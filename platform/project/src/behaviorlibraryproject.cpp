#include <fcntl.h>
#include <sys/stat.h>
#include <vu/beneath.h>
#include <vu/project/behaviorlibraryproject.h>
#include <vu/project/error.h>

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

// The folder that holds `rel` beneath the library root, opened (and, with `create`,
// made where missing) one component at a time and never through a link; `name` gets
// the last component of `rel`. Logs and returns an empty descriptor on failure.
vu::beneath::UniqueFd openParentBeneath(const char* function, const std::string& root,
                                        const std::string& rel, bool create, std::string* name) {
  std::vector<std::string> components;
  vu::beneath::splitRelative(rel, &components);
  *name = components.back();
  components.pop_back();
  const vu::beneath::UniqueFd rootFd(vu::beneath::openDirectory(root));
  if (!rootFd) {
    detail::logError(function,
                     "Cannot open the library root " + root + ": " + std::strerror(errno));
    return vu::beneath::UniqueFd();
  }
  vu::beneath::UniqueFd parent;
  if (create) {
    parent.reset(vu::beneath::makeDirectoriesBeneath(rootFd.get(), components));
  } else {
    const std::string::size_type slash = rel.rfind('/');
    parent.reset(vu::beneath::openBeneath(rootFd.get(),
                                          slash == std::string::npos ? "" : rel.substr(0, slash),
                                          O_PATH | O_DIRECTORY));
  }
  if (!parent) {
    const std::string reason = errno == ELOOP || errno == EXDEV ? "a symbolic link is in the way"
                                                                : std::string(std::strerror(errno));
    detail::logError(function, "Cannot reach the folder of " + rel + " in the library: " + reason);
  }
  return parent;
}

// Puts a copy of `source` (or, for a package's fresh unpack, `source` itself) at `rel`
// beneath `root`: built in a staging folder beside it, then moved into place in one
// rename (or exchanged with what is there, which is then removed). Every step works
// from descriptors beneath the root, so no link in the library takes it elsewhere, and
// the copy keeps only the links that stay inside the behavior. Nothing to do when the
// destination already is `source`. False, logged, when it cannot be done; the
// destination is then as it was.
bool placeBehavior(const std::string& source, const std::string& root, const std::string& rel,
                   bool overwrite) {
  const std::string dest = detail::joinPath(root, rel);
  if (dest.compare(0, source.size() + 1, source + "/") == 0) {
    detail::logWarning(kImport, "Cannot import " + source + " into itself (" + dest + ")");
    return false;
  }
  std::string name;
  const vu::beneath::UniqueFd parent = openParentBeneath(kImport, root, rel, true, &name);
  if (!parent) {
    return false;
  }
  // The source is the folder the caller named; below it nothing is followed.
  const vu::beneath::UniqueFd from(vu::beneath::openDirectory(source));
  struct stat sourceInfo, destInfo;
  if (!from || ::fstat(from.get(), &sourceInfo) != 0) {
    detail::logError(kImport, "Cannot open " + source + ": " + std::strerror(errno));
    return false;
  }
  const bool destExists =
      ::fstatat(parent.get(), name.c_str(), &destInfo, AT_SYMLINK_NOFOLLOW) == 0;
  if (destExists && vu::beneath::identityOf(sourceInfo) == vu::beneath::identityOf(destInfo)) {
    return true;
  }
  if (destExists && !overwrite) {
    detail::logWarning(kImport, "Not importing " + source + ": " + dest +
                                    " exists and overwriting was not asked for");
    return false;
  }
  const std::string staging = detail::stagingName("");
  const bool moved = detail::moveFreshUnpack(source, parent.get(), staging);
  if (!moved) {
    try {
      detail::copyTree(from.get(), ".", parent.get(), staging, "the behavior");
    } catch (const ProjectError& error) {
      detail::removeTreeIfPossible(parent.get(), staging);
      detail::logError(kImport, "Cannot import \"" + rel + "\": " + error.what());
      return false;
    }
  }
  // Undoes the staging after a failure: a moved unpack goes back where it was.
  const auto abandonStaging = [&]() {
    if (moved && ::renameat(parent.get(), staging.c_str(), AT_FDCWD, source.c_str()) == 0) {
      detail::rememberFreshUnpack(source);  // moved back: still a fresh unpack
    } else {
      detail::removeTreeIfPossible(parent.get(), staging);
    }
  };
  if (destExists) {
    try {
      detail::exchange(parent.get(), staging, name, "\"" + rel + "\"");
    } catch (const ProjectError& error) {
      abandonStaging();
      detail::logError(kImport, "Cannot import " + source + ": " + error.what());
      return false;
    }
    try {
      detail::removeTree(parent.get(), staging, "the old copy");  // now the old destination
    } catch (const ProjectError& error) {
      detail::logWarning(
          kImport, std::string("Imported " + rel + " but the old copy stays: ") + error.what());
    }
  } else if (const int error =
                 vu::beneath::renameBeneath(parent.get(), staging, parent.get(), name)) {
    abandonStaging();
    detail::logError(
        kImport, "Cannot move " + source + " into place at " + dest + ": " + std::strerror(error));
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
    if (!placeBehavior(source, index->root(), rel, overwrite)) {
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
    // Renamed away first, so the behavior leaves the listing at once and whole; both
    // steps work beneath the library root and follow no link.
    std::string name;
    const vu::beneath::UniqueFd parent =
        openParentBeneath(kRemove, index->root(), rel, false, &name);
    if (!parent) {
      return false;
    }
    const std::string aside = detail::stagingName(".removed");
    if (const int error = vu::beneath::renameBeneath(parent.get(), name, parent.get(), aside)) {
      detail::logError(kRemove, "Cannot remove " + detail::joinPath(index->root(), rel) + ": " +
                                    std::strerror(error));
      return false;
    }
    try {
      detail::removeTree(parent.get(), aside, "its files");
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
