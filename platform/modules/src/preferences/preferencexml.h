// The XML form of a preference file and its checks (format: docs/modules.md).
//
//   std::string text = encodePreferences("DefaultBehaviors", entries);
//   ZRValue back = decodePreferences(text);     // back == entries
#pragma once

#include <zr/zrvalue.h>

#include <stdexcept>
#include <string>

namespace ZR {
namespace detail {

// What is wrong with a value to write or a text read; line and column are 0 when the
// problem has no place in a text.
class PreferenceFormatError : public std::runtime_error {
public:
  PreferenceFormatError(const std::string& reason, int line = 0, int column = 0)
      : std::runtime_error(reason), fLine(line), fColumn(column) {}
  int line() const { return fLine; }
  int column() const { return fColumn; }

private:
  int fLine;
  int fColumn;
};

// Throws PreferenceFormatError unless entries is an array of arrays of three strings
// that a file can hold (keys and descriptions must be XML text).
std::string encodePreferences(const std::string& moduleName, const ZRValue& entries);
ZRValue decodePreferences(const std::string& text);

}  // namespace detail
}  // namespace ZR
