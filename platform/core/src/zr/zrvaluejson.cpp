#include <vu/base64.h>
#include <vu/jsonparse.h>
#include <zr/zrerror.h>
#include <zr/zrvaluejson.h>

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

namespace ZR {
namespace {

using nlohmann::json;

[[noreturn]] void refuse(const std::string& why) {
  throw ZRError("ZRValue", "fromJson", why, __FILE__, __LINE__);
}

json encode(const ZRValue& value) {
  switch (value.getType()) {
    case ZRValue::TypeInvalid: return nullptr;
    case ZRValue::TypeBool: return value.toBool();
    case ZRValue::TypeInt: return value.toInt();
    case ZRValue::TypeFloat: {
      const double number = value.toDouble();
      // JSON has no NaN or infinity; they travel as null.
      if (!std::isfinite(number)) return nullptr;
      return number;
    }
    case ZRValue::TypeString: return value.toString();
    case ZRValue::TypeArray: {
      json array = json::array();
      for (const ZRValue& element : value.elements()) {
        array.push_back(encode(element));
      }
      return array;
    }
    case ZRValue::TypeBinary: {
      const ZRValue::Binary& bytes = value.toBinary();
      return json{{"$binary", vu::base64::encode(std::string(bytes.begin(), bytes.end()))}};
    }
  }
  return nullptr;
}

ZRValue decode(const json& node) {
  switch (node.type()) {
    case json::value_t::null: return ZRValue();
    case json::value_t::boolean: return ZRValue(node.get<bool>());
    case json::value_t::number_integer:
    case json::value_t::number_unsigned: {
      if (node.is_number_unsigned()) {
        const auto number = node.get<std::uint64_t>();
        if (number <= static_cast<std::uint64_t>(std::numeric_limits<int>::max())) {
          return ZRValue(static_cast<int>(number));
        }
        return ZRValue(static_cast<double>(number));
      }
      const auto number = node.get<std::int64_t>();
      if (number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max()) {
        return ZRValue(static_cast<int>(number));
      }
      return ZRValue(static_cast<double>(number));
    }
    case json::value_t::number_float: return ZRValue(node.get<double>());
    case json::value_t::string: return ZRValue(node.get<std::string>());
    case json::value_t::array: {
      ZRValue array = ZRValue::array();
      for (const json& element : node) {
        array.arrayPush(decode(element));
      }
      return array;
    }
    case json::value_t::object: {
      const auto found = node.find("$binary");
      if (node.size() != 1 || found == node.end() || !found->is_string()) {
        refuse("JSON objects are not values (only {\"$binary\": base64} is)");
      }
      const std::string& text = found->get_ref<const std::string&>();
      std::string decoded;
      if (!vu::base64::decode(text, decoded)) {
        refuse("invalid base64 in $binary");
      }
      return ZRValue::binary(ZRValue::Binary(decoded.begin(), decoded.end()));
    }
    default: refuse("unsupported JSON value");
  }
}

}  // namespace

std::string toJson(const ZRValue& value) {
  // Invalid UTF-8 in strings is replaced rather than thrown on: output must not fail.
  return encode(value).dump(-1, ' ', false, json::error_handler_t::replace);
}

ZRValue fromJson(const std::string& text, int maxDepth) {
  json document;
  try {
    document = vu::json::parseLimited(text, maxDepth);
  } catch (const vu::json::TooDeepError& error) {
    refuse(error.what());
  } catch (const vu::json::ParseError& error) {
    refuse(std::string("malformed JSON: ") + error.what());
  }
  return decode(document);
}

}  // namespace ZR
