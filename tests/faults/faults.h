// Fault injection around the behavior manager: stand-ins that take the place of the
// frame-manager, memory and preferences modules, pass every call on to the real module
// (registered under another name beside them) and fail the calls a test asks them to
// fail, with a ZRError of the module they stand in for.
//
//   FaultyFrameManager frames(broker);        // registers "ZRFrameManager"
//   frames.plan().fail("exitBehavior");         // every exitBehavior now throws
//   frames.plan().fail("deleteBehavior", 1);    // only the next deleteBehavior throws
//   frames.plan().heal("exitBehavior");
#pragma once

#include <common/eventually.h>
#include <zr/modules/zrframemanager.h>
#include <zr/modules/zrmemory.h>
#include <zr/modules/zrpreferences.h>
#include <zr/zrbinding.h>
#include <zr/zrerror.h>
#include <zr/zrfunctorbase.h>
#include <zr/zrmodule.h>
#include <zr/zrtypes.h>
#include <zr/zrvalue.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../behavior/behaviormanager/behaviormanager/fixture.h"

namespace faulttest {

namespace fs = boost::filesystem;

// Which calls fail: per method, the number of calls still to fail (-1: all of them),
// optionally only the calls made on one thread.
class FaultPlan {
public:
  void fail(const std::string& method, int count = -1) {
    std::lock_guard<std::mutex> lock(fMutex);
    fFailing[method] = Fault{count, std::thread::id()};
  }
  // Fails only the calls that the calling thread makes (a remote call runs on the
  // caller's thread), so that a concurrent call of the same method is left alone.
  void failOnThisThread(const std::string& method, int count = -1) {
    std::lock_guard<std::mutex> lock(fMutex);
    fFailing[method] = Fault{count, std::this_thread::get_id()};
  }
  void heal(const std::string& method) {
    std::lock_guard<std::mutex> lock(fMutex);
    fFailing.erase(method);
  }
  void healAll() {
    std::lock_guard<std::mutex> lock(fMutex);
    fFailing.clear();
  }
  // Counts the call, and throws when it is to fail.
  void onCall(const std::string& module, const std::string& method) {
    std::lock_guard<std::mutex> lock(fMutex);
    ++fCalls[method];
    const auto found = fFailing.find(method);
    if (found == fFailing.end() || found->second.count == 0) return;
    if (found->second.thread != std::thread::id() &&
        found->second.thread != std::this_thread::get_id()) {
      return;
    }
    if (found->second.count > 0) --found->second.count;
    ++fFailed[method];
    throw ZR::ZRError(module, method, description(method), __FILE__, __LINE__);
  }
  int calls(const std::string& method) const {
    std::lock_guard<std::mutex> lock(fMutex);
    const auto found = fCalls.find(method);
    return found == fCalls.end() ? 0 : found->second;
  }
  int failed(const std::string& method) const {
    std::lock_guard<std::mutex> lock(fMutex);
    const auto found = fFailed.find(method);
    return found == fFailed.end() ? 0 : found->second;
  }
  static std::string description(const std::string& method) {
    return "injected fault: " + method + " refused by the test";
  }

private:
  struct Fault {
    int count;
    std::thread::id thread;  // no thread: every thread
  };
  mutable std::mutex fMutex;  // guards the three maps
  std::map<std::string, Fault> fFailing;
  std::map<std::string, int> fCalls;
  std::map<std::string, int> fFailed;
};

// A module registered under the name of the one it stands in for.
class StandIn : public ZR::ZRModule {
public:
  FaultPlan& plan() { return fPlan; }

protected:
  StandIn(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZR::ZRModule(broker, name) {}

  using Forward = std::function<ZR::ZRValue(const ZR::ZRValue& args)>;
  void bind(const std::string& method, const std::vector<int>& paramTypes, int resultType,
            Forward forward) {
    std::vector<std::pair<std::string, int>> params;
    for (std::size_t i = 0; i < paramTypes.size(); ++i) {
      params.emplace_back("p" + std::to_string(i + 1), paramTypes[i]);
    }
    ZR::bindCallable(*this, {method, "stand-in for " + method, params, resultType},
                     [this, method, forward](const ZR::ZRValue& args, ZR::ZRValue& result) {
                       fPlan.onCall(getName(), method);
                       result = forward(args);
                     });
  }

private:
  FaultPlan fPlan;
};

class FaultyFrameManager : public StandIn {
public:
  explicit FaultyFrameManager(boost::shared_ptr<ZR::ZRBroker> broker)
      : StandIn(broker, "ZRFrameManager"),
        fReal(std::make_unique<ZR::ZRFrameManager>(broker, "RealFrameManager")) {
    using ZR::ZRValue;
    const int s = ZR::TypeCodeString;
    bind("newBehaviorFromFile", {s, s}, s, [this](const ZRValue& a) {
      return ZRValue(fReal->newBehaviorFromFile(a[0].toString(), a[1].toString()));
    });
    bind("completeBehavior", {s}, ZR::TypeCodeVoid, [this](const ZRValue& a) {
      fReal->completeBehavior(a[0].toString());
      return ZRValue();
    });
    bind("exitBehavior", {s}, ZR::TypeCodeVoid, [this](const ZRValue& a) {
      fReal->exitBehavior(a[0].toString());
      return ZRValue();
    });
    bind("deleteBehavior", {s}, ZR::TypeCodeVoid, [this](const ZRValue& a) {
      fReal->deleteBehavior(a[0].toString());
      return ZRValue();
    });
    bind("cleanBehaviors", {}, ZR::TypeCodeVoid, [this](const ZRValue&) {
      fReal->cleanBehaviors();
      return ZRValue();
    });
  }
  ~FaultyFrameManager() override = default;

