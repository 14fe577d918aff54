#include "framemanager/behaviorprogram.h"

#include <zr/zrerror.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <pugixml.hpp>
#include <set>
#include <system_error>

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
    auto program = std::make_shared<BehaviorProgram>();
    program->path = fPath;
    program->steps = parseSteps(root, 0);
    program->stepCount = fStepCount;
    return program;
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

  std::string required(const pugi::xml_node& node, const char* attribute) const {
    const pugi::xml_attribute found = node.attribute(attribute);
    if (!found) fail(node, where(node) + " needs the attribute \"" + attribute + "\"");
    return found.value();
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

  ZRValue typedValue(const pugi::xml_node& node) const {
    const pugi::xml_attribute typeAttribute = node.attribute("type");
    const std::string type = typeAttribute ? typeAttribute.value() : "string";
    const std::string text = required(node, "value");
    if (type == "string") return ZRValue(text);
    if (type == "int") {
      return ZRValue(integer(node, "value", text, std::numeric_limits<int>::min(),
                             std::numeric_limits<int>::max()));
    }
    if (type == "float") {
      double result = 0;
      const char* end = text.data() + text.size();
      const auto [stop, error] = std::from_chars(text.data(), end, result);
      if (text.empty() || error != std::errc() || stop != end || !std::isfinite(result)) {
        fail(node, where(node) + " value=\"" + text + "\" is not a float");
      }
      return ZRValue(result);
    }
    if (type == "bool") {
      if (text == "true" || text == "1") return ZRValue(true);
      if (text == "false" || text == "0") return ZRValue(false);
      fail(node, where(node) + " value=\"" + text + "\" is not a bool (true or false)");
    }
    fail(node, where(node) + " has the unknown type \"" + type + "\" (int, float, string or bool)");
  }

  std::vector<BehaviorStep> parseSteps(const pugi::xml_node& parent, int depth) {
    if (depth > kMaxBehaviorDepth) {
      fail(parent, "steps are nested more than " + std::to_string(kMaxBehaviorDepth) + " deep");
    }
    std::vector<BehaviorStep> steps;
    std::size_t elements = 0;
    for (const pugi::xml_node& child : parent.children()) {
      if (child.type() == pugi::node_element) ++elements;
    }
    steps.reserve(elements);
    for (const pugi::xml_node& child : parent.children()) {
      if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) {
        fail(child, "unexpected text inside " + where(parent));
      }
      if (child.type() != pugi::node_element) continue;
      steps.push_back(parseStep(child, depth));
    }
    return steps;
  }

  BehaviorStep parseStep(const pugi::xml_node& node, int depth) {
    ++fStepCount;
    BehaviorStep step;
    const TextPosition at = positionOfNode(fIndex, node);
    step.line = at.line;
    step.column = at.column;
    const std::string name = node.name();  // short: kept in the string's own buffer
    if (name != "repeat" && name != "call" && node.first_child()) {
      fail(node.first_child(), where(node) + " takes no content");
    }
    if (name == "log") {
      step.kind = BehaviorStep::Kind::log;
      allowAttributes(node, {"text", "level"});
      step.text = required(node, "text");
      if (node.attribute("level")) {
        step.level = integer(node, "level", node.attribute("level").value(), 1, 6);
      }
    } else if (name == "wait") {
      step.kind = BehaviorStep::Kind::wait;
      allowAttributes(node, {"ms"});
      step.milliseconds =
          integer(node, "ms", required(node, "ms"), 0, std::numeric_limits<int>::max());
    } else if (name == "set" || name == "raise") {
      step.kind = name == "set" ? BehaviorStep::Kind::set : BehaviorStep::Kind::raise;
      allowAttributes(node, {"key", "type", "value"});
      step.key = required(node, "key");
      if (step.key.empty()) fail(node, where(node) + " has an empty key");
      step.value = typedValue(node);
    } else if (name == "call") {
      step.kind = BehaviorStep::Kind::call;
      allowAttributes(node, {"module", "method"});
      step.module = required(node, "module");
      step.method = required(node, "method");
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
        step.args.arrayPush(typedValue(child));
      }
    } else if (name == "repeat") {
      step.kind = BehaviorStep::Kind::repeat;
      allowAttributes(node, {"count"});
      if (node.attribute("count")) {
        step.count = integer(node, "count", node.attribute("count").value(), 0,
                             std::numeric_limits<int>::max());
      }
      step.body = parseSteps(node, depth + 1);
      if (step.body.empty() && step.count == 0) {
        fail(node, "<repeat> until stopped needs at least one step");
      }
    } else if (name == "fail") {
      step.kind = BehaviorStep::Kind::fail;
      allowAttributes(node, {"message"});
      step.text = required(node, "message");
    } else {
      fail(node, "unknown step <" + name + "> (known: log, wait, set, raise, call, repeat, fail)");
    }
    return step;
  }

  const std::string& fModule;
  const std::string& fPath;
  const std::string& fText;
  const TextIndex fIndex;
  std::size_t fStepCount = 0;
};

}  // namespace

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
