// vu::beneath::Replacement — a file written aside and put in place in one step, so that
// readers, a crash, a client that stops half-way or a full disk see either the old
// content or the whole new one, never a mix and never nothing.
//
//   Replacement next(parent.get());          // an unnamed file in that folder
//   write(next.fd(), data, size);            // as often as needed
//   if (!next.commit("take.wav", old.st_mode & 07777)) ...  // synced, renamed over it
//
// A Replacement dropped without commit() leaves the folder as it was: the file has no
// name until commit(), so even kill -9 leaves nothing behind. Where the file system has
// no unnamed files, a hidden name "<kPartPrefix><pid>-<random>" is used and removed on
// failure; one that a crash left behind is removed at the next start (see
// vu::project::removeStagingLeftovers).
#pragma once

#include <sys/types.h>
#include <vu/beneath.h>

#include <optional>
#include <string>

namespace vu {
namespace beneath {

// The start of the names of files being written, where they need a name.
constexpr const char* kPartPrefix = ".tuqvu-part-";

class Replacement {
public:
  // A new empty file in the folder `directory` (a descriptor, kept by the caller while
  // this object lives). Check valid(); errno says why it is not.
  explicit Replacement(int directory);
  ~Replacement();
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;

  bool valid() const { return static_cast<bool>(fFile); }
  int fd() const { return fFile.get(); }

  // Gives the file `mode` (without one it keeps 0666 less the umask, as a new file
  // would), syncs its data and renames it over `name` of the folder (a link there is
  // replaced, never followed), then syncs the folder. `name` is a name in the folder, not a
  // path (EINVAL otherwise). False with errno set when any step fails; what was at `name`
  // is then untouched.
  bool commit(const std::string& name, std::optional<mode_t> mode = std::nullopt);

private:
  bool giveName(std::string* name);

  int fDirectory;
  UniqueFd fFile;
  std::string fHiddenName;  // set while the file has a visible temporary name
};

}  // namespace beneath
}  // namespace vu
