#include <tuqvu/broker/httptypes.h>
#include <tuqvu/broker/jsonio.h>
#include <tuqvu/broker/rpcdispatcher.h>
#include <tuqvu/fleet/fleetcommands.h>
#include <vu/log.h>

#include <nlohmann/json.hpp>
#include <utility>

namespace tuqvu {
namespace fleet {
namespace {

constexpr const char* kLog = "tuqvu.fleet";

std::string responseTopicOf(const mqtt::const_message_ptr& message) {
  const mqtt::properties& properties = message->get_properties();
  if (!properties.contains(mqtt::property::RESPONSE_TOPIC)) return "";
  return mqtt::get<std::string>(properties, mqtt::property::RESPONSE_TOPIC);
}

// When the request stops being worth running: its arrival plus the expiry the broker
// passed on with it; none when it has no expiry.
std::optional<FleetCommands::Clock::time_point> expiryOf(const mqtt::const_message_ptr& message) {
  const mqtt::properties& properties = message->get_properties();
  if (!properties.contains(mqtt::property::MESSAGE_EXPIRY_INTERVAL)) return std::nullopt;
  const uint32_t seconds = mqtt::get<uint32_t>(properties, mqtt::property::MESSAGE_EXPIRY_INTERVAL);
  return FleetCommands::Clock::now() + std::chrono::seconds(seconds);
}

}  // namespace

FleetCommands::FleetCommands(std::shared_ptr<broker::ServerContext> context, FleetTopics topics,
                             Send send)
    : fContext(std::move(context)), fTopics(std::move(topics)), fSend(std::move(send)) {}

std::string FleetCommands::replyTopicOf(const mqtt::const_message_ptr& request) const {
  const std::string responseTopic = responseTopicOf(request);
  if (!responseTopic.empty()) return responseTopic;
  const std::string requester = fTopics.requesterOf(request->get_topic());
  return requester.empty() ? "" : fTopics.answerTo(requester);
}

mqtt::message_ptr FleetCommands::answer(const mqtt::const_message_ptr& request,
                                        const std::string& body) const {
  if (responseTopicOf(request).empty()) {
    // The requester named itself in the topic: the answer topic says which robot answers,
    // and the message carries no property, which an MQTT 3.1.1 connection could not send.
    return mqtt::message_ptr_builder().topic(replyTopicOf(request)).payload(body).qos(1).finalize();
  }
  mqtt::properties properties;
  const mqtt::properties& asked = request->get_properties();
  if (asked.contains(mqtt::property::CORRELATION_DATA)) {
    properties.add({mqtt::property::CORRELATION_DATA,
                    mqtt::get<std::string>(asked, mqtt::property::CORRELATION_DATA)});
  }
  // Several robots answer one request of a group on the same topic: each says who it is.
  properties.add({mqtt::property::USER_PROPERTY, std::string("robot"), fTopics.robotId()});
  return mqtt::message_ptr_builder()
      .topic(responseTopicOf(request))
      .payload(body)
      .qos(1)
      .properties(std::move(properties))
      .finalize();
}

void FleetCommands::answerWithError(const mqtt::const_message_ptr& request, int code,
                                    const std::string& message) const {
  vu::log::write(vu::log::warning, kLog, "command", message);
  if (replyTopicOf(request).empty()) return;
  const nlohmann::json reply = {{"jsonrpc", "2.0"},
                                {"error", broker::rpcError(code, message)},
                                {"id", broker::requestIdOf(request->to_string())}};
  fSend(answer(request, broker::dumpJson(reply)));
}

void FleetCommands::take(const mqtt::const_message_ptr& message) {
  const std::string replyTopic = replyTopicOf(message);
  if (message->get_payload().size() > broker::kMaxBodyBytes) {
    return answerWithError(
        message, broker::rpc::kInvalidRequest,
        "the request is larger than " + std::to_string(broker::kMaxBodyBytes) + " bytes");
  }
  if (fContext->refusingCalls.load()) {
    return answerWithError(message, broker::rpc::kTooManyCalls, "the broker is shutting down");
  }
  // One slot of the requester's and of the broker's calls, held until the call returns.
  broker::CallAdmission::Ticket admitted;
  if (fContext->admission) {
    broker::CallAdmission::Decision decision = fContext->admission->admit(
        "mqtt " + (replyTopic.empty() ? std::string("(no answer)") : replyTopic));
    if (const auto* refused = std::get_if<broker::CallAdmission::Refused>(&decision)) {
      return answerWithError(message, broker::rpc::kTooManyCalls, refused->why);
    }
    admitted = std::get<broker::CallAdmission::Ticket>(std::move(decision));
  }
  const std::optional<Clock::time_point> expiry = expiryOf(message);
  auto job = [self = shared_from_this(), message, expiry, admitted]() mutable {
    if (expiry && Clock::now() >= *expiry) {
      admitted.reset();
      return self->answerWithError(message, kCommandExpired,
                                   "the command expired before it could run; it was not run");
    }
    const std::string body = self->fContext->rpc->handle(message->to_string());
    admitted.reset();
    if (!body.empty() && !self->replyTopicOf(message).empty()) {
      self->fSend(self->answer(message, body));
    }
  };
  try {
    fContext->executor->submit(std::move(job));
  } catch (const std::exception& error) {
    answerWithError(message, broker::rpc::kTooManyCalls, error.what());
  }
}

}  // namespace fleet
}  // namespace tuqvu
