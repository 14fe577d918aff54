#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <tuqvu/broker/secretfile.h>
#include <unistd.h>
#include <vu/path.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <vector>

namespace tuqvu {
namespace broker {
namespace {

constexpr std::size_t kSecretBytes = 16;
constexpr std::size_t kMaxSecretFileBytes = 4096;

std::string systemError(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + std::strerror(errno);
}

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
    text.pop_back();
  }
  return text;
}

}  // namespace

bool isStrongSecret(const std::string& secret) {
  return secret.size() >= kMinSecretDigits &&
         std::all_of(secret.begin(), secret.end(),
                     [](unsigned char c) { return std::isxdigit(c) != 0; });
}

std::string defaultSecretFile() {
  return vu::path::userConfigPath("tuqvu", "secret");
}

std::string legacySecretFile() {
  return vu::path::userWritableDataPath("tuqvu", "secret");
}

std::string randomHex(std::size_t bytes) {
  std::vector<unsigned char> random(bytes);
  std::size_t filled = 0;
  while (filled < bytes) {
    const ssize_t got = ::getrandom(random.data() + filled, bytes - filled, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      throw SecretFileError(std::string("cannot read random bytes: ") + std::strerror(errno));
    }
    filled += static_cast<std::size_t>(got);
  }
  static const char* const kHex = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : random) {
    text += kHex[byte >> 4];
    text += kHex[byte & 0xF];
  }
  return text;
}

std::string readSecret(const std::string& path) {
  // O_NONBLOCK: a FIFO put in its place must not hang the start; it is refused below.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) {
    if (errno == ENOENT) return "";
    throw SecretFileError(systemError("cannot open the secret file", path));
  }
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd);
    throw SecretFileError("the secret file " + path + " is not a regular file");
  }
  if (status.st_uid != ::geteuid()) {
    ::close(fd);
    throw SecretFileError("the secret file " + path +
                          " belongs to another user; it must be the broker's own");
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    ::close(fd);
    throw SecretFileError("the secret file " + path +
                          " may be read by others; make it private with chmod 600");
  }
  std::string text(kMaxSecretFileBytes, '\0');
  const ssize_t got = ::read(fd, text.data(), text.size());
  ::close(fd);
  if (got < 0) throw SecretFileError(systemError("cannot read the secret file", path));
  text.resize(static_cast<std::size_t>(got));
  text = trimmed(text);
  if (text.empty()) throw SecretFileError("the secret file " + path + " is empty");
  if (!isStrongSecret(text)) {
    throw SecretFileError("the secret in " + path + " is too weak: it must be " +
                          std::to_string(kMinSecretDigits) +
                          " hexadecimal digits or more; remove the file and a new one is made");
  }
  return text;
}

namespace {

// Writes `secret` into a new private file at `path`; false when another process made the
// file first. SecretFileError on any other failure.
bool createSecretFile(const std::string& path, const std::string& secret) {
  const boost::filesystem::path folder = boost::filesystem::path(path).parent_path();
  if (!folder.empty()) {
    boost::system::error_code error;
    boost::filesystem::create_directories(folder, error);
    if (error) {
      throw SecretFileError("cannot create the folder of the secret file " + path + ": " +
                            error.message());
    }
  }
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    if (errno == EEXIST) return false;
    throw SecretFileError(systemError("cannot create the secret file", path));
  }
  const std::string line = secret + "\n";
  const bool written = ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  const bool synced = ::fsync(fd) == 0;
  ::close(fd);
  if (!written || !synced) {
    ::unlink(path.c_str());
    throw SecretFileError(systemError("cannot write the secret file", path));
  }
  return true;
}

}  // namespace

std::string loadOrCreateSecret(const std::string& path) {
  const std::string existing = readSecret(path);
  if (!existing.empty()) return existing;
  const std::string secret = randomHex(kSecretBytes);
  // Another process that made it first wins: use that one.
  return createSecretFile(path, secret) ? secret : readSecret(path);
}

bool moveLegacySecret(const std::string& legacy, const std::string& path) {
  if (!readSecret(path).empty()) return false;
  const std::string secret = readSecret(legacy);
  if (secret.empty()) return false;
  if (!createSecretFile(path, secret)) return false;
  if (::unlink(legacy.c_str()) != 0 && errno != ENOENT) {
    throw SecretFileError(systemError("cannot remove the old secret file", legacy));
  }
  return true;
}

}  // namespace broker
}  // namespace tuqvu
