#include <tuqvu/broker/registryjson.h>
#include <tuqvu/broker/rpcdispatcher.h>
#include <zr/zrerror.h>

#include <map>
#include <set>

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

json moduleJson(const ZR::ZRBroker& broker, const std::string& module) {
  return {{"name", module},
          {"description", broker.getModuleDescription(module)},
          {"methods", methodsJson(broker, module)}};
}

json schemaOfType(const std::string& type) {
  if (type == "void") return {{"type", "null"}};
  if (type == "bool") return {{"type", "boolean"}};
  if (type == "int") return {{"type", "integer"}};
  if (type == "float") return {{"type", "number"}};
  if (type == "std::string") return {{"type", "string"}};
  if (type == "std::vector<std::string>") {
    return {{"type", "array"}, {"items", {{"type", "string"}}}};
  }
  return json::object();  // a ZRValue: any JSON value
}

namespace {

json contentDescriptor(const std::string& name, const std::string& description,
                       const std::string& type) {
  json descriptor = {{"name", name}, {"schema", schemaOfType(type)}};
  if (!description.empty()) descriptor["description"] = description;
  return descriptor;
}

// One OpenRPC method for all the forms of a method name: the longest parameter list,
// the parameters the shorter forms lack marked as not required.
json openRpcMethod(const std::string& fullName, const std::vector<ZR::ZRMethodInfo>& forms) {
  const ZR::ZRMethodInfo* longest = &forms.front();
  std::size_t shortest = forms.front().parameters.size();
  for (const ZR::ZRMethodInfo& form : forms) {
    if (form.parameters.size() > longest->parameters.size()) longest = &form;
    shortest = std::min(shortest, form.parameters.size());
  }
  json params = json::array();
  std::set<std::string> taken;
  for (std::size_t i = 0; i < longest->parameters.size(); ++i) {
    const auto& parameter = longest->parameters[i];
    // Names must be there and differ from one another.
    std::string name = parameter.name.empty() ? "arg" + std::to_string(i + 1) : parameter.name;
    if (!taken.insert(name).second) {
      name += "_" + std::to_string(i + 1);
      taken.insert(name);
    }
    json descriptor = contentDescriptor(name, parameter.description, parameter.type);
    descriptor["required"] = i < shortest;
    params.push_back(std::move(descriptor));
  }
  json method = {
      {"name", fullName},
      {"paramStructure", "by-position"},
      {"params", std::move(params)},
      {"result", contentDescriptor(longest->returnName.empty() ? "result" : longest->returnName,
                                   longest->returnDescription, longest->returnType)}};
  if (!longest->description.empty()) method["description"] = longest->description;
  return method;
}

ZR::ZRMethodInfo brokerMethod(const std::string& name, const std::string& description,
                              const std::string& returnType, const std::string& returnName,
                              bool takesModule) {
  ZR::ZRMethodInfo info;
  info.name = name;
  info.description = description;
  info.returnType = returnType;
  info.returnName = returnName;
  if (takesModule)
    info.parameters.push_back({"module", "the name of a registered module", "std::string"});
  return info;
}

}  // namespace

json openRpcDocument(const ZR::ZRBroker& broker, const std::string& version) {
  json methods = json::array();
  const std::vector<ZR::ZRMethodInfo> own = {
      brokerMethod("getModules", "The names of the registered modules, in registration order.",
                   "std::vector<std::string>", "modules", false),
      brokerMethod("getMethods", "The methods of a module with their parameters and results.",
                   "ZRValue", "methods", true),
      brokerMethod("describeModule", "A module's name, its description and its methods.", "ZRValue",
                   "module", true)};
  for (const ZR::ZRMethodInfo& info : own) {
    methods.push_back(
        openRpcMethod(std::string(rpc::kIntrospectionModule) + "." + info.name, {info}));
  }
  for (const std::string& module : broker.getModuleNames()) {
    std::vector<ZR::ZRMethodInfo> infos;
    try {
      infos = broker.getMethods(module);
    } catch (const ZR::ZRError&) {
      continue;  // unregistered meanwhile
    }
    // Forms of one name together, in the order of their first registration.
    std::vector<std::string> order;
    std::map<std::string, std::vector<ZR::ZRMethodInfo>> forms;
    for (ZR::ZRMethodInfo& info : infos) {
      if (forms.find(info.name) == forms.end()) order.push_back(info.name);
      forms[info.name].push_back(std::move(info));
    }
    for (const std::string& name : order) {
      methods.push_back(openRpcMethod(module + "." + name, forms[name]));
    }
  }
  return {{"openrpc", "1.2.6"},
          {"info",
           {{"title", "tuqvu"},
            {"version", version},
            {"description",
             "The methods of the modules this broker hosts, called with JSON-RPC 2.0 at POST "
             "/rpc, parameters by position."}}},
          {"methods", std::move(methods)}};
}

}  // namespace broker
}  // namespace tuqvu
