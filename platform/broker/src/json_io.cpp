#include <tuqvu/broker/json_io.h>

#include <zr/zrvalue_json.h>

namespace tuqvu {
namespace broker {

using nlohmann::json;

json parseJson(const std::string& text, int maxDepth) {
  int depth = 0;
  bool tooDeep = false;
  // The callback sees each nesting step before the parser builds it, so a deep document
  // is refused without recursing through it.
  const json::parser_callback_t limit = [&](int, json::parse_event_t event, json&) {
    if (event == json::parse_event_t::object_start || event == json::parse_event_t::array_start) {
      if (++depth > maxDepth) tooDeep = true;
    } else if (event == json::parse_event_t::object_end ||
               event == json::parse_event_t::array_end) {
      --depth;
    }
    return !tooDeep;
  };
  json document;
  try {
    document = json::parse(text, limit);
  } catch (const json::exception& error) {
    throw JsonParseError(error.what());
  }
  if (tooDeep) {
    throw JsonParseError("JSON nested deeper than " + std::to_string(maxDepth) + " levels");
  }
  return document;
}

std::string dumpJson(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

// The value layer owns the mapping; going through its text keeps one definition of it.
json toJsonValue(const ZR::ZRValue& value) { return json::parse(ZR::toJson(value)); }

ZR::ZRValue toValue(const json& value) { return ZR::fromJson(dumpJson(value), kMaxJsonDepth + 1); }

}  // namespace broker
}  // namespace tuqvu
