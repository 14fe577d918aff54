// A frame-manager module for the lifecycle suites: it registers as "ZRFrameManager",
// records every call it receives, and can be made to misbehave the ways the real one
// never does on demand — a load that throws, a load held until the test lets it go, a
// run that ignores exit requests, an exit request that throws, a run that fails. Header-only: each
// suite is its own executable.
//
// An instance runs until it is exited (exitBehavior, deleteBehavior or cleanBehaviors,
// which like the real one keeps instances that have not run yet),
// like a behavior that repeats until stopped, unless the name was marked quick. As with
// the real module, an exit requested before the run starts ends the next run at once.
#pragma once

#include <zr/zrbinding.h>
#include <zr/zrerror.h>
#include <zr/zrfunctorbase.h>
#include <zr/zrmodule.h>
#include <zr/zrtypes.h>
#include <zr/zrvalue.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace bmtest {

class FakeFrameManager : public ZR::ZRModule {
public:
  enum class LoadFault { None, ZRError, StdException };

  explicit FakeFrameManager(boost::shared_ptr<ZR::ZRBroker> broker)
      : ZR::ZRModule(broker, "ZRFrameManager") {
    bind("newBehaviorFromFile", {"xarPath", "behaviorName"}, ZR::TypeCodeString,
         [this](const ZR::ZRValue& args, ZR::ZRValue& result) {
           result = ZR::ZRValue(newBehaviorFromFile(args[0].toString(), args[1].toString()));
         });
    bind("completeBehavior", {"id"}, ZR::TypeCodeVoid,
         [this](const ZR::ZRValue& args, ZR::ZRValue&) { completeBehavior(args[0].toString()); });
    bind("exitBehavior", {"id"}, ZR::TypeCodeVoid,
         [this](const ZR::ZRValue& args, ZR::ZRValue&) { exitBehavior(args[0].toString()); });
    bind("deleteBehavior", {"id"}, ZR::TypeCodeVoid,
         [this](const ZR::ZRValue& args, ZR::ZRValue&) { deleteBehavior(args[0].toString()); });
    bind("cleanBehaviors", {}, ZR::TypeCodeVoid,
         [this](const ZR::ZRValue&, ZR::ZRValue&) { cleanBehaviors(); });
  }

  ~FakeFrameManager() override { releaseAll(); }

  // ---- what was called, as "method(arg, ...)", in arrival order
  std::vector<std::string> calls() const {
    std::lock_guard<std::mutex> lock(fMutex);
    return fCalls;
  }
  void clearCalls() {
    std::lock_guard<std::mutex> lock(fMutex);
    fCalls.clear();
  }
  int count(const std::string& method) const {
    std::lock_guard<std::mutex> lock(fMutex);
    int n = 0;
    for (const std::string& call : fCalls) {
      if (call.compare(0, method.size() + 1, method + "(") == 0) ++n;
    }
    return n;
  }

  // ---- faults, by behavior name (the name passed to newBehaviorFromFile)
  void setLoadFault(const std::string& name, LoadFault fault) {
    std::lock_guard<std::mutex> lock(fMutex);
    fLoadFaults[name] = fault;
  }
  // Loads of the name wait in newBehaviorFromFile until releaseLoad.
  void holdLoad(const std::string& name) {
    std::lock_guard<std::mutex> lock(fMutex);
    fHeldLoads.insert(name);
  }
  void releaseLoad(const std::string& name) {
    std::lock_guard<std::mutex> lock(fMutex);
    fHeldLoads.erase(name);
    fChanged.notify_all();
  }
  // True once a load of the name is waiting in the hold.
  bool waitLoadHeld(const std::string& name, int timeoutMs) {
    std::unique_lock<std::mutex> lock(fMutex);
    return fChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return fLoadsWaiting.count(name) > 0; });
  }
  // Runs of the name end at once.
  void setQuick(const std::string& name) {
    std::lock_guard<std::mutex> lock(fMutex);
    fQuick.insert(name);
  }
  // Runs of the name throw ZRError(ZRFrameManager, completeBehavior, message) at once.
  void setRunFault(const std::string& name, const std::string& message) {
    std::lock_guard<std::mutex> lock(fMutex);
    fRunFaults[name] = message;
  }
  // Runs of the name ignore exit requests until unstick (or releaseAll).
  void setStuck(const std::string& name) {
    std::lock_guard<std::mutex> lock(fMutex);
    fStuck.insert(name);
  }
  void unstick(const std::string& name) {
    std::lock_guard<std::mutex> lock(fMutex);
    fStuck.erase(name);
    fChanged.notify_all();
  }
  // The next `count` exitBehavior calls throw ZRError after doing their work.
  void failNextExits(int count) {
    std::lock_guard<std::mutex> lock(fMutex);
    fExitFailures = count;
  }
  // Lets every held load and every stuck run go; later ones are not held.
  void releaseAll() {
    std::lock_guard<std::mutex> lock(fMutex);
    fReleased = true;
    fHeldLoads.clear();
    fStuck.clear();
    fChanged.notify_all();
  }

  // ---- instances
  // The id of the last instance created for the name ("" if none).
  std::string idOf(const std::string& name) const {
    std::lock_guard<std::mutex> lock(fMutex);
    const auto found = fLastId.find(name);
    return found == fLastId.end() ? std::string() : found->second;
  }
  // True once a run of the name's last instance is in progress.
  bool waitRunning(const std::string& name, int timeoutMs) {
    std::unique_lock<std::mutex> lock(fMutex);
    return fChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
      const auto id = fLastId.find(name);
      return id != fLastId.end() && fRunning.count(id->second) > 0;
    });
  }
  std::vector<std::string> instances() const {
    std::lock_guard<std::mutex> lock(fMutex);
    std::vector<std::string> ids;
    for (const auto& entry : fInstances) ids.push_back(entry.first);
    return ids;
  }

