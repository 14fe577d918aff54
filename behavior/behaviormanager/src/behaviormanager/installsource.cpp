// Where an install may read from. A remote caller names the source of an install, so
// without this check any file the broker can read could be copied into the library and
// served back; only the folders a client may already read or fill are accepted.
#include <vu/containment.h>
#include <vu/os.h>
#include <vu/path.h>

#include <boost/filesystem.hpp>

#include "detail.h"

namespace fs = boost::filesystem;

namespace ZR {
namespace BehaviorManager {
namespace detail {

fs::path permittedInstallSource(const std::string& source,
                                const std::vector<std::string>& libraries) {
  const fs::path resolved = vu::path::resolvedPath(source);
  if (resolved.empty()) {
    return resolved;
  }
  std::vector<std::string> roots = libraries;
  roots.push_back(vu::os::tmp());
  // The data folders the file server serves: what clients upload into.
  const fs::path served = fs::path(vu::os::home()) / ".tuqvu";
  roots.push_back((served / "behaviors").string());
  roots.push_back((served / "boxlibraries").string());
  roots.push_back(vu::path::userWritableDataPath("tuqvu", ""));
  for (const std::string& root : roots) {
    if (root.empty()) continue;
    const fs::path resolvedRoot = vu::path::resolvedPath(root);
    if (!resolvedRoot.empty() && vu::path::isWithin(resolved, resolvedRoot)) {
      return resolved;
    }
  }
  return fs::path();
}

}  // namespace detail
}  // namespace BehaviorManager
}  // namespace ZR
