// Runs the JSON-RPC requests that reach a robot over MQTT as the broker runs those of
// HTTP: the same method table and errors (the RpcDispatcher), the same share of calls
// (the CallAdmission; a requester is named by its response topic) and the same call
// threads (the CallExecutor), so a long call such as runBehavior holds up no other.
// The answer goes to the request's response topic with its correlation data (MQTT 5).
// A request without one whose topic names its requester as one more level (what a client
// on MQTT 3.1.1 sends, having no properties) is answered on that requester's answer topic
// for this robot, the JSON-RPC id serving as correlation; the response topic wins when a
// request has both. A request with neither is run and not answered. A request whose
// message expiry passes before it can run is not run: it is answered with kCommandExpired.
//
//   auto commands = std::make_shared<FleetCommands>(context, FleetTopics(prefix, id), send);
//   commands->take(message);   // on the MQTT library's thread: returns at once
//
// Calls in progress hold the FleetCommands: make it with make_shared.
#pragma once

#include <mqtt/message.h>
#include <tuqvu/broker/servercontext.h>
#include <tuqvu/fleet/fleettopics.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace tuqvu {
namespace fleet {

// The JSON-RPC error code of a command that expired before it could run.
constexpr int kCommandExpired = -32006;

class FleetCommands : public std::enable_shared_from_this<FleetCommands> {
public:
  using Clock = std::chrono::steady_clock;
  using Send = std::function<void(mqtt::message_ptr)>;

  FleetCommands(std::shared_ptr<broker::ServerContext> context, FleetTopics topics, Send send);

  // Starts the request of `message` on a call thread, or answers at once when it cannot
  // be made (too large, too many calls, the broker shutting down).
  void take(const mqtt::const_message_ptr& message);

  // The answer to `request` with `body`: for its response topic with its correlation
  // data, or for its requester's answer topic.
  mqtt::message_ptr answer(const mqtt::const_message_ptr& request, const std::string& body) const;

private:
  // Where the answer to `request` goes; "" when it is not answered.
  std::string replyTopicOf(const mqtt::const_message_ptr& request) const;
  void answerWithError(const mqtt::const_message_ptr& request, int code,
                       const std::string& message) const;

  std::shared_ptr<broker::ServerContext> fContext;
  const FleetTopics fTopics;
  const Send fSend;
};

}  // namespace fleet
}  // namespace tuqvu
