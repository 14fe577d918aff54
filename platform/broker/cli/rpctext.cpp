// tuqvu-call: the JSON-RPC request of a command line, the event stream's target, and what
// an answer means for the user.
#include <tuqvu/broker/cli.h>
#include <tuqvu/broker/jsonio.h>

#include <stdexcept>

namespace tuqvu {
namespace broker {

using nlohmann::json;

json parseCliArgument(const std::string& text) {
  json value = json::parse(text, nullptr, false);
  if (value.is_discarded()) return json(text);
  return value;
}

std::string buildCallRequest(const std::string& method, const std::vector<std::string>& args) {
  json params = json::array();
  for (const std::string& arg : args) params.push_back(parseCliArgument(arg));
  return dumpJson({{"jsonrpc", "2.0"}, {"id", 1}, {"method", method}, {"params", params}});
}

std::string percentEncode(const std::string& text) {
  static const char* const kHex = "0123456789ABCDEF";
  std::string out;
  for (const unsigned char c : text) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '_' || c == '.' || c == '~' || c == '/') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

std::string eventsTarget(const std::string& basePath, const std::vector<std::string>& keys) {
  std::string target = basePath + "/events";
  for (std::size_t i = 0; i < keys.size(); ++i) {
    target += (i == 0 ? "?key=" : "&key=") + percentEncode(keys[i]);
  }
  return target;
}

CallAnswer interpretAnswer(const std::string& body) {
  json answer;
  try {
    answer = parseJson(body);
  } catch (const std::exception& error) {
    throw ClientError(std::string("the broker's answer is not JSON: ") + error.what());
  }
  if (answer.is_object() && answer.contains("result"))
    return {0, answer["result"].dump(2, ' ', false, json::error_handler_t::replace)};
  if (answer.is_object() && answer.contains("error") && answer["error"].is_object()) {
    const json& error = answer["error"];
    const auto data = error.find("data");
    if (data != error.end() && data->is_object() && data->contains("description") &&
        (*data)["description"].is_string()) {
      return {1, (*data)["description"].get<std::string>()};
    }
    if (error.contains("message") && error["message"].is_string()) {
      return {1, error["message"].get<std::string>()};
    }
    return {1, error.dump()};
  }
  throw ClientError("the broker's answer is no JSON-RPC response: " + body);
}

}  // namespace broker
}  // namespace tuqvu
