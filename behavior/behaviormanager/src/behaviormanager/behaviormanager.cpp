// Construction, destruction and the method table of the module.
#include "behaviormanager.h"

#include <exception>

#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>

#include <vu/os.h>
#include <vu/path.h>
#include <vu/project/behaviorlibraryproject.h>
#include <vu/project/staging.h>
#include <vu/unicode.h>
#include <zr/detail/zrcompleteandcheck.h>
#include <zr/detail/zrfunctor.h>
#include <zr/zrtypes.h>

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

std::string ZRBehaviorManager::defaultUserBehaviorsPath = vu::os::home() + "/.tuqvu/behaviors";
std::string ZRBehaviorManager::defaultBehaviorsModuleName = "DefaultBehaviors";
std::string ZRBehaviorManager::fxarFileName = "behavior.xar";
std::string ZRBehaviorManager::fTUQvuReady = "TUQvuReady";

namespace {

// Owns a frame-manager proxy from the moment it is built; a failure while wrapping it
// deletes it and passes on.
boost::shared_ptr<ZRFrameManagerProxy> makeFrameManagerProxy(boost::shared_ptr<ZRBroker> broker) {
  ZRFrameManagerProxy* proxy = new ZRFrameManagerProxy(broker);
  try {
    return boost::shared_ptr<ZRFrameManagerProxy>(proxy);
  } catch (...) {
    delete proxy;
    throw;
  }
}

// How deep below the user library start-up looks for what crashed imports left: as deep
// as behaviors are nested in folders.
constexpr int kStagingSearchDepth = 8;

}  // namespace

ZRBehaviorManager::ZRBehaviorManager(boost::shared_ptr<ZRBroker> broker, const std::string& name)
    : ZRModule(broker, name),
      fSystemLibrary(vu::path::findData("tuqvu", "behaviors")),
      fUserLibrary(""),
      fRegistryLock(ZRMutex::createZRMutex()),
      fMemoryProxy(getParentBroker()->getSpecialisedProxy<ZRMemoryProxy>("ZRMemory")),
      fFrameManagerProxy(makeFrameManagerProxy(getParentBroker())) {
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
  for (const char* key : {behaviorsRunKey, behaviorAddedKey, behaviorUpdatedKey,
                          behaviorRemovedKey}) {
    try {
      fMemoryProxy->declareEvent(key);
    } catch (...) {
      vu::log::write(vu::log::error, "behaviormanager", "ZRBehaviorManager",
                     std::string("Could not declare the ") + key +
                         " event. The BehaviorManager is not started properly.");
    }
  }

  // Imports that a crash cut short left their staging copies in the temporary folder
  // (unpacked packages) and beside their destination in the library.
  vu::project::removeStagingLeftovers(vu::os::tmp(), 1);
  vu::project::removeStagingLeftovers(defaultUserBehaviorsPath, kStagingSearchDepth);

  const fs::path userPath(defaultUserBehaviorsPath, vu::unicodeFacet());
  boost::system::error_code statusError;
  const fs::file_type type = fs::status(userPath, statusError).type();
  if (type != fs::status_error && type != fs::file_not_found) {
    setBehaviorsPath(defaultUserBehaviorsPath);
    return;
  }
  boost::system::error_code createError;
  fs::create_directories(userPath, createError);
  if (!createError && vu::project::makeBehaviorLibraryProject(defaultUserBehaviorsPath, "")) {
    setBehaviorsPath(defaultUserBehaviorsPath);
    return;
  }
  detail::log(vu::log::warning, "ZRBehaviorManager",
              "Could not create behaviors path " + defaultUserBehaviorsPath +
                  " for the Behavior Manager.");
}

