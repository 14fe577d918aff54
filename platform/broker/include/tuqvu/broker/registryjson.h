// The broker's registry as JSON, for "ZRBroker.getModules()",
// "ZRBroker.getMethods(module)", "ZRBroker.describeModule(module)" and "rpc.discover".
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

// {"name","description","methods": methodsJson}. Throws ZRError for a module that is not
// registered.
nlohmann::json moduleJson(const ZR::ZRBroker& broker, const std::string& module);

// An OpenRPC document of every method a client can call now: the broker's own, then each
// module's in registration order, "Module.method" with its description, its parameters
// by position (a method registered with several arities has one entry, the parameters
// beyond the shortest form not required) and its result, each with a JSON Schema of its
// type.
nlohmann::json openRpcDocument(const ZR::ZRBroker& broker, const std::string& version);

// The JSON Schema of a type as getTypeString writes it ("int", "std::string", ...); {}
// (anything) for a type it does not know.
nlohmann::json schemaOfType(const std::string& type);

}  // namespace broker
}  // namespace tuqvu
