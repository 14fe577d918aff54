// Unnamed files (O_TMPFILE) get a name through /proc/self/fd at commit; the random hidden
// name exists only between that link and the rename.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/replacement.h>

#include <cerrno>
#include <random>

namespace vu {
namespace beneath {

namespace {

std::string hiddenName() {
  static const char* const kDigits = "0123456789abcdef";
  std::random_device entropy;
  std::string name = kPartPrefix + std::to_string(::getpid()) + "-";
  for (int i = 0; i < 16; ++i) name += kDigits[entropy() & 0xf];
  return name;
}

bool unnamedFilesUnsupported(int error) {
  return error == EOPNOTSUPP || error == EISDIR || error == EINVAL;
}

}  // namespace

Replacement::Replacement(int directory) : fDirectory(directory) {
  fFile.reset(::openat(directory, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666));
  if (fFile || !unnamedFilesUnsupported(errno)) {
    return;
  }
  for (int attempt = 0; attempt < 8 && !fFile; ++attempt) {
    const std::string name = hiddenName();
    fFile.reset(::openat(directory, name.c_str(),
                         O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (fFile)
      fHiddenName = name;
    else if (errno != EEXIST)
      return;
  }
}

Replacement::~Replacement() {
  if (!fHiddenName.empty()) {
    const int saved = errno;
    ::unlinkat(fDirectory, fHiddenName.c_str(), 0);
    errno = saved;
  }
}

bool Replacement::giveName(std::string* name) {
  if (!fHiddenName.empty()) {
    *name = fHiddenName;
    return true;
  }
  const std::string self = "/proc/self/fd/" + std::to_string(fFile.get());
  for (int attempt = 0; attempt < 8; ++attempt) {
    const std::string candidate = hiddenName();
    if (::linkat(AT_FDCWD, self.c_str(), fDirectory, candidate.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      fHiddenName = candidate;
      *name = candidate;
      return true;
    }
    if (errno != EEXIST) return false;
  }
  return false;
}

bool Replacement::commit(const std::string& name, std::optional<mode_t> mode) {
  if (!fFile) {
    errno = EBADF;
    return false;
  }
  // A name of the folder itself: a path would put the file somewhere else.
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
    errno = EINVAL;
    return false;
  }
  std::string temporary;
  if ((mode && ::fchmod(fFile.get(), *mode) != 0) || ::fdatasync(fFile.get()) != 0 ||
      !giveName(&temporary)) {
    return false;
  }
  if (::renameat(fDirectory, temporary.c_str(), fDirectory, name.c_str()) != 0) {
    const int saved = errno;
    ::unlinkat(fDirectory, temporary.c_str(), 0);
    fHiddenName.clear();
    errno = saved;
    return false;
  }
  fHiddenName.clear();
  // The rename is an entry of the folder: synced too, so that after a power loss the
  // name leads to the new content. A failure here leaves the file in place; the data
  // itself was synced above.
  ::fsync(fDirectory);
  return true;
}

}  // namespace beneath
}  // namespace vu
