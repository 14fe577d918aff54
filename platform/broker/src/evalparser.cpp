#include <tuqvu/broker/evalparser.h>
#include <tuqvu/broker/url.h>

#include <charconv>
#include <system_error>

namespace tuqvu {
namespace broker {
namespace {

constexpr int kMaxArrayDepth = 64;

bool isIdentifierStart(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isIdentifierChar(char c) {
  return isIdentifierStart(c) || isDigit(c);
}

void appendUtf8(std::string& out, unsigned long codePoint) {
  if (codePoint < 0x80) {
    out += static_cast<char>(codePoint);
  } else if (codePoint < 0x800) {
    out += static_cast<char>(0xC0 | (codePoint >> 6));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else if (codePoint < 0x10000) {
    out += static_cast<char>(0xE0 | (codePoint >> 12));
    out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (codePoint >> 18));
    out += static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  }
}

class Parser {
public:
  explicit Parser(const std::string& text) : fText(text) {}

  EvalCall parseCall() {
    EvalCall call;
    skipBlanks();
    call.module = identifier("a module name");
    skipBlanks();
    expect('.');
    skipBlanks();
    call.method = identifier("a method name");
    skipBlanks();
    expect('(');
    call.args = list(')', 0);
    skipBlanks();
    if (!atEnd()) fail("unexpected text after the closing ')'");
    return call;
  }

private:
  [[noreturn]] void fail(const std::string& what) const {
    throw EvalSyntaxError(what + " at position " + std::to_string(fPos), fPos);
  }
  bool atEnd() const { return fPos >= fText.size(); }
  char peek() const { return atEnd() ? '\0' : fText[fPos]; }
  void skipBlanks() {
    while (!atEnd() && (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r')) {
      ++fPos;
    }
  }
  void expect(char c) {
    if (atEnd()) fail(std::string("expected '") + c + "' but the expression ends");
    if (peek() != c) fail(std::string("expected '") + c + "'");
    ++fPos;
  }
  std::string identifier(const char* what) {
    if (atEnd() || !isIdentifierStart(peek())) fail(std::string("expected ") + what);
    const std::size_t start = fPos;
    while (!atEnd() && isIdentifierChar(peek())) ++fPos;
    return fText.substr(start, fPos - start);
  }

  // Elements separated by commas up to the closing character; the opening one is read.
  ZR::ZRValue list(char close, int depth) {
    ZR::ZRValue values = ZR::ZRValue::array();
    skipBlanks();
    if (peek() == close && !atEnd()) {
      ++fPos;
      return values;
    }
    for (;;) {
      skipBlanks();
      values.arrayPush(value(depth));
      skipBlanks();
      if (atEnd()) fail(std::string("expected ',' or '") + close + "' but the expression ends");
      if (peek() == ',') {
        ++fPos;
        continue;
      }
      expect(close);
      return values;
    }
  }

  ZR::ZRValue value(int depth) {
    if (atEnd()) fail("expected a value but the expression ends");
    const char c = peek();
    if (c == '\'' || c == '"') return ZR::ZRValue(quoted(c));
    if (c == '[') {
      if (depth + 1 > kMaxArrayDepth) {
        fail("arrays nested deeper than " + std::to_string(kMaxArrayDepth) + " levels");
      }
      ++fPos;
      return list(']', depth + 1);
    }
    if (isDigit(c) || c == '-' || c == '+' || c == '.') return number();
    if (isIdentifierStart(c)) {
      const std::size_t start = fPos;
      const std::string word = identifier("a value");
      if (word == "true") return ZR::ZRValue(true);
      if (word == "false") return ZR::ZRValue(false);
      if (word == "null") return ZR::ZRValue();
      fPos = start;
      fail("unknown word \"" + word + "\" (strings need quotes)");
    }
    fail(std::string("unexpected character '") + c + "'");
  }

  std::string quoted(char quote) {
    ++fPos;
    std::string out;
    for (;;) {
      if (atEnd()) fail("unterminated string");
      const char c = fText[fPos++];
      if (c == quote) return out;
      if (c != '\\') {
        out += c;
        continue;
      }
      if (atEnd()) fail("unterminated string");
      const char escaped = fText[fPos++];
      switch (escaped) {
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        case 'r': out += '\r'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'v': out += '\v'; break;
        case '0': out += '\0'; break;
        case 'x': out += static_cast<char>(hexDigits(2)); break;
        case 'u': appendUtf8(out, codePoint()); break;
        default: out += escaped; break;
      }
    }
  }

  unsigned long hexDigits(int count) {
    unsigned long value = 0;
    for (int i = 0; i < count; ++i) {
      const int digit = atEnd() ? -1 : hexDigitValue(peek());
      if (digit < 0) fail("expected " + std::to_string(count) + " hexadecimal digits");
      value = value * 16 + static_cast<unsigned long>(digit);
      ++fPos;
    }
    return value;
  }

  // \uXXXX, with a following \uXXXX low surrogate when the first is a high one.
  unsigned long codePoint() {
    const unsigned long first = hexDigits(4);
    if (first >= 0xDC00 && first <= 0xDFFF) fail("a lone low surrogate in \\u escape");
    if (first < 0xD800 || first > 0xDBFF) return first;
    if (fText.compare(fPos, 2, "\\u") != 0) fail("a high surrogate needs a following \\u escape");
    fPos += 2;
    const unsigned long second = hexDigits(4);
    if (second < 0xDC00 || second > 0xDFFF) fail("expected a low surrogate in \\u escape");
    return 0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00);
  }

  ZR::ZRValue number() {
    const std::size_t start = fPos;
    if (peek() == '-' || peek() == '+') ++fPos;
    bool digits = false;
    bool integral = true;
    while (!atEnd() && isDigit(peek())) ++fPos, digits = true;
    if (peek() == '.' && !atEnd()) {
      integral = false;
      ++fPos;
      while (!atEnd() && isDigit(peek())) ++fPos, digits = true;
    }
    if (!digits) {
      fPos = start;
      fail("malformed number");
    }
    if (peek() == 'e' || peek() == 'E') {
      integral = false;
      ++fPos;
      if (peek() == '-' || peek() == '+') ++fPos;
      if (atEnd() || !isDigit(peek())) fail("malformed exponent");
      while (!atEnd() && isDigit(peek())) ++fPos;
    }
    if (!atEnd() && (isIdentifierChar(peek()) || peek() == '.')) fail("malformed number");
    // from_chars ignores the locale; it takes no leading '+'.
    const char* first = fText.data() + start + (fText[start] == '+' ? 1 : 0);
    const char* last = fText.data() + fPos;
    if (integral) {
      int value = 0;
      const auto parsed = std::from_chars(first, last, value);
      if (parsed.ec == std::errc() && parsed.ptr == last) return ZR::ZRValue(value);
    }
    double value = 0.0;
    const auto parsed = std::from_chars(first, last, value);
    if (parsed.ec != std::errc() || parsed.ptr != last) {
      fPos = start;
      fail("number out of range");
    }
    return ZR::ZRValue(value);
  }

  const std::string& fText;
  std::size_t fPos = 0;
};

}  // namespace

EvalCall parseEval(const std::string& expression) {
  return Parser(expression).parseCall();
}

}  // namespace broker
}  // namespace tuqvu
