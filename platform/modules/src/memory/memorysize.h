// What a stored entry of the memory module holds in the process: its map node, its key,
// and every value with the heap blocks of its strings, binaries and arrays. The limits
// count these bytes, so that filling the memory to its limit costs about the limit.
#pragma once

#include <zr/zrvalue.h>

#include <cstddef>
#include <string>

namespace ZR {
namespace detail {

std::size_t heldBytes(const ZRValue& value);
std::size_t heldBytes(const std::string& key, const ZRValue& value);

}  // namespace detail
}  // namespace ZR
