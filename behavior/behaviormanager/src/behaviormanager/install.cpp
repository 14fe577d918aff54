// Installing behaviors, packages and resources into the user library.
#include <stdexcept>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include <vu/path.h>
#include <vu/project/package.h>
#include <vu/project/project.h>

#include "behaviormanager.h"
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


// True when inner is outer or lies below it (both absolute and canonical).
bool isWithin(const fs::path& inner, const fs::path& outer) {
  auto i = inner.begin();
  for (auto o = outer.begin(); o != outer.end(); ++o, ++i) {
    if (i == inner.end() || *i != *o) return false;
  }
  return true;
}

// Copies a regular file to a path where nothing exists yet, with the same permissions;
// throws boost::filesystem::filesystem_error like copy_file. Boost 1.74's copy_file
// flushes every file to disk, which makes copying a resource of many files very slow.
void copyNewFile(const fs::path& source, const fs::path& destination) {
  const auto fail = [&](const char* what) {
    throw fs::filesystem_error(what, source, destination,
                               boost::system::error_code(errno, boost::system::system_category()));
  };
  const int in = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) fail("cannot open the file to copy");
  struct stat info;
  if (::fstat(in, &info) != 0) {
    const int saved = errno;
    ::close(in);
    errno = saved;
    fail("cannot read the file to copy");
  }
  const int out = ::open(destination.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (out < 0) {
    const int saved = errno;
    ::close(in);
    errno = saved;
    fail("cannot create the copy");
  }
  char buffer[65536];
  ssize_t done = 0;
  while ((done = ::read(in, buffer, sizeof buffer)) != 0) {
    if (done < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (ssize_t written = 0; written < done;) {
      const ssize_t n = ::write(out, buffer + written, static_cast<size_t>(done - written));
      if (n < 0 && errno != EINTR) {
        done = -1;
        break;
      }
      if (n > 0) written += n;
    }
    if (done < 0) break;
  }
  const bool ok = done == 0 && ::fchmod(out, info.st_mode & 07777) == 0;
  const int saved = errno;
  const bool closed = ::close(out) == 0;
  ::close(in);
  errno = saved;
  if (!ok || !closed) fail("cannot copy the file");
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
  if (!fUserLibrary.valid()) {
    detail::log(vu::log::error, "installBehavior",
                std::string("No valid user behavior library ") +
                    "path was set, behavior will not be installed.");
    return false;
  }
  const fs::path tmp = fs::temp_directory_path() / fs::unique_path("%%%%-%%%%-%%%%-%%%%");
  const fs::path dest = detail::joinUnderRoot(fUserLibrary.projectPath(), localPath);

  try {
    vu::project::Project project(absolutePath);
    if (!project.valid()) {
      vu::project::ArchiveFormat format = vu::project::ArchiveFormatDetect;
      vu::project::importProject(absolutePath, tmp.string(), format);
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
      const std::string prefix = vu::path::sdkPrefix();
      if ((!prefix.empty() && isWithin(to, fs::weakly_canonical(prefix))) ||
          !detail::namesAPlaceBelowRoot(localPath) ||
          !isWithin(to, fs::weakly_canonical(fUserLibrary.projectPath())) ||
          (from != to && (isWithin(from, to) || isWithin(to, from)))) {
        throw std::runtime_error("\"" + localPath +
                                 "\" is not a place for this resource in the user behavior library");
      }
      if (!overwrite && somethingAt(dest)) {
        return false;
      }
      if (from == to) {
        return true;  // already in place
      }
      fs::remove_all(dest);
      fs::create_directories(dest.parent_path());  // a resource may go to a new folder
      try {
        fs::rename(tmp, dest);
        return true;
      } catch (const fs::filesystem_error&) {
        if (copy(project.projectPath(), dest)) {
          fs::remove_all(tmp);
          return true;
        }
        return false;
      }
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

bool ZRBehaviorManager::copy(const fs::path& source, const fs::path& destination) {
  if (fs::is_directory(source)) {
    if (!somethingAt(destination)) {
      try {
        fs::create_directory(destination);
      } catch (const fs::filesystem_error&) {
        return false;
      }
    }
    if (!fs::is_directory(destination)) {
      return false;
    }
    for (fs::directory_iterator entry(source), end; entry != end; ++entry) {
      if (!copy(entry->path(), destination / entry->path().filename())) {
        return false;
      }
    }
    return true;
  }
  try {
    copyNewFile(source, destination);
  } catch (const fs::filesystem_error&) {
    return false;
  }
  return true;
}

}  // namespace BehaviorManager
}  // namespace ZR
