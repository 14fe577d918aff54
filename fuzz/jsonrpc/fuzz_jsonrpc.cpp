// Fuzzes the broker's JSON-RPC 2.0 handling (RpcDispatcher::handle): parsing the body,
// checking requests and batches, converting parameters, calling the methods of a real
// memory module and of a test module, and writing the answer. The input is a request
// body. The answer must be empty (notifications only) or valid JSON: a response object,
// or an array of them, each with "jsonrpc":"2.0", an "id", and exactly one of "result"
// and "error" (the latter with an integer code and a string message).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "../common/rpcbench.h"
#include "../common/sandbox.h"

namespace {

[[noreturn]] void fail(const std::string& what, const std::string& input,
                       const std::string& reply) {
  std::fprintf(stderr, "json-rpc: %s\n  request: %s\n  reply: %s\n", what.c_str(),
               fuzzsupport::printable(input).c_str(), fuzzsupport::printable(reply).c_str());
  std::abort();
}

void checkResponse(const nlohmann::json& response, const std::string& input,
                   const std::string& reply) {
  if (!response.is_object()) fail("a response is not an object", input, reply);
  const auto version = response.find("jsonrpc");
  if (version == response.end() || *version != "2.0") fail("no \"jsonrpc\":\"2.0\"", input, reply);
  if (response.find("id") == response.end()) fail("a response without an id", input, reply);
  const bool hasResult = response.contains("result");
  const bool hasError = response.contains("error");
  if (hasResult == hasError) fail("not exactly one of result and error", input, reply);
  if (hasError) {
    const nlohmann::json& error = response["error"];
    if (!error.is_object() || !error.contains("code") || !error["code"].is_number_integer() ||
        !error.contains("message") || !error["message"].is_string()) {
      fail("a malformed error object", input, reply);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  fuzzsupport::RpcBench bench;
  const std::string reply = bench.rpc->handle(input);
  if (reply.empty()) return 0;
  nlohmann::json parsed;
  try {
    parsed = nlohmann::json::parse(reply);
  } catch (const nlohmann::json::exception& error) {
    fail(std::string("the reply is not JSON: ") + error.what(), input, reply);
  }
  if (parsed.is_array()) {
    if (parsed.empty()) fail("an empty batch reply", input, reply);
    for (const nlohmann::json& response : parsed) checkResponse(response, input, reply);
  } else {
    checkResponse(parsed, input, reply);
  }
  return 0;
}
