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

using ZR::detail::BehaviorStep;

const char* const kPath = "/robot/behaviors/fuzz/behavior.xar";

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "behavior file: %s\n", what.c_str());
  std::abort();
}

std::size_t countSteps(const std::vector<BehaviorStep>& steps, int depth) {
  if (depth > ZR::detail::kMaxBehaviorDepth) fail("accepted a file nested too deep");
  std::size_t count = 0;
  for (const BehaviorStep& step : steps) {
    ++count;
    switch (step.kind) {
      case BehaviorStep::Kind::repeat:
        if (step.count < 0) fail("accepted a negative repeat count");
        if (step.count == 0 && step.body.empty()) fail("accepted an empty endless repeat");
        count += countSteps(step.body, depth + 1);
        break;
      case BehaviorStep::Kind::wait:
        if (step.milliseconds < 0) fail("accepted a negative wait");
        break;
      case BehaviorStep::Kind::log:
        if (step.level < 1 || step.level > 6) fail("accepted a log level outside 1..6");
        break;
      case BehaviorStep::Kind::set:
      case BehaviorStep::Kind::raise:
        if (step.key.empty()) fail("accepted an empty key");
        break;
      case BehaviorStep::Kind::call:
        if (!step.args.isArray()) fail("call arguments are not an array");
        break;
      case BehaviorStep::Kind::fail: break;
    }
  }
  return count;
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
    if (countSteps(program->steps, 0) != program->stepCount) fail("wrong step count");
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
