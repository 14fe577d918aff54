// Conversion of one remote argument from ZRValue to the C++ type a member function
// declares. A mismatch is refused before the member runs; there is no coercion (an
// integer is not a bool).
#pragma once

#include <zr/zrerror.h>
#include <zr/zrtypes.h>
#include <zr/zrvalue.h>

#include <string>

namespace ZR {
namespace detail {

template <typename T>
struct converter;

template <>
struct converter<std::string> {
  static std::string convertFromZRValue(const ZRValue& value) {
    if (value.getType() == ZRValue::TypeString) {
      return value.toString();
    }
    throw ZRError(
        "convertFromZRValue", "convertFromZRValue",
        "Parameter type is " + ZRValue::TypeToString(value.getType()) + " instead of string",
        "zrvalue/detail/zrfunctorconvert", 88);
  }
};

template <>
struct converter<bool> {
  static bool convertFromZRValue(const ZRValue& value) {
    if (value.getType() == ZRValue::TypeBool) {
      return value.toBool();
    }
    throw ZRError(
        "convertFromZRValue", "convertFromZRValue",
        "Parameter type is " + ZRValue::TypeToString(value.getType()) + " instead of bool",
        "zrvalue/detail/zrfunctorconvert", 137);
  }
};

// A ZRValue parameter takes the argument as it is, whatever its type.
template <>
struct converter<ZRValue> {
  static const ZRValue& convertFromZRValue(const ZRValue& value) { return value; }
};

// Member signatures declare `const std::string&`; the converter works on the bare type
// (bare_t, from zrtypes.h).
template <typename P>
decltype(auto) convertArgument(const ZRValue& args, int index) {
  return converter<bare_t<P>>::convertFromZRValue(args[index]);
}

}  // namespace detail
}  // namespace ZR
