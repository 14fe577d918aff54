#include <zr/zrerror.h>
#include <zr/zrvalue.h>

#include <cmath>
#include <sstream>

namespace ZR {
namespace {

[[noreturn]] void typeMismatch(const char* method, ZRValue::Type actual, ZRValue::Type wanted) {
  throw ZRError("ZRValue", method,
                "value of type " + ZRValue::TypeToString(actual) + " used as " +
                    ZRValue::TypeToString(wanted),
                __FILE__, __LINE__);
}

}  // namespace

ZRValue::ZRValue() : fType(TypeInvalid) {}
ZRValue::ZRValue(bool value) : fType(TypeBool), fBool(value) {}
ZRValue::ZRValue(int value) : fType(TypeInt), fInt(value) {}
ZRValue::ZRValue(float value) : fType(TypeFloat), fFloat(value) {}
ZRValue::ZRValue(double value) : fType(TypeFloat), fFloat(value) {}
ZRValue::ZRValue(const char* value) : fType(TypeString), fString(value ? value : "") {}
ZRValue::ZRValue(const std::string& value) : fType(TypeString), fString(value) {}
ZRValue::ZRValue(const std::vector<std::string>& values) : fType(TypeArray) {
  fArray.reserve(values.size());
  for (const std::string& value : values) {
    fArray.emplace_back(value);
  }
}
ZRValue::ZRValue(const std::vector<ZRValue>& values) : fType(TypeArray), fArray(values) {}

ZRValue ZRValue::binary(const Binary& bytes) {
  ZRValue value;
  value.fType = TypeBinary;
  value.fBinary = bytes;
  return value;
}

ZRValue ZRValue::binary(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  return binary(Binary(bytes, bytes + size));
}

ZRValue ZRValue::array() {
  ZRValue value;
  value.fType = TypeArray;
  return value;
}

bool ZRValue::toBool() const {
  if (fType != TypeBool) typeMismatch("toBool", fType, TypeBool);
  return fBool;
}

int ZRValue::toInt() const {
  if (fType == TypeInt) return fInt;
  if (fType == TypeFloat) return static_cast<int>(std::trunc(fFloat));
  typeMismatch("toInt", fType, TypeInt);
}

float ZRValue::toFloat() const {
  return static_cast<float>(toDouble());
}

double ZRValue::toDouble() const {
  if (fType == TypeFloat) return fFloat;
  if (fType == TypeInt) return fInt;
  typeMismatch("toFloat", fType, TypeFloat);
}

const std::string& ZRValue::toString() const {
  if (fType != TypeString) typeMismatch("toString", fType, TypeString);
  return fString;
}

const ZRValue::Binary& ZRValue::toBinary() const {
  if (fType != TypeBinary) typeMismatch("toBinary", fType, TypeBinary);
  return fBinary;
}

std::vector<std::string> ZRValue::toStringVector() const {
  if (fType != TypeArray) typeMismatch("toStringVector", fType, TypeArray);
  std::vector<std::string> strings;
  strings.reserve(fArray.size());
  for (const ZRValue& element : fArray) {
    strings.push_back(element.toString());
  }
  return strings;
}

std::size_t ZRValue::size() const {
  if (fType == TypeArray) return fArray.size();
  if (fType == TypeBinary) return fBinary.size();
  return 0;
}

const ZRValue& ZRValue::checkedElement(int index) const {
  if (fType != TypeArray) typeMismatch("operator[]", fType, TypeArray);
  if (index < 0 || static_cast<std::size_t>(index) >= fArray.size()) {
    throw ZRError("ZRValue", "operator[]",
                  "index " + std::to_string(index) + " out of range for an array of " +
                      std::to_string(fArray.size()) + " elements",
                  __FILE__, __LINE__);
  }
  return fArray[static_cast<std::size_t>(index)];
}

ZRValue& ZRValue::operator[](int index) {
  return const_cast<ZRValue&>(checkedElement(index));
}
const ZRValue& ZRValue::operator[](int index) const {
  return checkedElement(index);
}

void ZRValue::arrayPush(const ZRValue& element) {
  if (fType == TypeInvalid) {
    fType = TypeArray;
  } else if (fType != TypeArray) {
    typeMismatch("arrayPush", fType, TypeArray);
  }
  fArray.push_back(element);
}

const std::vector<ZRValue>& ZRValue::elements() const {
  if (fType != TypeArray) typeMismatch("elements", fType, TypeArray);
  return fArray;
}

bool ZRValue::operator==(const ZRValue& other) const {
  if (fType != other.fType) return false;
  switch (fType) {
    case TypeInvalid: return true;
    case TypeBool: return fBool == other.fBool;
    case TypeInt: return fInt == other.fInt;
    case TypeFloat: return fFloat == other.fFloat;
    case TypeString: return fString == other.fString;
    case TypeArray: return fArray == other.fArray;
    case TypeBinary: return fBinary == other.fBinary;
  }
  return false;
}

std::string ZRValue::TypeToString(Type type) {
  switch (type) {
    case TypeInvalid: return "Invalid";
    case TypeBool: return "Bool";
    case TypeInt: return "Int";
    case TypeFloat: return "Float";
    case TypeString: return "String";
    case TypeArray: return "Array";
    case TypeBinary: return "Binary";
  }
  return "Unknown";
}

std::string ZRValue::toDebugString() const {
  std::ostringstream out;
  switch (fType) {
    case TypeInvalid: out << "invalid"; break;
    case TypeBool: out << (fBool ? "true" : "false"); break;
    case TypeInt: out << fInt; break;
    case TypeFloat: out << fFloat; break;
    case TypeString: out << '"' << fString << '"'; break;
    case TypeBinary: out << "<" << fBinary.size() << " bytes>"; break;
    case TypeArray:
      out << '[';
      for (std::size_t i = 0; i < fArray.size(); ++i) {
        out << (i ? ", " : "") << fArray[i].toDebugString();
      }
      out << ']';
      break;
  }
  return out.str();
}

}  // namespace ZR
