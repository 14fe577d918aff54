// ZRModuleCore — a module's method table. A module describes each remote method and
// then binds the functor that implements it:
//
//   functionName("runBehavior", getName(), "Run a behavior", 0);
//   addParam("behavior", "Behavior name ");
//   completeAndCheck(&MyModule::runBehavior, getCurrentMethodDescription());
//   bindMethod(createFunctor(this, &MyModule::runBehavior));
//
// The broker finds methods by name and arity; introspection lists them in
// registration order.
#pragma once

#include <zr/zrfunctorbase.h>
#include <zr/zrmethodinfo.h>
#include <zr/zrvalue.h>

#include <atomic>
#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace ZR {

class ZRBroker;

class ZRModuleCore {
public:
  ZRModuleCore(boost::shared_ptr<ZRBroker> broker, const std::string& name);
  virtual ~ZRModuleCore();
  ZRModuleCore(const ZRModuleCore&) = delete;
  ZRModuleCore& operator=(const ZRModuleCore&) = delete;

  const std::string& getName() const { return fName; }
  boost::shared_ptr<ZRBroker> getParentBroker() const { return fBroker; }

  void setModuleDescription(const std::string& description);
  std::string getModuleDescription() const;

  // Opens the description of a new method; the following calls fill it in.
  void functionName(const std::string& name, const std::string& moduleName,
                    const std::string& description, int mask);
  void addParam(const std::string& name, const std::string& description);
  void setReturn(const std::string& name, const std::string& description);
  ZRMethodInfo& getCurrentMethodDescription();

  // Binds the functor to the open description and closes it. bindMethod refuses a
  // name that is already bound; bindMethodOverload accepts it when the arity differs.
  // Both throw ZRError when no description is open or the binding would be ambiguous.
  void bindMethod(boost::shared_ptr<ZRFunctorBase> functor);
  void bindMethodOverload(boost::shared_ptr<ZRFunctorBase> functor);

  struct BoundMethod {
    ZRMethodInfo info;
    boost::shared_ptr<ZRFunctorBase> functor;
  };

  // Looks a method up by name and arity (arity -1: the first method of that name).
  // Returns false when there is none.
  bool findMethod(const std::string& name, int arity, BoundMethod& out) const;
  bool hasMethod(const std::string& name) const;

  // Every bound method in registration order.
  std::vector<ZRMethodInfo> getMethods() const;

  // The page of this module in the broker's web interface (HTML). The default lists
  // the module's methods.
  virtual std::string httpGet();

  // Calls running in this module now: remote, posted, or from other modules. The
  // broker counts every call it dispatches here.
  int callsInProgress() const;
  // Waits until no call runs in this module; false when timeoutMs passed first.
  bool waitForCallsToReturn(int timeoutMs) const;

  // A module that ends whatever its calls wait for in its destructor, and then waits
  // for them (waitForCallsToReturn), says so here: at shutdown the broker then goes on
  // to destroy it without first waiting for its calls to finish on their own.
  void setEndsItsCallsWhenDestroyed(bool ends) { fEndsItsCallsWhenDestroyed.store(ends); }
  bool endsItsCallsWhenDestroyed() const { return fEndsItsCallsWhenDestroyed.load(); }

  // Counts one call in the module for as long as it lives (used by the broker). It
  // holds the count itself, not the module: a module may be destroyed as soon as its
  // method has done its work, while the call is still returning.
  class CallInProgress {
  public:
    explicit CallInProgress(const ZRModuleCore& module);
    ~CallInProgress();
    CallInProgress(const CallInProgress&) = delete;
    CallInProgress& operator=(const CallInProgress&) = delete;

  private:
    struct Count;
    friend class ZRModuleCore;
    std::shared_ptr<Count> fCount;
  };

private:
  void bind(boost::shared_ptr<ZRFunctorBase> functor, bool overload);

  const std::string fName;
  const boost::shared_ptr<ZRBroker> fBroker;

  // Guards the description, the method table and the open description: methods are
  // bound on the constructing thread while the broker may already look them up.
  mutable boost::mutex fTableMutex;
  std::string fDescription;
  std::vector<BoundMethod> fMethods;
  ZRMethodInfo fCurrent;
  bool fHasCurrent = false;

  // The calls running in the module; shared with them (see CallInProgress).
  const std::shared_ptr<CallInProgress::Count> fCalls;
  std::atomic<bool> fEndsItsCallsWhenDestroyed{false};
};

}  // namespace ZR
