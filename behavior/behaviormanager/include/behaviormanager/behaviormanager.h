// ZRBehaviorManager — the module "ZRBehaviorManager": it keeps the system and user
// behavior libraries, loads behaviors into the frame manager, runs and stops them,
// installs and removes them, starts the default behaviors when the middleware is ready,
// and serves files to the authoring application.
//
// The broker constructs one instance through the library's entry point; every remote
// call then reaches one of the public members below through the method table.
//
// Locks, in the only order in which two of them are ever held:
//   registry lock (fRegistryLock)  ->  running-set mutex (fRunningMutex)  ->  state mutex
//   (fStateMutex)
// The registry lock is re-entrant and taken only through ZRCriticalSection. The running-set
// mutex is held for a whole state change so that "BehaviorsRun" publications leave in the
// order of the changes they describe. The state mutex is a leaf: nothing is called while
// it is held, and the waits on state changes (fStateChanged) hold it alone, releasing it
// while they sleep. No lock is held across a frame-manager call that can block (create,
// run) nor across those waits. The defaults mutex (fDefaultsMutex) stands apart: it is
// taken with none of the others held and none is taken while it is.
#pragma once

#include <vu/project/behaviorlibraryproject.h>
#include <zr/proxies/zrframemanagerproxy.h>
#include <zr/proxies/zrmemoryproxy.h>
#include <zr/zrbroker.h>
#include <zr/zrerror.h>
#include <zr/zrmetrics.h>
#include <zr/zrmodule.h>
#include <zr/zrmutex.h>
#include <zr/zrvalue.h>
#include <zrfiletransfer/zrfiletransfer.h>
#include <zrfiletransfer/zrservedfolders.h>

#include <array>
#include <boost/filesystem/path.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace ZR {
namespace BehaviorManager {

extern const char* systemBehaviorPrefix;  // "System/"
extern const char* userBehaviorPrefix;    // "User/"
extern const char* behaviorAddedKey;      // "ZRBehaviorManager/BehaviorAdded"
extern const char* behaviorUpdatedKey;    // "ZRBehaviorManager/BehaviorUpdated"
extern const char* behaviorRemovedKey;    // "ZRBehaviorManager/BehaviorRemoved"
extern const char* behaviorsRunKey;       // "BehaviorsRun"

// The lifecycle state of a behavior; stored and passed as a 32-bit integer.
enum BehaviorState : int {
  StateUnknown = 0,    // nothing recorded
  StateUnloaded = 1,   // installed, not in the frame manager
  StateLoading = 2,    // a load is in progress
  StateLoaded = 3,     // loaded, ready to run
  StateRunning = 4,    // running
  StateUnloading = 5,  // a run has ended and the behavior is being unloaded
};

class ZRBehaviorManager : public ZRModule {
public:
  // What the registry keeps for a loaded behavior.
  struct BehaviorInfo {
    std::string frameManagerId;  // empty while a load is in progress
  };

  static const std::string defaultUserBehaviorsPath;    // <home> + "/.tuqvu/behaviors"
  static const std::string defaultBehaviorsModuleName;  // "DefaultBehaviors"
  static const std::string fxarFileName;                // "behavior.xar"
  static const std::string fTUQvuReady;                 // "TUQvuReady"

  // `userBehaviorsPath`: the user library, prepared and announced at construction.
  ZRBehaviorManager(boost::shared_ptr<ZRBroker> broker, const std::string& name,
                    const std::string& userBehaviorsPath = defaultUserBehaviorsPath);
  ~ZRBehaviorManager() override;

  // Behaviors path and names.
  void setBehaviorsPath(const std::string& path);

  // Discovery and lookup.
  std::vector<std::string> getInstalledBehaviors();
  std::vector<std::string> getSystemBehaviorNames();
  std::vector<std::string> getUserBehaviorNames();  // deprecated
  std::vector<std::string> getBehaviorNames();      // deprecated
  bool isBehaviorInstalled(const std::string& name);
  bool isBehaviorPresent(const std::string& prefixedBehavior);  // deprecated

  // Tags.
  std::vector<std::string> getBehaviorTags(const std::string& behavior);
  std::vector<std::string> getTagList();
  std::vector<std::string> getBehaviorsByTag(const std::string& tag);

  // Registry and states.
  BehaviorState behaviorState(const std::string& name);
  void setBehaviorState(const std::string& name, BehaviorState state);
  bool waitBehaviorState(const std::string& name, BehaviorState state, int timeoutMs);
  // Each wait returns as soon as its condition holds, or false at its time-out; a
  // time-out of zero or less looks once. A change is a state other than the one found
  // when the wait began.
  bool waitBehaviorStateChange(const std::string& name, int timeoutMs);
  // Waits like waitBehaviorState until the state is no longer `state`.
  bool waitBehaviorStateLeaves(const std::string& name, BehaviorState state, int timeoutMs);

  // Loading and unloading.
  bool loadBehavior(const std::string& name);
  void xUnloadBehavior(const std::string& name);
  bool unloadBehavior(const std::string& name);
  bool isBehaviorLoaded(const std::string& name);
  std::vector<std::string> getLoadedBehaviors();
  std::string getBehaviorFrameManagerId(const std::string& name);

  // Running and stopping.
  void runBehavior(const std::string& name);
  void stopBehavior(const std::string& name);
  void stopAllBehaviors();
  bool isBehaviorRunning(const std::string& name);
  std::vector<std::string> getRunningBehaviors();

