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

bool BehaviorInstance::hasStarted() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fStarted;
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
  const bool completed = runSteps(0, fProgram->steps.size(), context);
  vu::log::write(vu::log::verbose, kRunCategory, fName,
                 std::string(completed ? "end" : "exit") + " of instance " + fId);
}

bool BehaviorInstance::runSteps(std::size_t begin, std::size_t end, Context& context) {
  for (std::size_t index = begin; index < end; index = fProgram->next(index)) {
    if (exitRequested()) return false;
    if (!runStep(index, context)) return false;
  }
  return true;
}

bool BehaviorInstance::waitOrExit(std::uint32_t milliseconds) {
  std::unique_lock<std::mutex> lock(fMutex);
  return !fWake.wait_for(lock, std::chrono::milliseconds(milliseconds),
                         [&] { return exitRequested(); });
}

std::string BehaviorInstance::describe(const BehaviorStep& step) const {
  return "behavior " + fName + " (" + fProgram->path + "), line " + std::to_string(step.line) +
         ", <" + stepName(step.kind) + ">";
}

bool BehaviorInstance::runStep(std::size_t index, Context& context) {
  const BehaviorProgram& program = *fProgram;
  const BehaviorStep& step = program.steps[index];
  switch (step.kind) {
    case BehaviorStep::Kind::log:
      vu::log::write(step.level, kRunCategory, fName, program.text(step.text));
      return true;
    case BehaviorStep::Kind::wait: return waitOrExit(step.number);
    case BehaviorStep::Kind::repeat:
      for (std::uint32_t i = 0; step.number == 0 || i < step.number; ++i) {
        if (!runSteps(index + 1, step.bodyEnd, context)) return false;
        if (exitRequested()) return false;
      }
      return true;
    case BehaviorStep::Kind::fail: {
      const std::string message = program.text(step.text);
      vu::log::write(vu::log::warning, kRunCategory, fName,
                     "instance " + fId + " failed: " + message);
      throw ZRError(context.module, kMethod, message, __FILE__, __LINE__);
    }
    case BehaviorStep::Kind::set:
    case BehaviorStep::Kind::raise:
    case BehaviorStep::Kind::call: break;
  }
  try {
    if (step.kind == BehaviorStep::Kind::call) {
      context.broker->call(program.text(step.text), program.text(step.method),
                           program.argumentsOf(step));
    } else {
      if (!context.memory) context.memory.reset(new ZRMemoryProxy(context.broker));
      if (step.kind == BehaviorStep::Kind::set) {
        context.memory->insertData(program.text(step.text), program.value(step.value));
      } else {
        context.memory->raiseMicroEvent(program.text(step.text), program.value(step.value));
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
