// A test suite sharing one real tuqvu that hosts the test module as "TestModule": it is
// started before the suite's first test and must exit 0 on SIGTERM after its last.
//
//   class DaemonRpc : public brokertest::SharedDaemonTest {};
//   TEST_F(DaemonRpc, Answers) { rpc(port(), "TestModule.add", {1, 2}); }
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include "support/tuqvuprocess.h"

namespace brokertest {

class SharedDaemonTest : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    daemon = new TuqvuProcess({"--module", "TestModule=" + testModulePath()});
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(0, daemon->terminate(SIGTERM)) << daemon->stderrText();
    delete daemon;
    daemon = nullptr;
  }
  static int port() { return daemon->port(); }

  static inline TuqvuProcess* daemon = nullptr;
};

}  // namespace brokertest
