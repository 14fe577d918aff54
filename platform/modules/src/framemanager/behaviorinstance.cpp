#include "framemanager/behaviorinstance.h"

#include <vu/log.h>
#include <zr/proxies/zrmemoryproxy.h>
#include <zr/zrbroker.h>
#include <zr/zrerror.h>

#include <chrono>

namespace ZR {
namespace detail {
namespace {

const char* const kRunCategory = "behavior.run";
const char* const kMethod = "completeBehavior";

}  // namespace

struct BehaviorInstance::Context {
  const std::string module;
  const boost::shared_ptr<ZRBroker> broker;
  std::unique_ptr<ZRMemoryProxy> memory;  // made at the first <set> or <raise>
};

BehaviorInstance::BehaviorInstance(std::string id, std::string name,
                                   std::shared_ptr<const BehaviorProgram> program)
    : fId(std::move(id)), fName(std::move(name)), fProgram(std::move(program)) {}

void BehaviorInstance::requestExit() {
  {
    std::lock_guard<std::mutex> lock(fMutex);
    fExitRequested.store(true, std::memory_order_release);
  }
  fWake.notify_all();
}

bool BehaviorInstance::isRunning() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fRunning;
}

bool BehaviorInstance::isWaitingForFirstRun() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return !fStarted && !exitRequested();
}

void BehaviorInstance::run(std::string module, boost::shared_ptr<ZRBroker> broker) {
  {
    std::lock_guard<std::mutex> lock(fMutex);
    if (fRunning) {
      throw ZRError(module, kMethod,
                    "behavior instance " + fId + " (" + fName + ") is already running", __FILE__,
                    __LINE__);
    }
    fStarted = true;
    if (fExitRequested.exchange(false)) return;  // stopped before it started
    fRunning = true;
  }
  // Whatever ends the run, the instance is idle again and a later exit request
  // concerns the next run only.
  struct EndOfRun {
    BehaviorInstance& instance;
    ~EndOfRun() {
      std::lock_guard<std::mutex> lock(instance.fMutex);
      instance.fRunning = false;
      instance.fExitRequested.store(false);
    }
  } endOfRun{*this};

  Context context{std::move(module), std::move(broker), nullptr};
  vu::log::write(vu::log::verbose, kRunCategory, fName, "start of instance " + fId);
  const bool completed = runSteps(fProgram->steps, context);
  vu::log::write(vu::log::verbose, kRunCategory, fName,
                 std::string(completed ? "end" : "exit") + " of instance " + fId);
}

bool BehaviorInstance::runSteps(const std::vector<BehaviorStep>& steps, Context& context) {
  for (const BehaviorStep& step : steps) {
    if (exitRequested()) return false;
    if (!runStep(step, context)) return false;
  }
  return true;
}

bool BehaviorInstance::waitOrExit(int milliseconds) {
  std::unique_lock<std::mutex> lock(fMutex);
  return !fWake.wait_for(lock, std::chrono::milliseconds(milliseconds),
                         [&] { return exitRequested(); });
}

std::string BehaviorInstance::describe(const BehaviorStep& step) const {
  return "behavior " + fName + " (" + fProgram->path + "), line " + std::to_string(step.line) +
         ", <" + stepName(step.kind) + ">";
}

bool BehaviorInstance::runStep(const BehaviorStep& step, Context& context) {
  switch (step.kind) {
    case BehaviorStep::Kind::log:
      vu::log::write(step.level, kRunCategory, fName, step.text);
      return true;
    case BehaviorStep::Kind::wait: return waitOrExit(step.milliseconds);
    case BehaviorStep::Kind::repeat:
      for (int i = 0; step.count == 0 || i < step.count; ++i) {
        if (!runSteps(step.body, context)) return false;
        if (exitRequested()) return false;
      }
      return true;
    case BehaviorStep::Kind::fail:
      vu::log::write(vu::log::warning, kRunCategory, fName,
                     "instance " + fId + " failed: " + step.text);
      throw ZRError(context.module, kMethod, step.text, __FILE__, __LINE__);
    case BehaviorStep::Kind::set:
    case BehaviorStep::Kind::raise:
    case BehaviorStep::Kind::call: break;
  }
  try {
    if (step.kind == BehaviorStep::Kind::call) {
      context.broker->call(step.module, step.method, step.args);
    } else {
      if (!context.memory) context.memory.reset(new ZRMemoryProxy(context.broker));
      if (step.kind == BehaviorStep::Kind::set) {
        context.memory->insertData(step.key, step.value);
      } else {
        context.memory->raiseMicroEvent(step.key, step.value);
      }
    }
  } catch (const ZRError& error) {
    throw ZRError(context.module, kMethod, describe(step) + " failed: " + error.description(),
                  __FILE__, __LINE__);
  } catch (const std::exception& error) {
    throw ZRError(context.module, kMethod, describe(step) + " failed: " + error.what(), __FILE__,
                  __LINE__);
  }
  return true;
}

}  // namespace detail
}  // namespace ZR
