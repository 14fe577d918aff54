// ZRBroker — hosts the modules of one process, dispatches calls to them and runs
// posted calls on task threads.
//
//   boost::shared_ptr<ZRBroker> broker = ZRBroker::create();
//   ZRValue result = broker->call("ZRMemory", "getData", args);
//   int task = broker->post("ZRBehaviorManager", "runBehavior", args);
//
// A call runs on the caller's thread for as long as the method runs; posted calls each
// get a thread of their own, so blocking calls never starve one another.
#pragma once

#include <zr/zrfilefolders.h>
#include <zr/zrmethodinfo.h>
#include <zr/zrmetrics.h>
#include <zr/zrvalue.h>

#include <atomic>
#include <boost/enable_shared_from_this.hpp>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ZR {

class ZRModuleCore;

class ZRBroker : public boost::enable_shared_from_this<ZRBroker> {
public:
  static boost::shared_ptr<ZRBroker> create(const std::string& name = "tuqvu");
  ~ZRBroker();
  ZRBroker(const ZRBroker&) = delete;
  ZRBroker& operator=(const ZRBroker&) = delete;

  const std::string& getName() const { return fName; }

  // Module registry (ZRModule registers and withdraws itself). Registering a second
  // module under a taken name throws ZRError.
  void registerModule(ZRModuleCore* module);
  void unregisterModule(ZRModuleCore* module);
  bool hasModule(const std::string& name) const;
  std::vector<std::string> getModuleNames() const;  // in registration order
  std::vector<ZRMethodInfo> getMethods(const std::string& module) const;
  // What the module says it is for (setModuleDescription); ZRError for an unknown module.
  std::string getModuleDescription(const std::string& module) const;
  // The module's page (its httpGet hook); ZRError for an unknown module.
  std::string modulePage(const std::string& module);

  // Marks the calls a thread makes for a client of the broker (an HTTP request, a
  // command) for as long as it lives. Modules ask callIsFromClient() to keep part of a
  // resource for the system's own work: only the outermost call on a marked thread is
  // the client's; what a module calls in turn is the module's.
  class ClientCallScope {
  public:
    ClientCallScope();
    ~ClientCallScope();
    ClientCallScope(const ClientCallScope&) = delete;
    ClientCallScope& operator=(const ClientCallScope&) = delete;

  private:
    bool fPrevious;
  };
  // Whether the call running on this thread is one a client made directly.
  static bool callIsFromClient();

  // Calls module.method with an array of arguments and returns its result. Throws
  // ZRError for an unknown module, an unknown method or a wrong number of arguments,
  // and when the broker is shutting down; the method's own exceptions pass through.
  ZRValue call(const std::string& module, const std::string& method, const ZRValue& args);

  // Posts a call to run on its own task thread and returns its task id (1, 2, ...).
  // The method must exist with that arity, else ZRError before anything is posted.
  int post(const std::string& module, const std::string& method, const ZRValue& args);
  // Posts any work as a task of the module (used by ZRProxy::pCall).
  int postTask(const std::string& module, std::function<void()> work);
  bool isTaskRunning(int taskId) const;
  // Waits for a task; false on time-out (timeoutMs < 0 waits without limit).
  bool waitTask(int taskId, int timeoutMs);

  // Calls in progress: all of them, and those in modules that end their calls
  // themselves when they are destroyed (ZRModuleCore::endsItsCallsWhenDestroyed).
  struct CallCounts {
    int all = 0;
    int endedByTheirModules = 0;
  };
  CallCounts callsInProgress() const;

  // Refuses new calls and posts, then waits up to graceMs for calls and tasks in
  // progress to end. Returns true when everything ended.
  bool shutdown(int graceMs);
  bool isShuttingDown() const { return fShuttingDown.load(); }

  // The folders of the broker's file API (ZRFileFolders); one module publishes them at a
  // time. Withdrawing takes them away only when they are still the ones published.
  void publishFileFolders(std::shared_ptr<const ZRFileFolders> folders);
  void withdrawFileFolders(const ZRFileFolders* folders);
  std::shared_ptr<const ZRFileFolders> fileFolders() const;  // null when none are published

  // The process's metrics (zrmetrics.h): modules register what they count here, the
  // broker exposes it at GET /metrics.
  ZRMetrics& metrics() { return fMetrics; }
  const ZRMetrics& metrics() const { return fMetrics; }

  template <typename T>
  boost::shared_ptr<T> getSpecialisedProxy(const std::string& module) {
    return boost::make_shared<T>(shared_from_this(), module);
  }

private:
  explicit ZRBroker(const std::string& name);
  struct CallScope;  // counts a call in progress for shutdown()
  ZRModuleCore* findModule(const std::string& name) const;

  const std::string fName;
  // Thread-safe on its own; outlives every module, which hold references into it.
  ZRMetrics fMetrics;

  // Guards the module registry. Never held while a method runs.
  mutable std::mutex fModulesMutex;
  std::vector<ZRModuleCore*> fModules;

  // Guards the task table and the count of calls in progress; fIdle is notified when
  // either changes. Never held while a method runs.
  mutable std::mutex fActivityMutex;
  std::condition_variable fIdle;
  std::map<int, bool> fTasksRunning;  // task id -> still running
  int fNextTaskId = 1;
  int fCallsInProgress = 0;
  int fCallsEndedByTheirModules = 0;  // the part of fCallsInProgress their modules end
  int fTasksInProgress = 0;

  std::atomic<bool> fShuttingDown{false};

  // Guards fFileFolders alone; held only to copy or replace the pointer.
  mutable std::mutex fFileFoldersMutex;
  std::shared_ptr<const ZRFileFolders> fFileFolders;
};

}  // namespace ZR
