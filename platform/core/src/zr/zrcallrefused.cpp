#include <zr/zrcallrefused.h>

namespace ZR {

ZRCallRefused::ZRCallRefused(Reason reason, const std::string& broker,
                             const std::string& targetModule, const std::string& targetMethod,
                             const std::string& description, const std::string& file, int line)
    : ZRError(broker, "call", description, file, line),
      fReason(reason),
      fTargetModule(targetModule),
      fTargetMethod(targetMethod) {}

}  // namespace ZR
