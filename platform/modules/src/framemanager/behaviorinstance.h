// One instance of a behavior: its program and the state of its run. run() executes
// the steps on the caller's thread; requestExit() from any thread makes it return
// promptly, also from the middle of a <wait>.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framemanager/behaviorprogram.h"

namespace ZR {

class ZRBroker;

namespace detail {

class BehaviorInstance {
public:
  BehaviorInstance(std::string id, std::string name,
                   std::shared_ptr<const BehaviorProgram> program);

  const std::string& id() const { return fId; }
  const std::string& name() const { return fName; }
  const BehaviorProgram& program() const { return *fProgram; }

  // Runs the steps until the end, a failing step (ZRError) or an exit request. An exit
  // requested while the instance was not running ends the next run before its first
  // step. A second run of the same instance at the same time is a ZRError.
  // module names the frame manager in errors; both are copied, so a run that is still
  // returning does not depend on the frame manager that started it.
  void run(std::string module, boost::shared_ptr<ZRBroker> broker);
  void requestExit();
  bool isRunning() const;
  // True until the first run begins or an exit is requested: an instance made ready
  // ahead of its run (a preload) that nobody has used yet.
  bool isWaitingForFirstRun() const;
  // Whether a run has begun at least once (even one that an exit request ended at once).
  bool hasStarted() const;

private:
  struct Context;
  // Each returns false when an exit request ended it. runSteps runs the steps from
  // `begin` up to `end` at one level of the program.
  bool runSteps(std::size_t begin, std::size_t end, Context& context);
  bool runStep(std::size_t index, Context& context);
  bool waitOrExit(std::uint32_t milliseconds);
  std::string describe(const BehaviorStep& step) const;  // the step's place, for error messages
  bool exitRequested() const { return fExitRequested.load(std::memory_order_acquire); }

  const std::string fId;
  const std::string fName;
  const std::shared_ptr<const BehaviorProgram> fProgram;

  // Guards fRunning, fStarted and the waits on fWake; fExitRequested is also read without it
  // between steps, and written under it so that a waiting run cannot miss it.
  mutable std::mutex fMutex;
  std::condition_variable fWake;
  std::atomic<bool> fExitRequested{false};
  bool fRunning = false;
  bool fStarted = false;  // a run has begun at least once
};

}  // namespace detail
}  // namespace ZR
