// tuqvu-call's JSON-RPC requests, as the upload needs them too. Internal to the client
// library.
#pragma once

#include <tuqvu/broker/cliclient.h>

#include <string>

namespace tuqvu {
namespace broker {
namespace cli {

struct RpcResponse {
  unsigned status = 0;
  std::string reason;
  std::string body;
};

// POSTs one JSON-RPC request. With a live feedback line, a spinner shows how long the
// answer has been awaited once a second has passed without it.
RpcResponse postRpc(const Url& url, const ServerTrust& trust, const std::string& request,
                    const std::string& method, Feedback* feedback);

}  // namespace cli
}  // namespace broker
}  // namespace tuqvu
