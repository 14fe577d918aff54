#include <tuqvu/broker/registryjson.h>

namespace tuqvu {
namespace broker {

using nlohmann::json;

json modulesJson(const ZR::ZRBroker& broker) {
  json names = json::array();
  for (const std::string& name : broker.getModuleNames()) names.push_back(name);
  return names;
}

json methodsJson(const ZR::ZRBroker& broker, const std::string& module) {
  json methods = json::array();
  for (const ZR::ZRMethodInfo& info : broker.getMethods(module)) {
    json parameters = json::array();
    for (const auto& parameter : info.parameters) {
      parameters.push_back({{"name", parameter.name},
                            {"description", parameter.description},
                            {"type", parameter.type}});
    }
    methods.push_back({{"name", info.name},
                       {"description", info.description},
                       {"parameters", std::move(parameters)},
                       {"returnType", info.returnType},
                       {"returnName", info.returnName},
                       {"returnDescription", info.returnDescription}});
  }
  return methods;
}

}  // namespace broker
}  // namespace tuqvu