private:
  struct Instance {
    std::string name;
    bool exitRequested = false;
    bool started = false;  // completeBehavior has been called for it
  };

  void bind(const std::string& method, const std::vector<std::string>& params, int resultCode,
            ZR::ZRCallableFunctor::Target target) {
    std::vector<std::pair<std::string, int>> described;
    for (const std::string& param : params) described.emplace_back(param, ZR::TypeCodeString);
    ZR::bindCallable(*this, {method, "test frame manager: " + method, described, resultCode},
                     std::move(target));
  }

  void record(const std::string& call) { fCalls.push_back(call); }  // fMutex held

  std::string newBehaviorFromFile(const std::string& path, const std::string& name) {
    std::unique_lock<std::mutex> lock(fMutex);
    record("newBehaviorFromFile(" + path + ", " + name + ")");
    if (fHeldLoads.count(name) > 0) {
      fLoadsWaiting.insert(name);
      fChanged.notify_all();
      fChanged.wait(lock, [&] { return fReleased || fHeldLoads.count(name) == 0; });
      fLoadsWaiting.erase(name);
    }
    const auto fault = fLoadFaults.find(name);
    if (fault != fLoadFaults.end() && fault->second == LoadFault::ZRError) {
      throw ZR::ZRError("ZRFrameManager", "newBehaviorFromFile",
                        "behavior file " + path + " cannot be read: refused by the test", __FILE__,
                        __LINE__);
    }
    if (fault != fLoadFaults.end() && fault->second == LoadFault::StdException) {
      throw std::runtime_error("the test frame manager ran out of memory");
    }
    const std::string id = "fake-" + std::to_string(++fNextId);
    fInstances[id].name = name;
    fLastId[name] = id;
    return id;
  }

  void completeBehavior(const std::string& id) {
    std::unique_lock<std::mutex> lock(fMutex);
    record("completeBehavior(" + id + ")");
    const auto found = fInstances.find(id);
    if (found == fInstances.end()) {
      throw ZR::ZRError("ZRFrameManager", "completeBehavior",
                        "there is no behavior instance with the id \"" + id + "\"", __FILE__,
                        __LINE__);
    }
    const std::string name = found->second.name;
    found->second.started = true;
    const auto runFault = fRunFaults.find(name);
    if (runFault != fRunFaults.end()) {
      throw ZR::ZRError("ZRFrameManager", "completeBehavior", runFault->second, __FILE__, __LINE__);
    }
    if (fQuick.count(name) > 0) return;
    fRunning.insert(id);
    fChanged.notify_all();
    fChanged.wait(lock, [&] {
      const auto instance = fInstances.find(id);
      const bool exited = instance == fInstances.end() || instance->second.exitRequested;
      return fReleased || (exited && fStuck.count(name) == 0);
    });
    fRunning.erase(id);
    const auto instance = fInstances.find(id);
    if (instance != fInstances.end()) instance->second.exitRequested = false;
  }

  void exitBehavior(const std::string& id) {
    std::lock_guard<std::mutex> lock(fMutex);
    record("exitBehavior(" + id + ")");
    const auto found = fInstances.find(id);
    if (found != fInstances.end()) found->second.exitRequested = true;
    fChanged.notify_all();
    if (fExitFailures > 0) {
      --fExitFailures;
      throw ZR::ZRError("ZRFrameManager", "exitBehavior", "exit refused by the test", __FILE__,
                        __LINE__);
    }
  }

  void deleteBehavior(const std::string& id) {
    std::lock_guard<std::mutex> lock(fMutex);
    record("deleteBehavior(" + id + ")");
    fInstances.erase(id);
    fChanged.notify_all();
  }

  void cleanBehaviors() {
    std::lock_guard<std::mutex> lock(fMutex);
    record("cleanBehaviors()");
    // As the real module does: instances still waiting for their first run stay.
    for (auto entry = fInstances.begin(); entry != fInstances.end();) {
      const bool left = entry->second.started || entry->second.exitRequested;
      entry = left ? fInstances.erase(entry) : std::next(entry);
    }
    fChanged.notify_all();
  }

  mutable std::mutex fMutex;  // guards everything below
  std::condition_variable fChanged;
  std::vector<std::string> fCalls;
  std::map<std::string, LoadFault> fLoadFaults;
  std::set<std::string> fHeldLoads;
  std::set<std::string> fLoadsWaiting;
  std::set<std::string> fQuick;
  std::map<std::string, std::string> fRunFaults;
  std::set<std::string> fStuck;
  int fExitFailures = 0;
  bool fReleased = false;
  int fNextId = 0;
  std::map<std::string, Instance> fInstances;
  std::map<std::string, std::string> fLastId;
  std::set<std::string> fRunning;
};

}  // namespace bmtest
