// The default behaviors: a list kept in the preference file "DefaultBehaviors", started
// when the middleware announces that it is ready.
#include <behaviormanager/behaviormanager.h>
#include <zr/proxies/zrpreferencesproxy.h>
#include <zr/zrproxy.h>

#include <boost/algorithm/string/split.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/lock_guard.hpp>
#include <cmath>

#include "detail.h"

namespace ZR {
namespace BehaviorManager {

namespace {
const char* const kDefaultsDescription = "List of default behaviors separated by endlines";
const char* const kDefaultBehavior = ".default";
}  // namespace

void ZRBehaviorManager::xReadDefaultBehaviors(std::set<std::string>& names) const {
  try {
    ZRPreferencesProxy preferences(getParentBroker());
    const ZRValue file = preferences.readPrefFile(defaultBehaviorsModuleName, false);
    const std::string value = file[0][2].toString();
    std::vector<std::string> pieces;
    boost::algorithm::split(pieces, value, [](char c) { return c == '\n'; });
    for (const std::string& piece : pieces) {
      if (!piece.empty()) {
        names.insert(piece);
      }
    }
  } catch (const ZRError& error) {
    detail::log(vu::log::verbose, "xReadDefaultBehaviors",
                std::string("DefaultBehaviors preference file ") +
                    "could not be read: " + error.description());
  } catch (const std::exception& error) {
    detail::log(
        vu::log::verbose, "xReadDefaultBehaviors",
        std::string("DefaultBehaviors preference file ") + "could not be read: " + error.what());
  }
}

void ZRBehaviorManager::xWriteDefaultBehaviors(const std::set<std::string>& names) {
  std::string value;
  for (const std::string& name : names) {
    value += name + "\n";
  }
  ZRValue entry = ZRValue::array();
  entry.arrayPush(defaultBehaviorsModuleName);
  entry.arrayPush(kDefaultsDescription);
  entry.arrayPush(value);
  ZRValue file = ZRValue::array();
  file.arrayPush(entry);
  ZRPreferencesProxy preferences(getParentBroker());
  preferences.writePrefFile(defaultBehaviorsModuleName, file, true);
}

bool ZRBehaviorManager::xIsDefaultBehavior(const std::string& name) {
  const std::vector<std::string> defaults = getDefaultBehaviors();
  return std::find(defaults.begin(), defaults.end(), name) != defaults.end();
}

void ZRBehaviorManager::addDefaultBehavior(const std::string& behavior) {
  boost::lock_guard<boost::mutex> lock(fDefaultsMutex);
  std::set<std::string> names;
  xReadDefaultBehaviors(names);
  const std::string normalized = xNormalizeLocalPath(behavior);
  if (normalized.empty()) {
    // Reported under the label of the load that would fail, as callers have always seen it.
    throw ZRError(detail::kModuleName, "loadBehavior", "behavior " + behavior + " is not installed",
                  detail::kSourceFile, 1358);
  }
  names.insert(normalized);
  xWriteDefaultBehaviors(names);
}

void ZRBehaviorManager::removeDefaultBehavior(const std::string& behavior) {
  boost::lock_guard<boost::mutex> lock(fDefaultsMutex);
  std::set<std::string> names;
  xReadDefaultBehaviors(names);
  if (!names.empty() && names.erase(behavior) == 0) {
    names.erase(xNormalizeLocalPath(behavior));
  }
  xWriteDefaultBehaviors(names);
}

std::vector<std::string> ZRBehaviorManager::getDefaultBehaviors() {
  std::set<std::string> names;
  xReadDefaultBehaviors(names);
  return std::vector<std::string>(names.begin(), names.end());
}

void ZRBehaviorManager::playDefaultProject() {
  ZRProxy self(getParentBroker(), getName(), 0, 0);
  if (isBehaviorInstalled(kDefaultBehavior)) {
    self.pCall<std::string>("runBehavior", kDefaultBehavior);
  }
  std::set<std::string> names;
  xReadDefaultBehaviors(names);
  names.erase(kDefaultBehavior);
  // The list holds normalised names: a user behavior's bare name would start the system
  // copy when the system library holds the same name.
  for (const std::string& name : names) {
    const std::string qualified = xQualifiedName(name);
    if (isBehaviorInstalled(qualified)) {
      self.pCall<std::string>("runBehavior", qualified);
    }
  }
}

void ZRBehaviorManager::onDataChanged(const std::string& dataName, const ZRValue& dataValue,
                                      const std::string& /*message*/) {
  if (dataName != fTUQvuReady) {
    return;
  }
  // Truncated toward zero; compared as a float so that values beyond the range of int
  // (and NaN) are simply not 1.
  if (std::trunc(static_cast<float>(dataValue)) != 1.0f) {
    return;
  }
  // Each behavior that cannot be loaded is logged and the others go on: one broken
  // behavior must not keep the robot from its defaults. The names carry the library's
  // prefix: without a user library a bare name would be taken for a path into it.
  for (const std::string& path : fSystemLibrary.behaviorPaths("", true)) {
    try {
      loadBehavior(systemBehaviorPrefix + path);
    } catch (const std::exception& error) {
      detail::log(vu::log::error, "onDataChanged",
                  std::string("Could not load the system behavior ") + systemBehaviorPrefix + path +
                      ": " + error.what());
    }
  }
  playDefaultProject();
}

}  // namespace BehaviorManager
}  // namespace ZR
