// Fuzzes package extraction (vu::project::importProject). The input is the package file.
// It is unpacked into a fresh destination, and when that works, a second time into the
// now existing destination (the merging path). After every call:
//   - a failure is a std::runtime_error and leaves nothing behind: the folder holding the
//     package and the destination holds the package alone;
//   - a success leaves the destination and nothing else beside it, and nothing in the
//     destination reaches outside it: every link resolves inside, every file with
//     several names has all of them inside;
//   - nothing outside that folder was opened, listed, written or deleted (an inotify
//     watch on the folders above it and on canary files there), and the canaries are
//     unchanged.
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/project/package.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "../common/sandbox.h"

namespace fs = boost::filesystem;

namespace {

const char* const kCanaryText = "canary: nothing may read or change this file\n";

struct Place {
  std::string base;  // watched, holds canary/ and work/
  std::string work;  // holds the package and the destination
  std::string package;
  std::string dest;
  int inotify = -1;
  std::map<int, std::string> watches;
  std::vector<std::string> canaries;
} gPlace;

[[noreturn]] void fail(const std::string& what, const std::string& input) {
  std::fprintf(stderr, "package: %s\n  input (%zu bytes): %s\n", what.c_str(), input.size(),
               fuzzsupport::printable(input.substr(0, 512)).c_str());
  std::abort();
}

std::vector<std::string> drainEvents() {
  std::vector<std::string> found;
  alignas(inotify_event) char buffer[16384];
  for (;;) {
    const ssize_t got = ::read(gPlace.inotify, buffer, sizeof(buffer));
    if (got <= 0) break;
    for (ssize_t at = 0; at < got;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      const std::string dir = gPlace.watches[event->wd];
      const std::string path = event->len > 0 ? dir + "/" + event->name : dir;
      if (path == gPlace.work) continue;  // the destination's own folder
      found.push_back(path + " (event mask " + std::to_string(event->mask) + ")");
    }
  }
  return found;
}

void watch(const std::string& dir) {
  const int wd = ::inotify_add_watch(gPlace.inotify, dir.c_str(), IN_ALL_EVENTS | IN_DONT_FOLLOW);
  if (wd < 0) std::abort();
  gPlace.watches[wd] = dir;
}

std::set<std::string> entriesOf(const std::string& dir) {
  std::set<std::string> names;
  for (fs::directory_iterator it(dir), end; it != end; ++it) {
    names.insert(it->path().filename().string());
  }
  return names;
}

bool inside(const fs::path& root, const fs::path& p) {
  auto it = p.begin();
  for (const fs::path& part : root) {
    if (it == p.end() || *it != part) return false;
    ++it;
  }
  return true;
}

// Links and multiply-named files under the destination that reach outside it.
void checkContained(const std::string& input) {
  const fs::path root = fs::canonical(gPlace.dest);
  std::map<ino_t, nlink_t> names;
  std::map<ino_t, nlink_t> links;
  for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
    struct stat info;
    if (::lstat(it->path().c_str(), &info) != 0) fail("cannot stat " + it->path().string(), input);
    if (S_ISLNK(info.st_mode)) {
      boost::system::error_code error;
      const fs::path target = fs::weakly_canonical(it->path(), error);
      if (error || !inside(root, target)) {
        fail("the link " + it->path().string() + " leads outside the package", input);
      }
    } else if (S_ISREG(info.st_mode) && info.st_nlink > 1) {
      ++names[info.st_ino];
      links[info.st_ino] = info.st_nlink;
    } else if (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode)) {
      fail("unpacked something that is no file, folder or link: " + it->path().string(), input);
    }
  }
  for (const auto& [inode, count] : names) {
    if (count != links[inode]) fail("a file shares its content with a file outside", input);
  }
}

void checkAround(const std::string& input, bool unpacked, const std::string& step) {
  const std::vector<std::string> events = drainEvents();
  if (!events.empty()) {
    std::string text = step + ": access outside the destination:";
    for (const std::string& event : events) text += "\n    " + event;
    fail(text, input);
  }
  for (const std::string& canary : gPlace.canaries) {
    if (fuzzsupport::readFileOrEmpty(canary) != kCanaryText) fail(canary + " changed", input);
  }
  drainEvents();
  std::set<std::string> expected = {"package"};
  if (unpacked) expected.insert("dest");
  if (entriesOf(gPlace.work) != expected) {
    std::string text = step + ": left beside the destination:";
    for (const std::string& name : entriesOf(gPlace.work)) text += " " + name;
    fail(text, input);
  }
  if (unpacked) checkContained(input);
}

// True when the package was unpacked; a failure must be a std::runtime_error.
bool unpack(const std::string& input) {
  vu::project::ArchiveFormat format = vu::project::ArchiveFormatDetect;
  try {
    vu::project::importProject(gPlace.package, gPlace.dest, format);
  } catch (const std::runtime_error&) {
    if (format != vu::project::ArchiveFormatUnknown) {
      fail("a failed detection did not report the unknown format", input);
    }
    return false;
  }
  if (format != vu::project::ArchiveFormatZip && format != vu::project::ArchiveFormatTar) {
    fail("unpacked with the format " + std::to_string(format), input);
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::silenceLog();
  gPlace.base = fuzzsupport::makeTempDir("tuqvu-fuzz-package");
  gPlace.work = gPlace.base + "/work";
  gPlace.package = gPlace.work + "/package";
  gPlace.dest = gPlace.work + "/dest";
  std::atexit([] { fuzzsupport::removeTree(gPlace.base); });
  fs::create_directories(gPlace.base + "/canary/folder");
  fs::create_directories(gPlace.work);
  for (const char* name : {"/canary.txt", "/canary/secret.txt", "/canary/folder/inner.txt"}) {
    fuzzsupport::writeFileOrDie(gPlace.base + name, kCanaryText);
    gPlace.canaries.push_back(gPlace.base + name);
  }
  gPlace.inotify = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (gPlace.inotify < 0) std::abort();
  watch(gPlace.base);
  watch(gPlace.base + "/canary");
  watch(gPlace.base + "/canary/folder");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  fuzzsupport::writeFileOrDie(gPlace.package, input);
  drainEvents();

  const bool unpacked = unpack(input);
  checkAround(input, unpacked, "first unpacking");
  if (unpacked) {
    if (!unpack(input)) fail("unpacking again over the first copy failed", input);
    checkAround(input, true, "second unpacking");
  }
  if (!fuzzsupport::removeTree(gPlace.dest)) fail("cannot remove the destination", input);
  drainEvents();
  return 0;
}
