// ZRValue — the middleware's variant value. Remote arguments and results, memory
// data and events, and preference files all travel in it.
//
//   ZRValue args;                      // invalid
//   args.arrayPush("dance");           // becomes an array of one string
//   std::string name = args[0];        // conversion throws ZRError on a type mismatch
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ZR {

class ZRValue {
public:
  // The numbers are stable: they are the codes that type checks and messages report.
  enum Type {
    TypeInvalid = 0,
    TypeBool = 2,
    TypeInt = 3,
    TypeFloat = 4,
    TypeString = 5,
    TypeArray = 7,
    TypeBinary = 8,
  };
  using Binary = std::vector<std::uint8_t>;

  ZRValue();
  ZRValue(bool value);
  ZRValue(int value);
  ZRValue(float value);
  ZRValue(double value);
  ZRValue(const char* value);
  ZRValue(const std::string& value);
  ZRValue(const std::vector<std::string>& values);
  ZRValue(const std::vector<ZRValue>& values);
  static ZRValue binary(const Binary& bytes);
  static ZRValue binary(const void* data, std::size_t size);
  // An empty array (not invalid).
  static ZRValue array();

  Type getType() const { return fType; }
  bool isValid() const { return fType != TypeInvalid; }
  bool isBool() const { return fType == TypeBool; }
  bool isInt() const { return fType == TypeInt; }
  bool isFloat() const { return fType == TypeFloat; }
  bool isString() const { return fType == TypeString; }
  bool isArray() const { return fType == TypeArray; }
  bool isBinary() const { return fType == TypeBinary; }

  // Typed accessors: each throws ZRError naming both types when the value has another.
  bool toBool() const;
  int toInt() const;      // an int, or a float truncated toward zero
  float toFloat() const;  // an int or a float
  const std::string& toString() const;
  const Binary& toBinary() const;
  std::vector<std::string> toStringVector() const;  // an array whose elements are all strings

  operator bool() const { return toBool(); }
  operator int() const { return toInt(); }
  operator float() const { return toFloat(); }
  operator std::string() const { return toString(); }
  operator std::vector<std::string>() const { return toStringVector(); }

  // Arrays. Pushing onto an invalid value first makes it an empty array.
  std::size_t size() const;  // elements of an array, bytes of a binary, 0 otherwise
  ZRValue& operator[](int index);
  const ZRValue& operator[](int index) const;
  void arrayPush(const ZRValue& element);
  const std::vector<ZRValue>& elements() const;

  bool operator==(const ZRValue& other) const;
  bool operator!=(const ZRValue& other) const { return !(*this == other); }

  // "Invalid", "Bool", "Int", "Float", "String", "Array" or "Binary".
  static std::string TypeToString(Type type);

  // A short readable rendering for logs: strings quoted, arrays in brackets.
  std::string toDebugString() const;

private:
  Type fType;
  bool fBool = false;
  int fInt = 0;
  double fFloat = 0.0;  // kept in double so JSON numbers round-trip; exposed as float
  std::string fString;
  std::vector<ZRValue> fArray;
  Binary fBinary;

  friend class ZRValueJson;
  const ZRValue& checkedElement(int index) const;

public:
  // The stored floating value at full precision (toFloat() narrows to float).
  double toDouble() const;
};

}  // namespace ZR
