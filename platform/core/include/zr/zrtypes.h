// Type codes of method descriptions and their texts.
//
//   getTypeString(5) == "std::string"
//   detail::TypeCode<std::vector<std::string>>::value == 25
#pragma once

#include <zr/zrvalue.h>

#include <string>
#include <type_traits>
#include <vector>

namespace ZR {

enum TypeCode {
  TypeCodeVoid = 1,
  TypeCodeBool = 2,
  TypeCodeInt = 3,
  TypeCodeFloat = 4,
  TypeCodeString = 5,
  TypeCodeValue = 6,
  TypeCodeStringVector = 25,
};

// "void", "bool", "int", "float", "std::string", "ZRValue", "std::vector<std::string>";
// "unknown" for any other code.
std::string getTypeString(int code);

namespace detail {

// A parameter type without its reference and const: `const std::string&` is a string.
template <typename T>
using bare_t = std::remove_cv_t<std::remove_reference_t<T>>;

// The type code of a C++ type as it appears in a member-function signature.
template <typename T>
struct TypeCode;
template <>
struct TypeCode<void> {
  static constexpr int value = TypeCodeVoid;
};
template <>
struct TypeCode<bool> {
  static constexpr int value = TypeCodeBool;
};
template <>
struct TypeCode<int> {
  static constexpr int value = TypeCodeInt;
};
template <>
struct TypeCode<float> {
  static constexpr int value = TypeCodeFloat;
};
template <>
struct TypeCode<std::string> {
  static constexpr int value = TypeCodeString;
};
template <>
struct TypeCode<ZRValue> {
  static constexpr int value = TypeCodeValue;
};
template <>
struct TypeCode<std::vector<std::string>> {
  static constexpr int value = TypeCodeStringVector;
};

}  // namespace detail
}  // namespace ZR
