// The temporary home the file-transfer fuzz targets run in, and the watch that proves
// after every input that nothing outside the served roots was read or written.
//
//   Sandbox& box = Sandbox::instance();   // once: creates the tree, sets HOME, TMPDIR, ...
//   ... serve one input ...
//   box.check("GET /behaviors/...");      // aborts, naming the file, on any access outside
//   box.reset();                          // the roots' files as they were at the start
//
// Layout (every directory that is not a root is watched with inotify, and holds a
// canary file and folder that nothing may open, list, change or delete):
//
//   <outer>/                 canary/
//     ws/                    canary/
//       home/        $HOME   canary/
//         .tuqvu/            canary/
//           behaviors/       root   (GET /behaviors/..., /behaviors/User/...)
//           boxlibraries/    root   (/boxlibraries/...)
//       tmp/         $TMPDIR root   (/tmp/...)
//       data/  $XDG_DATA_HOME root  (/share/<app>/...)
//       prefix/ $TUQVU_SDK_PREFIX root (/<file>.<ext>, /behaviors/System/...)
//
// The roots hold a few files and symbolic links that point out of them (to the canaries
// and to the folders above), so that a mapping which follows a link is caught as well.
// The watch sees everything within these folders; a path that escapes further up has to
// name its way through them, and the path-mapping target checks every mapped path
// against the roots independently of the watch.
#pragma once

#include <string>
#include <vector>

namespace fuzzsupport {

class Sandbox {
public:
  static Sandbox& instance();

  // Aborts with a description of the input when an access outside the roots was seen
  // or a canary changed.
  void check(const std::string& input);
  // Puts the roots back as they were (the file server may have written or deleted
  // anything inside them), then forgets the events this caused.
  void reset();

  const std::vector<std::string>& roots() const { return fRoots; }
  const std::string& home() const { return fHome; }

private:
  Sandbox();
  ~Sandbox();
  void populate();
  void watch(const std::string& dir);
  // Events read so far that are not accesses of a root itself, as "path: what".
  std::vector<std::string> drainEvents();

  std::string fOuter;
  std::string fHome;
  std::vector<std::string> fRoots;
  std::vector<std::string> fCanaryFiles;
  int fInotify = -1;
  std::vector<std::pair<int, std::string>> fWatches;  // watch descriptor, directory
};

// Removes a directory tree without following links; returns false on any failure.
bool removeTree(const std::string& path);
void writeFileOrDie(const std::string& path, const std::string& content);
std::string readFileOrEmpty(const std::string& path);
// A fresh directory under the real temporary folder (before any sandbox changed it), or
// under /dev/shm when inMemory and that is writable: the file server's targets create
// and delete many small files per input, which a disk makes slow.
std::string makeTempDir(const std::string& stem, bool inMemory = false);
// The bytes as C-style escaped text, for messages about an input.
std::string printable(const std::string& bytes);
// Discards log messages, so that a run prints only the fuzzer's own lines.
void silenceLog();

}  // namespace fuzzsupport
