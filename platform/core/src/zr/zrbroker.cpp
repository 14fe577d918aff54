#include <vu/log.h>
#include <zr/zrbroker.h>
#include <zr/zrcallrefused.h>
#include <zr/zrerror.h>
#include <zr/zrmodulecore.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace ZR {

namespace {
const char* const kLogCategory = "zr.broker";
}

namespace {
// Whether the outermost call on this thread is one its module ends when destroyed. A
// call it makes into another module (a run waiting in the frame manager) ends with it.
thread_local int tCallDepth = 0;
thread_local bool tOutermostEndedByItsModule = false;
// Whether this thread serves a client of the broker (ClientCallScope).
thread_local bool tServesClient = false;
}  // namespace

ZRBroker::ClientCallScope::ClientCallScope() : fPrevious(tServesClient) {
  tServesClient = true;
}

ZRBroker::ClientCallScope::~ClientCallScope() {
  tServesClient = fPrevious;
}

bool ZRBroker::callIsFromClient() {
  return tServesClient && tCallDepth == 1;
}

// Counts one call in progress, in the broker and in its module, for as long as it
// lives, so shutdown() and the module's destructor can wait for it.
struct ZRBroker::CallScope {
  CallScope(ZRBroker& broker, const ZRModuleCore& module)
      : fBroker(broker),
        fInModule(module),
        fEndedByItsModule(tCallDepth > 0 ? tOutermostEndedByItsModule
                                         : module.endsItsCallsWhenDestroyed()) {
    if (tCallDepth++ == 0) tOutermostEndedByItsModule = fEndedByItsModule;
    std::lock_guard<std::mutex> lock(fBroker.fActivityMutex);
    ++fBroker.fCallsInProgress;
    if (fEndedByItsModule) ++fBroker.fCallsEndedByTheirModules;
  }
  ~CallScope() {
    --tCallDepth;
    std::lock_guard<std::mutex> lock(fBroker.fActivityMutex);
    --fBroker.fCallsInProgress;
    if (fEndedByItsModule) --fBroker.fCallsEndedByTheirModules;
    fBroker.fIdle.notify_all();
  }
  ZRBroker& fBroker;
  ZRModuleCore::CallInProgress fInModule;
  const bool fEndedByItsModule;
};

boost::shared_ptr<ZRBroker> ZRBroker::create(const std::string& name) {
  return boost::shared_ptr<ZRBroker>(new ZRBroker(name));
}

ZRBroker::ZRBroker(const std::string& name) : fName(name) {}

ZRBroker::~ZRBroker() = default;

void ZRBroker::registerModule(ZRModuleCore* module) {
  std::lock_guard<std::mutex> lock(fModulesMutex);
  for (const ZRModuleCore* existing : fModules) {
    if (existing->getName() == module->getName()) {
      throw ZRError(fName, "registerModule",
                    "a module named " + module->getName() + " is already registered", __FILE__,
                    __LINE__);
    }
  }
  fModules.push_back(module);
}

void ZRBroker::unregisterModule(ZRModuleCore* module) {
  std::lock_guard<std::mutex> lock(fModulesMutex);
  fModules.erase(std::remove(fModules.begin(), fModules.end(), module), fModules.end());
}

ZRModuleCore* ZRBroker::findModule(const std::string& name) const {
  std::lock_guard<std::mutex> lock(fModulesMutex);
  for (ZRModuleCore* module : fModules) {
    if (module->getName() == name) return module;
  }
  return nullptr;
}

bool ZRBroker::hasModule(const std::string& name) const {
  return findModule(name) != nullptr;
}

std::vector<std::string> ZRBroker::getModuleNames() const {
  std::lock_guard<std::mutex> lock(fModulesMutex);
  std::vector<std::string> names;
  for (const ZRModuleCore* module : fModules) names.push_back(module->getName());
  return names;
}

std::vector<ZRMethodInfo> ZRBroker::getMethods(const std::string& module) const {
  const ZRModuleCore* target = findModule(module);
  if (target == nullptr) {
    throw ZRError(fName, "getMethods", "module " + module + " is not registered", __FILE__,
                  __LINE__);
  }
  return target->getMethods();
}

std::string ZRBroker::getModuleDescription(const std::string& module) const {
  const ZRModuleCore* target = findModule(module);
  if (target == nullptr) {
    throw ZRError(fName, "getModuleDescription", "module " + module + " is not registered",
                  __FILE__, __LINE__);
  }
  return target->getModuleDescription();
}

std::string ZRBroker::modulePage(const std::string& module) {
  ZRModuleCore* target = findModule(module);
  if (target == nullptr) {
    throw ZRError(fName, "modulePage", "module " + module + " is not registered", __FILE__,
                  __LINE__);
  }
  CallScope scope(*this, *target);
  return target->httpGet();
}

