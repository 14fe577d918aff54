#include <tuqvu/broker/dashboard.h>
#include <tuqvu/broker/evalparser.h>
#include <tuqvu/broker/jsonio.h>
#include <tuqvu/broker/metricsexposition.h>
#include <tuqvu/broker/requestguard.h>
#include <tuqvu/broker/router.h>
#include <tuqvu/broker/url.h>
#include <vu/html.h>
#include <vu/text.h>
#include <zr/zrerror.h>

#include <cstdint>
#include <limits>
#include <optional>

namespace tuqvu {
namespace broker {
namespace {

Routed respond(Response response) {
  Routed routed;
  routed.response = std::move(response);
  return routed;
}

// The error of a call that was not made because too many run already.
nlohmann::json tooManyCalls(const std::string& why) {
  return rpcError(rpc::kTooManyCalls, why);
}

Routed runCall(std::function<Response()> call, const std::shared_ptr<const RpcDispatcher>& rpc) {
  Routed routed;
  routed.kind = Routed::Kind::Call;
  routed.call = std::move(call);
  routed.refuse = [rpc](const std::string& why) {
    rpc->countRejected(CallMetrics::Rejection::TooManyCalls);
    Response response =
        jsonResponse(http::status::too_many_requests, dumpJson({{"error", tooManyCalls(why)}}));
    response.set(http::field::retry_after, "1");
    return response;
  };
  return routed;
}

// The same for a JSON-RPC body: the error answers the request's id (null for a batch or
// a body that is no JSON object).
Routed runRpcCall(std::function<Response()> call, const std::string& body,
                  const std::shared_ptr<const RpcDispatcher>& rpc) {
  Routed routed = runCall(std::move(call), rpc);
  routed.refuse = [body, rpc](const std::string& why) {
    rpc->countRejected(CallMetrics::Rejection::TooManyCalls);
    Response response = jsonResponse(
        http::status::too_many_requests,
        dumpJson({{"jsonrpc", "2.0"}, {"error", tooManyCalls(why)}, {"id", requestIdOf(body)}}));
    response.set(http::field::retry_after, "1");
    return response;
  };
  return routed;
}

Routed evalError(const std::string& message, std::size_t position) {
  nlohmann::json error = rpcError(rpc::kParseError, message, {{"position", position}});
  return respond(jsonResponse(http::status::bad_request, dumpJson({{"error", error}})));
}

// GET <page>?eval=EXPR: the expression is decoded and parsed here, then evaluated on a
// call thread. Only an expression that cannot be read is a 400; any outcome of a call
// that was made is a 200 with {"result"} or {"error"} in the body.
Routed evaluate(const std::string& rawExpression, const std::shared_ptr<const RpcDispatcher>& rpc) {
  const std::optional<std::string> expression = percentDecode(rawExpression);
  const auto unreadable = [&rpc](const std::string& message, std::size_t position) {
    rpc->countRejected(CallMetrics::Rejection::InvalidRequest);
    return evalError(message, position);
  };
  if (!expression) return unreadable("cannot parse expression: malformed %-escape", 0);
  if (!isValidUtf8(*expression)) return unreadable("cannot parse expression: invalid UTF-8", 0);
  EvalCall parsed;
  try {
    parsed = parseEval(*expression);
  } catch (const EvalSyntaxError& error) {
    return unreadable(std::string("cannot parse expression: ") + error.what(), error.position());
  }
  return runCall(
      [rpc, parsed = std::move(parsed)]() {
        return jsonResponse(http::status::ok,
                            rpc->evaluate(parsed.module, parsed.method, parsed.args));
      },
      rpc);
}

Routed modulePage(const std::string& module, const std::shared_ptr<const RpcDispatcher>& rpc) {
  return runCall(
      [rpc, module]() {
        try {
          return htmlResponse(http::status::ok, rpc->broker()->modulePage(module));
        } catch (const ZR::ZRError& error) {
          if (!rpc->broker()->hasModule(module)) {
            return textResponse(http::status::not_found, "no module named " + module);
          }
          return textResponse(http::status::internal_server_error,
                              "the page of " + module + " failed: " + error.what());
        } catch (const std::exception& error) {
          return textResponse(http::status::internal_server_error,
                              "the page of " + module + " failed: " + error.what());
        }
      },
      rpc);
}

}  // namespace

std::string escapeHtml(const std::string& text) {
  return vu::html::escape(text);
}

std::string indexPage(const std::vector<std::string>& modules) {
  std::string page =
      "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>TUQvu</title></head><body>\n"
      "<h1>TUQvu modules</h1>\n<ul>\n";
  for (const std::string& module : modules) {
    const std::string name = escapeHtml(module);
    page += "<li><a href=\"/" + name + "/\">" + name + "</a></li>\n";
  }
  page +=
      "</ul>\n<p><a href=\"/ui/\">Dashboard</a>: running behaviors, libraries, installs, "
      "events</p>\n<p>Remote API: POST /rpc (JSON-RPC 2.0), GET /events (Server-Sent Events), "
      "GET /&lt;Module&gt;/?eval=Module.method(args)</p>\n</body></html>\n";
  return page;
}

Routed route(Request& request, const std::shared_ptr<const RpcDispatcher>& rpc,
             const RecentLog* recentLog) {
  const http::verb verb = request.method();
  if (verb != http::verb::get && verb != http::verb::post) {
    Response refused = methodNotAllowed("GET, POST");
    if (verb == http::verb::head) refused.body().clear();  // an answer to HEAD has no body
    return respond(std::move(refused));
  }
  const Target target = splitTarget(std::string(request.target()));
  const std::optional<std::string> decoded = percentDecode(target.path);
  if (!decoded || decoded->empty() || (*decoded)[0] != '/') {
    return respond(textResponse(http::status::bad_request, "malformed request path"));
  }
  const std::string& path = *decoded;

  if (path == "/rpc") {
    if (verb != http::verb::post) return respond(methodNotAllowed("POST"));
    if (!isJsonContentType(request)) {
      return respond(
          textResponse(http::status::unsupported_media_type,
                       "calls to /rpc must be sent as Content-Type: application/json (or "
                       "application/json-rpc, application/jsonrequest)"));
    }
    std::string body = std::move(request.body());
    std::string copy = body;
    return runRpcCall(
        [rpc, body = std::move(body)]() {
          std::string reply = rpc->handle(body);
          if (reply.empty()) return makeResponse(http::status::no_content, "application/json", "");
          return jsonResponse(http::status::ok, std::move(reply));
        },
        copy, rpc);
  }
  if (path == "/metrics") {
    if (verb != http::verb::get) return respond(methodNotAllowed("GET"));
    // Read from atomics and /proc: quick enough for the I/O thread, and no scrape waits
    // behind calls.
    Response metrics =
        makeResponse(http::status::ok, kMetricsContentType, metricsText(rpc->broker()->metrics()));
    metrics.set(http::field::cache_control, "no-store");
    return respond(std::move(metrics));
  }
  if (path == "/log" && recentLog != nullptr) {
    if (verb != http::verb::get) return respond(methodNotAllowed("GET"));
    std::uint64_t after = 0;
    const std::vector<std::string> given = queryValues(target.query, "after");
    if (!given.empty()) {
      const std::optional<std::uint64_t> number =
          vu::text::wholeNumber(given.front(), std::numeric_limits<std::uint64_t>::max());
      if (!number) {
        return respond(textResponse(http::status::bad_request,
                                    "after= takes the sequence number of a log entry"));
      }
      after = *number;
    }
    Response log = jsonResponse(http::status::ok, recentLogJson(*recentLog, after));
    log.set(http::field::cache_control, "no-store");
    return respond(std::move(log));
  }
  if (path == "/events") {
    if (verb != http::verb::get) return respond(methodNotAllowed("GET"));
    Routed routed;
    routed.kind = Routed::Kind::EventStream;
    for (const std::string& raw : queryValues(target.query, "key")) {
      const std::optional<std::string> key = percentDecode(raw);
      if (!key || !isValidUtf8(*key)) {
        return respond(textResponse(http::status::bad_request, "malformed key in the query"));
      }
      routed.keys.push_back(*key);
    }
    // A reconnecting EventSource names the last event it received; an empty one is none.
    const auto lastEvent = request.find("Last-Event-ID");
    if (lastEvent != request.end() && !lastEvent->value().empty()) {
      routed.lastEventId = std::string(lastEvent->value());
    }
    return routed;
  }

  const std::optional<std::string> expression =
      target.hasQuery ? evalParameter(target.query) : std::nullopt;
  if (path == "/") {
    if (verb != http::verb::get) return respond(methodNotAllowed("GET"));
    if (expression) return evaluate(*expression, rpc);
    return respond(htmlResponse(http::status::ok, indexPage(rpc->broker()->getModuleNames())));
  }

  if (path == "/ui" || path.rfind("/ui/", 0) == 0) {
    if (verb != http::verb::get) return respond(methodNotAllowed("GET"));
    if (path == "/ui") {
      // The page's relative references need the slash.
      Response moved = textResponse(http::status::moved_permanently, "see /ui/");
      moved.set(http::field::location, "/ui/");
      return respond(std::move(moved));
    }
    return respond(dashboardFile(dashboardFolder(), path.substr(4)));
  }

  // "/<Module>" or "/<Module>/"
  const std::size_t slash = path.find('/', 1);
  const bool trailingSlash = slash == path.size() - 1;
  if (slash != std::string::npos && !trailingSlash) {
    return respond(textResponse(http::status::not_found, "no such page: " + path));
  }
  const std::string module = path.substr(1, trailingSlash ? slash - 1 : std::string::npos);
  if (!rpc->broker()->hasModule(module)) {
    return respond(textResponse(http::status::not_found, "no module named " + module));
  }
  if (verb != http::verb::get) return respond(methodNotAllowed("GET"));
  if (!trailingSlash) {
    // The page's relative "?eval=" requests need the slash.
    Response moved = textResponse(http::status::moved_permanently, "see /" + module + "/");
    moved.set(http::field::location, std::string(request.target().substr(0, target.path.size())) +
                                         "/" + (target.hasQuery ? "?" + target.query : ""));
    return respond(std::move(moved));
  }
  if (expression) return evaluate(*expression, rpc);
  return modulePage(module, rpc);
}

}  // namespace broker
}  // namespace tuqvu
