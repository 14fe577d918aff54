// A tmpfs of a given size mounted over a directory for the life of the object: a disk
// that fills up, or one made read-only, for tests of what such disks do. Mounting needs the
// privilege to; a test skips with reason() where it is missing.
#pragma once

#include <errno.h>
#include <sys/mount.h>

#include <boost/filesystem/operations.hpp>
#include <cstring>
#include <string>

namespace tuqvutest {

class Tmpfs {
public:
  Tmpfs(const boost::filesystem::path& dir, std::size_t bytes) : fDir(dir) {
    boost::filesystem::create_directories(dir);
    const std::string options = "size=" + std::to_string(bytes) + ",mode=0755";
    if (::mount("tuqvu-test", dir.c_str(), "tmpfs", 0, options.c_str()) == 0) {
      fMounted = true;
    } else {
      fReason = std::strerror(errno);
    }
  }
  ~Tmpfs() {
    if (fMounted) ::umount2(fDir.c_str(), MNT_DETACH);
  }
  Tmpfs(const Tmpfs&) = delete;
  Tmpfs& operator=(const Tmpfs&) = delete;

  bool mounted() const { return fMounted; }
  // Makes the file system read-only, what it holds kept; false when that fails.
  bool makeReadOnly() {
    return fMounted &&
           ::mount(nullptr, fDir.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
  }
  const std::string& reason() const { return fReason; }

private:
  boost::filesystem::path fDir;
  bool fMounted = false;
  std::string fReason;
};

}  // namespace tuqvutest
