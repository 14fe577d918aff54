#include "memory/memorysize.h"

#include <map>
#include <utility>

namespace ZR {
namespace detail {
namespace {

// What the allocator adds to a block it hands out (its header and rounding).
constexpr std::size_t kBlockOverhead = 16;
// Characters a std::string keeps inside itself, without a heap block.
constexpr std::size_t kInlineCharacters = 15;
// A node of the map of entries: the tree's links and colour beside the key and value.
constexpr std::size_t kMapNodeBytes =
    sizeof(std::pair<const std::string, ZRValue>) + 4 * sizeof(void*) + kBlockOverhead;

// Sizes, not capacities: the memory keeps a fresh copy of every value, whose buffers are
// exactly as large as what they hold.
std::size_t heapOfString(const std::string& text) {
  return text.size() > kInlineCharacters ? text.size() + 1 + kBlockOverhead : 0;
}

// The heap a value owns beyond its own object.
std::size_t heapOf(const ZRValue& value) {
  switch (value.getType()) {
    case ZRValue::TypeString: return heapOfString(value.toString());
    case ZRValue::TypeBinary: {
      const ZRValue::Binary& bytes = value.toBinary();
      return bytes.empty() ? 0 : bytes.size() + kBlockOverhead;
    }
    case ZRValue::TypeArray: {
      const std::vector<ZRValue>& elements = value.elements();
      if (elements.empty()) return 0;
      std::size_t size = elements.size() * sizeof(ZRValue) + kBlockOverhead;
      for (const ZRValue& element : elements) size += heapOf(element);
      return size;
    }
    default: return 0;
  }
}

}  // namespace

std::size_t heldBytes(const ZRValue& value) {
  return sizeof(ZRValue) + heapOf(value);
}

std::size_t heldBytes(const std::string& key, const ZRValue& value) {
  return kMapNodeBytes + heapOfString(key) + heapOf(value);
}

}  // namespace detail
}  // namespace ZR
