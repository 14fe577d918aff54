// Pieces of the tuqvu-call command line client that do not touch the network.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace tuqvu {
namespace broker {

struct Url {
  std::string host;
  std::string port;
  std::string basePath;  // "" or "/prefix", never ending in '/'
};

// "http://HOST[:PORT][/PATH]" (the scheme may be left out; the port defaults to 80).
// Throws std::invalid_argument saying what is wrong.
Url parseUrl(const std::string& text);

// A command-line argument: a JSON literal when it reads as one, else the text as a string.
nlohmann::json parseCliArgument(const std::string& text);

// The JSON-RPC request for Module.method with the arguments.
std::string buildCallRequest(const std::string& method, const std::vector<std::string>& args);

// "/events?key=K1&key=K2" with the keys percent-encoded.
std::string eventsTarget(const std::string& basePath, const std::vector<std::string>& keys);

std::string percentEncode(const std::string& text);

// What tuqvu-call prints for an answer and the exit status: the result as JSON (0), or
// the error's description (1). Throws std::runtime_error for an answer that is no
// JSON-RPC response.
struct CallAnswer {
  int exitStatus;
  std::string text;
};
CallAnswer interpretAnswer(const std::string& body);

std::string cliHelpText();

}  // namespace broker
}  // namespace tuqvu
