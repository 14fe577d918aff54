// ZRFunctorBase — what the broker calls behind every bound method: the arguments
// arrive as one ZRValue array and the result goes back as one ZRValue.
// Typed functors over member functions come from the binding layer; the platform's
// own modules use ZRCallableFunctor.
#pragma once

#include <zr/zrvalue.h>

#include <functional>

namespace ZR {

class ZRFunctorBase {
public:
  virtual ~ZRFunctorBase() = default;
  // Converts the arguments, calls the target and stores its result (left untouched for
  // a target without result). Exceptions of the target pass through.
  virtual void call(const ZRValue& args, ZRValue& result) = 0;
};

// A functor over any callable; the callable checks and converts its own arguments.
class ZRCallableFunctor : public ZRFunctorBase {
public:
  using Target = std::function<void(const ZRValue& args, ZRValue& result)>;
  explicit ZRCallableFunctor(Target target) : fTarget(std::move(target)) {}
  void call(const ZRValue& args, ZRValue& result) override { fTarget(args, result); }

private:
  Target fTarget;
};

}  // namespace ZR
