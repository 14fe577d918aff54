#include <tuqvu/broker/url.h>

namespace tuqvu {
namespace broker {
int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

Target splitTarget(const std::string& target) {
  Target result;
  const std::size_t question = target.find('?');
  result.path = target.substr(0, question);
  if (question != std::string::npos) {
    result.hasQuery = true;
    result.query = target.substr(question + 1);
    const std::size_t fragment = result.query.find('#');
    if (fragment != std::string::npos) result.query.erase(fragment);
  }
  return result;
}

std::optional<std::string> percentDecode(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    const int high = hexDigitValue(text[i + 1]);
    const int low = hexDigitValue(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return out;
}

bool isValidUtf8(const std::string& text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t size = text.size();
  std::size_t i = 0;
  while (i < size) {
    const unsigned char c = bytes[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    std::size_t length = 0;
    unsigned long codePoint = 0;
    if (c >= 0xC2 && c <= 0xDF) {
      length = 2;
      codePoint = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      length = 3;
      codePoint = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      length = 4;
      codePoint = c & 0x07;
    } else {
      return false;
    }
    if (i + length > size) return false;
    for (std::size_t k = 1; k < length; ++k) {
      if ((bytes[i + k] & 0xC0) != 0x80) return false;
      codePoint = (codePoint << 6) | (bytes[i + k] & 0x3F);
    }
    // Overlong forms, surrogates and code points beyond Unicode are not UTF-8.
    if ((length == 3 && codePoint < 0x800) || (length == 4 && codePoint < 0x10000) ||
        (codePoint >= 0xD800 && codePoint <= 0xDFFF) || codePoint > 0x10FFFF) {
      return false;
    }
    i += length;
  }
  return true;
}

std::vector<std::string> queryValues(const std::string& query, const std::string& name) {
  std::vector<std::string> values;
  std::size_t start = 0;
  while (start <= query.size()) {
    std::size_t end = query.find('&', start);
    if (end == std::string::npos) end = query.size();
    const std::string pair = query.substr(start, end - start);
    const std::size_t equals = pair.find('=');
    if (pair.substr(0, equals) == name) {
      values.push_back(equals == std::string::npos ? "" : pair.substr(equals + 1));
    }
    start = end + 1;
  }
  return values;
}

std::optional<std::string> evalParameter(const std::string& query) {
  static const std::string kPrefix = "eval=";
  if (query.compare(0, kPrefix.size(), kPrefix) == 0) return query.substr(kPrefix.size());
  const std::vector<std::string> values = queryValues(query, "eval");
  if (values.empty()) return std::nullopt;
  return values.front();
}

}  // namespace broker
}  // namespace tuqvu