  // The real module the calls are passed to.
  ZR::ZRFrameManager& real() { return *fReal; }

private:
  std::unique_ptr<ZR::ZRFrameManager> fReal;
};

class RefusingMemory : public StandIn {
public:
  explicit RefusingMemory(boost::shared_ptr<ZR::ZRBroker> broker)
      : StandIn(broker, "ZRMemory"), fReal(std::make_unique<ZR::ZRMemory>(broker, "RealMemory")) {
    using ZR::ZRValue;
    const int s = ZR::TypeCodeString;
    const int v = ZR::TypeCodeValue;
    bind("insertData", {s, v}, ZR::TypeCodeVoid, [this](const ZRValue& a) {
      fReal->insertData(a[0].toString(), a[1]);
      return ZRValue();
    });
    bind("getData", {s}, v, [this](const ZRValue& a) { return fReal->getData(a[0].toString()); });
    bind("declareEvent", {s}, ZR::TypeCodeVoid, [this](const ZRValue& a) {
      fReal->declareEvent(a[0].toString());
      return ZRValue();
    });
    bind("raiseMicroEvent", {s, v}, ZR::TypeCodeVoid, [this](const ZRValue& a) {
      fReal->raiseMicroEvent(a[0].toString(), a[1]);
      return ZRValue();
    });
    bind("subscribeToMicroEvent", {s, s, s, s}, ZR::TypeCodeVoid, [this](const ZRValue& a) {
      fReal->subscribeToMicroEvent(a[0].toString(), a[1].toString(), a[2].toString(),
                                   a[3].toString());
      return ZRValue();
    });
    bind("unsubscribeToMicroEvent", {s, s}, ZR::TypeCodeVoid, [this](const ZRValue& a) {
      fReal->unsubscribeToMicroEvent(a[0].toString(), a[1].toString());
      return ZRValue();
    });
  }

  // The real module the calls are passed to.
  ZR::ZRMemory& real() { return *fReal; }

private:
  std::unique_ptr<ZR::ZRMemory> fReal;
};

class FailingPreferences : public StandIn {
public:
  explicit FailingPreferences(boost::shared_ptr<ZR::ZRBroker> broker)
      : StandIn(broker, "ZRPreferences"),
        fReal(std::make_unique<ZR::ZRPreferences>(broker, "RealPreferences")) {
    using ZR::ZRValue;
    const int s = ZR::TypeCodeString;
    const int b = ZR::TypeCodeBool;
    bind("readPrefFile", {s, b}, ZR::TypeCodeValue,
         [this](const ZRValue& a) { return fReal->readPrefFile(a[0].toString(), a[1].toBool()); });
    bind("writePrefFile", {s, ZR::TypeCodeValue, b}, ZR::TypeCodeVoid, [this](const ZRValue& a) {
      fReal->writePrefFile(a[0].toString(), a[1], a[2].toBool());
      return ZRValue();
    });
  }

  // The real module the calls are passed to.
  ZR::ZRPreferences& real() { return *fReal; }

private:
  std::unique_ptr<ZR::ZRPreferences> fReal;
};

// What a remote call ended with.
struct Outcome {
  bool threw = false;
  std::string module;
  std::string method;
  std::string description;
  ZR::ZRValue value;
};

// Calls module.method through the broker, as a remote caller does.
inline Outcome callRemote(ZR::ZRBroker& broker, const std::string& module,
                          const std::string& method, const std::vector<ZR::ZRValue>& args = {}) {
  Outcome outcome;
  try {
    outcome.value = broker.call(module, method, ZR::ZRValue(args));
  } catch (const ZR::ZRError& error) {
    outcome.threw = true;
    outcome.module = error.module();
    outcome.method = error.method();
    outcome.description = error.description();
  }
  return outcome;
}

using tuqvutest::eventually;

// Behavior files for the real frame manager.
inline const char* untilStoppedXar() {
  return "<behavior>\n  <repeat>\n    <wait ms=\"60000\"/>\n  </repeat>\n</behavior>\n";
}
inline const char* endsAtOnceXar() {
  return "<behavior/>\n";
}

}  // namespace faulttest
