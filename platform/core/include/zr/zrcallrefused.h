// ZRCallRefused — what the broker throws when it did not make a call at all: the target
// module or method does not exist, or the method takes no such arguments. It names the
// call it refused, so that a caller can tell the refusal of its own call from one that a
// method met in a call of its own and passed on.
//
//   try { broker.call("ZRMemory", "getData", args); }
//   catch (const ZRCallRefused& refused) { if (refused.targetMethod() == "getData") ... }
#pragma once

#include <zr/zrerror.h>

#include <string>

namespace ZR {

class ZRCallRefused : public ZRError {
public:
  enum class Reason { NoSuchModule, NoSuchMethod, WrongArguments };

  // `broker`: the refusing broker's name, the error's module; its method is "call".
  ZRCallRefused(Reason reason, const std::string& broker, const std::string& targetModule,
                const std::string& targetMethod, const std::string& description,
                const std::string& file = "", int line = 0);

  Reason reason() const { return fReason; }
  const std::string& targetModule() const { return fTargetModule; }
  const std::string& targetMethod() const { return fTargetMethod; }

private:
  Reason fReason;
  std::string fTargetModule;
  std::string fTargetMethod;
};

}  // namespace ZR
