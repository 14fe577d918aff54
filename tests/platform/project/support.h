// Helpers for the project library tests: scratch directories, behaviors on disk,
// captured log lines and archives built with libarchive's write API.
#pragma once

#include <common/logcapture.h>
#include <vu/log.h>

#include <mutex>
#include <string>
#include <vector>

namespace projecttest {

// A fresh directory under the temporary directory, removed with everything in it.
class ScratchDir {
public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return fPath; }
  std::string operator/(const std::string& rel) const { return fPath + "/" + rel; }

private:
  std::string fPath;
};

void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);
bool exists(const std::string& path);
// The names in dir, sorted.
std::vector<std::string> listDir(const std::string& dir);

// A project.xml with the given Type (none when empty) and tags.
std::string projectXml(const std::string& type, const std::vector<std::string>& tags);

// Creates dir (and parents) holding behavior.xar with the given content and, when
// tags are given, a project.xml of type "Behavior" carrying them.
void makeBehavior(const std::string& dir, const std::vector<std::string>& tags = {},
                  const std::string& xar = "<xar/>");

using tuqvutest::LogCapture;

struct ArchiveEntry {
  enum Kind { File, Directory, Symlink, Hardlink };
  std::string path;
  Kind kind = File;
  std::string data;  // file content, or the target of a link
};

enum class Container { Zip, Tar, TarGz };

// A behavior package's entries: project.xml of type "Behavior", behavior.xar ("<xar/>"),
// data/anim.bin ("frames"), and the links data/link -> anim.bin, data/up ->
// ../behavior.xar.
const std::vector<ArchiveEntry>& wavePackage();

void writeArchive(const std::string& file, Container container,
                  const std::vector<ArchiveEntry>& entries);

// Random bytes that do not compress.
std::string noise(std::size_t size);

}  // namespace projecttest
