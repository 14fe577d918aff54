// Construction, destruction and the method table of the module.
#include <behaviormanager/behaviormanager.h>
#include <vu/os.h>
#include <vu/path.h>
#include <vu/project/behaviorlibraryproject.h>
#include <vu/project/staging.h>
#include <vu/unicode.h>
#include <zr/zrreadykey.h>
#include <zr/zrtypes.h>

#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>
#include <exception>

#include "detail.h"

namespace fs = boost::filesystem;

namespace ZR {
namespace BehaviorManager {

const char* systemBehaviorPrefix = "System/";
const char* userBehaviorPrefix = "User/";
const char* behaviorAddedKey = "ZRBehaviorManager/BehaviorAdded";
const char* behaviorUpdatedKey = "ZRBehaviorManager/BehaviorUpdated";
const char* behaviorRemovedKey = "ZRBehaviorManager/BehaviorRemoved";
const char* behaviorsRunKey = "BehaviorsRun";

const std::string ZRBehaviorManager::defaultUserBehaviorsPath =
    vu::os::home() + "/.tuqvu/behaviors";
const std::string ZRBehaviorManager::defaultBehaviorsModuleName = "DefaultBehaviors";
const std::string ZRBehaviorManager::fxarFileName = "behavior.xar";
const std::string ZRBehaviorManager::fTUQvuReady = kReadyKey;

namespace {

// How deep below the user library and the served folders start-up looks for what
// crashed imports and writes left: as deep as behaviors are nested in folders.
constexpr int kStagingSearchDepth = 8;

}  // namespace

ZRBehaviorManager::ZRBehaviorManager(boost::shared_ptr<ZRBroker> broker, const std::string& name,
                                     const std::string& userBehaviorsPath)
    : ZRModule(broker, name),
      fSystemLibrary(vu::path::findData("tuqvu", "behaviors")),
      fUserLibrary(""),
      fRegistryLock(ZRMutex::createZRMutex()),
      fMemoryProxy(getParentBroker()->getSpecialisedProxy<ZRMemoryProxy>("ZRMemory")),
      fFrameManagerProxy(boost::make_shared<ZRFrameManagerProxy>(getParentBroker())),
      fFileTransfer(&getParentBroker()->metrics()),
      fUserBehaviorsPath(userBehaviorsPath) {
  registerMetrics();
  setModuleDescription(
      "This module is intended to manage behaviors. With this module, you can load, start, stop "
      "behaviors, add default behaviors or remove them. \n");
  // The destructor stops every behavior, which ends the runs that hold calls here, and
  // waits for those calls: the broker need not wait for them before destroying us.
  setEndsItsCallsWhenDestroyed(true);
  registerMethods();

  try {
    fMemoryProxy->subscribeToMicroEvent(fTUQvuReady, getName(), "", "_onDataChanged");
  } catch (...) {
    vu::log::write(vu::log::error, "behaviormanager", "ZRBehaviorManager",
                   "Could not subscribe to the " + fTUQvuReady +
                       " event. The BehaviorManager is not started properly.");
  }
  for (const char* key :
       {behaviorsRunKey, behaviorAddedKey, behaviorUpdatedKey, behaviorRemovedKey}) {
    try {
      fMemoryProxy->declareEvent(key);
    } catch (...) {
      vu::log::write(vu::log::error, "behaviormanager", "ZRBehaviorManager",
                     std::string("Could not declare the ") + key +
                         " event. The BehaviorManager is not started properly.");
    }
  }

  // Imports that a crash cut short left their staging copies in the temporary folder
  // (unpacked packages) and beside their destination in the library, and file-server
  // writes cut short their part files in the folders it serves (where the file system
  // has no unnamed files). This walk is kept apart from the library index's first scan,
  // though both cover the same folders: the index only reads (and is rebuilt whenever its
  // root is replaced), while this deletes, once, before any library object and its
  // notifications see the tree.
  vu::project::removeStagingLeftovers(vu::os::tmp(), kStagingSearchDepth);
  vu::project::removeStagingLeftovers(fUserBehaviorsPath, kStagingSearchDepth);
  const fs::path served = fs::path(vu::os::home()) / ".tuqvu";
  vu::project::removeStagingLeftovers((served / "boxlibraries").string(), kStagingSearchDepth);
  vu::project::removeStagingLeftovers(vu::path::userWritableDataPath("tuqvu", ""),
                                      kStagingSearchDepth);
  fServedFolders = std::make_shared<ServedFolders>();
  getParentBroker()->publishFileFolders(fServedFolders);

  const fs::path userPath(fUserBehaviorsPath, vu::unicodeFacet());
  boost::system::error_code statusError;
  const fs::file_type type = fs::status(userPath, statusError).type();
  if (type != fs::status_error && type != fs::file_not_found) {
    setBehaviorsPath(fUserBehaviorsPath);
    return;
  }
  boost::system::error_code createError;
  fs::create_directories(userPath, createError);
  if (!createError && vu::project::makeBehaviorLibraryProject(fUserBehaviorsPath, "")) {
    setBehaviorsPath(fUserBehaviorsPath);
    return;
  }
  detail::log(
      vu::log::warning, "ZRBehaviorManager",
      "Could not create behaviors path " + fUserBehaviorsPath + " for the Behavior Manager.");
}

namespace {

// Runs one step of the destruction. A destructor must not throw: a failure (a frame
// manager that no longer answers, a broker that is shutting down) is logged and the
// following steps still run.
template <typename Step>
void destructionStep(const std::string& what, Step step) {
  try {
    step();
  } catch (const ZRError& error) {
    detail::log(vu::log::error, "~ZRBehaviorManager", what + ": " + error.description());
  } catch (const std::exception& error) {
    detail::log(vu::log::error, "~ZRBehaviorManager", what + ": " + error.what());
  } catch (...) {
    detail::log(vu::log::error, "~ZRBehaviorManager", what + ": unknown error");
  }
}

// How long the destructor waits for calls still in the module: 20 slices of 250 ms,
// stopping what runs again after each.
constexpr int kCallReturnAttempts = 20;
constexpr int kCallReturnSliceMs = 250;

}  // namespace

void ZRBehaviorManager::registerMetrics() {
  ZRMetrics& metrics = getParentBroker()->metrics();
  fRunningGauge = &metrics.gauge("tuqvu_behaviors_running", "Behaviors running now.");
  // One series per state, all there from the start: a state never entered shows 0.
  const char* const names[] = {"unknown", "unloaded", "loading", "loaded", "running", "unloading"};
  static_assert(sizeof(names) / sizeof(names[0]) == StateUnloading + 1, "a name for every state");
  for (std::size_t state = 0; state < fStateChanges.size(); ++state) {
    fStateChanges[state] = &metrics.counter("tuqvu_behavior_state_changes_total",
                                            "Behavior state changes, by the state entered.",
                                            {{"state", names[state]}});
  }
  const char* const installs = "tuqvu_behavior_installs_total";
  const char* const installsHelp = "Behavior, package and resource installs, by outcome.";
  fInstalled = &metrics.counter(installs, installsHelp, {{"outcome", "installed"}});
  fInstallFailed = &metrics.counter(installs, installsHelp, {{"outcome", "failed"}});
  // A module loaded again finds the series of the one before; nothing runs yet.
  fRunningGauge->set(0);
}

ZRBehaviorManager::~ZRBehaviorManager() {
  getParentBroker()->withdrawFileFolders(fServedFolders.get());
  destructionStep("Could not stop the behaviors while shutting down",
                  [this] { stopAllBehaviors(); });
  std::set<std::string> loaded;
  {
    ZRCriticalSection section(fRegistryLock);
    for (const auto& entry : fLoadedBehaviors) {
      loaded.insert(entry.first);
    }
  }
  for (const std::string& name : loaded) {
    destructionStep("Could not unload behavior " + name + " while shutting down",
                    [this, &name] { xStopAndUnloadBehavior(name, name); });
  }
  // A stopped run still returns through the module after its last state change, and a
  // run that was loading when the stop came starts only now: no call may still be in a
  // member when the members go, so wait for them, stopping again what started since.
  for (int attempt = 0; attempt < kCallReturnAttempts; ++attempt) {
    if (waitForCallsToReturn(kCallReturnSliceMs)) break;
    destructionStep("Could not stop the behaviors while shutting down",
                    [this] { stopAllBehaviors(); });
  }
  if (callsInProgress() > 0) {
    detail::log(vu::log::error, "~ZRBehaviorManager",
                std::to_string(callsInProgress()) + " calls still running at destruction");
  }
  // A run stopped above makes its last state change (unloaded, or loaded again for a
  // system behavior) inside the registry lock, and the stop returns as soon as it sees
  // that state. Taking the lock once more waits for such a run to leave it, and with it
  // the running-set mutex it nests, before the members go.
  ZRCriticalSection section(fRegistryLock);
}

int ZRBehaviorManager::httpFileTransferPort() {
  return fFileTransfer.httpFileTransferPort();
}

}  // namespace BehaviorManager
}  // namespace ZR