ZRValue ZRBroker::call(const std::string& module, const std::string& method, const ZRValue& args) {
  if (fShuttingDown.load()) {
    throw ZRError(fName, "call",
                  "the broker is shutting down; " + module + "." + method + " was not called",
                  __FILE__, __LINE__);
  }
  if (args.isValid() && !args.isArray()) {
    throw ZRCallRefused(ZRCallRefused::Reason::WrongArguments, fName, module, method,
                        "the arguments of " + module + "." + method + " must be an array", __FILE__,
                        __LINE__);
  }
  const ZRModuleCore* target = findModule(module);
  if (target == nullptr) {
    throw ZRCallRefused(ZRCallRefused::Reason::NoSuchModule, fName, module, method,
                        "module " + module + " is not registered", __FILE__, __LINE__);
  }
  const int arity = static_cast<int>(args.size());
  ZRModuleCore::BoundMethod bound;
  if (!target->findMethod(method, arity, bound)) {
    if (target->hasMethod(method)) {
      throw ZRCallRefused(
          ZRCallRefused::Reason::WrongArguments, fName, module, method,
          "method " + module + "." + method + " takes no " + std::to_string(arity) + " arguments",
          __FILE__, __LINE__);
    }
    throw ZRCallRefused(ZRCallRefused::Reason::NoSuchMethod, fName, module, method,
                        "module " + module + " has no method " + method, __FILE__, __LINE__);
  }
  CallScope scope(*this, *target);
  ZRValue result;
  bound.functor->call(args.isValid() ? args : ZRValue::array(), result);
  return result;
}

int ZRBroker::post(const std::string& module, const std::string& method, const ZRValue& args) {
  const ZRModuleCore* target = findModule(module);
  if (target == nullptr) {
    throw ZRError(fName, "post", "module " + module + " is not registered", __FILE__, __LINE__);
  }
  ZRModuleCore::BoundMethod bound;
  if (!target->findMethod(method, static_cast<int>(args.size()), bound)) {
    throw ZRError(fName, "post",
                  "module " + module + " has no method " + method + " taking " +
                      std::to_string(args.size()) + " arguments",
                  __FILE__, __LINE__);
  }
  boost::shared_ptr<ZRBroker> self = shared_from_this();
  return postTask(module, [self, module, method, args]() { self->call(module, method, args); });
}

int ZRBroker::postTask(const std::string& module, std::function<void()> work) {
  if (fShuttingDown.load()) {
    throw ZRError(fName, "post", "the broker is shutting down; nothing is posted to " + module,
                  __FILE__, __LINE__);
  }
  int id = 0;
  {
    std::lock_guard<std::mutex> lock(fActivityMutex);
    id = fNextTaskId++;
    fTasksRunning[id] = true;
    ++fTasksInProgress;
  }
  boost::shared_ptr<ZRBroker> self = shared_from_this();
  // One thread per task: a posted call may block for as long as a behavior runs.
  std::thread([self, id, module, work = std::move(work)]() {
    try {
      work();
    } catch (const std::exception& error) {
      vu::log::write(vu::log::error, kLogCategory, "postTask",
                     "task " + std::to_string(id) + " of " + module + " failed: " + error.what());
    } catch (...) {
      vu::log::write(vu::log::error, kLogCategory, "postTask",
                     "task " + std::to_string(id) + " of " + module + " failed");
    }
    std::lock_guard<std::mutex> lock(self->fActivityMutex);
    self->fTasksRunning[id] = false;
    --self->fTasksInProgress;
    self->fIdle.notify_all();
  }).detach();
  return id;
}

bool ZRBroker::isTaskRunning(int taskId) const {
  std::lock_guard<std::mutex> lock(fActivityMutex);
  const auto found = fTasksRunning.find(taskId);
  return found != fTasksRunning.end() && found->second;
}

bool ZRBroker::waitTask(int taskId, int timeoutMs) {
  std::unique_lock<std::mutex> lock(fActivityMutex);
  const auto done = [&] {
    const auto found = fTasksRunning.find(taskId);
    return found == fTasksRunning.end() || !found->second;
  };
  if (timeoutMs < 0) {
    fIdle.wait(lock, done);
    return true;
  }
  return fIdle.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
}

ZRBroker::CallCounts ZRBroker::callsInProgress() const {
  std::lock_guard<std::mutex> lock(fActivityMutex);
  return CallCounts{fCallsInProgress, fCallsEndedByTheirModules};
}

bool ZRBroker::shutdown(int graceMs) {
  fShuttingDown.store(true);
  std::unique_lock<std::mutex> lock(fActivityMutex);
  return fIdle.wait_for(lock, std::chrono::milliseconds(std::max(graceMs, 0)),
                        [&] { return fCallsInProgress == 0 && fTasksInProgress == 0; });
}

void ZRBroker::publishFileFolders(std::shared_ptr<const ZRFileFolders> folders) {
  std::lock_guard<std::mutex> lock(fFileFoldersMutex);
  fFileFolders = std::move(folders);
}

void ZRBroker::withdrawFileFolders(const ZRFileFolders* folders) {
  std::lock_guard<std::mutex> lock(fFileFoldersMutex);
  if (fFileFolders.get() == folders) fFileFolders.reset();
}

std::shared_ptr<const ZRFileFolders> ZRBroker::fileFolders() const {
  std::lock_guard<std::mutex> lock(fFileFoldersMutex);
  return fFileFolders;
}

}  // namespace ZR
