// File-system operations confined beneath a directory descriptor: every name is resolved
// below the directory, no symbolic link is followed and no ".." leaves it, so a link, a
// dangling link or a rename racing the request can never take the file server outside
// the root a request was mapped under.
//
//   UniqueFd root(openDirectory("/home/nao/.tuqvu/behaviors"));
//   UniqueFd file(openBeneath(root.get(), "walk/behavior.xar", O_RDONLY));
//   removeTree(parent.get(), "old", keep);   // recursive, by descriptors
//
// Internal to the file-transfer library; the GET, PUT and DELETE hooks use it.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace ZR {
namespace detail {

// A file descriptor, closed when the object goes.
class UniqueFd {
public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fFd(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fFd(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fFd; }
  explicit operator bool() const { return fFd >= 0; }
  int release();
  void reset(int fd = -1);

private:
  int fFd = -1;
};

// Where a file lives, whatever its name: device and inode.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const FileIdentity& other) const {
    return device == other.device && inode == other.inode;
  }
};
FileIdentity identityOf(const struct stat& status);

// Opens the directory at an absolute path (the root of a mapping, trusted: links in it are
// followed) for use as the base of the functions below. -1 with errno on failure.
int openDirectory(const std::string& path);

// Opens `relative` beneath `directory` with openat2(RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS
// | RESOLVE_NO_MAGICLINKS); "" or "." is the directory itself. A link anywhere on the way,
// the last component included, fails with ELOOP, an escape with EXDEV. O_CLOEXEC is
// always added. On a kernel without openat2 it falls back to openBeneathByWalk.
// Returns the descriptor, or -1 with errno set.
int openBeneath(int directory, const std::string& relative, int flags, mode_t mode = 0);

// The same confinement by a walk: one O_NOFOLLOW open per component from `directory`,
// ".." refused with EXDEV. What openBeneath uses where openat2 is missing.
int openBeneathByWalk(int directory, const std::string& relative, int flags, mode_t mode = 0);

// Opens (creating what is missing, mode 0777 before the umask) every directory of
// `components` beneath `directory`, one component at a time, never through a link;
// returns the descriptor of the last one, or -1 with errno set. Empty components and "."
// are skipped; ".." fails with EXDEV.
int makeDirectoriesBeneath(int directory, const std::vector<std::string>& components);

// The names in an open directory ("." and ".." left out), with whether each is a
// directory itself (a link is not, whatever it points to). False with errno on failure.
struct DirectoryEntry {
  std::string name;
  bool isDirectory = false;
};
bool listDirectory(int directory, std::vector<DirectoryEntry>* entries);

// Removes the entry `name` of `directory` and, when it is a directory, everything below
// it, by descriptors and without following any link. A directory whose identity is in
// `keep` is left in place, and so are the directories that lead to it. Returns 0 when
// everything is gone (or nothing was there), else the first errno met (EBUSY for a kept
// directory, ELOOP when the tree is deeper than 256 levels).
int removeTree(int directory, const std::string& name, const std::vector<FileIdentity>& keep);

}  // namespace detail
}  // namespace ZR