namespace {

// Runs one step of the destruction. A destructor must not throw: a failure (a frame
// manager that no longer answers, a broker that is shutting down) is logged and the
// following steps still run.
template <typename Step> void destructionStep(const std::string& what, Step step) {
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

ZRBehaviorManager::~ZRBehaviorManager() {
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

namespace {

template <typename Member> struct ResultCode;
template <typename C, typename R> struct ResultCode<R (C::*)()> {
  static constexpr int value = ZR::detail::TypeCode<R>::value;
};
template <typename C, typename R, typename... P> struct ResultCode<R (C::*)(P...)> {
  static constexpr int value = ZR::detail::TypeCode<R>::value;
};

// One row of the method table: describe, complete, bind.
template <typename C, typename Member>
void bindRow(C* module, const std::string& name, const std::string& description,
             std::initializer_list<std::pair<const char*, const char*>> params,
             const char* resultName, const char* resultDescription, Member member,
             bool overload = false) {
  module->functionName(name, module->getName(), description, 0);
  for (const auto& param : params) {
    module->addParam(param.first, param.second);
  }
  if (resultName != nullptr) {
    module->setReturn(resultName, resultDescription);
  }
  if (params.size() == 0) {
    // Without parameters there is nothing to check: only the result's type text is set.
    module->getCurrentMethodDescription().returnType = getTypeString(ResultCode<Member>::value);
  } else {
    completeAndCheck(member, module->getCurrentMethodDescription());
  }
  if (overload) {
    module->bindMethodOverload(createFunctor(module, member));
  } else {
    module->bindMethod(createFunctor(module, member));
  }
}

}  // namespace

void ZRBehaviorManager::registerMethods() {
  using M = ZRBehaviorManager;
  const char* behaviorParam = "Behavior name ";
  bindRow(this, "_setBehaviorsPath", "Set the user behaviors path.",
          {{"path", "the desired behaviors path, as an utf8 std::string."}}, nullptr, nullptr,
          &M::xSetBehaviorsPathForRemoteCaller);
  bindRow(this, "installBehavior",
          "Install a behavior.\nCheck the given local path for a valid behavior or package.\nOn "
          "success, behavior added or updated signal is emitted.",
          {{"localPath", "the relative destination path."}}, "success",
          "true on success, false on failure.",
          static_cast<bool (M::*)(const std::string&)>(&M::installBehavior), true);
  bindRow(this, "installBehavior",
          "Install a behavior.\nCheck and take the behavior found at the given absolute path "
          "andimport it to the given local path, relative to behaviors path.\nOn success, "
          "behavior added signal is emitted before returning.",
          {{"absolutePath", "a behavior on the local file system to install."},
           {"localPath", "the relative destination path."},
           {"overwrite", "whether to replace existing behavior if present."}},
          "success", "true on success, false on failure.",
          static_cast<bool (M::*)(const std::string&, const std::string&, bool)>(
              &M::installBehavior),
          true);
  bindRow(this, "preloadBehavior", "Load a behavior", {{"behavior", behaviorParam}}, "success",
          "Returns true if it was successfully loaded.", &M::loadBehavior);
  bindRow(this, "runBehavior", "Run a behavior", {{"behavior", behaviorParam}}, nullptr, nullptr,
          &M::runBehavior);
  bindRow(this, "stopBehavior", "Stop a behavior", {{"behavior", behaviorParam}}, nullptr, nullptr,
          &M::stopBehavior);
  bindRow(this, "stopAllBehaviors", "Stop all behaviors", {}, nullptr, nullptr,
          &M::stopAllBehaviors);
  bindRow(this, "removeBehavior", "Remove a behavior from the filesystem",
          {{"behavior", behaviorParam}}, nullptr, nullptr, &M::removeBehavior);
  bindRow(this, "isBehaviorInstalled",
          "Tell if supplied name corresponds to a behavior that has been installed",
          {{"name", "The behavior directory name"}}, "return",
          "Returns true if it is a valid behavior", &M::isBehaviorInstalled);
  bindRow(this, "isBehaviorPresent", "Tell if the supplied namecorresponds to an existing behavior.",
          {{"prefixedBehavior",
            "Prefixed behavior or just behavior's name (latter usage deprecated, in this case the "
            "behavior is searched for amongst user's behaviors, then in system behaviors) "
            "DEPRECATED."}},
          "return", "Returns true if it is an existing behavior", &M::isBehaviorPresent);
  bindRow(this, "getBehaviorNames", "Get behaviors", {}, "return",
          "Returns the list of behaviors prefixed by their type (User/ or System/). DEPRECATED",
          &M::getBehaviorNames);
  bindRow(this, "getUserBehaviorNames", "Get user's behaviors", {}, "return",
          "Returns the list of user's behaviors prefixed by User/. DEPRECATED.",
          &M::getUserBehaviorNames);
  bindRow(this, "getSystemBehaviorNames", "Get system behaviors", {}, "return",
          "Returns the list of system behaviors prefixed by System/.", &M::getSystemBehaviorNames);
  bindRow(this, "getInstalledBehaviors", "Get installed behaviors directories names", {}, "return",
          "Returns the behaviors list", &M::getInstalledBehaviors);
  bindRow(this, "getBehaviorsByTag",
          "Get installed behaviors directories names and filter it by tag.",
          {{"tag", "A tag to filter the list with."}}, "behaviors", "Returns the behaviors list",
          &M::getBehaviorsByTag);
  bindRow(this, "isBehaviorRunning", "Tell if supplied name corresponds to a running behavior",
          {{"behavior", behaviorParam}}, "return", "Returns true if it is a running behavior",
          &M::isBehaviorRunning);
  bindRow(this, "getRunningBehaviors", "Get running behaviors", {}, "return",
          "Return running behaviors", &M::getRunningBehaviors);
  bindRow(this, "getTagList", "Get tags found on installed behaviors.", {}, "tags",
          "The list of tags found.", &M::getTagList);
  bindRow(this, "getBehaviorTags", "Get tags found on the given behavior.",
          {{"behavior", "The local path towards a behavior or a directory."}}, "tags",
          "The list of tags found.", &M::getBehaviorTags);
  bindRow(this, "addDefaultBehavior", "Set the given behavior as default",
          {{"behavior", behaviorParam}}, nullptr, nullptr, &M::addDefaultBehavior);
  bindRow(this, "removeDefaultBehavior", "Remove the given behavior from the default behaviors",
          {{"behavior", behaviorParam}}, nullptr, nullptr, &M::removeDefaultBehavior);
  bindRow(this, "getDefaultBehaviors", "Get default behaviors", {}, "return",
          "Return default behaviors", &M::getDefaultBehaviors);
  bindRow(this, "playDefaultProject", "Play default behaviors", {}, nullptr, nullptr,
          &M::playDefaultProject);
  bindRow(this, "_onDataChanged",
          "Be notified when something we have subscribe to has changed in ZRMemory",
          {{"dataName", "name of the data"},
           {"dataValue", "value of the data"},
           {"message", "callback message"}},
          nullptr, nullptr, &M::onDataChanged);
  bindRow(this, "_getBehaviorFrameManagerId", "get the FrameManagerID. INTERNAL",
          {{"name", "name of Cadenzo project"}}, "ID", "", &M::getBehaviorFrameManagerId);
  bindRow(this, "_httpFileTransferPort",
          "Get the port to transfer files between Cadenzo and TUQvu", {}, "return",
          "Return the connection port", &M::httpFileTransferPort);
}

int ZRBehaviorManager::httpFileTransferPort() { return fFileTransfer.httpFileTransferPort(); }

}  // namespace BehaviorManager
}  // namespace ZR
