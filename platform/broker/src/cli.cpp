#include <tuqvu/broker/cli.h>

#include <tuqvu/broker/json_io.h>

namespace tuqvu {
namespace broker {

using nlohmann::json;

Url parseUrl(const std::string& text) {
  std::string rest = text;
  const std::size_t scheme = rest.find("://");
  if (scheme != std::string::npos) {
    if (rest.substr(0, scheme) != "http") {
      throw std::invalid_argument("only http:// URLs are supported, not \"" + text + "\"");
    }
    rest.erase(0, scheme + 3);
  }
  Url url;
  const std::size_t slash = rest.find('/');
  std::string authority = rest.substr(0, slash);
  if (slash != std::string::npos) url.basePath = rest.substr(slash);
  while (!url.basePath.empty() && url.basePath.back() == '/') url.basePath.pop_back();
  if (authority.empty()) throw std::invalid_argument("no host in the URL \"" + text + "\"");
  std::string port = "80";
  if (authority[0] == '[') {  // [IPv6]:port
    const std::size_t close = authority.find(']');
    if (close == std::string::npos) throw std::invalid_argument("unclosed '[' in \"" + text + "\"");
    url.host = authority.substr(1, close - 1);
    if (close + 1 < authority.size()) {
      if (authority[close + 1] != ':') throw std::invalid_argument("malformed URL \"" + text + "\"");
      port = authority.substr(close + 2);
    }
  } else {
    const std::size_t colon = authority.rfind(':');
    url.host = authority.substr(0, colon);
    if (colon != std::string::npos) port = authority.substr(colon + 1);
  }
  if (url.host.empty()) throw std::invalid_argument("no host in the URL \"" + text + "\"");
  if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos ||
      std::stoi(port) > 65535) {
    throw std::invalid_argument("bad port in the URL \"" + text + "\"");
  }
  url.port = port;
  return url;
}

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
    throw std::runtime_error(std::string("the broker's answer is not JSON: ") + error.what());
  }
  if (answer.is_object() && answer.contains("result")) return {0, answer["result"].dump(2, ' ', false, json::error_handler_t::replace)};
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
  throw std::runtime_error("the broker's answer is no JSON-RPC response: " + body);
}

std::string cliHelpText() {
  return "Usage:\n"
         "  tuqvu-call [--url URL] Module.method [ARG ...]\n"
         "  tuqvu-call [--url URL] --watch [KEY ...]\n"
         "  tuqvu-call --help\n"
         "\n"
         "Calls a method of a module hosted by a tuqvu broker and prints its result as JSON\n"
         "(exit status 0), or prints the error's description (exit status 1). Each ARG is read\n"
         "as a JSON literal (5, 1.5, true, null, [1,\"a\"], \"quoted text\") and otherwise taken\n"
         "as a plain string.\n"
         "\n"
         "--watch prints the memory events for the given keys (every key when none is given)\n"
         "as they are raised, one JSON object {\"key\":..,\"value\":..} per line, until the\n"
         "broker ends the stream or the command is interrupted.\n"
         "\n"
         "Options:\n"
         "  --url URL   the broker (default http://127.0.0.1:9600)\n"
         "  --help      show this text\n"
         "\n"
         "Examples:\n"
         "  tuqvu-call ZRBroker.getModules\n"
         "  tuqvu-call ZRBroker.getMethods ZRBehaviorManager\n"
         "  tuqvu-call ZRBehaviorManager.runBehavior dance\n"
         "  tuqvu-call ZRMemory.insertData Demo/Count 3\n"
         "  tuqvu-call ZRMemory.insertData Demo/Text '\"3\"'\n"
         "  tuqvu-call --url http://robot.local:9600 ZRBehaviorManager.getInstalledBehaviors\n"
         "  tuqvu-call --watch BehaviorsRun ZRBehaviorManager/BehaviorAdded\n"
         "\n"
         "Exit status: 0 success, 1 the call failed or the broker cannot be reached, 2 usage.\n";
}

}  // namespace broker
}  // namespace tuqvu
