#include <zr/zrtypes.h>

namespace ZR {

std::string getTypeString(int code) {
  switch (code) {
    case TypeCodeVoid: return "void";
    case TypeCodeBool: return "bool";
    case TypeCodeInt: return "int";
    case TypeCodeFloat: return "float";
    case TypeCodeString: return "std::string";
    case TypeCodeValue: return "ZRValue";
    case TypeCodeStringVector: return "std::vector<std::string>";
    default: return "unknown";
  }
}

}  // namespace ZR
