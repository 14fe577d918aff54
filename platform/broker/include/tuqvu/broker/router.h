// Decides what the server does with one request, without touching the connection:
// answer at once, run a call on a call thread and answer with its result, or turn the
// connection into an event stream.
//
//   GET  /                      the module list (HTML)
//   GET  /<Module>/             the module's page (its httpGet hook)
//   GET  /<Module>/?eval=EXPR   evaluates "Module.method(args...)": 200 {"result"|"error"},
//                               400 when EXPR cannot be parsed
//   POST /rpc                   JSON-RPC 2.0
//   GET  /events?key=K...       Server-Sent Events of memory events
//   GET  /ui/...                the dashboard's installed files (dashboard.h)
//   GET  /metrics               the broker's metrics, Prometheus text format
//   GET  /log?after=N           the latest warnings and errors after entry N (JSON)
#pragma once

#include <tuqvu/broker/httptypes.h>
#include <tuqvu/broker/recentlog.h>
#include <tuqvu/broker/rpcdispatcher.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tuqvu {
namespace broker {

struct Routed {
  enum class Kind { Respond, Call, EventStream };
  Kind kind = Kind::Respond;
  Response response;               // Respond
  std::function<Response()> call;  // Call: may block; runs on a call thread
  // Call: the answer when the call is not made because too many run already; the text
  // says why.
  std::function<Response(const std::string& why)> refuse;
  std::vector<std::string> keys;           // EventStream: keys to follow, empty for all
  std::optional<std::string> lastEventId;  // EventStream: the Last-Event-ID header
};

// The request's body is moved into the call when there is one. `recentLog`: what GET /log
// answers; null: /log is not found.
Routed route(Request& request, const std::shared_ptr<const RpcDispatcher>& rpc,
             const RecentLog* recentLog = nullptr);

// The page of GET /: every module with a link to its page.
std::string indexPage(const std::vector<std::string>& modules);

std::string escapeHtml(const std::string& text);

}  // namespace broker
}  // namespace tuqvu
