// The place of a pugixml node in the text it was parsed from: an element at its "<",
// text at its first visible character.
#pragma once

#include <pugixml.hpp>
#include <string>

#include "detail/textposition.h"

namespace ZR {
namespace detail {

inline TextPosition positionOfNode(const TextIndex& index, const pugi::xml_node& node) {
  std::ptrdiff_t offset = node.offset_debug();  // the element's name, or the text's start
  if (offset < 0) return TextPosition();
  if (node.type() == pugi::node_element && offset > 0) {
    --offset;
  } else if (node.type() == pugi::node_pcdata) {
    const std::size_t visible =
        index.text().find_first_not_of(" \t\r\n", static_cast<std::size_t>(offset));
    if (visible != std::string::npos) offset = static_cast<std::ptrdiff_t>(visible);
  }
  return index.position(offset);
}

}  // namespace detail
}  // namespace ZR
