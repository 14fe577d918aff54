// The expressions of the web console ("?eval="): one call with literal arguments.
//
//   EvalCall call = parseEval("ZRBehaviorManager.runBehavior('dance')");
//   // call.module == "ZRBehaviorManager", call.method == "runBehavior", call.args == ["dance"]
//
// Arguments: strings in single or double quotes with backslash escapes (\n \t \r \b \f
// \v \0 \xHH \uXXXX, any other escaped character stands for itself), integers (those
// beyond 32 bits become floats), floats, true, false, null and arrays of these.
#pragma once

#include <zr/zrvalue.h>

#include <cstddef>
#include <stdexcept>
#include <string>

namespace tuqvu {
namespace broker {

struct EvalCall {
  std::string module;
  std::string method;
  ZR::ZRValue args;  // always an array
};

// An expression that cannot be parsed; position() is the byte offset of the problem.
class EvalSyntaxError : public std::runtime_error {
public:
  EvalSyntaxError(const std::string& message, std::size_t position)
      : std::runtime_error(message), fPosition(position) {}
  std::size_t position() const { return fPosition; }

private:
  std::size_t fPosition;
};

EvalCall parseEval(const std::string& expression);

}  // namespace broker
}  // namespace tuqvu
