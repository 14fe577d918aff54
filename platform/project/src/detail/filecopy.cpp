#include "detail/filecopy.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/project/error.h>
#include <vu/project/filecopy.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>

#include "detail/paths.h"

namespace fs = boost::filesystem;

namespace vu {
namespace project {

void copyFile(const std::string& from, const std::string& to, boost::system::error_code& code) {
  code.clear();
  const auto fail = [&code]() { code.assign(errno, boost::system::system_category()); };
  const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) return fail();
  struct stat info;
  if (::fstat(in, &info) != 0) {
    fail();
    ::close(in);
    return;
  }
  const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (out < 0) {
    fail();
    ::close(in);
    return;
  }
  bool ok = true;
  bool kernelCopy = true;
  char buffer[65536];
  for (;;) {
    ssize_t done = -1;
    if (kernelCopy) {
      done = ::copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0);
      if (done < 0 &&
          (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP)) {
        kernelCopy = false;
        continue;
      }
    } else {
      done = ::read(in, buffer, sizeof buffer);
      for (ssize_t written = 0; done > 0 && written < done;) {
        const ssize_t n = ::write(out, buffer + written, static_cast<size_t>(done - written));
        if (n < 0 && errno != EINTR) {
          done = -1;
          break;
        }
        if (n > 0) written += n;
      }
    }
    if (done == 0) break;
    if (done < 0 && errno != EINTR) {
      ok = false;
      break;
    }
  }
  if (ok && ::fchmod(out, info.st_mode & 07777) != 0) ok = false;
  if (!ok) fail();
  if (::close(out) != 0 && ok) fail();
  ::close(in);
}

namespace detail {

void copyTree(const std::string& from, const std::string& to) {
  boost::system::error_code code;
  const fs::file_status status = fs::symlink_status(from, code);
  if (code) {
    throw ProjectError("cannot read " + from + ": " + code.message());
  }
  switch (status.type()) {
    case fs::symlink_file: fs::copy_symlink(from, to, code); break;
    case fs::regular_file: copyFile(from, to, code); break;
    case fs::directory_file: {
      fs::create_directory(to, code);
      if (code) {
        break;
      }
      fs::directory_iterator it(from, code);
      for (; !code && it != fs::directory_iterator(); it.increment(code)) {
        const std::string name = it->path().filename().string();
        copyTree(it->path().string(), joinPath(to, name));
      }
      if (!code) {
        fs::permissions(to, fs::status(from).permissions(), code);
      }
      break;
    }
    default:
      throw ProjectError("cannot copy " + from +
                         ": not a regular file, directory or symbolic link");
  }
  if (code) {
    throw ProjectError("cannot copy " + from + " to " + to + ": " + code.message());
  }
}

void removeTree(const std::string& path) {
  boost::system::error_code code;
  fs::remove_all(path, code);
  if (code) {
    throw ProjectError("cannot remove " + path + ": " + code.message());
  }
}

void removeTreeIfPossible(const std::string& path) noexcept {
  boost::system::error_code ignored;
  fs::remove_all(path, ignored);
}

void exchange(const std::string& a, const std::string& b) {
  if (::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0) {
    return;
  }
  if (errno != EINVAL && errno != ENOSYS) {
    throw ProjectError("cannot exchange " + a + " and " + b + ": " + std::strerror(errno));
  }
  // Without an atomic exchange: b aside, a into its place, the old b where a was.
  const std::string aside = stagingPath(fs::path(b).parent_path().string(), ".old");
  if (std::rename(b.c_str(), aside.c_str()) != 0) {
    throw ProjectError("cannot move " + b + " aside: " + std::strerror(errno));
  }
  if (std::rename(a.c_str(), b.c_str()) != 0) {
    const std::string reason = std::strerror(errno);
    std::rename(aside.c_str(), b.c_str());
    throw ProjectError("cannot move " + a + " to " + b + ": " + reason);
  }
  if (std::rename(aside.c_str(), a.c_str()) != 0) {
    removeTreeIfPossible(aside);  // the old b is not wanted anyway
  }
}

}  // namespace detail
}  // namespace project
}  // namespace vu
