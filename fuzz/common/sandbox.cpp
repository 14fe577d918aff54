#include "sandbox.h"

#include <sys/inotify.h>
#include <unistd.h>
#include <vu/log.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace fs = boost::filesystem;

namespace fuzzsupport {
namespace {

const char* const kCanaryText = "canary: nothing may read or change this file\n";

[[noreturn]] void die(const std::string& what) {
  std::fprintf(stderr, "fuzz sandbox: %s\n", what.c_str());
  std::fflush(stderr);
  std::abort();
}

void makeDirs(const std::string& path) {
  boost::system::error_code error;
  fs::create_directories(path, error);
  if (error) die("cannot create " + path + ": " + error.message());
}

void makeLink(const std::string& target, const std::string& link) {
  if (::symlink(target.c_str(), link.c_str()) != 0) {
    die("cannot link " + link + " -> " + target + ": " + std::strerror(errno));
  }
}

std::string describe(uint32_t mask) {
  static const std::pair<uint32_t, const char*> names[] = {
      {IN_ACCESS, "read"},
      {IN_MODIFY, "written"},
      {IN_ATTRIB, "attributes changed"},
      {IN_CLOSE_WRITE, "closed after writing"},
      {IN_OPEN, "opened"},
      {IN_MOVED_FROM, "moved away"},
      {IN_MOVED_TO, "moved in"},
      {IN_CREATE, "created"},
      {IN_DELETE, "deleted"},
      {IN_DELETE_SELF, "deleted"},
      {IN_MOVE_SELF, "moved"},
      {IN_UNMOUNT, "unmounted"},
      {IN_Q_OVERFLOW, "too many events to tell"},
      {IN_IGNORED, "no longer watched"}};
  std::string text;
  for (const auto& [bit, name] : names) {
    if (mask & bit) text += std::string(text.empty() ? "" : ", ") + name;
  }
  return text.empty() ? "mask " + std::to_string(mask) : text;
}

}  // namespace

bool removeTree(const std::string& path) {
  boost::system::error_code error;
  fs::remove_all(path, error);
  return !error;
}

void writeFileOrDie(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out) die("cannot write " + path);
}

std::string readFileOrEmpty(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string makeTempDir(const std::string& stem, bool inMemory) {
  static const std::string tmp = [] {
    const char* value = std::getenv("TMPDIR");
    return std::string(value != nullptr && *value != '\0' ? value : "/tmp");
  }();
  const std::string base = inMemory && ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : tmp;
  std::string pattern = base + "/" + stem + "-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    die("cannot create a directory in " + base + ": " + std::strerror(errno));
  }
  return pattern;
}

std::string printable(const std::string& bytes) {
  std::string text;
  for (const unsigned char c : bytes) {
    if (c == '\\') {
      text += "\\\\";
    } else if (c == '\n') {
      text += "\\n\n";
    } else if (c >= 0x20 && c < 0x7f) {
      text += static_cast<char>(c);
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\x%02x", c);
      text += escaped;
    }
  }
  return text;
}

void silenceLog() {
  vu::log::setSink([](const vu::log::Message&) {});
}

Sandbox& Sandbox::instance() {
  static Sandbox sandbox;
  return sandbox;
}

Sandbox::Sandbox() {
  fOuter = makeTempDir("tuqvu-fuzz", true);
  const std::string ws = fOuter + "/ws";
  fHome = ws + "/home";
  const std::string dot = fHome + "/.tuqvu";
  fRoots = {dot + "/behaviors", dot + "/boxlibraries", ws + "/tmp", ws + "/data", ws + "/prefix"};

  fInotify = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fInotify < 0) die(std::string("inotify: ") + std::strerror(errno));
  for (const std::string& dir : {fOuter, ws, fHome, dot}) {
    makeDirs(dir + "/canary/folder");
    writeFileOrDie(dir + "/canary/secret.txt", kCanaryText);
    writeFileOrDie(dir + "/canary/folder/inner.txt", kCanaryText);
    fCanaryFiles.push_back(dir + "/canary/secret.txt");
    fCanaryFiles.push_back(dir + "/canary/folder/inner.txt");
    writeFileOrDie(dir + "/canary.txt", kCanaryText);
    fCanaryFiles.push_back(dir + "/canary.txt");
    watch(dir);
    watch(dir + "/canary");
    watch(dir + "/canary/folder");
  }

  setenv("HOME", fHome.c_str(), 1);
  setenv("TMPDIR", fRoots[2].c_str(), 1);
  setenv("XDG_DATA_HOME", fRoots[3].c_str(), 1);
  setenv("TUQVU_SDK_PREFIX", fRoots[4].c_str(), 1);
  reset();
}

