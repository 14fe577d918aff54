// ZRProxy — the way one module calls another through the broker.
//
//   ZRProxy proxy(broker, "ZRMemory", 0, 0);
//   ZRValue v = proxy.call<ZRValue>("getData", std::string("BehaviorsRun"));
//   int task = proxy.pCall<std::string>("runBehavior", "dance");   // does not wait
//
// Only modules in the same process are supported in this version; naming a module the
// broker does not host throws ZRError saying so.
#pragma once

#include <zr/zrbroker.h>
#include <zr/zrvalue.h>

#include <boost/shared_ptr.hpp>
#include <string>
#include <type_traits>

namespace ZR {

namespace detail {

// A call posted by pCall: it runs later on one of the target module's task threads.
class PCallBase {
public:
  virtual ~PCallBase() = default;
  virtual void run() = 0;
};

// A posted call of a method with one argument of type T.
template <typename T>
class _pcall1 : public PCallBase {
public:
  _pcall1(boost::shared_ptr<ZRBroker> broker, std::string module, std::string method, T arg)
      : fBroker(std::move(broker)),
        fModule(std::move(module)),
        fMethod(std::move(method)),
        fArg(std::move(arg)) {}
  void run() override {
    ZRValue args = ZRValue::array();
    args.arrayPush(ZRValue(fArg));
    fBroker->call(fModule, fMethod, args);
  }

private:
  boost::shared_ptr<ZRBroker> fBroker;
  std::string fModule;
  std::string fMethod;
  T fArg;
};

}  // namespace detail

class ZRProxy {
public:
  // options and timeout are accepted for compatibility and must be 0.
  ZRProxy(boost::shared_ptr<ZRBroker> broker, const std::string& moduleName, int options = 0,
          int timeout = 0);
  virtual ~ZRProxy() = default;

  const std::string& moduleName() const { return fModule; }
  boost::shared_ptr<ZRBroker> broker() const { return fBroker; }

  // Calls with an argument array and returns the raw result.
  ZRValue genericCall(const std::string& method, const ZRValue& args);

  // Typed call: each argument becomes one ZRValue; the result is converted to R.
  template <typename R, typename... A>
  R call(const std::string& method, const A&... args) {
    ZRValue result = genericCall(method, pack(args...));
    return convertResult<R>(result);
  }

  // Posts method(arg) and returns the task id at once. T must be std::string here.
  template <typename T>
  int pCall(const std::string& method, const T& arg);

protected:
  template <typename... A>
  static ZRValue pack(const A&... args) {
    ZRValue array = ZRValue::array();
    (array.arrayPush(ZRValue(args)), ...);
    return array;
  }

private:
  template <typename R>
  static R convertResult(const ZRValue& result) {
    if constexpr (std::is_void_v<R>) {
      (void)result;
    } else if constexpr (std::is_same_v<R, ZRValue>) {
      return result;
    } else {
      return static_cast<R>(result);
    }
  }
  void requireLocalModule() const;

  boost::shared_ptr<ZRBroker> fBroker;
  std::string fModule;
};

template <>
int ZRProxy::pCall<std::string>(const std::string& method, const std::string& arg);

}  // namespace ZR
