#include "testenvironment.h"

#include <gtest/gtest.h>
#include <zr/zrnetworkaccess.h>
#include <zrfiletransfer/zrfiletransfer.h>

#include <boost/filesystem/operations.hpp>
#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace fs = boost::filesystem;

namespace zrft_test {
namespace {

Paths gPaths;
std::unique_ptr<ZR::ZRFileTransfer> gServer;

class ProgramEnvironment : public ::testing::Environment {
public:
  void SetUp() override {
    gPaths.root = fs::temp_directory_path() / fs::unique_path("zrft-test-%%%%-%%%%-%%%%");
    gPaths.home = gPaths.root / "home";
    gPaths.tmp = gPaths.root / "tmp";
    gPaths.dataHome = gPaths.root / "data";
    gPaths.prefix = gPaths.root / "prefix";
    gPaths.scratch = gPaths.root / "scratch";
    for (const fs::path& p :
         {gPaths.home, gPaths.tmp, gPaths.dataHome, gPaths.prefix, gPaths.scratch}) {
      fs::create_directories(p);
    }
    setenv("HOME", gPaths.home.c_str(), 1);
    setenv("TMPDIR", gPaths.tmp.c_str(), 1);
    setenv("XDG_DATA_HOME", gPaths.dataHome.c_str(), 1);
    setenv("TUQVU_SDK_PREFIX", gPaths.prefix.c_str(), 1);
    // The tests' requests name the robot "robot", as a robot known by that name would be
    // configured (--host-name robot).
    // They test what the server does with requests; the secret, which a daemon on
    // loopback asks for unless told to trust it, has tests of its own
    // (requestguard_test.cpp and the integration tests against a real tuqvu).
    ZR::ZRNetworkAccess access;
    access.hostNames = {"robot"};
    access.trustLoopback = true;
    ZR::setNetworkAccess(access);
  }

  void TearDown() override {
    gServer.reset();
    boost::system::error_code ignored;
    fs::remove_all(gPaths.root, ignored);
  }
};

}  // namespace

const Paths& paths() {
  return gPaths;
}

int sharedServerPort() {
  if (!gServer) {
    gServer.reset(new ZR::ZRFileTransfer());
  }
  return gServer->httpFileTransferPort();
}

}  // namespace zrft_test

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new zrft_test::ProgramEnvironment);
  return RUN_ALL_TESTS();
}
