// The log capture of every test program (tests/common), under this suite's namespace.
#pragma once

#include <common/logcapture.h>

namespace zrft_test {

using tuqvutest::LogCapture;

}  // namespace zrft_test
