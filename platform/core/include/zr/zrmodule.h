// ZRModule — the base of every module. Constructing one registers it by name with its
// broker; destroying it withdraws it. A module library exports one C entry point that
// constructs its module:
//
//   extern "C" ZR::ZRModule* tuqvuCreateModule(boost::shared_ptr<ZR::ZRBroker> broker,
//                                              const char* name);
#pragma once

#include <zr/zrmodulecore.h>

#include <boost/shared_ptr.hpp>
#include <string>

namespace ZR {

class ZRBroker;

class ZRModule : public ZRModuleCore {
public:
  ZRModule(boost::shared_ptr<ZRBroker> broker, const std::string& name);
  ~ZRModule() override;
};

// The signature and symbol name of a module library's entry point.
using ZRCreateModuleFunction = ZRModule* (*)(boost::shared_ptr<ZRBroker> broker, const char* name);
constexpr const char* kCreateModuleSymbol = "tuqvuCreateModule";

}  // namespace ZR
