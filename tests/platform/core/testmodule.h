// A small module for the framework's own tests: it binds callables directly.
#pragma once

#include <zr/zrbinding.h>
#include <zr/zrfunctorbase.h>
#include <zr/zrmodule.h>
#include <zr/zrtypes.h>

#include <boost/make_shared.hpp>
#include <functional>
#include <string>

namespace zrtest {

class TestModule : public ZR::ZRModule {
public:
  using ZR::ZRModule::ZRModule;

  // Binds `target` as `name` with one parameter record per entry of paramTypes.
  void add(const std::string& name, const std::vector<int>& paramTypes, int returnType,
           ZR::ZRCallableFunctor::Target target, bool overload = false) {
    std::vector<std::pair<std::string, int>> params;
    for (std::size_t i = 0; i < paramTypes.size(); ++i) {
      params.emplace_back("p" + std::to_string(i + 1), paramTypes[i]);
    }
    ZR::bindCallable(*this, {name, "test method " + name, params, returnType, "", "", overload},
                     std::move(target));
  }
};

}  // namespace zrtest
