// A behavior file (behavior.xar) read into a program of steps, checked once so that a
// run never meets a malformed step. The format is described in docs/behavior-file.md.
//
//   std::shared_ptr<const BehaviorProgram> program =
//       loadBehaviorProgram("ZRFrameManager", "/…/wave/behavior.xar", "wave/behavior.xar");
//
// A program is compact, since a robot keeps many of them and one file may hold millions
// of steps: the steps lie in one array in document order (a <repeat>'s body follows it),
// every text of the file is kept once in one string, and values are kept as the literals
// they were written as. ZRValues are made when a step runs.
#pragma once

#include <zr/zrvalue.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ZR {
namespace detail {

// A text of the program: a piece of BehaviorProgram::texts.
struct TextSpan {
  std::uint32_t offset = 0;
  std::uint32_t length = 0;
};

// A typed value as the file wrote it: what <set>, <raise> and <arg> hold.
struct Literal {
  enum class Type : std::uint8_t { string, integer, real, boolean };
  Type type = Type::string;
  union {
    TextSpan text{};  // string
    std::int32_t integer;
    double real;
    bool boolean;
  };
};

struct BehaviorStep {
  enum class Kind : std::uint8_t { log, wait, set, raise, call, repeat, fail };
  Kind kind = Kind::log;
  std::uint8_t level = 4;  // log
  std::uint32_t line = 0;
  std::uint32_t column = 0;
  std::uint32_t number = 0;         // wait: milliseconds; repeat: count, 0 until stopped
  std::uint32_t bodyEnd = 0;        // repeat: index of the first step after its body
  std::uint32_t firstArgument = 0;  // call: its arguments in BehaviorProgram::arguments
  std::uint32_t argumentCount = 0;
  TextSpan text;    // log: the line; fail: the message; set, raise: the key; call: the module
  TextSpan method;  // call
  Literal value;    // set, raise
};

struct BehaviorProgram {
  std::string path;
  std::vector<BehaviorStep> steps;  // every step, nested ones included, in document order
  std::vector<Literal> arguments;   // of every <call>, in document order
  std::string texts;                // every distinct text of the file, once

  std::string text(TextSpan span) const { return texts.substr(span.offset, span.length); }
  ZRValue value(const Literal& literal) const;
  ZRValue argumentsOf(const BehaviorStep& call) const;  // an array
  // The index of the step that follows `index` at the same level (past a body).
  std::size_t next(std::size_t index) const {
    return steps[index].kind == BehaviorStep::Kind::repeat ? steps[index].bodyEnd : index + 1;
  }
  // The bytes the program holds in the process, its own object included.
  std::size_t heldBytes() const;
};

// The largest behavior file read, and the deepest nesting of <repeat>.
constexpr std::size_t kMaxBehaviorFileBytes = 32u << 20;
constexpr int kMaxBehaviorDepth = 64;

// Reads and checks a file. Every problem is a ZRError(module, "newBehaviorFromFile", …)
// whose description names the file as `shownAs`, and the line and column for a problem
// inside it; the program's path is `shownAs` too.
std::shared_ptr<const BehaviorProgram> loadBehaviorProgram(const std::string& module,
                                                           const std::string& path,
                                                           const std::string& shownAs);

// The same for a text already read; path only names it in messages.
std::shared_ptr<const BehaviorProgram> parseBehaviorProgram(const std::string& module,
                                                            const std::string& path,
                                                            const std::string& text);

// The element name of a step kind ("log", "wait", …).
const char* stepName(BehaviorStep::Kind kind);

}  // namespace detail
}  // namespace ZR