  // Installing and removing.
  bool installBehavior(const std::string& localPath);
  bool installBehavior(const std::string& absolutePath, const std::string& localPath,
                       bool overwrite);
  bool removeBehavior(const std::string& behavior);

  // Default behaviors.
  void addDefaultBehavior(const std::string& behavior);
  void removeDefaultBehavior(const std::string& behavior);
  std::vector<std::string> getDefaultBehaviors();
  void playDefaultProject();
  void onDataChanged(const std::string& dataName, const ZRValue& dataValue,
                     const std::string& message);
  bool xIsDefaultBehavior(const std::string& name);

  // Status page and file transfer.
  std::string httpGet() override;
  std::string javaScriptCode() const;
  int httpFileTransferPort();

  // Internal helpers, public so that the module's own tests can reach them.
  boost::filesystem::path xFindBehavior(const std::string& name);
  std::string xBehaviorNameFromPath(const boost::filesystem::path& path);
  std::string xNormalizeLocalPath(const std::string& name);
  // The form of a behavior name that names that very behavior whatever the libraries
  // hold: a user behavior's name with "User/" in front (a bare name means the system
  // copy when both libraries hold it), a system behavior's name as it is. Normalising
  // it gives the name back.
  std::string xQualifiedName(const std::string& normalizedName) const;
  // The path with its links and ".." resolved, as the user library would use it; throws
  // ZRError when that path may not become the user library (see behaviorstore.cpp).
  std::string xCheckUserLibraryPath(const std::string& path);
  // "_setBehaviorsPath": setBehaviorsPath for remote callers, who may not point the user
  // library at the installation, the system library, the root or the home directory.
  void xSetBehaviorsPathForRemoteCaller(const std::string& path);
  // Load, stop and stop-then-unload of a behavior known by its normalised name; the
  // public methods normalise the caller's name and come here. `callerName` is the name
  // their messages and the "System/" test use.
  bool xLoadBehavior(const std::string& normalizedName);
  void xStopBehavior(const std::string& normalizedName, const std::string& callerName);
  bool xStopAndUnloadBehavior(const std::string& normalizedName, const std::string& callerName);
  // The user library object, whose notifications other code may also be connected to.
  vu::project::BehaviorLibraryProject& xUserLibrary() { return fUserLibrary; }
  void xReadDefaultBehaviors(std::set<std::string>& names) const;
  void xWriteDefaultBehaviors(const std::set<std::string>& names);
  // Copies the resource folder `source` to the new entry `name` of the open folder
  // `destinationDirectory` (vu::beneath::copyTree); false when it fails, a runtime_error
  // when a link of the folder leads outside it.
  bool copy(const boost::filesystem::path& source, int destinationDirectory,
            const std::string& name);
  // A copy of the state table, entries with StateUnknown included.
  std::map<std::string, BehaviorState> xStateTable() const;
  // How many threads are queued for the registry lock at this moment.
  int xRegistryLockWaiters() const { return fRegistryLock->waiting(); }

  // Library notifications.
  void onBehaviorAdded(const std::string& path);
  void onBehaviorUpdated(const std::string& path);
  void onBehaviorRemoved(const std::string& path);

private:
  // Registers the module's series in the broker's metrics; the constructor's first step.
  void registerMetrics();
  // installBehavior's work; the public one counts its outcome.
  bool xInstallBehavior(const std::string& absolutePath, const std::string& localPath,
                        bool overwrite);
  void registerMethods();
  void publishRunningBehaviors();  // caller holds fRunningMutex
  // Waits until `done` holds for the behavior's state; the others wait through it.
  bool waitForState(const std::string& name, int timeoutMs,
                    const std::function<bool(BehaviorState)>& done);

  // No operation locks it: it stays first, as the module's design lays its members out
  // (docs/behavior-manager.md, "The module object's members").
  boost::mutex fMutex;
  vu::project::BehaviorLibraryProject fSystemLibrary;
  vu::project::BehaviorLibraryProject fUserLibrary;
  // Loaded behaviors by name; guarded by fRegistryLock.
  std::map<std::string, BehaviorInfo> fLoadedBehaviors;
  boost::shared_ptr<ZRMutex> fRegistryLock;
  // Guards fRunning, and serialises state changes with their publication.
  boost::mutex fRunningMutex;
  // Guards fStates; a leaf lock. fStateChanged waits with it.
  mutable std::mutex fStateMutex;
  // Signalled after every change of fStates, once the change (and in setBehaviorState its
  // "BehaviorsRun" publication) is made; the waits on states sleep on it.
  std::condition_variable fStateChanged;
  // Serialises the read-modify-write of the default list's preference file, so that two
  // changes made at once do not lose each other. Held across the preferences calls.
  boost::mutex fDefaultsMutex;
  std::map<std::string, BehaviorState> fStates;
  std::set<std::string> fRunning;
  // The module's counts in the broker's metrics, registered at construction (the series
  // outlive the module: the broker owns them). Atomics: counted under no lock of ours.
  ZRGauge* fRunningGauge;                                    // the size of fRunning
  std::array<ZRCounter*, StateUnloading + 1> fStateChanges;  // by the state entered
  ZRCounter* fInstalled;
  ZRCounter* fInstallFailed;
  boost::shared_ptr<ZRMemoryProxy> fMemoryProxy;
  boost::shared_ptr<ZRFrameManagerProxy> fFrameManagerProxy;
  ZRFileTransfer fFileTransfer;
  // The same folders, offered to the broker's file API for as long as this module lives.
  std::shared_ptr<ServedFolders> fServedFolders;
  const std::string fUserBehaviorsPath;
};

}  // namespace BehaviorManager
}  // namespace ZR
