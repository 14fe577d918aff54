// A module registered under a platform module's name that forwards every method of the
// real module (hosted under another name) and lets a test look at or act on each call
// first, on the caller's thread.
//
//   Interposer memory(broker, "ZRMemory", "RealMemory",
//                     [](const std::string& method, const ZR::ZRValue& args) { ... });
#pragma once

#include <zr/zrbroker.h>
#include <zr/zrfunctorbase.h>
#include <zr/zrmodule.h>
#include <zr/zrvalue.h>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <functional>
#include <set>
#include <string>
#include <utility>

namespace bmtest {

class Interposer : public ZR::ZRModule {
public:
  using Hook = std::function<void(const std::string& method, const ZR::ZRValue& args)>;
  Interposer(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name,
             const std::string& target, Hook hook)
      : ZR::ZRModule(broker, name), fHook(std::move(hook)) {
    std::set<std::string> bound;
    for (const ZR::ZRMethodInfo& info : broker->getMethods(target)) {
      functionName(info.name, getName(), info.description, 0);
      for (const auto& parameter : info.parameters) addParam(parameter.name, parameter.description);
      const std::string method = info.name;
      auto functor = boost::make_shared<ZR::ZRCallableFunctor>(
          [this, target, method](const ZR::ZRValue& args, ZR::ZRValue& result) {
            if (fHook) fHook(method, args);
            result = getParentBroker()->call(target, method, args);
          });
      if (bound.insert(method).second) {
        bindMethod(functor);
      } else {
        bindMethodOverload(functor);
      }
    }
  }

private:
  Hook fHook;
};

}  // namespace bmtest
