#include "preferences/atomicfile.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/text.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <optional>
#include <system_error>

namespace fs = boost::filesystem;

namespace ZR {
namespace detail {
namespace {

std::system_error failure(const std::string& what) {
  return std::system_error(errno, std::generic_category(), what);
}

// Closes a descriptor on every way out.
class FileDescriptor {
public:
  explicit FileDescriptor(int fd) : fFd(fd) {}
  ~FileDescriptor() {
    if (fFd >= 0) ::close(fFd);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fFd; }
  int release() {
    const int fd = fFd;
    fFd = -1;
    return fd;
  }

private:
  int fFd;
};

std::string temporaryPrefix(const fs::path& target) {
  return "." + target.filename().string() + ".tmp.";
}

void writeAll(int fd, const std::string& content, const std::string& path) {
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t written = ::write(fd, content.data() + done, content.size() - done);
    if (written < 0) {
      if (errno == EINTR) continue;
      throw failure("cannot write " + path);
    }
    done += static_cast<std::size_t>(written);
  }
}

void syncFolder(const fs::path& folder) {
  FileDescriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() < 0) throw failure("cannot open the folder " + folder.string());
  if (::fsync(fd.get()) != 0 && errno != EINVAL) {
    throw failure("cannot flush the folder " + folder.string());
  }
}

}  // namespace

bool writeFileAtomically(const std::string& path, const std::string& content, bool replace) {
  static std::atomic<unsigned> counter{0};
  const fs::path target(path);
  const fs::path folder = target.parent_path().empty() ? fs::path(".") : target.parent_path();
  boost::system::error_code error;
  fs::create_directories(folder, error);
  if (error) {
    errno = error.value();
    throw failure("cannot create the folder " + folder.string());
  }
  const fs::path temporary = folder / (temporaryPrefix(target) + std::to_string(::getpid()) + "." +
                                       std::to_string(counter.fetch_add(1)));

  FileDescriptor fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                           S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH));
  if (fd.get() < 0) throw failure("cannot create " + temporary.string());
  try {
    writeAll(fd.get(), content, temporary.string());
    if (::fsync(fd.get()) != 0) throw failure("cannot flush " + temporary.string());
    if (::close(fd.release()) != 0) throw failure("cannot close " + temporary.string());
    if (replace) {
      if (::rename(temporary.c_str(), target.c_str()) != 0) {
        throw failure("cannot rename " + temporary.string() + " to " + path);
      }
    } else {
      // link() refuses an existing target, atomically.
      if (::link(temporary.c_str(), target.c_str()) != 0) {
        if (errno != EEXIST) throw failure("cannot create " + path);
        ::unlink(temporary.c_str());
        return false;
      }
      ::unlink(temporary.c_str());
    }
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
  syncFolder(folder);
  return true;
}

int removeStaleTemporaries(const std::string& path) {
  const fs::path target(path);
  const fs::path folder = target.parent_path().empty() ? fs::path(".") : target.parent_path();
  const std::string prefix = temporaryPrefix(target);
  int removed = 0;
  boost::system::error_code error;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    // ".<file>.tmp.<pid>.<n>"
    const std::string rest = name.substr(prefix.size());
    const std::size_t dot = rest.find('.');
    if (dot == 0 || dot == std::string::npos) continue;
    const std::optional<std::uint64_t> pid =
        vu::text::wholeNumber(rest.substr(0, dot), std::numeric_limits<pid_t>::max());
    if (!pid || *pid == 0 || static_cast<pid_t>(*pid) == ::getpid()) continue;
    if (::kill(static_cast<pid_t>(*pid), 0) == 0 || errno != ESRCH) continue;  // still alive
    boost::system::error_code ignored;
    if (fs::remove(it->path(), ignored)) ++removed;
  }
  return removed;
}

}  // namespace detail
}  // namespace ZR
