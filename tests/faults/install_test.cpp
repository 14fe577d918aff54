// Installations that fail half-way: the disk holding the user library or the temporary
// folder fills up (a small tmpfs mounted there), or the package ends in the middle of a
// file. Each returns false with the "Error trying to import package " line, leaves
// nothing under the behavior's name and no temporary folder behind, and the module
// installs the next package normally.
#include <archive.h>
#include <archive_entry.h>
#include <common/environment.h>
#include <common/tmpfs.h>
#include <sys/mount.h>
#include <vu/project/package.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <random>
#include <set>

#include "faults.h"

namespace faulttest {
namespace {

using ZR::ZRValue;

using tuqvutest::Tmpfs;

enum class Format { zip, tarGz, tar };

std::string randomBytes(std::size_t size) {
  std::mt19937 generator(20251121);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(generator() & 0xff);
  return bytes;
}

// Writes a package holding a behavior whose sounds/payload.bin has `payload` bytes that
// do not compress.
void writePackage(const fs::path& file, Format format, std::size_t payload) {
  fs::create_directories(file.parent_path());
  struct archive* out = archive_write_new();
  if (format == Format::zip) {
    archive_write_set_format_zip(out);
  } else {
    archive_write_set_format_pax_restricted(out);
    if (format == Format::tarGz) archive_write_add_filter_gzip(out);
  }
  ASSERT_EQ(ARCHIVE_OK, archive_write_open_filename(out, file.c_str()))
      << archive_error_string(out);
  const std::vector<std::pair<std::string, std::string>> entries = {
      {"behavior.xar", "<behavior/>\n"},
      {"project.xml", "<project><metadata key=\"Type\" value=\"Behavior\"/></project>\n"},
      {"sounds/payload.bin", randomBytes(payload)}};
  for (const auto& [name, content] : entries) {
    struct archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, name.c_str());
    archive_entry_set_size(entry, static_cast<la_int64_t>(content.size()));
    archive_entry_set_filetype(entry, AE_IFREG);
    archive_entry_set_perm(entry, 0644);
    ASSERT_EQ(ARCHIVE_OK, archive_write_header(out, entry)) << archive_error_string(out);
    ASSERT_EQ(static_cast<la_ssize_t>(content.size()),
              archive_write_data(out, content.data(), content.size()));
    archive_entry_free(entry);
  }
  ASSERT_EQ(ARCHIVE_OK, archive_write_close(out));
  archive_write_free(out);
}

// Every path below dir, relative to it.
std::set<std::string> treeOf(const fs::path& dir) {
  std::set<std::string> paths;
  if (!fs::exists(dir)) return paths;
  for (fs::recursive_directory_iterator it(dir), end; it != end; ++it) {
    paths.insert(it->path().lexically_relative(dir).string());
  }
  return paths;
}

class InstallFaults : public bmtest::ManagerTest {
protected:
  void SetUp() override {
    ManagerTest::SetUp();
    startPlatform();
  }
  void TearDown() override {
    manager.reset();
    userMount.reset();
    tmpMount.reset();
    ManagerTest::TearDown();
  }

  fs::path tmpDir() const { return home().parent_path() / "tmp"; }
  fs::path packages() const { return uploads(); }

  Outcome install(const fs::path& package, const std::string& name) {
    return callRemote(*broker, "ZRBehaviorManager", "installBehavior",
                      {ZRValue(package.string()), ZRValue(name), ZRValue(false)});
  }
  // The installation failed the documented way and left nothing behind.
  void expectCleanFailure(const Outcome& outcome, const fs::path& package, const std::string& name,
                          const std::set<std::string>& libraryBefore) {
    ASSERT_FALSE(outcome.threw) << outcome.description;
    EXPECT_FALSE(outcome.value.toBool());
    const std::string prefix = "Error trying to import package " + package.string() + ": ";
    int lines = 0;
    for (const vu::log::Message& message : logs->messages()) {
      if (message.text.compare(0, prefix.size(), prefix) == 0) {
        ++lines;
        EXPECT_EQ(2, message.level);
        EXPECT_EQ("behavior.manager", message.category);
        EXPECT_EQ("installBehavior", message.function);
      }
    }
    EXPECT_EQ(1, lines) << "no \"" << prefix << "...\" line";
    EXPECT_FALSE(manager->isBehaviorInstalled(name));
    EXPECT_FALSE(fs::exists(userRoot() / name));
    EXPECT_EQ(libraryBefore, treeOf(userRoot()));
    EXPECT_TRUE(treeOf(tmpDir()).empty()) << "a temporary folder was left behind";
    for (const ZRValue& added : events->valuesOf("ZRBehaviorManager/BehaviorAdded")) {
      EXPECT_EQ(std::string::npos, added.toString().find(name)) << added.toString();
    }
  }
  // The module still installs a package that fits.
  void expectInstallsAgain(Format format) {
    const fs::path little = packages() / "little.pkg";
    writePackage(little, format, 1000);
    const Outcome outcome = install(little, "little");
    ASSERT_FALSE(outcome.threw) << outcome.description;
    EXPECT_TRUE(outcome.value.toBool());
    EXPECT_TRUE(manager->isBehaviorInstalled("little"));
    EXPECT_EQ(1000u, fs::file_size(userRoot() / "little" / "sounds" / "payload.bin"));
  }

