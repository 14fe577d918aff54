// A fresh tree per test for the confinement layer's tests: <scratch>/<test>/root, opened
// as the base of the calls, and <scratch>/<test>/outside, where nothing may ever change.
#pragma once

#include <gtest/gtest.h>
#include <vu/beneath.h>

#include <algorithm>
#include <boost/filesystem/fstream.hpp>
#include <boost/filesystem/operations.hpp>
#include <string>

class BeneathTest : public ::testing::Test {
protected:
  void SetUp() override {
    const std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::string folder = name;
    std::replace(folder.begin(), folder.end(), '/', '-');
    fBase = boost::filesystem::canonical(boost::filesystem::temp_directory_path()) /
            boost::filesystem::unique_path("tuqvu-beneath-%%%%-%%%%") / folder;
    boost::filesystem::create_directories(root());
    boost::filesystem::create_directories(outside());
    fRoot.reset(vu::beneath::openDirectory(root().string()));
    ASSERT_TRUE(fRoot) << root();
  }
  void TearDown() override {
    fRoot.reset();
    boost::system::error_code ignored;
    boost::filesystem::remove_all(fBase.parent_path(), ignored);
  }

  boost::filesystem::path root() const { return fBase / "root"; }
  boost::filesystem::path outside() const { return fBase / "outside"; }
  int rootFd() const { return fRoot.get(); }

  // Writes `content` to `file`, making its parent folders.
  static void writeFile(const boost::filesystem::path& file, const std::string& content) {
    boost::filesystem::create_directories(file.parent_path());
    boost::filesystem::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << content;
  }

private:
  boost::filesystem::path fBase;
  vu::beneath::UniqueFd fRoot;
};
