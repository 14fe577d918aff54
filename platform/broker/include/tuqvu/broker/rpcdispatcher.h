// JSON-RPC 2.0 over the broker: turns a request body into calls of module methods and
// their answers into a response body. It runs on the calling thread and blocks for as
// long as the methods run.
//
//   RpcDispatcher rpc(broker);
//   std::string reply = rpc.handle(R"({"jsonrpc":"2.0","id":1,"method":"M.m","params":[1]})");
//
// Every call is counted in the broker's metrics (callmetrics.h).
//
// "ZRBroker.getModules()", "ZRBroker.getMethods(module)", "ZRBroker.describeModule(module)"
// and "rpc.discover" (an OpenRPC document) are answered here, from the broker's registry,
// not by a module.
#pragma once

#include <tuqvu/broker/callmetrics.h>
#include <zr/zrbroker.h>
#include <zr/zrvalue.h>

#include <boost/shared_ptr.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace tuqvu {
namespace broker {

namespace rpc {
constexpr int kParseError = -32700;
constexpr int kInvalidRequest = -32600;
constexpr int kMethodNotFound = -32601;
constexpr int kInvalidParams = -32602;
constexpr int kCallFailed = -32000;    // the method threw; data describes the ZRError
constexpr int kTooManyCalls = -32005;  // not made: the client or all have too many running
constexpr const char* kIntrospectionModule = "ZRBroker";
// The method that answers an OpenRPC document of every method (registryjson.h).
constexpr const char* kDiscover = "rpc.discover";
}  // namespace rpc

// The outcome of one call: the JSON text of its result, or a JSON-RPC error object
// {"code":..,"message":..,"data":{..}}.
struct CallOutcome {
  bool ok = false;
  std::string result;
  nlohmann::json error;
};

class RpcDispatcher {
public:
  explicit RpcDispatcher(boost::shared_ptr<ZR::ZRBroker> broker);

  // Answers one body: a request or a batch. Returns "" when there is nothing to answer
  // (only notifications).
  std::string handle(const std::string& body) const;

  // Calls module.method with an array of arguments, and counts the call.
  CallOutcome invoke(const std::string& module, const std::string& method,
                     const ZR::ZRValue& args) const;

  // The web console's answer to one call: {"result":..} or {"error":{..}}.
  std::string evaluate(const std::string& module, const std::string& method,
                       const ZR::ZRValue& args) const;

  const boost::shared_ptr<ZR::ZRBroker>& broker() const { return fBroker; }

  // Counts a call refused before it reached the dispatcher (too many running).
  void countRejected(CallMetrics::Rejection reason) const { fCalls->rejected(reason); }

private:
  CallOutcome invokeUncounted(const std::string& module, const std::string& method,
                              const ZR::ZRValue& args) const;
  // Counts the outcome of a call of module.method; `seconds` < 0 when it was not timed.
  void count(const std::string& module, const std::string& method, const CallOutcome& outcome,
             double seconds = -1) const;
  std::optional<std::string> handleOne(const nlohmann::json& request) const;
  CallOutcome introspect(const std::string& method, const ZR::ZRValue& args) const;
  std::optional<CallOutcome> classifyRefusal(const std::string& module, const std::string& method,
                                             int arity) const;
  // The "Method not found" answer when module.method does not exist.
  std::optional<CallOutcome> methodNotFound(const std::string& module,
                                            const std::string& method) const;
  // The arities of module.method, none when it has no such method; nullopt when the
  // module is not registered.
  std::optional<std::vector<int>> aritiesOf(const std::string& module,
                                            const std::string& method) const;

  boost::shared_ptr<ZR::ZRBroker> fBroker;
  // Its series live in the broker's registry; the table of methods grows as they are
  // first called, which handle() and invoke() do, though they change nothing else.
  std::unique_ptr<CallMetrics> fCalls;
};

// {"code":code,"message":message} with "data" when data is not null.
nlohmann::json rpcError(int code, const std::string& message, const nlohmann::json& data = nullptr);

// The id of the request in `body`, for an error answered without running it: null for a
// batch or a body that is no JSON object.
nlohmann::json requestIdOf(const std::string& body);

}  // namespace broker
}  // namespace tuqvu
