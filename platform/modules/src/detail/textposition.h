// Line and column (both from 1) of a byte offset in a text, for error messages about
// files. Columns count characters: UTF-8 continuation bytes do not advance them.
//
//   TextIndex index(text);                 // one pass over the text
//   TextPosition at = index.position(42);  // then a binary search per query
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

namespace ZR {
namespace detail {

struct TextPosition {
  int line = 1;
  int column = 1;
};

class TextIndex {
 public:
  explicit TextIndex(const std::string& text) : fText(text) {
    fLineStarts.push_back(0);
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '\n') fLineStarts.push_back(i + 1);
    }
  }

  TextPosition position(std::ptrdiff_t offset) const {
    TextPosition at;
    if (offset < 0) return at;
    const std::size_t end = std::min(static_cast<std::size_t>(offset), fText.size());
    const auto next = std::upper_bound(fLineStarts.begin(), fLineStarts.end(), end);
    const std::size_t lineStart = *(next - 1);
    at.line = static_cast<int>(next - fLineStarts.begin());
    for (std::size_t i = lineStart; i < end; ++i) {
      if ((static_cast<unsigned char>(fText[i]) & 0xC0) != 0x80) ++at.column;
    }
    return at;
  }

  const std::string& text() const { return fText; }

 private:
  const std::string& fText;
  std::vector<std::size_t> fLineStarts;
};

inline std::string describePosition(const TextPosition& position) {
  return "line " + std::to_string(position.line) + ", column " + std::to_string(position.column);
}

}  // namespace detail
}  // namespace ZR