Sandbox::~Sandbox() {
  if (fInotify >= 0) ::close(fInotify);
  removeTree(fOuter);
}

void Sandbox::watch(const std::string& dir) {
  const uint32_t mask = IN_ACCESS | IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_OPEN |
                        IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_DELETE_SELF |
                        IN_MOVE_SELF | IN_DONT_FOLLOW;
  const int wd = ::inotify_add_watch(fInotify, dir.c_str(), mask);
  if (wd < 0) die("cannot watch " + dir + ": " + std::strerror(errno));
  fWatches.emplace_back(wd, dir);
}

void Sandbox::populate() {
  const std::string& behaviors = fRoots[0];
  const std::string& boxes = fRoots[1];
  const std::string& tmp = fRoots[2];
  const std::string& data = fRoots[3];
  const std::string& prefix = fRoots[4];
  const std::string ws = fOuter + "/ws";

  makeDirs(behaviors + "/dance");
  writeFileOrDie(behaviors + "/dance/behavior.xar", "<behavior><wait ms=\"1\"/></behavior>\n");
  writeFileOrDie(behaviors + "/dance/project.xml",
                 "<project><metadata key=\"Type\" value=\"Behavior\"/></project>\n");
  makeLink("../canary", behaviors + "/escape");
  makeLink("../..", behaviors + "/up");
  makeLink(fOuter + "/canary/secret.txt", behaviors + "/abs.txt");

  makeDirs(boxes + "/lib");
  writeFileOrDie(boxes + "/lib/box.txt", "box\n");
  makeLink("../../canary/secret.txt", boxes + "/out.txt");

  makeDirs(tmp + "/upload");
  writeFileOrDie(tmp + "/upload/part.bin", std::string("\0\1\2\3", 4));
  makeLink("../canary", tmp + "/link");

  makeDirs(data + "/tuqvu/preferences");
  writeFileOrDie(data + "/tuqvu/preferences/DefaultBehaviors.xml", "<preferences/>\n");
  makeLink("../../canary", data + "/tuqvu/escape");

  makeDirs(prefix + "/share/behaviors/stand");
  makeDirs(prefix + "/share/tuqvu/behaviors/stand");
  writeFileOrDie(prefix + "/share/behaviors/stand/behavior.xar", "<behavior/>\n");
  writeFileOrDie(prefix + "/share/tuqvu/behaviors/stand/behavior.xar", "<behavior/>\n");
  writeFileOrDie(prefix + "/img.png", "\x89PNG\r\n");
  makeLink("../canary/secret.txt", prefix + "/secret.txt");
  makeLink(ws + "/canary", prefix + "/share/behaviors/out");
}

void Sandbox::reset() {
  for (const std::string& root : fRoots) {
    if (!removeTree(root)) die("cannot empty " + root);
    makeDirs(root);
  }
  populate();
  drainEvents();  // the reset's own changes
}

std::vector<std::string> Sandbox::drainEvents() {
  std::vector<std::string> found;
  alignas(inotify_event) char buffer[64 * 1024];
  for (;;) {
    const ssize_t got = ::read(fInotify, buffer, sizeof(buffer));
    if (got <= 0) {
      if (got < 0 && errno != EAGAIN && errno != EINTR) {
        die(std::string("inotify read: ") + std::strerror(errno));
      }
      if (got < 0 && errno == EINTR) continue;
      break;
    }
    for (ssize_t at = 0; at < got;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      std::string dir = "(unknown watch)";
      for (const auto& [wd, path] : fWatches) {
        if (wd == event->wd) dir = path;
      }
      const std::string name = event->len > 0 ? std::string(event->name) : std::string();
      const std::string path = name.empty() ? dir : dir + "/" + name;
      // A root itself may be listed, created again or deleted: it is served as a whole.
      if (std::find(fRoots.begin(), fRoots.end(), path) != fRoots.end()) continue;
      found.push_back(path + ": " + describe(event->mask));
    }
  }
  return found;
}

void Sandbox::check(const std::string& input) {
  std::vector<std::string> problems = drainEvents();
  for (const std::string& canary : fCanaryFiles) {
    if (readFileOrEmpty(canary) != kCanaryText) problems.push_back(canary + ": content changed");
  }
  drainEvents();  // the canary reads above
  if (problems.empty()) return;
  std::string text = "access outside the served roots while serving:\n" + input + "\n";
  for (const std::string& problem : problems) text += "  " + problem + "\n";
  die(text);
}

}  // namespace fuzzsupport
