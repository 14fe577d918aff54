// A module registered directly with a broker in the test process, for the tests of the
// server pieces that do not need the daemon.
#pragma once

#include <zr/zrbinding.h>
#include <zr/zrfunctorbase.h>
#include <zr/zrmodule.h>
#include <zr/zrtypes.h>

#include <boost/make_shared.hpp>
#include <string>
#include <utility>
#include <vector>

namespace brokertest {

class InProcessModule : public ZR::ZRModule {
public:
  using ZR::ZRModule::ZRModule;

  // Binds target as name; params are (name, type code) pairs.
  void add(const std::string& name, const std::vector<std::pair<std::string, int>>& params,
           int returnType, ZR::ZRCallableFunctor::Target target, bool overload = false) {
    ZR::bindCallable(
        *this,
        {name, "does " + name, params, returnType, "return", "what " + name + " gives", overload},
        std::move(target));
  }
};

}  // namespace brokertest
