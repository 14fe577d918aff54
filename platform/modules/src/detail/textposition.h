// Line and column (both from 1) of a byte offset in a text, for error messages about
// files. Columns count characters: UTF-8 continuation bytes do not advance them.
//
//   TextIndex index(text);                 // one pass over the text
//   TextPosition at = index.position(42);  // then a binary search per query
//
// A query costs O(log lines + kBlock), whatever the length of the line: a behavior file
// with every node on one line must not make each node's position a scan of that line.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
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
    fCharactersBeforeBlock.reserve(text.size() / kBlock + 1);
    std::uint32_t characters = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (i % kBlock == 0) fCharactersBeforeBlock.push_back(characters);
      if (isCharacterStart(text[i])) ++characters;
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
    at.column = 1 + static_cast<int>(charactersBefore(end) - charactersBefore(lineStart));
    return at;
  }

  const std::string& text() const { return fText; }

private:
  // Every kBlock bytes the index keeps how many characters came before: 4 bytes per 64 of
  // text, and at most one block to count per query.
  static constexpr std::size_t kBlock = 64;

  static bool isCharacterStart(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
  }

  // The number of characters that start before byte `offset` (at most the text's size).
  std::uint32_t charactersBefore(std::size_t offset) const {
    if (fCharactersBeforeBlock.empty()) return 0;  // an empty text
    const std::size_t block = std::min(offset / kBlock, fCharactersBeforeBlock.size() - 1);
    std::uint32_t characters = fCharactersBeforeBlock[block];
    for (std::size_t i = block * kBlock; i < offset; ++i) {
      if (isCharacterStart(fText[i])) ++characters;
    }
    return characters;
  }

  const std::string& fText;
  std::vector<std::size_t> fLineStarts;
  std::vector<std::uint32_t> fCharactersBeforeBlock;
};

inline std::string describePosition(const TextPosition& position) {
  return "line " + std::to_string(position.line) + ", column " + std::to_string(position.column);
}

}  // namespace detail
}  // namespace ZR
