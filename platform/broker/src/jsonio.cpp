#include <tuqvu/broker/jsonio.h>
#include <vu/jsonparse.h>
#include <zr/zrvaluejson.h>

namespace tuqvu {
namespace broker {

using nlohmann::json;

json parseJson(const std::string& text, int maxDepth) {
  try {
    return vu::json::parseLimited(text, maxDepth);
  } catch (const vu::json::ParseError& error) {
    throw JsonParseError(error.what());
  }
}

std::string dumpJson(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

// The value layer owns the mapping; going through its text keeps one definition of it.
json toJsonValue(const ZR::ZRValue& value) {
  return json::parse(ZR::toJson(value));
}

ZR::ZRValue toValue(const json& value) {
  return ZR::fromJson(dumpJson(value), kMaxJsonDepth + 1);
}

}  // namespace broker
}  // namespace tuqvu
