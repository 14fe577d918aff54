#include "framemanager/behaviorprogram.h"

#include <zr/zrerror.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <pugixml.hpp>
#include <string_view>
#include <system_error>
#include <unordered_map>

#include "detail/textposition.h"
#include "detail/wholefile.h"
#include "detail/xmlposition.h"

namespace ZR {
namespace detail {
namespace {

const char* const kMethod = "newBehaviorFromFile";

// Builds the steps of one file and reports its problems with their position.
class Parser {
public:
  Parser(const std::string& module, const std::string& path, const std::string& text)
      : fModule(module), fPath(path), fText(text), fIndex(text) {}

  std::shared_ptr<const BehaviorProgram> parse() {
    pugi::xml_document document;
    const pugi::xml_parse_result parsed =
        document.load_buffer(fText.data(), fText.size(), pugi::parse_default, pugi::encoding_auto);
    if (!parsed) {
      const TextPosition at = fIndex.position(parsed.offset);
      throw ZRError(fModule, kMethod,
                    "behavior file " + fPath + " is malformed at " + describePosition(at) + ": " +
                        parsed.description(),
                    __FILE__, __LINE__);
    }
    const pugi::xml_node root = document.document_element();
    if (std::string(root.name()) != "behavior") {
      fail(root, "the root element is <" + std::string(root.name()) + ">, <behavior> was expected");
    }
    fProgram = std::make_shared<BehaviorProgram>();
    fProgram->path = fPath;
    reserve(root);
    parseSteps(root, 0);
    fProgram->texts.shrink_to_fit();
    return std::move(fProgram);
  }

private:
  [[noreturn]] void fail(const pugi::xml_node& node, const std::string& reason) const {
    const TextPosition at = positionOfNode(fIndex, node);
    throw ZRError(fModule, kMethod,
                  "behavior file " + fPath + ", " + describePosition(at) + ": " + reason, __FILE__,
                  __LINE__);
  }

  std::string where(const pugi::xml_node& node) const {
    return "<" + std::string(node.name()) + ">";
  }

  // Refuses attributes the step does not know: a typo must not pass silently.
  void allowAttributes(const pugi::xml_node& node, std::initializer_list<const char*> known) const {
    for (const pugi::xml_attribute& attribute : node.attributes()) {
      bool ok = false;
      for (const char* name : known) ok = ok || std::strcmp(attribute.name(), name) == 0;
      if (!ok) {
        fail(node, where(node) + " has an unknown attribute \"" + attribute.name() + "\"");
      }
    }
  }

  pugi::xml_attribute requiredAttribute(const pugi::xml_node& node, const char* attribute) const {
    const pugi::xml_attribute found = node.attribute(attribute);
    if (!found) fail(node, where(node) + " needs the attribute \"" + attribute + "\"");
    return found;
  }

  std::string required(const pugi::xml_node& node, const char* attribute) const {
    return requiredAttribute(node, attribute).value();
  }

  int integer(const pugi::xml_node& node, const char* attribute, const std::string& text,
              int minimum, int maximum) const {
    int result = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, result);
    if (text.empty() || error != std::errc() || stop != end || result < minimum ||
        result > maximum) {
      fail(node, where(node) + " " + attribute + "=\"" + text + "\" is not a whole number from " +
                     std::to_string(minimum) + " to " + std::to_string(maximum));
    }
    return result;
  }

  // Keeps each distinct text once: keys, module and method names and log lines repeat
  // throughout a long behavior.
  TextSpan intern(const char* text) {
    const std::string_view view(text);
    const auto found = fInterned.find(view);
    if (found != fInterned.end()) return found->second;
    TextSpan span;
    span.offset = static_cast<std::uint32_t>(fProgram->texts.size());
    span.length = static_cast<std::uint32_t>(view.size());
    fProgram->texts.append(view);
    fInterned.emplace(view, span);
    return span;
  }

