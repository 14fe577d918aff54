// tuqvu-call: the known-robots file.
#include <fcntl.h>
#include <sys/stat.h>
#include <tuqvu/broker/cli.h>
#include <tuqvu/broker/knownrobots.h>
#include <tuqvu/broker/tlsfingerprint.h>
#include <unistd.h>
#include <vu/path.h>
#include <vu/text.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <sstream>

namespace tuqvu {
namespace broker {
namespace {

std::string systemError(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + std::strerror(errno);
}

// "host:port" or "[v6]:port" with a port of digits.
bool isRobotKey(const std::string& key) {
  const std::size_t colon = key.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  if (!vu::text::isAllDigits(std::string_view(key).substr(colon + 1))) return false;
  if (key[0] == '[') return key[colon - 1] == ']' && colon > 2;
  return key.find_first_of("[]") == std::string::npos;
}

// Makes the missing folders above `path`, each with mode 0700 whatever the umask.
void makeFolders(const std::string& path) {
  std::size_t slash = 0;
  while ((slash = path.find('/', slash + 1)) != std::string::npos) {
    const std::string folder = path.substr(0, slash);
    if (::mkdir(folder.c_str(), 0700) == 0) {
      if (::chmod(folder.c_str(), 0700) != 0)
        throw ClientError(systemError("cannot chmod", folder));
    } else if (errno != EEXIST) {
      throw ClientError(systemError("cannot create the folder", folder));
    }
  }
}

}  // namespace

std::string defaultKnownRobotsFile() {
  return vu::path::userConfigPath("tuqvu", "known_robots");
}

std::string robotKey(const std::string& host, const std::string& port) {
  const bool ipv6 = host.find(':') != std::string::npos;
  return (ipv6 ? "[" + vu::text::asciiLowerCase(host) + "]" : vu::text::asciiLowerCase(host)) +
         ":" + port;
}

std::string knownRobotLine(const std::string& key, const std::string& fingerprint) {
  return key + " " + fingerprint;
}

std::vector<KnownRobot> parseKnownRobots(const std::string& text, const std::string& path) {
  std::vector<KnownRobot> robots;
  std::istringstream lines(text);
  std::string line;
  int number = 0;
  while (std::getline(lines, line)) {
    ++number;
    std::istringstream fields(line);
    std::string key, fingerprint, extra;
    if (!(fields >> key) || key[0] == '#') continue;
    fields >> fingerprint >> extra;
    const auto canonical = parseFingerprint(fingerprint);
    if (!isRobotKey(key) || !canonical || !extra.empty()) {
      throw ClientError("line " + std::to_string(number) + " of " + path +
                        " is not \"HOST:PORT FINGERPRINT\"; correct it or remove it");
    }
    robots.push_back({vu::text::asciiLowerCase(key), *canonical, number});
  }
  return robots;
}

std::vector<KnownRobot> readKnownRobots(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    if (errno == ENOENT) return {};
    throw ClientError(systemError("cannot open the known-robots file", path));
  }
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd);
    throw ClientError("the known-robots file " + path + " is not a regular file");
  }
  std::string text;
  char block[8192];
  ssize_t got;
  while ((got = ::read(fd, block, sizeof block)) > 0) {
    text.append(block, static_cast<std::size_t>(got));
  }
  const int readError = errno;
  ::close(fd);
  if (got < 0) {
    errno = readError;
    throw ClientError(systemError("cannot read the known-robots file", path));
  }
  return parseKnownRobots(text, path);
}

std::vector<KnownRobot> knownRobotsFor(const std::vector<KnownRobot>& robots,
                                       const std::string& key) {
  std::vector<KnownRobot> found;
  const std::string wanted = vu::text::asciiLowerCase(key);
  std::copy_if(robots.begin(), robots.end(), std::back_inserter(found),
               [&](const KnownRobot& robot) { return robot.key == wanted; });
  return found;
}

void rememberRobot(const std::string& path, const std::string& key,
                   const std::string& fingerprint) {
  makeFolders(path);
  const int fd = ::open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) throw ClientError(systemError("cannot open the known-robots file", path));
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd);
    throw ClientError("the known-robots file " + path + " is not a regular file");
  }
  std::string line = knownRobotLine(key, fingerprint) + "\n";
  if (status.st_size == 0) {
    // A file made now: private whatever the umask.
    if (::fchmod(fd, 0600) != 0) {
      ::close(fd);
      throw ClientError(systemError("cannot chmod", path));
    }
  } else {
    char last = '\n';
    if (::pread(fd, &last, 1, status.st_size - 1) == 1 && last != '\n') line = "\n" + line;
  }
  const bool written = ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  const bool closed = ::close(fd) == 0;
  if (!written || !closed)
    throw ClientError(systemError("cannot write the known-robots file", path));
}

}  // namespace broker
}  // namespace tuqvu
