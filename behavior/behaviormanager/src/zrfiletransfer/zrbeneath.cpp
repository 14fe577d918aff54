#include "zrbeneath.h"

#include <dirent.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace ZR {
namespace detail {
namespace {

// A removal holds one descriptor per level; deeper trees are refused rather than
// running the process out of descriptors.
constexpr int kMaxRemovalDepth = 256;

// Set once openat2 answered ENOSYS: from then on the walk is used directly.
std::atomic<bool> gNoOpenat2{false};

// The components of a relative path; "" and "." dropped. False when one is "..".
bool splitRelative(const std::string& relative, std::vector<std::string>* components) {
  std::size_t start = 0;
  while (start <= relative.size()) {
    std::size_t end = relative.find('/', start);
    if (end == std::string::npos) {
      end = relative.size();
    }
    const std::string part = relative.substr(start, end - start);
    if (part == "..") {
      return false;
    }
    if (!part.empty() && part != ".") {
      components->push_back(part);
    }
    start = end + 1;
  }
  return true;
}

// Opens one directory entry of `directory` as a directory, never a link. O_PATH, so a
// directory that may be searched but not read still opens.
int openSubdirectory(int directory, const std::string& name) {
  const int fd = ::openat(directory, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    // Told apart from a file in the way, as openat2 tells it.
    struct stat status;
    if (errno == ENOTDIR && ::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISLNK(status.st_mode)) {
      errno = ELOOP;
    }
    return -1;
  }
  struct stat status;
  if (::fstat(fd, &status) != 0 || !S_ISDIR(status.st_mode)) {
    ::close(fd);
    errno = ENOTDIR;
    return -1;
  }
  return fd;
}

int removeEntry(int directory, const std::string& name, const std::vector<FileIdentity>& keep,
                int depth) {
  struct stat status;
  if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? 0 : errno;
  }
  if (!S_ISDIR(status.st_mode)) {
    if (::unlinkat(directory, name.c_str(), 0) != 0 && errno != ENOENT) {
      return errno;
    }
    return 0;
  }
  for (const FileIdentity& kept : keep) {
    if (kept == identityOf(status)) {
      return EBUSY;
    }
  }
  if (depth >= kMaxRemovalDepth) {
    return ELOOP;
  }
  UniqueFd subdirectory(
      ::openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!subdirectory) {
    return errno;
  }
  // The entry may have been replaced between the look and the open: act only on the
  // directory that was looked at.
  struct stat opened;
  if (::fstat(subdirectory.get(), &opened) != 0) {
    return errno;
  }
  if (!(identityOf(opened) == identityOf(status))) {
    return EAGAIN;
  }
  std::vector<DirectoryEntry> entries;
  if (!listDirectory(subdirectory.get(), &entries)) {
    return errno;
  }
  int firstError = 0;
  for (const DirectoryEntry& entry : entries) {
    const int error = removeEntry(subdirectory.get(), entry.name, keep, depth + 1);
    if (error != 0 && firstError == 0) {
      firstError = error;
    }
  }
  subdirectory.reset();
  if (::unlinkat(directory, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT &&
      firstError == 0) {
    firstError = errno;
  }
  return firstError;
}

}  // namespace

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) {
    reset(other.release());
  }
  return *this;
}

int UniqueFd::release() {
  const int fd = fFd;
  fFd = -1;
  return fd;
}

void UniqueFd::reset(int fd) {
  if (fFd >= 0) {
    ::close(fFd);
  }
  fFd = fd;
}

FileIdentity identityOf(const struct stat& status) {
  FileIdentity identity;
  identity.device = status.st_dev;
  identity.inode = status.st_ino;
  return identity;
}

