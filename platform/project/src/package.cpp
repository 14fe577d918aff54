#include <sys/stat.h>
#include <vu/project/error.h>
#include <vu/project/package.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "detail/filecopy.h"
#include "detail/freshunpack.h"
#include "detail/paths.h"
#include "detail/unpacker.h"

namespace fs = boost::filesystem;

namespace vu {
namespace project {
namespace {

bool exists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

bool isRealDirectory(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Moves every entry of from into the existing directory to, merging directories and
// replacing anything else of the same name.
void mergeInto(const std::string& from, const std::string& to) {
  for (fs::directory_iterator it(from), end; it != end; ++it) {
    const std::string name = it->path().filename().string();
    const std::string source = it->path().string();
    const std::string target = detail::joinPath(to, name);
    if (isRealDirectory(source) && isRealDirectory(target)) {
      mergeInto(source, target);
      continue;
    }
    if (exists(target)) {
      detail::removeTree(target);
    }
    if (std::rename(source.c_str(), target.c_str()) != 0) {
      throw ProjectError("cannot move " + source + " to " + target + ": " + std::strerror(errno));
    }
  }
}

// Creates dir and its missing parents; returns the topmost directory it created ("" when
// dir existed).
std::string createDirectories(const std::string& dir) {
  std::vector<std::string> missing;
  for (std::string path = dir; !path.empty() && path != "/" && !exists(path);
       path = fs::path(path).parent_path().string()) {
    missing.push_back(path);
  }
  std::string created;
  for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
    if (::mkdir(it->c_str(), 0777) != 0) {
      const std::string reason = std::strerror(errno);
      if (!created.empty()) {
        detail::removeTreeIfPossible(created);
      }
      throw ProjectError("cannot create " + *it + ": " + reason);
    }
    if (created.empty()) {
      created = *it;
    }
  }
  return created;
}

std::string realPath(const std::string& path) {
  char* resolved = ::realpath(path.c_str(), nullptr);
  if (resolved == nullptr) {
    throw ProjectError("cannot resolve " + path + ": " + std::strerror(errno));
  }
  std::string result(resolved);
  std::free(resolved);
  return result;
}

}  // namespace

namespace {

ArchiveFormat unpack(const std::string& packagePath, const std::string& destDir,
                     ArchiveFormat format) {
  struct stat info;
  if (::stat(packagePath.c_str(), &info) != 0) {
    throw ProjectError(packagePath + " is not a package: " + std::strerror(errno));
  }
  if (!S_ISREG(info.st_mode)) {
    throw ProjectError(packagePath + " is not a package: not a regular file");
  }
  const std::uint64_t packageBytes = static_cast<std::uint64_t>(info.st_size);
  const std::string dest = detail::normalizeAbsolute(destDir);
  if (dest.empty()) {
    throw ProjectError("importProject: no destination directory for " + packagePath);
  }
  const bool destExists = exists(dest);
  if (destExists && (::stat(dest.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))) {
    throw ProjectError("importProject: " + dest + " exists and is not a directory");
  }
  const std::string parent = fs::path(dest).parent_path().string();
  const std::string createdParent = createDirectories(parent);
  // Unpacked beside the destination first: a failure then touches nothing there.
  const std::string staging = detail::stagingPath(parent, ".unpack");
  try {
    if (::mkdir(staging.c_str(), 0777) != 0) {
      throw ProjectError("cannot create " + staging + ": " + std::strerror(errno));
    }
    const ArchiveFormat found =
        detail::unpackInto(packagePath, realPath(staging), packageBytes, format);
    if (!destExists) {
      if (std::rename(staging.c_str(), dest.c_str()) != 0) {
        throw ProjectError("cannot move " + staging + " to " + dest + ": " + std::strerror(errno));
      }
      detail::rememberFreshUnpack(dest);
    } else {
      mergeInto(staging, dest);
      detail::removeTreeIfPossible(staging);
    }
    return found;
  } catch (...) {
    detail::removeTreeIfPossible(staging);
    if (!createdParent.empty()) {
      detail::removeTreeIfPossible(createdParent);
    }
    throw;
  }
}

}  // namespace

void importProject(const std::string& packagePath, const std::string& destDir,
                   ArchiveFormat& format) {
  if (format != ArchiveFormatDetect && format != ArchiveFormatZip && format != ArchiveFormatTar) {
    throw ProjectError("importProject: unsupported archive format " +
                       std::to_string(static_cast<int>(format)));
  }
  try {
    format = unpack(packagePath, destDir, format);
  } catch (...) {
    if (format == ArchiveFormatDetect) {
      format = ArchiveFormatUnknown;
    }
    throw;
  }
}

}  // namespace project
}  // namespace vu