  Literal typedValue(const pugi::xml_node& node) {
    const pugi::xml_attribute typeAttribute = node.attribute("type");
    const std::string type = typeAttribute ? typeAttribute.value() : "string";
    const pugi::xml_attribute valueAttribute = node.attribute("value");
    if (!valueAttribute) fail(node, where(node) + " needs the attribute \"value\"");
    const std::string text = valueAttribute.value();
    Literal literal;
    if (type == "string") {
      literal.type = Literal::Type::string;
      literal.text = intern(valueAttribute.value());
      return literal;
    }
    if (type == "int") {
      literal.type = Literal::Type::integer;
      literal.integer = integer(node, "value", text, std::numeric_limits<int>::min(),
                                std::numeric_limits<int>::max());
      return literal;
    }
    if (type == "float") {
      double result = 0;
      const char* end = text.data() + text.size();
      const auto [stop, error] = std::from_chars(text.data(), end, result);
      if (text.empty() || error != std::errc() || stop != end || !std::isfinite(result)) {
        fail(node, where(node) + " value=\"" + text + "\" is not a float");
      }
      literal.type = Literal::Type::real;
      literal.real = result;
      return literal;
    }
    if (type == "bool") {
      literal.type = Literal::Type::boolean;
      if (text == "true" || text == "1") {
        literal.boolean = true;
        return literal;
      }
      if (text == "false" || text == "0") {
        literal.boolean = false;
        return literal;
      }
      fail(node, where(node) + " value=\"" + text + "\" is not a bool (true or false)");
    }
    fail(node, where(node) + " has the unknown type \"" + type + "\" (int, float, string or bool)");
  }

  // Sizes the arrays once, so that a large file never holds a half-empty reserve.
  void reserve(const pugi::xml_node& root) {
    struct Counter : pugi::xml_tree_walker {
      std::size_t steps = 0;
      std::size_t arguments = 0;
      bool for_each(pugi::xml_node& node) override {
        if (node.type() != pugi::node_element) return true;
        if (std::strcmp(node.parent().name(), "call") == 0) {
          ++arguments;
        } else {
          ++steps;
        }
        return true;
      }
    } counter;
    pugi::xml_node walked = root;
    walked.traverse(counter);  // iterative: a deep document cannot exhaust the stack
    fProgram->steps.reserve(counter.steps);
    fProgram->arguments.reserve(counter.arguments);
  }

  void parseSteps(const pugi::xml_node& parent, int depth) {
    if (depth > kMaxBehaviorDepth) {
      fail(parent, "steps are nested more than " + std::to_string(kMaxBehaviorDepth) + " deep");
    }
    for (const pugi::xml_node& child : parent.children()) {
      if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) {
        fail(child, "unexpected text inside " + where(parent));
      }
      if (child.type() != pugi::node_element) continue;
      parseStep(child, depth);
    }
  }

  void parseStep(const pugi::xml_node& node, int depth) {
    const std::size_t index = fProgram->steps.size();
    fProgram->steps.emplace_back();
    BehaviorStep step;
    const TextPosition at = positionOfNode(fIndex, node);
    step.line = static_cast<std::uint32_t>(at.line);
    step.column = static_cast<std::uint32_t>(at.column);
    const std::string name = node.name();  // short: kept in the string's own buffer
    if (name != "repeat" && name != "call" && node.first_child()) {
      fail(node.first_child(), where(node) + " takes no content");
    }
    if (name == "log") {
      step.kind = BehaviorStep::Kind::log;
      allowAttributes(node, {"text", "level"});
      step.text = intern(requiredAttribute(node, "text").value());
      if (node.attribute("level")) {
        step.level = static_cast<std::uint8_t>(
            integer(node, "level", node.attribute("level").value(), 1, 6));
      }
    } else if (name == "wait") {
      step.kind = BehaviorStep::Kind::wait;
      allowAttributes(node, {"ms"});
      step.number = static_cast<std::uint32_t>(
          integer(node, "ms", required(node, "ms"), 0, std::numeric_limits<int>::max()));
    } else if (name == "set" || name == "raise") {
      step.kind = name == "set" ? BehaviorStep::Kind::set : BehaviorStep::Kind::raise;
      allowAttributes(node, {"key", "type", "value"});
      const char* key = requiredAttribute(node, "key").value();
      if (*key == '\0') fail(node, where(node) + " has an empty key");
      step.text = intern(key);
      step.value = typedValue(node);
    } else if (name == "call") {
      step.kind = BehaviorStep::Kind::call;
      allowAttributes(node, {"module", "method"});
      step.text = intern(requiredAttribute(node, "module").value());
      step.method = intern(requiredAttribute(node, "method").value());
      step.firstArgument = static_cast<std::uint32_t>(fProgram->arguments.size());
      for (const pugi::xml_node& child : node.children()) {
        if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) {
          fail(child, "unexpected text inside <call>");
        }
        if (child.type() != pugi::node_element) continue;
        if (std::string(child.name()) != "arg") {
          fail(child, "<call> holds <" + std::string(child.name()) + ">, only <arg> is allowed");
        }
        allowAttributes(child, {"type", "value"});
        if (child.first_child()) fail(child.first_child(), "<arg> takes no content");
        fProgram->arguments.push_back(typedValue(child));
      }
      step.argumentCount =
          static_cast<std::uint32_t>(fProgram->arguments.size()) - step.firstArgument;
    } else if (name == "repeat") {
      step.kind = BehaviorStep::Kind::repeat;
      allowAttributes(node, {"count"});
      if (node.attribute("count")) {
        step.number = static_cast<std::uint32_t>(integer(
            node, "count", node.attribute("count").value(), 0, std::numeric_limits<int>::max()));
      }
      parseSteps(node, depth + 1);
      step.bodyEnd = static_cast<std::uint32_t>(fProgram->steps.size());
      if (step.bodyEnd == index + 1 && step.number == 0) {
        fail(node, "<repeat> until stopped needs at least one step");
      }
    } else if (name == "fail") {
      step.kind = BehaviorStep::Kind::fail;
      allowAttributes(node, {"message"});
      step.text = intern(requiredAttribute(node, "message").value());
    } else {
      fail(node, "unknown step <" + name + "> (known: log, wait, set, raise, call, repeat, fail)");
    }
    fProgram->steps[index] = step;
  }

