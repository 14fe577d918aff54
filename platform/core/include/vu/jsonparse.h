// Parsing JSON text that comes from outside, with a limit on its nesting: the limit is
// checked as the parser meets each opening bracket, before it builds (and recurses into)
// what follows, so a document of a million "[" costs nothing but the refusal. Header-only
// over nlohmann-json, for the components that use that library.
//
//   try {
//     nlohmann::json document = vu::json::parseLimited(text, 64);
//   } catch (const vu::json::ParseError& error) { ... error.what() ... }   // or TooDeepError
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace vu {
namespace json {

// Malformed text; the message is the parser's.
class ParseError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

// Nesting deeper than the limit: "JSON nested deeper than N levels".
class TooDeepError : public ParseError {
public:
  using ParseError::ParseError;
};

inline nlohmann::json parseLimited(const std::string& text, int maxDepth) {
  int depth = 0;
  bool tooDeep = false;
  const nlohmann::json::parser_callback_t limit = [&](int, nlohmann::json::parse_event_t event,
                                                      nlohmann::json&) {
    if (event == nlohmann::json::parse_event_t::object_start ||
        event == nlohmann::json::parse_event_t::array_start) {
      if (++depth > maxDepth) tooDeep = true;
    } else if (event == nlohmann::json::parse_event_t::object_end ||
               event == nlohmann::json::parse_event_t::array_end) {
      --depth;
    }
    return !tooDeep;
  };
  nlohmann::json document;
  try {
    document = nlohmann::json::parse(text, limit);
  } catch (const nlohmann::json::exception& error) {
    throw ParseError(error.what());
  }
  if (tooDeep) {
    throw TooDeepError("JSON nested deeper than " + std::to_string(maxDepth) + " levels");
  }
  return document;
}

}  // namespace json
}  // namespace vu
