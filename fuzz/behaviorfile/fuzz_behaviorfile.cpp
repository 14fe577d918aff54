// Fuzzes the frame manager's reader of behavior files (behavior.xar). The input is the
// file's content. Every problem must come out as a ZRError of the frame manager's
// "newBehaviorFromFile" whose description names the file; anything else escaping is a
// finding. A file that is accepted must hold as many steps as it reports, nested no
// deeper than the documented limit, with a value of the declared kind in every step.
#include <zr/zrerror.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "../common/sandbox.h"
#include "framemanager/behaviorprogram.h"

namespace {

using ZR::detail::BehaviorProgram;
using ZR::detail::BehaviorStep;

const char* const kPath = "/robot/behaviors/fuzz/behavior.xar";

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "behavior file: %s\n", what.c_str());
  std::abort();
}

// Walks the steps from `begin` up to `end` as a run would and checks what the reader
// promised: bodies inside their parent, bounded nesting, values in range.
void checkSteps(const BehaviorProgram& program, std::size_t begin, std::size_t end, int depth) {
  if (depth > ZR::detail::kMaxBehaviorDepth) fail("accepted a file nested too deep");
  for (std::size_t index = begin; index < end; index = program.next(index)) {
    const BehaviorStep& step = program.steps[index];
    const auto spanFits = [&](ZR::detail::TextSpan span) {
      return std::size_t(span.offset) + span.length <= program.texts.size();
    };
    if (!spanFits(step.text) || !spanFits(step.method)) fail("a text outside the program");
    switch (step.kind) {
      case BehaviorStep::Kind::repeat:
        if (step.bodyEnd <= index || step.bodyEnd > end) fail("a body outside its parent");
        if (step.number == 0 && step.bodyEnd == index + 1) fail("accepted an empty endless repeat");
        if (step.number > 2147483647u) fail("accepted a repeat count beyond 32 bits");
        checkSteps(program, index + 1, step.bodyEnd, depth + 1);
        break;
      case BehaviorStep::Kind::wait:
        if (step.number > 2147483647u) fail("accepted a wait beyond 32 bits");
        break;
      case BehaviorStep::Kind::log:
        if (step.level < 1 || step.level > 6) fail("accepted a log level outside 1..6");
        break;
      case BehaviorStep::Kind::set:
      case BehaviorStep::Kind::raise:
        if (step.text.length == 0) fail("accepted an empty key");
        break;
      case BehaviorStep::Kind::call:
        if (std::size_t(step.firstArgument) + step.argumentCount > program.arguments.size()) {
          fail("call arguments outside the program");
        }
        if (!program.argumentsOf(step).isArray()) fail("call arguments are not an array");
        break;
      case BehaviorStep::Kind::fail: break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  try {
    const auto program = ZR::detail::parseBehaviorProgram("ZRFrameManager", kPath, text);
    if (!program) fail("no program and no error");
    checkSteps(*program, 0, program->steps.size(), 0);
  } catch (const ZR::ZRError& error) {
    if (error.module() != "ZRFrameManager" || error.method() != "newBehaviorFromFile") {
      fail("error from " + error.module() + "." + error.method() + ": " + error.description());
    }
    if (error.description().rfind(std::string("behavior file ") + kPath, 0) != 0) {
      fail("the error does not name the file: " + error.description());
    }
  }
  return 0;
}
