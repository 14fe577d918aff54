// vu::beneath — the one confinement layer for the file system. Every name is resolved
// below a directory descriptor, no symbolic link is followed and no ".." leaves it, so a
// link, a dangling link or a rename racing the call can never take a create, open, copy,
// rename or removal outside the root it was given. The file server, installs, imports,
// resource copies and removals all go through it.
//
//   UniqueFd root(openDirectory("/home/robot/.tuqvu/behaviors"));
//   UniqueFd file(openBeneath(root.get(), "walk/behavior.xar", O_RDONLY));
//   removeTree(parent.get(), "old", keep);   // recursive, by descriptors
//   CopyProblem problem = copyTree(from.get(), "walk", parent.get(), ".staging");
//
// Failures are return values (errno codes), never exceptions.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace vu {
namespace beneath {

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
int removeTree(int directory, const std::string& name, const std::vector<FileIdentity>& keep = {});

// Reads the regular file `relative` beneath `directory` whole into `content`, opened as
// openBeneath does (no link, no escape) and without waiting on a FIFO. Returns 0, the
// errno of openBeneath (ENOENT, ELOOP for a link, EXDEV for an escape), EINVAL when it is
// no regular file, EFBIG when it holds more than `maxBytes`, or the errno of the read.
int readFileBeneath(int directory, const std::string& relative, std::size_t maxBytes,
                    std::string* content);

// Reads what remains of the open file `fd` into `content`, at most `maxBytes` of it:
// 0, EFBIG when there is more, or the errno of the failed read.
int readUpTo(int fd, std::size_t maxBytes, std::string* content);

// The components of a relative path, "" and "." dropped. False when one is "..".
bool splitRelative(const std::string& relative, std::vector<std::string>* components);

// Whether a symbolic link at `linkPath` (relative to the top of its folder, the link's
// own name last) with the content `target` resolves inside that folder wherever the
// folder lies: the target is relative, its ".." components all come first and do not
// climb above the folder's top from the link's directory. A target that descends and
// then climbs ("d/../..") is refused even when it looks inside, because "d" may itself
// be a link to a shallower place; with the rule above, every link kept resolves inside
// the folder whatever other kept links it passes.
bool linkStaysWithin(const std::string& linkPath, const std::string& target);

// Why a copy stopped: `error` is an errno code (0: the copy is complete) and `entry` the
// entry it stopped at, relative to the folder copied ("" for the folder itself). A link
// that leaves its folder stops the copy with EXDEV and `linkLeavesFolder` set.
struct CopyProblem {
  int error = 0;
  std::string entry;
  bool linkLeavesFolder = false;
  explicit operator bool() const { return error != 0; }
};

// Copies the entry `fromName` of `fromDirectory` (a directory, a regular file or a
// link) to the new entry `toName` of `toDirectory`, which must not exist. Nothing is
// followed: every source entry is opened with O_NOFOLLOW and checked to be what was
// listed, so a directory swapped for a link during the copy stops it. Regular files keep
// their permission bits (without set-id and sticky bits); directories are made 0700 and
// get their permissions once filled. A link is reproduced only when linkStaysWithin
// holds for it relative to `fromName`, the folder being copied; any other link stops the
// copy. What was made before a failure stays for the caller to remove (removeTree).
CopyProblem copyTree(int fromDirectory, const std::string& fromName, int toDirectory,
                     const std::string& toName);

// Renames the entry `from` of `fromDirectory` to `to` of `toDirectory` (both single
// names), replacing nothing: EEXIST when `to` exists. 0 or the errno code.
int renameBeneath(int fromDirectory, const std::string& from, int toDirectory,
                  const std::string& to);

// Swaps the entries `a` and `b` of `directory` in one step (renameat2 RENAME_EXCHANGE);
// where the file system cannot, `b` is moved aside to `aside` for an instant and `a`
// takes its place, and the old `b` ends up at `a` (or is removed when it cannot be moved
// there). 0 or the errno code.
int exchangeBeneath(int directory, const std::string& a, const std::string& b,
                    const std::string& aside);

}  // namespace beneath
}  // namespace vu
