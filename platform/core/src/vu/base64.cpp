#include <vu/base64.h>

namespace vu {
namespace base64 {
namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int valueOf(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

}  // namespace

std::string encode(const std::string& bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    const unsigned n = (static_cast<unsigned char>(bytes[i]) << 16) |
                       (static_cast<unsigned char>(bytes[i + 1]) << 8) |
                       static_cast<unsigned char>(bytes[i + 2]);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  const std::size_t rest = bytes.size() - i;
  if (rest > 0) {
    unsigned n = static_cast<unsigned char>(bytes[i]) << 16;
    if (rest == 2) n |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += rest == 2 ? kAlphabet[(n >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

bool decode(const std::string& text, std::string& bytes) {
  std::string symbols;
  for (char c : text) {
    if (c == ' ' || c == '\n' || c == '\r' || c == '\t') continue;
    symbols += c;
  }
  if (symbols.size() % 4 != 0) return false;
  bytes.clear();
  for (std::size_t i = 0; i < symbols.size(); i += 4) {
    const bool last = i + 4 == symbols.size();
    int v[4];
    int padding = 0;
    for (int k = 0; k < 4; ++k) {
      const char c = symbols[i + k];
      if (c == '=' && last && k >= 2) {
        v[k] = 0;
        ++padding;
        continue;
      }
      if (padding > 0) return false;  // data after padding
      v[k] = valueOf(c);
      if (v[k] < 0) return false;
    }
    const unsigned n = (v[0] << 18) | (v[1] << 12) | (v[2] << 6) | v[3];
    bytes += static_cast<char>((n >> 16) & 0xFF);
    if (padding < 2) bytes += static_cast<char>((n >> 8) & 0xFF);
    if (padding < 1) bytes += static_cast<char>(n & 0xFF);
  }
  return true;
}

}  // namespace base64
}  // namespace vu
