#include <common/files.h>
#include <gtest/gtest.h>
#include <tuqvu/broker/moduleloader.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "support/tuqvuprocess.h"

using namespace tuqvu::broker;

using tuqvutest::readFile;

namespace {}  // namespace

TEST(ModuleLoader, LoadsLibrariesUnderTheGivenNames) {
  auto broker = ZR::ZRBroker::create("tuqvu");
  ModuleLoader loader(broker);
  ZR::ZRModule* first = loader.load({brokertest::testModulePath(), "First", false});
  ASSERT_NE(nullptr, first);
  EXPECT_EQ("First", first->getName());
  loader.load({brokertest::testModulePath(), "Second", false});
  EXPECT_EQ((std::vector<std::string>{"First", "Second"}), loader.loadedNames());
  EXPECT_TRUE(broker->hasModule("Second"));
  ZR::ZRValue args = ZR::ZRValue::array();
  args.arrayPush(ZR::ZRValue(2));
  args.arrayPush(ZR::ZRValue(3));
  EXPECT_EQ(5, broker->call("First", "add", args).toInt());
}

TEST(ModuleLoader, DestroysInReverseOrderAfterWithdrawingEach) {
  brokertest::TempDir scratch;
  const std::string log = scratch.path() + "/destroyed.log";
  ::setenv("TUQVU_TEST_DESTRUCTOR_LOG", log.c_str(), 1);
  auto broker = ZR::ZRBroker::create("tuqvu");
  {
    ModuleLoader loader(broker);
    loader.load({brokertest::testModulePath(), "A", false});
    loader.load({brokertest::testModulePath(), "B", false});
    loader.load({brokertest::testModulePath(), "C", false});
    loader.destroyAll();
    EXPECT_TRUE(loader.loadedNames().empty());
    EXPECT_FALSE(broker->hasModule("A"));
  }
  ::unsetenv("TUQVU_TEST_DESTRUCTOR_LOG");
  EXPECT_EQ("destroyed C\ndestroyed B\ndestroyed A\n", readFile(log));
}

TEST(ModuleLoader, ReportsLibrariesThatCannotBeOpened) {
  auto broker = ZR::ZRBroker::create("tuqvu");
  ModuleLoader loader(broker);
  try {
    loader.load({"/nonexistent/libnothing.so", "Nothing", false});
    FAIL() << "loaded a missing library";
  } catch (const ModuleLoadError& error) {
    const std::string text = error.what();
    EXPECT_NE(std::string::npos, text.find("/nonexistent/libnothing.so")) << text;
    EXPECT_NE(std::string::npos, text.find("No such file")) << text;
  }
}

TEST(ModuleLoader, ReportsLibrariesWithoutEntryPoint) {
  auto broker = ZR::ZRBroker::create("tuqvu");
  ModuleLoader loader(broker);
  try {
    loader.load({TUQVU_CORE_LIBRARY, "Core", false});
    FAIL() << "loaded a library without entry point";
  } catch (const ModuleLoadError& error) {
    EXPECT_NE(std::string::npos, std::string(error.what()).find("tuqvuCreateModule"))
        << error.what();
  }
}

TEST(ModuleLoader, ReportsAConstructorThatThrows) {
  ::setenv("TUQVU_TEST_MODULE_THROW", "Refused", 1);
  auto broker = ZR::ZRBroker::create("tuqvu");
  ModuleLoader loader(broker);
  try {
    loader.load({brokertest::testModulePath(), "Refused", false});
    FAIL() << "the constructor did not throw";
  } catch (const ModuleLoadError& error) {
    EXPECT_NE(std::string::npos, std::string(error.what()).find("constructor failed on purpose"))
        << error.what();
  }
  ::unsetenv("TUQVU_TEST_MODULE_THROW");
  EXPECT_FALSE(broker->hasModule("Refused"));
  EXPECT_TRUE(loader.loadedNames().empty());
}

TEST(ModuleLoader, DefaultCandidatesLookBesideTheBinaryThenInThePrefix) {
  ::setenv("TUQVU_SDK_PREFIX", "/opt/tuqvu-prefix", 1);
  const std::vector<std::string> candidates = defaultModuleCandidates();
  ::unsetenv("TUQVU_SDK_PREFIX");
  ASSERT_GE(candidates.size(), 2u);
  EXPECT_NE(std::string::npos, candidates[0].find("/../lib/libzrbehaviormanager.so"));
  EXPECT_EQ(0u, candidates[1].find("/opt/tuqvu-prefix/"));
  EXPECT_NE(std::string::npos, candidates[1].find("libzrbehaviormanager.so"));
}
