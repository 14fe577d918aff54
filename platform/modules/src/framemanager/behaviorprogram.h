// A behavior file (behavior.xar) read into a tree of steps, checked once so that a
// run never meets a malformed step. The format is described in docs/behavior-file.md.
//
//   std::shared_ptr<const BehaviorProgram> program =
//       loadBehaviorProgram("ZRFrameManager", "/…/wave/behavior.xar");
#pragma once

#include <zr/zrvalue.h>

#include <memory>
#include <string>
#include <vector>

namespace ZR {
namespace detail {

struct BehaviorStep {
  enum class Kind { log, wait, set, raise, call, repeat, fail };
  Kind kind = Kind::log;
  int line = 0;
  int column = 0;
  std::string text;                 // log: the line; fail: the message
  int level = 4;                    // log
  int milliseconds = 0;             // wait
  std::string key;                  // set, raise
  ZRValue value;                    // set, raise
  std::string module;               // call
  std::string method;               // call
  ZRValue args = ZRValue::array();  // call
  int count = 0;                    // repeat; 0 repeats until the behavior is stopped
  std::vector<BehaviorStep> body;   // repeat
};

struct BehaviorProgram {
  std::string path;
  std::vector<BehaviorStep> steps;
  std::size_t stepCount = 0;  // every step, nested ones included
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
