#include <tuqvu/broker/jsonio.h>
#include <tuqvu/broker/registryjson.h>
#include <tuqvu/broker/rpcdispatcher.h>
#include <zr/zrcallrefused.h>
#include <zr/zrerror.h>
#include <zr/zrvaluejson.h>

#include <algorithm>
#include <chrono>

#ifndef TUQVU_VERSION
#define TUQVU_VERSION "unknown"
#endif

namespace tuqvu {
namespace broker {

using nlohmann::json;

namespace {

CallOutcome success(std::string resultJson) {
  CallOutcome outcome;
  outcome.ok = true;
  outcome.result = std::move(resultJson);
  return outcome;
}

CallOutcome failure(int code, const std::string& message, const json& data = nullptr) {
  CallOutcome outcome;
  outcome.error = rpcError(code, message, data);
  return outcome;
}

json errorData(const std::string& module, const std::string& method, const std::string& description,
               const std::string& source, int line) {
  return {{"module", module},
          {"method", method},
          {"description", description},
          {"source", source},
          {"line", line}};
}

CallOutcome callFailed(const ZR::ZRError& error) {
  return failure(
      rpc::kCallFailed, error.what(),
      errorData(error.module(), error.method(), error.description(), error.file(), error.line()));
}

std::string responseText(const json& id, const CallOutcome& outcome) {
  std::string text = "{\"jsonrpc\":\"2.0\",\"id\":" + dumpJson(id);
  if (outcome.ok) {
    text += ",\"result\":" + outcome.result;
  } else {
    text += ",\"error\":" + dumpJson(outcome.error);
  }
  return text + "}";
}

std::string errorResponse(const json& id, int code, const std::string& message) {
  return responseText(id, failure(code, message));
}

}  // namespace

json rpcError(int code, const std::string& message, const json& data) {
  json error = {{"code", code}, {"message", message}};
  if (!data.is_null()) error["data"] = data;
  return error;
}

RpcDispatcher::RpcDispatcher(boost::shared_ptr<ZR::ZRBroker> broker)
    : fBroker(std::move(broker)), fCalls(std::make_unique<CallMetrics>(fBroker->metrics())) {}

std::string RpcDispatcher::handle(const std::string& body) const {
  json document;
  try {
    document = parseJson(body);
  } catch (const JsonParseError& error) {
    fCalls->rejected(CallMetrics::Rejection::InvalidRequest);
    return errorResponse(nullptr, rpc::kParseError, std::string("Parse error: ") + error.what());
  }
  if (!document.is_array()) return handleOne(document).value_or("");
  if (document.empty()) {
    fCalls->rejected(CallMetrics::Rejection::InvalidRequest);
    return errorResponse(nullptr, rpc::kInvalidRequest, "Invalid Request: empty batch");
  }
  std::string replies;
  for (const json& request : document) {
    if (auto reply = handleOne(request)) replies += (replies.empty() ? "" : ",") + *reply;
  }
  return replies.empty() ? "" : "[" + replies + "]";
}

std::optional<std::string> RpcDispatcher::handleOne(const json& request) const {
  if (!request.is_object()) {
    fCalls->rejected(CallMetrics::Rejection::InvalidRequest);
    return errorResponse(nullptr, rpc::kInvalidRequest, "Invalid Request: not a JSON object");
  }
  const auto idMember = request.find("id");
  const bool notification = idMember == request.end();
  const json id = notification ? json(nullptr) : *idMember;
  if (!id.is_null() && !id.is_string() && !id.is_number()) {
    return errorResponse(nullptr, rpc::kInvalidRequest,
                         "Invalid Request: id must be a string, a number or null");
  }
  const auto reply = [&](const CallOutcome& outcome) -> std::optional<std::string> {
    if (notification) return std::nullopt;
    return responseText(id, outcome);
  };
  // An object that is not a well-formed request is no notification, whether or not it has
  // an id: it is answered, with a null id when it has none.
  const auto refuse = [&](const std::string& message) -> std::optional<std::string> {
    fCalls->rejected(CallMetrics::Rejection::InvalidRequest);
    return responseText(id, failure(rpc::kInvalidRequest, message));
  };
  // The answer of a call refused here, before it was made, counted as that method's.
  const auto refuseCall = [&](const std::string& module, const std::string& method,
                              const CallOutcome& outcome) {
    count(module, method, outcome);
    return reply(outcome);
  };

  const auto version = request.find("jsonrpc");
  if (version == request.end() || !version->is_string() || *version != "2.0") {
    return refuse("Invalid Request: \"jsonrpc\" must be \"2.0\"");
  }
  const auto methodMember = request.find("method");
  if (methodMember == request.end() || !methodMember->is_string()) {
    return refuse("Invalid Request: \"method\" must be a string");
  }
  const std::string& fullName = methodMember->get_ref<const std::string&>();
  if (fullName == rpc::kDiscover) {
    const auto params = request.find("params");
    if (params != request.end() && !(params->is_array() && params->empty())) {
      return refuseCall("rpc", "discover",
                        failure(rpc::kInvalidParams, "Invalid params: rpc.discover takes none"));
    }
    const auto started = std::chrono::steady_clock::now();
    CallOutcome document = success(dumpJson(openRpcDocument(*fBroker, TUQVU_VERSION)));
    count("rpc", "discover", document,
          std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    return reply(document);
  }
  const std::size_t dot = fullName.find('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == fullName.size()) {
    fCalls->rejected(CallMetrics::Rejection::MethodNotFound);
    return reply(failure(rpc::kMethodNotFound, "Method not found: \"" + fullName +
                                                   "\" is not of the form Module.method"));
  }
  const std::string module = fullName.substr(0, dot);
  const std::string method = fullName.substr(dot + 1);
  ZR::ZRValue args = ZR::ZRValue::array();
  const auto params = request.find("params");
  if (params != request.end()) {
    // A method that does not exist is named as such, whatever its parameters look like.
    if (auto missing = methodNotFound(module, method); missing && !params->is_array()) {
      return refuseCall(module, method, *missing);
    }
    if (params->is_object()) {
      return refuseCall(module, method,
                        failure(rpc::kInvalidParams,
                                "Invalid params: parameters are passed by position, in an array"));
    }
    if (!params->is_array()) {
      return refuse("Invalid Request: \"params\" must be an array");
    }
    try {
      args = toValue(*params);
    } catch (const std::exception& error) {
      if (auto missing = methodNotFound(module, method)) {
        return refuseCall(module, method, *missing);
      }
      const auto* zrError = dynamic_cast<const ZR::ZRError*>(&error);
      return refuseCall(
          module, method,
          failure(rpc::kInvalidParams, "Invalid params: " + (zrError ? zrError->description()
                                                                     : std::string(error.what()))));
    }
  }
  return reply(invoke(module, method, args));
}

CallOutcome RpcDispatcher::invoke(const std::string& module, const std::string& method,
                                  const ZR::ZRValue& args) const {
  const auto started = std::chrono::steady_clock::now();
  CallOutcome outcome = invokeUncounted(module, method, args);
  count(module, method, outcome,
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
  return outcome;
}

void RpcDispatcher::count(const std::string& module, const std::string& method,
                          const CallOutcome& outcome, double seconds) const {
  const int code = outcome.ok ? 0 : outcome.error.value("code", rpc::kCallFailed);
  // Names no module has get no series of their own.
  if (code == rpc::kMethodNotFound) return fCalls->rejected(CallMetrics::Rejection::MethodNotFound);
  if (code == rpc::kInvalidRequest) return fCalls->rejected(CallMetrics::Rejection::InvalidRequest);
  const CallMetrics::Method* series = fCalls->method(module, method);
  if (series == nullptr) return;
  if (code == rpc::kInvalidParams) return series->refused->increment();  // not made
  (outcome.ok ? series->ok : series->error)->increment();
  if (seconds >= 0) series->duration->observe(seconds);
}

CallOutcome RpcDispatcher::invokeUncounted(const std::string& module, const std::string& method,
                                           const ZR::ZRValue& args) const {
  if (module == rpc::kIntrospectionModule) return introspect(method, args);
  try {
    const ZR::ZRBroker::ClientCallScope fromClient;
    return success(ZR::toJson(fBroker->call(module, method, args)));
  } catch (const ZR::ZRCallRefused& refused) {
    // Only the refusal of this very call is the caller's mistake; one that the method met
    // in a call of its own is the method's failure. The refusal is answered from the
    // method table as it is now (a module may have been registered meanwhile).
    if (refused.targetModule() == module && refused.targetMethod() == method) {
      if (auto refusal = classifyRefusal(module, method, static_cast<int>(args.size()))) {
        return *refusal;
      }
    }
    return callFailed(refused);
  } catch (const ZR::ZRError& error) {
    return callFailed(error);
  } catch (const std::exception& error) {
    return failure(rpc::kCallFailed, error.what(), errorData(module, method, error.what(), "", 0));
  } catch (...) {
    return failure(rpc::kCallFailed, module + "." + method + " failed with an unknown exception",
                   errorData(module, method, "unknown exception", "", 0));
  }
}

std::optional<std::vector<int>> RpcDispatcher::aritiesOf(const std::string& module,
                                                         const std::string& method) const {
  if (!fBroker->hasModule(module)) return std::nullopt;
  std::vector<ZR::ZRMethodInfo> methods;
  try {
    methods = fBroker->getMethods(module);
  } catch (const ZR::ZRError&) {
    return std::nullopt;  // unregistered meanwhile
  }
  std::vector<int> arities;
  for (const ZR::ZRMethodInfo& info : methods) {
    if (info.name == method) arities.push_back(info.arity());
  }
  return arities;
}

std::optional<CallOutcome> RpcDispatcher::methodNotFound(const std::string& module,
                                                         const std::string& method) const {
  if (module == rpc::kIntrospectionModule) {
    if (method == "getModules" || method == "getMethods" || method == "describeModule") {
      return std::nullopt;
    }
    return introspect(method, ZR::ZRValue::array());  // its "Method not found"
  }
  const std::optional<std::vector<int>> arities = aritiesOf(module, method);
  if (!arities) {
    return failure(rpc::kMethodNotFound,
                   "Method not found: module " + module + " is not registered");
  }
  if (arities->empty()) {
    return failure(rpc::kMethodNotFound,
                   "Method not found: module " + module + " has no method " + method);
  }
  return std::nullopt;
}

std::optional<CallOutcome> RpcDispatcher::classifyRefusal(const std::string& module,
                                                          const std::string& method,
                                                          int arity) const {
  if (auto missing = methodNotFound(module, method)) return missing;
  const std::vector<int> arities = aritiesOf(module, method).value_or(std::vector<int>());
  if (arities.empty() || std::find(arities.begin(), arities.end(), arity) != arities.end()) {
    return std::nullopt;  // the method is there now, with this arity: not a refusal of ours
  }
  std::string expected;
  for (std::size_t i = 0; i < arities.size(); ++i) {
    expected +=
        (i == 0 ? "" : (i + 1 == arities.size() ? " or " : ", ")) + std::to_string(arities[i]);
  }
  return failure(rpc::kInvalidParams, "Invalid params: " + module + "." + method + " takes " +
                                          expected + " argument(s), not " + std::to_string(arity));
}

CallOutcome RpcDispatcher::introspect(const std::string& method, const ZR::ZRValue& args) const {
  const std::string module = rpc::kIntrospectionModule;
  if (method == "getModules") {
    if (args.size() != 0) {
      return failure(rpc::kInvalidParams,
                     "Invalid params: ZRBroker.getModules takes 0 argument(s), not " +
                         std::to_string(args.size()));
    }
    return success(dumpJson(modulesJson(*fBroker)));
  }
  if (method == "getMethods") {
    if (args.size() != 1) {
      return failure(rpc::kInvalidParams,
                     "Invalid params: ZRBroker.getMethods takes 1 argument(s), not " +
                         std::to_string(args.size()));
    }
    if (!args[0].isString()) {
      return failure(rpc::kInvalidParams,
                     "Invalid params: ZRBroker.getMethods expects a module name (a string), not " +
                         ZR::ZRValue::TypeToString(args[0].getType()));
    }
    try {
      return success(dumpJson(methodsJson(*fBroker, args[0].toString())));
    } catch (const ZR::ZRError& error) {
      return failure(rpc::kCallFailed, error.what(),
                     errorData(module, method, error.description(), error.file(), error.line()));
    }
  }
  if (method == "describeModule") {
    if (args.size() != 1) {
      return failure(rpc::kInvalidParams,
                     "Invalid params: ZRBroker.describeModule takes 1 argument(s), not " +
                         std::to_string(args.size()));
    }
    if (!args[0].isString()) {
      return failure(
          rpc::kInvalidParams,
          "Invalid params: ZRBroker.describeModule expects a module name (a string), not " +
              ZR::ZRValue::TypeToString(args[0].getType()));
    }
    try {
      return success(dumpJson(moduleJson(*fBroker, args[0].toString())));
    } catch (const ZR::ZRError& error) {
      return failure(rpc::kCallFailed, error.what(),
                     errorData(module, method, error.description(), error.file(), error.line()));
    }
  }
  return failure(rpc::kMethodNotFound, "Method not found: module " + module + " has no method " +
                                           method +
                                           " (it has getModules, getMethods and describeModule)");
}

std::string RpcDispatcher::evaluate(const std::string& module, const std::string& method,
                                    const ZR::ZRValue& args) const {
  const CallOutcome outcome = invoke(module, method, args);
  if (outcome.ok) return "{\"result\":" + outcome.result + "}";
  return "{\"error\":" + dumpJson(outcome.error) + "}";
}

nlohmann::json requestIdOf(const std::string& body) {
  const nlohmann::json request = nlohmann::json::parse(body, nullptr, false);
  return request.is_object() && request.contains("id") ? request["id"] : nlohmann::json();
}

}  // namespace broker
}  // namespace tuqvu
