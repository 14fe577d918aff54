// The JSON form of ZRValue, used by the broker's remote API.
//
//   invalid <-> null, bool <-> true/false, int <-> an integer that fits 32 bits,
//   float <-> any other number, string <-> string, array <-> array,
//   binary <-> {"$binary": "<base64>"}.
// Other objects are refused with ZRError.
#pragma once

#include <zr/zrvalue.h>

#include <string>

namespace ZR {

// Serialises to compact JSON text.
std::string toJson(const ZRValue& value);

// Parses JSON text; throws ZRError with the parser's message on malformed input or on
// nesting deeper than maxDepth.
ZRValue fromJson(const std::string& text, int maxDepth = 64);

}  // namespace ZR