  std::unique_ptr<Tmpfs> userMount;
  std::unique_ptr<Tmpfs> tmpMount;
};

TEST_F(InstallFaults, UserLibraryFillingUpDuringTheCopyInstallsNothing) {
  userMount = std::make_unique<Tmpfs>(userRoot(), 256 * 1024);
  if (!userMount->mounted()) GTEST_SKIP() << "cannot mount a tmpfs here: " << userMount->reason();
  bmtest::makeBehavior(userRoot() / "small", "<behavior/>\n");
  const fs::path big = packages() / "big.zip";
  writePackage(big, Format::zip, 1024 * 1024);
  startManager();
  const std::set<std::string> before = treeOf(userRoot());
  events->clear();

  expectCleanFailure(install(big, "big"), big, "big", before);
  EXPECT_TRUE(manager->isBehaviorInstalled("small"));
  expectInstallsAgain(Format::zip);
}

TEST_F(InstallFaults, TemporaryFolderFillingUpDuringTheUnpackingInstallsNothing) {
  // Without the disk reserve, which would refuse the package before the disk is full.
  const tuqvutest::ScopedEnvironment noReserve("TUQVU_PACKAGE_DISK_RESERVE_BYTES", "0");
  tmpMount = std::make_unique<Tmpfs>(tmpDir(), 256 * 1024);
  if (!tmpMount->mounted()) GTEST_SKIP() << "cannot mount a tmpfs here: " << tmpMount->reason();
  const fs::path big = packages() / "big.tar.gz";
  writePackage(big, Format::tarGz, 1024 * 1024);
  startManager();
  const std::set<std::string> before = treeOf(userRoot());
  events->clear();

  expectCleanFailure(install(big, "big"), big, "big", before);
  expectInstallsAgain(Format::tarGz);
}

class TruncatedPackage : public InstallFaults, public ::testing::WithParamInterface<Format> {};

TEST_P(TruncatedPackage, EndingInTheMiddleOfAFileInstallsNothing) {
  const fs::path whole = packages() / "whole.pkg";
  writePackage(whole, GetParam(), 200 * 1024);
  const fs::path cut = packages() / "cut.pkg";
  {
    std::ifstream in(whole.string(), std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    bytes.resize(bytes.size() / 2);  // inside the payload, the largest entry by far
    std::ofstream(cut.string(), std::ios::binary) << bytes;
  }
  startManager();
  const std::set<std::string> before = treeOf(userRoot());
  events->clear();

  expectCleanFailure(install(cut, "cut"), cut, "cut", before);

  // The whole package installs under the same name afterwards.
  const Outcome outcome = install(whole, "cut");
  ASSERT_FALSE(outcome.threw) << outcome.description;
  EXPECT_TRUE(outcome.value.toBool());
  EXPECT_EQ(200u * 1024, fs::file_size(userRoot() / "cut" / "sounds" / "payload.bin"));
}

// The project library on its own: a write that fails for want of space is an error, not
// a short file in a package that then counts as unpacked.
TEST(PackageOnAFullDisk, UnpackingFailsAndLeavesNothing) {
  const fs::path base = fs::temp_directory_path() / fs::unique_path("faults-%%%%-%%%%-%%%%");
  const fs::path disk = base / "disk";
  {
    Tmpfs mount(disk, 256 * 1024);
    if (!mount.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here: " << mount.reason();
    for (Format format : {Format::zip, Format::tarGz}) {
      const fs::path package = base / "big.pkg";
      writePackage(package, format, 1024 * 1024);
      // Without a reserve the disk fills up and the write fails; with the default one the
      // package is refused before.
      for (const char* reserve : {"0", ""}) {
        const tuqvutest::ScopedEnvironment setting("TUQVU_PACKAGE_DISK_RESERVE_BYTES", reserve);
        vu::project::ArchiveFormat found = vu::project::ArchiveFormatDetect;
        try {
          vu::project::importProject(package.string(), (disk / "dest").string(), found);
          ADD_FAILURE() << "a package larger than the disk was unpacked";
        } catch (const std::runtime_error& error) {
          const std::string expected =
              *reserve == '0' ? "No space left on device" : "bytes free on the disk";
          EXPECT_NE(std::string::npos, std::string(error.what()).find(expected)) << error.what();
        }
        EXPECT_TRUE(treeOf(disk).empty());
      }
    }
  }
  fs::remove_all(base);
}

INSTANTIATE_TEST_SUITE_P(Formats, TruncatedPackage,
                         ::testing::Values(Format::zip, Format::tarGz, Format::tar),
                         [](const ::testing::TestParamInfo<Format>& info) {
                           switch (info.param) {
                             case Format::zip: return std::string("zip");
                             case Format::tarGz: return std::string("tar_gz");
                             case Format::tar: return std::string("tar");
                           }
                           return std::string("unknown");
                         });

}  // namespace
}  // namespace faulttest
