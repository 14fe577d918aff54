// JSON helpers of the remote API: bounded parsing, and text that is always valid UTF-8.
#pragma once

#include <zr/zrvalue.h>

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace tuqvu {
namespace broker {

// Malformed JSON (syntax, invalid UTF-8, nesting too deep); what() says where.
class JsonParseError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

constexpr int kMaxJsonDepth = 64;

// Parses text, refusing documents nested deeper than maxDepth before building them.
nlohmann::json parseJson(const std::string& text, int maxDepth = kMaxJsonDepth);

// Compact JSON; invalid UTF-8 in strings is replaced, never thrown on.
std::string dumpJson(const nlohmann::json& value);

// Converts between ZRValue and JSON (the mapping of zr/zrvaluejson.h). toValue throws
// ZRError for JSON that is no ZRValue (objects other than {"$binary": ...}).
nlohmann::json toJsonValue(const ZR::ZRValue& value);
ZR::ZRValue toValue(const nlohmann::json& json);

}  // namespace broker
}  // namespace tuqvu