int openDirectory(const std::string& path) {
  return ::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

int openBeneath(int directory, const std::string& relative, int flags, mode_t mode) {
  if (!gNoOpenat2.load(std::memory_order_relaxed)) {
    std::vector<std::string> components;
    if (!splitRelative(relative, &components)) {
      errno = EXDEV;
      return -1;
    }
    open_how how;
    std::memset(&how, 0, sizeof(how));
    how.flags = static_cast<__u64>(flags | O_CLOEXEC);
    // The kernel refuses a mode without O_CREAT or O_TMPFILE.
    how.mode = (flags & (O_CREAT | __O_TMPFILE)) != 0 ? mode : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const std::string path = relative.empty() ? "." : relative;
    long fd;
    do {
      fd = ::syscall(SYS_openat2, directory, path.c_str(), &how, sizeof(how));
    } while (fd < 0 && errno == EINTR);
    if (fd >= 0 || errno != ENOSYS) {
      return static_cast<int>(fd);
    }
    gNoOpenat2.store(true, std::memory_order_relaxed);
  }
  return openBeneathByWalk(directory, relative, flags, mode);
}

int openBeneathByWalk(int directory, const std::string& relative, int flags, mode_t mode) {
  std::vector<std::string> components;
  if (!splitRelative(relative, &components)) {
    errno = EXDEV;
    return -1;
  }
  if (components.empty()) {
    components.push_back(".");
  }
  UniqueFd current;
  int base = directory;
  for (std::size_t i = 0; i + 1 < components.size(); ++i) {
    current.reset(openSubdirectory(base, components[i]));
    if (!current) {
      return -1;
    }
    base = current.get();
  }
  const int fd = ::openat(base, components.back().c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd < 0) {
    return -1;
  }
  if ((flags & O_PATH) != 0) {
    // With O_PATH, O_NOFOLLOW opens a link itself instead of failing.
    struct stat status;
    if (::fstat(fd, &status) != 0 || S_ISLNK(status.st_mode)) {
      ::close(fd);
      errno = ELOOP;
      return -1;
    }
  }
  return fd;
}

int makeDirectoriesBeneath(int directory, const std::vector<std::string>& components) {
  UniqueFd current(::fcntl(directory, F_DUPFD_CLOEXEC, 0));
  if (!current) {
    return -1;
  }
  for (const std::string& component : components) {
    if (component.empty() || component == ".") {
      continue;
    }
    if (component == ".." || component.find('/') != std::string::npos) {
      errno = EXDEV;
      return -1;
    }
    UniqueFd next(openBeneath(current.get(), component, O_PATH | O_DIRECTORY));
    if (!next && errno == ENOENT) {
      // Made here, then opened like any other: whatever is at the name when it is
      // opened must still be a directory and no link.
      if (::mkdirat(current.get(), component.c_str(), 0777) != 0 && errno != EEXIST) {
        return -1;
      }
      next.reset(openBeneath(current.get(), component, O_PATH | O_DIRECTORY));
    }
    if (!next) {
      return -1;
    }
    current = std::move(next);
  }
  return current.release();
}

bool listDirectory(int directory, std::vector<DirectoryEntry>* entries) {
  // fdopendir takes the descriptor over, and it must be readable (not O_PATH).
  const int readable = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (readable < 0) {
    return false;
  }
  DIR* stream = ::fdopendir(readable);
  if (stream == nullptr) {
    const int error = errno;
    ::close(readable);
    errno = error;
    return false;
  }
  errno = 0;
  while (const dirent* entry = ::readdir(stream)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") {
      continue;
    }
    DirectoryEntry listed;
    listed.name = name;
    if (entry->d_type == DT_UNKNOWN) {
      struct stat status;
      listed.isDirectory =
          ::fstatat(::dirfd(stream), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
          S_ISDIR(status.st_mode);
    } else {
      listed.isDirectory = entry->d_type == DT_DIR;
    }
    entries->push_back(listed);
    errno = 0;
  }
  const int error = errno;
  ::closedir(stream);
  errno = error;
  return error == 0;
}

int removeTree(int directory, const std::string& name, const std::vector<FileIdentity>& keep) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
    return EINVAL;
  }
  return removeEntry(directory, name, keep, 0);
}

}  // namespace detail
}  // namespace ZR
