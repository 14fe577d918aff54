// Path helpers and the names the project library gives meaning to.
#pragma once

#include <string>

namespace vu {
namespace project {
namespace detail {

constexpr const char* kLogCategory = "vu.project";
constexpr const char* kBehaviorFile = "behavior.xar";
constexpr const char* kProjectFile = "project.xml";
// Directories the library copies into before a rename; the index never lists them.
constexpr const char* kStagingPrefix = ".tuqvu-import-";

// dir as an absolute path (relative to the current directory) with "." and ".."
// resolved textually, no repeated and no trailing separator. "" stays "".
std::string normalizeAbsolute(const std::string& dir);

// A path relative to a library root in its canonical form ("a/b": no leading, trailing
// or repeated separator, no "." component). False when the path has a ".." component.
bool normalizeRelative(const std::string& path, std::string& out);

// root + "/" + rel, or root when rel is empty.
std::string joinPath(const std::string& root, const std::string& rel);

bool isStagingName(const std::string& name);
// Whether `name` is that of a file being written aside (vu::beneath::Replacement).
bool isPartName(const std::string& name);

// A fresh name ".tuqvu-import-<pid>-<random><suffix>" (48 random bits: whoever creates
// it with it still refuses an existing entry); <pid> is the calling process.
std::string stagingName(const std::string& suffix);

// A fresh path "<parentDir>/.tuqvu-import-<pid>-<random><suffix>" that does not exist
// yet; <pid> is the calling process.
std::string stagingPath(const std::string& parentDir, const std::string& suffix);

void logWarning(const char* function, const std::string& text);
void logError(const char* function, const std::string& text);

}  // namespace detail
}  // namespace project
}  // namespace vu
