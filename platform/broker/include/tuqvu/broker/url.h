// Request targets of the web interface: path and query, percent-decoding and UTF-8 checks.
//
//   Target t = splitTarget("/ZRBehaviorManager/?eval=X.y('a%20b')");
//   // t.path == "/ZRBehaviorManager/", t.query == "eval=X.y('a%20b')"
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tuqvu {
namespace broker {

struct Target {
  std::string path;
  std::string query;
  bool hasQuery = false;
};

Target splitTarget(const std::string& target);

// Decodes %XX escapes; "+" stays a plus. nullopt for a malformed escape.
std::optional<std::string> percentDecode(const std::string& text);

bool isValidUtf8(const std::string& text);

// The value of a hexadecimal digit (either case), -1 for any other character.
int hexDigitValue(char c);

// The raw (still encoded) values of every "name=value" pair of the query, in order.
std::vector<std::string> queryValues(const std::string& query, const std::string& name);

// The raw expression of "?eval=": when the query starts with "eval=", everything after it
// (so an expression may hold '&' and '='); otherwise the value of the first eval pair.
std::optional<std::string> evalParameter(const std::string& query);

}  // namespace broker
}  // namespace tuqvu
