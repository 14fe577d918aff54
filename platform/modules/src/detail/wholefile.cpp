#include "detail/wholefile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/beneath.h>

#include <cerrno>
#include <system_error>

namespace ZR {
namespace detail {

bool readWholeFile(const std::string& path, std::string& content, std::size_t maxBytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return false;
    throw std::system_error(errno, std::generic_category(), "cannot open " + path);
  }
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  struct stat info {};
  if (::fstat(fd, &info) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot read " + path);
  }
  if (S_ISDIR(info.st_mode)) {
    throw std::system_error(EISDIR, std::generic_category(), "cannot read " + path);
  }
  if (static_cast<std::size_t>(info.st_size) > maxBytes) {
    throw std::system_error(EFBIG, std::generic_category(),
                            "cannot read " + path + " (" + std::to_string(info.st_size) +
                                " bytes; at most " + std::to_string(maxBytes) + " are read)");
  }
  if (const int error = vu::beneath::readUpTo(fd, maxBytes, &content)) {
    throw std::system_error(error, std::generic_category(), "cannot read " + path);
  }
  return true;
}

}  // namespace detail
}  // namespace ZR