  const std::string& fModule;
  const std::string& fPath;
  const std::string& fText;
  const TextIndex fIndex;
  std::shared_ptr<BehaviorProgram> fProgram;
  // Views into the parsed document, which outlives the parse.
  std::unordered_map<std::string_view, TextSpan> fInterned;
};

// What the allocator adds to each block it hands out.
constexpr std::size_t kBlockOverhead = 16;

std::size_t heapOf(std::size_t capacityBytes, std::size_t inlineBytes = 0) {
  return capacityBytes > inlineBytes ? capacityBytes + kBlockOverhead : 0;
}

}  // namespace

ZRValue BehaviorProgram::value(const Literal& literal) const {
  switch (literal.type) {
    case Literal::Type::string: return ZRValue(text(literal.text));
    case Literal::Type::integer: return ZRValue(literal.integer);
    case Literal::Type::real: return ZRValue(literal.real);
    case Literal::Type::boolean: return ZRValue(literal.boolean);
  }
  return ZRValue();
}

ZRValue BehaviorProgram::argumentsOf(const BehaviorStep& call) const {
  ZRValue values = ZRValue::array();
  for (std::uint32_t i = 0; i < call.argumentCount; ++i) {
    values.arrayPush(value(arguments[call.firstArgument + i]));
  }
  return values;
}

std::size_t BehaviorProgram::heldBytes() const {
  constexpr std::size_t kInlineCharacters = 15;
  return sizeof(BehaviorProgram) + kBlockOverhead +
         heapOf(path.capacity() + 1, kInlineCharacters + 1) +
         heapOf(steps.capacity() * sizeof(BehaviorStep)) +
         heapOf(arguments.capacity() * sizeof(Literal)) +
         heapOf(texts.capacity() + 1, kInlineCharacters + 1);
}

const char* stepName(BehaviorStep::Kind kind) {
  switch (kind) {
    case BehaviorStep::Kind::log: return "log";
    case BehaviorStep::Kind::wait: return "wait";
    case BehaviorStep::Kind::set: return "set";
    case BehaviorStep::Kind::raise: return "raise";
    case BehaviorStep::Kind::call: return "call";
    case BehaviorStep::Kind::repeat: return "repeat";
    case BehaviorStep::Kind::fail: return "fail";
  }
  return "?";
}

std::shared_ptr<const BehaviorProgram> parseBehaviorProgram(const std::string& module,
                                                            const std::string& path,
                                                            const std::string& text) {
  return Parser(module, path, text).parse();
}

std::shared_ptr<const BehaviorProgram> loadBehaviorProgram(const std::string& module,
                                                           const std::string& path,
                                                           const std::string& shownAs) {
  std::string text;
  try {
    if (!readWholeFile(path, text, kMaxBehaviorFileBytes)) {
      throw ZRError(module, kMethod, "behavior file " + shownAs + " does not exist", __FILE__,
                    __LINE__);
    }
  } catch (const std::system_error& error) {
    throw ZRError(module, kMethod,
                  "behavior file " + shownAs + " cannot be read: " + error.code().message(),
                  __FILE__, __LINE__);
  }
  return parseBehaviorProgram(module, shownAs, text);
}

}  // namespace detail
}  // namespace ZR
