#include <zr/zrerror.h>
#include <zr/zrmodulecore.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace ZR {

struct ZRModuleCore::CallInProgress::Count {
  // Guards calls; returned is notified when it drops. Never held while a method runs.
  std::mutex mutex;
  std::condition_variable returned;
  int calls = 0;
};

ZRModuleCore::ZRModuleCore(boost::shared_ptr<ZRBroker> broker, const std::string& name)
    : fName(name), fBroker(std::move(broker)), fCalls(std::make_shared<CallInProgress::Count>()) {}

ZRModuleCore::~ZRModuleCore() = default;

ZRModuleCore::CallInProgress::CallInProgress(const ZRModuleCore& module) : fCount(module.fCalls) {
  std::lock_guard<std::mutex> lock(fCount->mutex);
  ++fCount->calls;
}

ZRModuleCore::CallInProgress::~CallInProgress() {
  std::lock_guard<std::mutex> lock(fCount->mutex);
  --fCount->calls;
  fCount->returned.notify_all();
}

int ZRModuleCore::callsInProgress() const {
  std::lock_guard<std::mutex> lock(fCalls->mutex);
  return fCalls->calls;
}

bool ZRModuleCore::waitForCallsToReturn(int timeoutMs) const {
  std::unique_lock<std::mutex> lock(fCalls->mutex);
  return fCalls->returned.wait_for(lock, std::chrono::milliseconds(std::max(timeoutMs, 0)),
                                   [this] { return fCalls->calls == 0; });
}

void ZRModuleCore::setModuleDescription(const std::string& description) {
  boost::mutex::scoped_lock lock(fTableMutex);
  fDescription = description;
}

std::string ZRModuleCore::getModuleDescription() const {
  boost::mutex::scoped_lock lock(fTableMutex);
  return fDescription;
}

void ZRModuleCore::functionName(const std::string& name, const std::string& moduleName,
                                const std::string& description, int mask) {
  boost::mutex::scoped_lock lock(fTableMutex);
  fCurrent = ZRMethodInfo();
  fCurrent.name = name;
  fCurrent.moduleName = moduleName;
  fCurrent.description = description;
  fCurrent.mask = mask;
  fHasCurrent = true;
}

void ZRModuleCore::addParam(const std::string& name, const std::string& description) {
  boost::mutex::scoped_lock lock(fTableMutex);
  if (!fHasCurrent) {
    throw ZRError(fName, "addParam", "no method description is open for parameter " + name,
                  __FILE__, __LINE__);
  }
  fCurrent.parameters.push_back({name, description, ""});
}

void ZRModuleCore::setReturn(const std::string& name, const std::string& description) {
  boost::mutex::scoped_lock lock(fTableMutex);
  if (!fHasCurrent) {
    throw ZRError(fName, "setReturn", "no method description is open for result " + name, __FILE__,
                  __LINE__);
  }
  fCurrent.returnName = name;
  fCurrent.returnDescription = description;
}

ZRMethodInfo& ZRModuleCore::getCurrentMethodDescription() {
  boost::mutex::scoped_lock lock(fTableMutex);
  if (!fHasCurrent) {
    throw ZRError(fName, "getCurrentMethodDescription", "no method description is open", __FILE__,
                  __LINE__);
  }
  return fCurrent;
}

void ZRModuleCore::bindMethod(boost::shared_ptr<ZRFunctorBase> functor) {
  bind(std::move(functor), false);
}

void ZRModuleCore::bindMethodOverload(boost::shared_ptr<ZRFunctorBase> functor) {
  bind(std::move(functor), true);
}

void ZRModuleCore::bind(boost::shared_ptr<ZRFunctorBase> functor, bool overload) {
  boost::mutex::scoped_lock lock(fTableMutex);
  const char* method = overload ? "bindMethodOverload" : "bindMethod";
  if (!fHasCurrent) {
    throw ZRError(fName, method, "no method description is open", __FILE__, __LINE__);
  }
  if (!functor) {
    throw ZRError(fName, method, "empty functor for " + fCurrent.name, __FILE__, __LINE__);
  }
  for (const BoundMethod& bound : fMethods) {
    if (bound.info.name != fCurrent.name) continue;
    if (!overload) {
      throw ZRError(fName, method,
                    "method " + fCurrent.name + " is already bound; use bindMethodOverload",
                    __FILE__, __LINE__);
    }
    if (bound.info.arity() == fCurrent.arity()) {
      throw ZRError(fName, method,
                    "method " + fCurrent.name + " is already bound with " +
                        std::to_string(fCurrent.arity()) + " parameters",
                    __FILE__, __LINE__);
    }
  }
  fMethods.push_back({fCurrent, std::move(functor)});
  fCurrent = ZRMethodInfo();
  fHasCurrent = false;
}

bool ZRModuleCore::findMethod(const std::string& name, int arity, BoundMethod& out) const {
  boost::mutex::scoped_lock lock(fTableMutex);
  for (const BoundMethod& bound : fMethods) {
    if (bound.info.name == name && (arity < 0 || bound.info.arity() == arity)) {
      out = bound;
      return true;
    }
  }
  return false;
}

bool ZRModuleCore::hasMethod(const std::string& name) const {
  BoundMethod ignored;
  return findMethod(name, -1, ignored);
}

std::vector<ZRMethodInfo> ZRModuleCore::getMethods() const {
  boost::mutex::scoped_lock lock(fTableMutex);
  std::vector<ZRMethodInfo> methods;
  methods.reserve(fMethods.size());
  for (const BoundMethod& bound : fMethods) {
    methods.push_back(bound.info);
  }
  return methods;
}

std::string ZRModuleCore::httpGet() {
  std::string page = "<html><body><h1>" + fName + "</h1><p>" + getModuleDescription() + "</p><ul>";
  for (const ZRMethodInfo& info : getMethods()) {
    page += "<li><b>" + info.returnType + " " + info.name + "(";
    for (std::size_t i = 0; i < info.parameters.size(); ++i) {
      page += (i ? ", " : "") + info.parameters[i].type + " " + info.parameters[i].name;
    }
    page += ")</b> " + info.description + "</li>";
  }
  return page + "</ul></body></html>";
}

}  // namespace ZR
