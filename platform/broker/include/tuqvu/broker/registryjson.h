// The broker's registry as JSON, for "ZRBroker.getModules()" and
// "ZRBroker.getMethods(module)".
#pragma once

#include <zr/zrbroker.h>

#include <nlohmann/json.hpp>
#include <string>

namespace tuqvu {
namespace broker {

// ["ZRMemory", "ZRPreferences", ...] in registration order.
nlohmann::json modulesJson(const ZR::ZRBroker& broker);

// [{"name","description","parameters":[{"name","description","type"}],"returnType",
//   "returnName","returnDescription"}, ...] in registration order. Throws ZRError for a
// module that is not registered.
nlohmann::json methodsJson(const ZR::ZRBroker& broker, const std::string& module);

}  // namespace broker
}  // namespace tuqvu
