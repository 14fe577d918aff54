// Installing behaviors, packages and resources into the user library.
#include <behaviormanager/behaviormanager.h>
#include <fcntl.h>
#include <stdio.h>
#include <vu/beneath.h>
#include <vu/containment.h>
#include <vu/project/package.h>
#include <vu/project/project.h>

#include <boost/filesystem.hpp>
#include <cstring>
#include <stdexcept>

#include "detail.h"

namespace fs = boost::filesystem;

namespace ZR {
namespace BehaviorManager {

namespace {

bool somethingAt(const fs::path& path) {
  boost::system::error_code ignored;
  const fs::file_type type = fs::status(path, ignored).type();
  return type != fs::status_error && type != fs::file_not_found;
}

void removeTemporary(const fs::path& tmp) {
  try {
    if (somethingAt(tmp)) {
      fs::remove_all(tmp);
    }
  } catch (const std::exception& error) {
    detail::log(vu::log::warning, "installBehavior",
                "Could not clean temporary path " + tmp.string() + ": " + error.what());
  }
}

}  // namespace

bool ZRBehaviorManager::installBehavior(const std::string& localPath) {
  const std::string source = detail::joinUnderRoot(fUserLibrary.projectPath(), localPath);
  return installBehavior(source, localPath, true);
}

bool ZRBehaviorManager::installBehavior(const std::string& absolutePath,
                                        const std::string& localPath, bool overwrite) {
  const bool installed = xInstallBehavior(absolutePath, localPath, overwrite);
  (installed ? fInstalled : fInstallFailed)->increment();
  return installed;
}

bool ZRBehaviorManager::xInstallBehavior(const std::string& absolutePath,
                                         const std::string& localPath, bool overwrite) {
  if (!fUserLibrary.valid()) {
    detail::log(vu::log::error, "installBehavior",
                std::string("No valid user behavior library ") +
                    "path was set, behavior will not be installed.");
    return false;
  }
  const fs::path tmp = fs::temp_directory_path() / fs::unique_path("%%%%-%%%%-%%%%-%%%%");
  const fs::path dest = detail::joinUnderRoot(fUserLibrary.projectPath(), localPath);

  try {
    const fs::path source = detail::permittedInstallSource(
        absolutePath, {fUserLibrary.projectPath(), fSystemLibrary.projectPath()});
    if (source.empty()) {
      throw std::runtime_error(
          "it lies outside the folders a behavior may be installed from (the user library, "
          "the system library, the temporary folder and the served data folders)");
    }
    vu::project::Project project(source.string());
    if (!project.valid()) {
      vu::project::ArchiveFormat format = vu::project::ArchiveFormatDetect;
      vu::project::importProject(source.string(), tmp.string(), format);
      project = vu::project::Project(tmp.string());
    }
    const std::string type = project.getMetadata("Type");

    if (detail::isResourceType(type)) {
      // Resources are put in place by removing what is at the destination first, so a
      // destination that is the library itself, lies outside it, or holds the source
      // would lose data: refused.
      const fs::path from = fs::weakly_canonical(project.projectPath());
      const fs::path to = fs::weakly_canonical(dest);
      // Nor may it replace anything of the installation, wherever the library lies.
      using vu::path::isWithin;
      if (vu::path::liesInInstallation(to) || !detail::namesAPlaceBelowRoot(localPath) ||
          !isWithin(to, fs::weakly_canonical(fUserLibrary.projectPath())) ||
          (from != to && (isWithin(from, to) || isWithin(to, from)))) {
        throw std::runtime_error(
            "\"" + localPath + "\" is not a place for this resource in the user behavior library");
      }
      if (!overwrite && somethingAt(dest)) {
        return false;
      }
      if (from == to) {
        return true;  // already in place
      }
      // From here on every step works beneath a descriptor of the library root: a link
      // in the library leads neither the removal, nor a new folder (a resource may go to
      // one), nor the copy outside it.
      std::string name;
      const vu::beneath::UniqueFd parent =
          detail::openFolderOf(fUserLibrary.projectPath(), localPath, true, &name);
      if (!parent) {
        throw std::runtime_error(
            "\"" + localPath + "\" is not a place for this resource in the user behavior library");
      }
      if (const int error = vu::beneath::removeTree(parent.get(), name)) {
        throw std::runtime_error("cannot remove what is at \"" + localPath +
                                 "\": " + std::strerror(error));
      }
      // tmp is this install's own folder; renaming it fails when the resource came as a
      // folder (tmp was never made) or lies on another file system.
      if (::renameat(AT_FDCWD, tmp.c_str(), parent.get(), name.c_str()) == 0) {
        return true;
      }
      if (copy(project.projectPath(), parent.get(), name)) {
        fs::remove_all(tmp);
        return true;
      }
      return false;
    }

    const bool ok = fUserLibrary.importBehavior(project.projectPath(), localPath, overwrite);
    removeTemporary(tmp);
    if (!ok) {
      throw std::runtime_error("unrecognized package type");
    }
    if (xNormalizeLocalPath(localPath).empty()) {
      throw std::runtime_error("behavior was not properly installed");
    }
    return true;
  } catch (const std::exception& error) {
    removeTemporary(tmp);
    detail::log(vu::log::error, "installBehavior",
                "Error trying to import package " + absolutePath + ": " + error.what());
    return false;
  }
}

bool ZRBehaviorManager::copy(const fs::path& source, int destinationDirectory,
                             const std::string& name) {
  // The source is the folder the caller named; below it nothing is followed, and a link
  // is kept only while it resolves inside that folder, wherever the copy lies.
  const vu::beneath::UniqueFd from(vu::beneath::openDirectory(source.string()));
  if (!from) {
    return false;
  }
  const vu::beneath::CopyProblem problem =
      vu::beneath::copyTree(from.get(), ".", destinationDirectory, name);
  if (problem.linkLeavesFolder) {
    throw std::runtime_error("the symbolic link \"" + problem.entry +
                             "\" of the resource leads outside its folder");
  }
  return !problem;
}

}  // namespace BehaviorManager
}  // namespace ZR
