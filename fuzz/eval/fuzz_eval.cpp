// Fuzzes the web console's "?eval=" expressions: the parser itself (parseEval) and the
// whole route of a GET /Echo/?eval=<input> request (percent-decoding, UTF-8 check,
// parsing, the call on a real memory module or a test module, the JSON answer).
//   - parseEval either returns a module, a method and an array of arguments, or throws
//     EvalSyntaxError with a position inside the expression; nothing else escapes;
//   - the route answers 400 with {"error":{...}} for an expression it cannot read, and
//     200 with exactly one of {"result"} and {"error"} for a call it made.
#include <tuqvu/broker/evalparser.h>
#include <tuqvu/broker/router.h>
#include <zr/zrvaluejson.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "../common/rpcbench.h"
#include "../common/sandbox.h"

namespace {

namespace broker = tuqvu::broker;

[[noreturn]] void fail(const std::string& what, const std::string& input) {
  std::fprintf(stderr, "eval: %s\n  expression: %s\n", what.c_str(),
               fuzzsupport::printable(input).c_str());
  std::abort();
}

void parseAlone(const std::string& input) {
  try {
    const broker::EvalCall call = broker::parseEval(input);
    if (call.module.empty() || call.method.empty()) fail("an empty module or method", input);
    if (!call.args.isArray()) fail("the arguments are not an array", input);
    ZR::toJson(call.args);
  } catch (const broker::EvalSyntaxError& error) {
    if (error.position() > input.size()) fail("an error position beyond the end", input);
  }
}

void checkRoute(const std::string& input, fuzzsupport::RpcBench& bench) {
  broker::Request request{broker::http::verb::get, "/Echo/?eval=" + input, 11};
  broker::Routed routed = broker::route(request, bench.rpc);
  if (routed.kind == broker::Routed::Kind::EventStream) fail("routed to the event stream", input);
  const broker::Response response =
      routed.kind == broker::Routed::Kind::Call ? routed.call() : routed.response;
  const unsigned status = response.result_int();
  if (status != 200 && status != 400) fail("status " + std::to_string(status), input);
  nlohmann::json body;
  try {
    body = nlohmann::json::parse(response.body());
  } catch (const nlohmann::json::exception& error) {
    fail(std::string("the answer is not JSON: ") + error.what(), input);
  }
  if (!body.is_object()) fail("the answer is not an object", input);
  const bool hasResult = body.contains("result");
  const bool hasError = body.contains("error");
  if (hasResult == hasError) fail("not exactly one of result and error", input);
  if (status == 400 && !hasError) fail("a 400 without an error", input);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  parseAlone(input);
  fuzzsupport::RpcBench bench;
  checkRoute(input, bench);
  return 0;
}
