// Shared by the module's source files: the names its errors and log lines carry.
#pragma once

#include <vu/beneath.h>
#include <vu/log.h>
#include <zr/zrerror.h>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/filesystem/path.hpp>
#include <string>
#include <vector>

namespace ZR {
namespace BehaviorManager {
namespace detail {

constexpr const char* kModuleName = "ZRBehaviorManager";
constexpr const char* kSourceFile = "behavior/behaviormanager/src/behaviormanager";
constexpr const char* kLogCategory = "behavior.manager";

inline void log(int level, const char* function, const std::string& text) {
  vu::log::write(level, kLogCategory, function, text);
}

inline ZRError error(const char* method, const std::string& description, int line) {
  return ZRError(kModuleName, method, description, kSourceFile, line);
}

inline bool isResourceType(const std::string& type) {
  return type == "Resource" || type == "Resources";
}

// The library root joined with a local path: one separator, redundant ones removed.
std::string joinUnderRoot(const std::string& root, const std::string& local);

// True when local names a place strictly below the library root: something other than
// the root itself, reached without going up ("..").
bool namesAPlaceBelowRoot(const std::string& local);

// The folder that holds `local` beneath the library `root`, reached one component at a
// time from a descriptor of the root and never through a link (made where missing when
// `create` is set); `name` gets the last component. `local` must name a place below the
// root. An empty descriptor with errno set when it cannot be reached.
vu::beneath::UniqueFd openFolderOf(const std::string& root, const std::string& local, bool create,
                                   std::string* name);

// `source` resolved (links, then "..") when it lies in a folder an install may read
// from: one of `libraries`, the temporary folder, or the data folders the file server
// serves (~/.tuqvu/behaviors, ~/.tuqvu/boxlibraries and this system's own
// user data folder). Empty otherwise.
boost::filesystem::path permittedInstallSource(const std::string& source,
                                               const std::vector<std::string>& libraries);

}  // namespace detail
}  // namespace BehaviorManager
}  // namespace ZR
