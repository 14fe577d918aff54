// Listing the installed behaviors and finding the directory a name designates.
#include <behaviormanager/behaviormanager.h>
#include <vu/project/project.h>

#include <boost/algorithm/string/erase.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/filesystem.hpp>

#include "detail.h"

namespace fs = boost::filesystem;

namespace ZR {
namespace BehaviorManager {

namespace detail {

std::string joinUnderRoot(const std::string& root, const std::string& local) {
  const std::string joined = root + "/" + local;
  std::string result;
  result.reserve(joined.size());
  for (const char c : joined) {
    if (c == '/' && !result.empty() && result.back() == '/') continue;
    result += c;
  }
  if (result.size() > 1 && result.back() == '/') result.pop_back();
  return result;
}

bool namesAPlaceBelowRoot(const std::string& local) {
  bool named = false;
  std::string::size_type begin = 0;
  while (begin <= local.size()) {
    std::string::size_type end = local.find('/', begin);
    if (end == std::string::npos) end = local.size();
    const std::string part = local.substr(begin, end - begin);
    if (part == "..") return false;
    if (!part.empty() && part != ".") named = true;
    begin = end + 1;
  }
  return named;
}

}  // namespace detail

namespace {

std::vector<std::string> prefixed(const std::set<std::string>& paths, const std::string& prefix) {
  std::vector<std::string> names;
  names.reserve(paths.size());
  for (const std::string& path : paths) names.push_back(prefix + path);
  return names;
}

}  // namespace

std::vector<std::string> ZRBehaviorManager::getInstalledBehaviors() {
  return prefixed(fUserLibrary.behaviorPaths("", true), "");
}

std::vector<std::string> ZRBehaviorManager::getSystemBehaviorNames() {
  return prefixed(fSystemLibrary.behaviorPaths("", true), systemBehaviorPrefix);
}

std::vector<std::string> ZRBehaviorManager::getUserBehaviorNames() {
  detail::log(vu::log::warning, "getUserBehaviorNames", "getUserBehaviorNames is deprecated.");
  return prefixed(fUserLibrary.behaviorPaths("", true), userBehaviorPrefix);
}

std::vector<std::string> ZRBehaviorManager::getBehaviorNames() {
  detail::log(vu::log::warning, "getBehaviorNames", "getBehaviorNames is deprecated.");
  std::vector<std::string> names = getUserBehaviorNames();
  const std::vector<std::string> system = getSystemBehaviorNames();
  names.insert(names.end(), system.begin(), system.end());
  return names;
}

fs::path ZRBehaviorManager::xFindBehavior(const std::string& name) {
  std::string local = name;
  const vu::project::BehaviorLibraryProject* first = nullptr;
  const vu::project::BehaviorLibraryProject* second = nullptr;
  const std::string systemRoot = fSystemLibrary.projectPath();
  const std::string userRoot = fUserLibrary.projectPath();
  const char* absoluteWarning =
      "Passing absolute paths to ZRBehaviorManager is deprecated. Please only use local paths.";

  if (boost::algorithm::starts_with(name, systemBehaviorPrefix)) {
    boost::algorithm::erase_head(local, 7);
    first = &fSystemLibrary;
  } else if (boost::algorithm::starts_with(name, userBehaviorPrefix)) {
    boost::algorithm::erase_head(local, 5);
    first = &fUserLibrary;
  } else if (!systemRoot.empty() && boost::algorithm::starts_with(name, systemRoot)) {
    detail::log(vu::log::warning, "xFindBehavior", absoluteWarning);
    boost::algorithm::erase_head(local, static_cast<int>(systemRoot.size() + 1));
    first = &fSystemLibrary;
  } else if (boost::algorithm::starts_with(name, userRoot)) {
    detail::log(vu::log::warning, "xFindBehavior", absoluteWarning);
    boost::algorithm::erase_head(local, static_cast<int>(userRoot.size() + 1));
    first = &fUserLibrary;
  } else {
    first = &fSystemLibrary;
    second = &fUserLibrary;
  }

  for (const vu::project::BehaviorLibraryProject* library : {first, second}) {
    if (library != nullptr && library->hasBehavior(local)) {
      return fs::path(library->projectPath()) / local;
    }
  }

  const std::string candidate = detail::joinUnderRoot(userRoot, local);
  const vu::project::Project project(candidate);
  const std::string type = project.getMetadata("Type");
  if (vu::project::isBehavior(project)) {
    detail::log(vu::log::warning, "xFindBehavior", "Access to sub-behaviors is deprecated.");
    return candidate;
  }
  if (detail::isResourceType(type)) {
    return candidate;
  }
  return fs::path();
}

bool ZRBehaviorManager::isBehaviorInstalled(const std::string& name) {
  const fs::path found = xFindBehavior(name);
  try {
    const fs::file_type type = fs::status(found).type();
    return type != fs::status_error && type != fs::file_not_found;
  } catch (const fs::filesystem_error& error) {
    detail::log(vu::log::error, "isBehaviorInstalled", error.what());
    return false;
  }
}

bool ZRBehaviorManager::isBehaviorPresent(const std::string& prefixedBehavior) {
  detail::log(vu::log::warning, "isBehaviorPresent", "isBehaviorPresent is deprecated.");
  return isBehaviorInstalled(prefixedBehavior);
}

}  // namespace BehaviorManager
}  // namespace ZR
