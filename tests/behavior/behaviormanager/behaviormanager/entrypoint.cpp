// The module library as the broker sees it: loaded with dlopen, its entry point found by
// name and called with a broker that holds the platform modules. This executable does
// not link the module library, so the library really is loaded here.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <vu/log.h>
#include <zr/modules/zrframemanager.h>
#include <zr/modules/zrmemory.h>
#include <zr/modules/zrpreferences.h>
#include <zr/zrbroker.h>
#include <zr/zrmodule.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;

void write(const fs::path& file, const std::string& content) {
  fs::create_directories(file.parent_path());
  std::ofstream(file.string()) << content;
}

TEST(EntryPoint, BrokerLoadsTheLibraryAndConstructsTheModuleThroughTuqvuCreateModule) {
  const fs::path base = fs::temp_directory_path() / fs::unique_path("bmentry-%%%%-%%%%");
  const fs::path home = base / "home";
  write(home / ".tuqvu" / "behaviors" / "dance" / "behavior.xar", "<behavior/>\n");
  write(base / "prefix" / "share" / "tuqvu" / "behaviors" / "stand" / "behavior.xar",
        "<behavior/>\n");
  // The default user path is computed from the home directory when the library loads.
  setenv("HOME", home.string().c_str(), 1);
  setenv("TUQVU_SDK_PREFIX", (base / "prefix").string().c_str(), 1);
  setenv("XDG_DATA_HOME", (home / "data").string().c_str(), 1);

  void* library = dlopen(BM_MODULE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto create =
      reinterpret_cast<ZR::ZRCreateModuleFunction>(dlsym(library, ZR::kCreateModuleSymbol));
  ASSERT_NE(create, nullptr) << "no symbol " << ZR::kCreateModuleSymbol;

  {
    boost::shared_ptr<ZR::ZRBroker> broker = ZR::ZRBroker::create("bmentry");
    ZR::ZRMemory memory(broker);
    ZR::ZRPreferences preferences(broker);
    ZR::ZRFrameManager frameManager(broker);
    std::unique_ptr<ZR::ZRModule> module(create(broker, "ZRBehaviorManager"));
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(module->getName(), "ZRBehaviorManager");
    EXPECT_TRUE(broker->hasModule("ZRBehaviorManager"));
    EXPECT_EQ(broker->getMethods("ZRBehaviorManager").size(), 26u);

    const ZR::ZRValue none = ZR::ZRValue::array();
    const ZR::ZRValue installed = broker->call("ZRBehaviorManager", "getInstalledBehaviors", none);
    EXPECT_EQ(installed.toStringVector(), std::vector<std::string>{"dance"});
    const ZR::ZRValue system = broker->call("ZRBehaviorManager", "getSystemBehaviorNames", none);
    EXPECT_EQ(system.toStringVector(), std::vector<std::string>{"System/stand"});
    EXPECT_GE(broker->call("ZRBehaviorManager", "_httpFileTransferPort", none).toInt(), 15000);
    module.reset();
    EXPECT_FALSE(broker->hasModule("ZRBehaviorManager"));
  }

  boost::system::error_code ignored;
  fs::remove_all(base, ignored);
}

}  // namespace
