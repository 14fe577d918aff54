#include <zr/zrvalue_json.h>

#include <cmath>
#include <limits>

#include <boost/beast/core/detail/base64.hpp>
#include <nlohmann/json.hpp>

#include <zr/zrerror.h>

namespace ZR {
namespace {

using nlohmann::json;
namespace base64 = boost::beast::detail::base64;

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
      std::string text(base64::encoded_size(bytes.size()), '\0');
      text.resize(base64::encode(text.data(), bytes.data(), bytes.size()));
      return json{{"$binary", text}};
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
      ZRValue::Binary bytes(base64::decoded_size(text.size()));
      const auto decoded = base64::decode(bytes.data(), text.data(), text.size());
      // The decoder stops at the padding; everything before it must have been consumed.
      const std::size_t unpadded = text.find_last_not_of('=') + 1;
      if (decoded.second != unpadded || text.size() - unpadded > 2) {
        refuse("invalid base64 in $binary");
      }
      bytes.resize(decoded.first);
      return ZRValue::binary(bytes);
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
  int depth = 0;
  bool tooDeep = false;
  // The callback sees every nesting step before the parser builds it, so a deep document
  // is rejected without recursing through it.
  const json::parser_callback_t limit = [&](int level, json::parse_event_t event, json&) {
    (void)level;
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
    refuse(std::string("malformed JSON: ") + error.what());
  }
  if (tooDeep) {
    refuse("JSON nested deeper than " + std::to_string(maxDepth) + " levels");
  }
  return decode(document);
}

}  // namespace ZR
