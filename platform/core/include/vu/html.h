// vu::html — text made safe to put into an HTML page.
//
//   page += "<td>" + vu::html::escape(name) + "</td>";   // "a<b" gives "a&lt;b"
#pragma once

#include <string>

namespace vu {
namespace html {

// The text with & < > " ' replaced by their character references, so that it reads as
// text in an element and in a quoted attribute value.
std::string escape(const std::string& text);

}  // namespace html
}  // namespace vu
