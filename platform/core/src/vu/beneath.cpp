#include <dirent.h>
#include <linux/openat2.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vu/beneath.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace vu {
namespace beneath {
namespace {

// A removal holds one descriptor per level; deeper trees are refused rather than
// running the process out of descriptors.
constexpr int kMaxRemovalDepth = 256;

// Set once openat2 answered ENOSYS: from then on the walk is used directly.
std::atomic<bool> gNoOpenat2{false};

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

// A copy holds two descriptors per level, a removal one.
constexpr int kMaxCopyDepth = 128;

std::string joinRelative(const std::string& parent, const std::string& name) {
  return parent.empty() ? name : parent + "/" + name;
}

CopyProblem problemAt(int error, const std::string& entry) {
  CopyProblem problem;
  problem.error = error;
  problem.entry = entry;
  return problem;
}

// The content of the link `name` of `directory`; false with errno on failure.
bool readLink(int directory, const std::string& name, std::string* target) {
  std::vector<char> buffer(256);
  for (;;) {
    const ssize_t length = ::readlinkat(directory, name.c_str(), buffer.data(), buffer.size());
    if (length < 0) {
      return false;
    }
    if (static_cast<std::size_t>(length) < buffer.size()) {
      target->assign(buffer.data(), static_cast<std::size_t>(length));
      return true;
    }
    if (buffer.size() >= 65536) {
      errno = ENAMETOOLONG;
      return false;
    }
    buffer.resize(buffer.size() * 4);
  }
}

// Copies the content of `in` to `out`, in the kernel where it can.
bool copyContent(int in, int out) {
  bool kernelCopy = true;
  char buffer[65536];
  for (;;) {
    ssize_t done = -1;
    if (kernelCopy) {
      done = ::copy_file_range(in, nullptr, out, nullptr, std::size_t{1} << 30, 0);
      if (done < 0 &&
          (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP)) {
        kernelCopy = false;
        continue;
      }
    } else {
      done = ::read(in, buffer, sizeof buffer);
      for (ssize_t written = 0; done > 0 && written < done;) {
        const ssize_t n = ::write(out, buffer + written, static_cast<std::size_t>(done - written));
        if (n < 0 && errno != EINTR) {
          return false;
        }
        if (n > 0) {
          written += n;
        }
      }
    }
    if (done == 0) {
      return true;
    }
    if (done < 0 && errno != EINTR) {
      return false;
    }
  }
}

// Opens the entry that was looked at as `status`, never through a link; EAGAIN when
// something else took its place between the look and the open.
int openAsSeen(int directory, const std::string& name, int flags, const struct stat& status) {
  UniqueFd fd(::openat(directory, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) {
    return -1;
  }
  struct stat opened;
  if (::fstat(fd.get(), &opened) != 0) {
    return -1;
  }
  if (!(identityOf(opened) == identityOf(status)) ||
      (opened.st_mode & S_IFMT) != (status.st_mode & S_IFMT)) {
    errno = EAGAIN;
    return -1;
  }
  return fd.release();
}

CopyProblem copyEntry(int fromDirectory, const std::string& fromName, int toDirectory,
                      const std::string& toName, const std::string& relative, int depth) {
  struct stat status;
  if (::fstatat(fromDirectory, fromName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return problemAt(errno, relative);
  }
  if (S_ISLNK(status.st_mode)) {
    std::string target;
    if (!readLink(fromDirectory, fromName, &target)) {
      return problemAt(errno, relative);
    }
    if (relative.empty() || !linkStaysWithin(relative, target)) {
      CopyProblem problem = problemAt(EXDEV, relative);
      problem.linkLeavesFolder = true;
      return problem;
    }
    if (::symlinkat(target.c_str(), toDirectory, toName.c_str()) != 0) {
      return problemAt(errno, relative);
    }
    return CopyProblem();
  }
  if (S_ISREG(status.st_mode)) {
    UniqueFd in(openAsSeen(fromDirectory, fromName, O_RDONLY | O_NONBLOCK | O_NOCTTY, status));
    if (!in) {
      return problemAt(errno, relative);
    }
    UniqueFd out(::openat(toDirectory, toName.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!out || !copyContent(in.get(), out.get()) ||
        ::fchmod(out.get(), status.st_mode & 0777) != 0) {
      return problemAt(errno, relative);
    }
    if (::close(out.release()) != 0) {
      return problemAt(errno, relative);
    }
    return CopyProblem();
  }
  if (!S_ISDIR(status.st_mode)) {
    return problemAt(EINVAL, relative);
  }
  if (depth >= kMaxCopyDepth) {
    return problemAt(ELOOP, relative);
  }
  UniqueFd in(openAsSeen(fromDirectory, fromName, O_RDONLY | O_DIRECTORY, status));
  if (!in) {
    return problemAt(errno, relative);
  }
  if (::mkdirat(toDirectory, toName.c_str(), 0700) != 0) {
    return problemAt(errno, relative);
  }
  UniqueFd out(
      ::openat(toDirectory, toName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!out) {
    return problemAt(errno, relative);
  }
  std::vector<DirectoryEntry> entries;
  if (!listDirectory(in.get(), &entries)) {
    return problemAt(errno, relative);
  }
  for (const DirectoryEntry& entry : entries) {
    CopyProblem problem = copyEntry(in.get(), entry.name, out.get(), entry.name,
                                    joinRelative(relative, entry.name), depth + 1);
    if (problem) {
      return problem;
    }
  }
  if (::fchmod(out.get(), status.st_mode & 0777) != 0) {
    return problemAt(errno, relative);
  }
  return CopyProblem();
}

bool isOneName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
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

int readUpTo(int fd, std::size_t maxBytes, std::string* content) {
  content->clear();
  char buffer[65536];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (got == 0) return 0;
    if (content->size() + static_cast<std::size_t>(got) > maxBytes) return EFBIG;
    content->append(buffer, static_cast<std::size_t>(got));
  }
}

int readFileBeneath(int directory, const std::string& relative, std::size_t maxBytes,
                    std::string* content) {
  // O_NONBLOCK: a FIFO planted in the folder is opened without waiting for a writer, then
  // refused as no regular file.
  UniqueFd file(openBeneath(directory, relative, O_RDONLY | O_NOCTTY | O_NONBLOCK));
  if (!file) return errno;
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EINVAL;
  if (static_cast<std::size_t>(status.st_size) > maxBytes) return EFBIG;
  return readUpTo(file.get(), maxBytes, content);
}

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

bool linkStaysWithin(const std::string& linkPath, const std::string& target) {
  if (target.empty() || target[0] == '/') {
    return false;
  }
  std::vector<std::string> linkComponents;
  if (!splitRelative(linkPath, &linkComponents) || linkComponents.empty()) {
    return false;
  }
  // The directories above the link inside the folder: how far ".." may climb.
  long depth = static_cast<long>(linkComponents.size()) - 1;
  bool descending = false;
  std::string::size_type start = 0;
  while (start <= target.size()) {
    std::string::size_type end = target.find('/', start);
    if (end == std::string::npos) {
      end = target.size();
    }
    const std::string part = target.substr(start, end - start);
    if (part == "..") {
      if (descending || --depth < 0) {
        return false;
      }
    } else if (!part.empty() && part != ".") {
      descending = true;
    }
    start = end + 1;
  }
  return true;
}

CopyProblem copyTree(int fromDirectory, const std::string& fromName, int toDirectory,
                     const std::string& toName) {
  if (fromName.empty() || fromName == ".." || fromName.find('/') != std::string::npos) {
    return problemAt(EINVAL, "");
  }
  if (!isOneName(toName)) {
    return problemAt(EINVAL, "");
  }
  return copyEntry(fromDirectory, fromName, toDirectory, toName, "", 0);
}

int renameBeneath(int fromDirectory, const std::string& from, int toDirectory,
                  const std::string& to) {
  if (!isOneName(from) || !isOneName(to)) {
    return EINVAL;
  }
  if (::renameat2(fromDirectory, from.c_str(), toDirectory, to.c_str(), RENAME_NOREPLACE) == 0) {
    return 0;
  }
  if (errno != EINVAL && errno != ENOSYS) {
    return errno;
  }
  // A file system without RENAME_NOREPLACE: a look first, which a racing creation of
  // `to` can only turn into a replacement of what was just made there.
  struct stat status;
  if (::fstatat(toDirectory, to.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
    return EEXIST;
  }
  if (::renameat(fromDirectory, from.c_str(), toDirectory, to.c_str()) != 0) {
    return errno;
  }
  return 0;
}

int exchangeBeneath(int directory, const std::string& a, const std::string& b,
                    const std::string& aside) {
  if (!isOneName(a) || !isOneName(b) || !isOneName(aside)) {
    return EINVAL;
  }
  if (::renameat2(directory, a.c_str(), directory, b.c_str(), RENAME_EXCHANGE) == 0) {
    return 0;
  }
  if (errno != EINVAL && errno != ENOSYS) {
    return errno;
  }
  if (::renameat(directory, b.c_str(), directory, aside.c_str()) != 0) {
    return errno;
  }
  if (::renameat(directory, a.c_str(), directory, b.c_str()) != 0) {
    const int error = errno;
    ::renameat(directory, aside.c_str(), directory, b.c_str());
    return error;
  }
  if (::renameat(directory, aside.c_str(), directory, a.c_str()) != 0) {
    removeTree(directory, aside);  // the old b, which the caller removes anyway
  }
  return 0;
}

}  // namespace beneath
}  // namespace vu
