// A small module for the framework's own tests: it binds callables directly.
#pragma once

#include <functional>
#include <string>

#include <boost/make_shared.hpp>

#include <zr/zrfunctorbase.h>
#include <zr/zrmodule.h>
#include <zr/zrtypes.h>

namespace zrtest {

class TestModule : public ZR::ZRModule {
public:
  using ZR::ZRModule::ZRModule;

  // Binds `target` as `name` with one parameter record per entry of paramTypes.
  void add(const std::string& name, const std::vector<int>& paramTypes, int returnType,
           ZR::ZRCallableFunctor::Target target, bool overload = false) {
    functionName(name, getName(), "test method " + name, 0);
    for (std::size_t i = 0; i < paramTypes.size(); ++i) {
      addParam("p" + std::to_string(i + 1), "parameter");
      getCurrentMethodDescription().parameters.back().type = ZR::getTypeString(paramTypes[i]);
    }
    getCurrentMethodDescription().returnType = ZR::getTypeString(returnType);
    auto functor = boost::make_shared<ZR::ZRCallableFunctor>(std::move(target));
    if (overload) {
      bindMethodOverload(functor);
    } else {
      bindMethod(functor);
    }
  }
};

}  // namespace zrtest
