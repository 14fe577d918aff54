// importProject: zip and tar packages, detection, and refusal of unsafe or broken ones.
#include <common/environment.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/project/package.h>

#include <boost/filesystem.hpp>
#include <cstdlib>

#include "support.h"

using namespace projecttest;
using vu::project::ArchiveFormat;
namespace fs = boost::filesystem;

namespace {

const std::vector<ArchiveEntry>& kWave = wavePackage();

class PackageTest : public ::testing::Test {
protected:
  // Unpacks and expects a failure whose text holds every given piece; then checks that
  // nothing was left behind.
  void expectRefused(const std::string& package, const std::string& dest,
                     const std::vector<std::string>& pieces) {
    ArchiveFormat format = vu::project::ArchiveFormatDetect;
    try {
      vu::project::importProject(package, dest, format);
      ADD_FAILURE() << package << " was unpacked";
    } catch (const std::runtime_error& error) {
      const std::string text = error.what();
      for (const std::string& piece : pieces) {
        EXPECT_NE(std::string::npos, text.find(piece)) << text;
      }
    }
    EXPECT_EQ(vu::project::ArchiveFormatUnknown, format);
    EXPECT_FALSE(exists(dest));
    EXPECT_EQ((std::vector<std::string>{"package"}), listDir(work.path()));
    EXPECT_EQ((std::vector<std::string>{"keep"}), listDir(outside.path()));
  }

  void SetUp() override {
    fs::create_directories(work / "package");
    writeFile(outside / "keep", "");
  }

  std::string package(const std::string& name) const { return work / ("package/" + name); }

  ScratchDir work;     // holds package/ with the archives, and the destinations
  ScratchDir outside;  // what an unsafe entry would reach
};

void expectWave(const std::string& dir) {
  EXPECT_EQ("<xar/>", readFile(dir + "/behavior.xar"));
  EXPECT_EQ("frames", readFile(dir + "/data/anim.bin"));
  EXPECT_EQ("frames", readFile(dir + "/data/link"));
  EXPECT_EQ("anim.bin", fs::read_symlink(dir + "/data/link").string());
  EXPECT_EQ("<xar/>", readFile(dir + "/data/up"));
}

}  // namespace

TEST_F(PackageTest, ZipIsDetectedAndUnpacked) {
  writeArchive(package("wave.zip"), Container::Zip, kWave);
  ArchiveFormat format = vu::project::ArchiveFormatDetect;
  vu::project::importProject(package("wave.zip"), work / "out/wave", format);
  EXPECT_EQ(vu::project::ArchiveFormatZip, format);
  expectWave(work / "out/wave");
  EXPECT_EQ((std::vector<std::string>{"wave"}), listDir(work / "out"));  // nothing beside it
}

TEST_F(PackageTest, TarGzIsDetectedAndUnpacked) {
  writeArchive(package("wave.pkg"), Container::TarGz, kWave);
  ArchiveFormat format = vu::project::ArchiveFormatDetect;
  vu::project::importProject(package("wave.pkg"), work / "out", format);
  EXPECT_EQ(vu::project::ArchiveFormatTar, format);
  expectWave(work / "out");
}

TEST_F(PackageTest, PlainTarWithAnExplicitFormat) {
  writeArchive(package("wave.tar"), Container::Tar, kWave);
  ArchiveFormat format = vu::project::ArchiveFormatTar;
  vu::project::importProject(package("wave.tar"), work / "out", format);
  EXPECT_EQ(vu::project::ArchiveFormatTar, format);
  expectWave(work / "out");
}

TEST_F(PackageTest, PackagesMadeByTheCommandLineTools) {
  if (std::system("command -v zip >/dev/null && command -v bsdtar >/dev/null") != 0) {
    GTEST_SKIP() << "zip or bsdtar missing";
  }
  makeBehavior(work / "src", {"tool"}, "made by tools");
  writeFile(work / "src/sub/file.txt", "sub");
  const std::string zipCommand =
      "cd '" + work.path() + "/src' && zip -qr '" + package("t.zip") + "' .";
  const std::string tarCommand =
      "bsdtar -cJf '" + package("t.tar.xz") + "' -C '" + work.path() + "/src' .";
  ASSERT_EQ(0, std::system(zipCommand.c_str()));
  ASSERT_EQ(0, std::system(tarCommand.c_str()));
  for (const std::string name : {"t.zip", "t.tar.xz"}) {
    ArchiveFormat format = vu::project::ArchiveFormatDetect;
    vu::project::importProject(package(name), work / ("out-" + name), format);
    EXPECT_EQ(name == "t.zip" ? vu::project::ArchiveFormatZip : vu::project::ArchiveFormatTar,
              format);
    EXPECT_EQ("made by tools", readFile(work / ("out-" + name + "/behavior.xar")));
    EXPECT_EQ("sub", readFile(work / ("out-" + name + "/sub/file.txt")));
  }
}

TEST_F(PackageTest, WrongExplicitFormatIsRefused) {
  writeArchive(package("wave.zip"), Container::Zip, kWave);
  ArchiveFormat format = vu::project::ArchiveFormatTar;
  EXPECT_THROW(vu::project::importProject(package("wave.zip"), work / "out", format),
               std::runtime_error);
  EXPECT_EQ(vu::project::ArchiveFormatTar, format);
  EXPECT_FALSE(exists(work / "out"));
}

TEST_F(PackageTest, UnsupportedFormatValueIsRefused) {
  writeArchive(package("wave.zip"), Container::Zip, kWave);
  ArchiveFormat format = vu::project::ArchiveFormatUnknown;
  EXPECT_THROW(vu::project::importProject(package("wave.zip"), work / "out", format),
               std::runtime_error);
  EXPECT_FALSE(exists(work / "out"));
}

TEST_F(PackageTest, ExistingDestinationIsMergedInto) {
  writeArchive(package("wave.zip"), Container::Zip, kWave);
  writeFile(work / "out/mine.txt", "mine");
  writeFile(work / "out/behavior.xar", "old");
  writeFile(work / "out/data/other.bin", "other");
  ArchiveFormat format = vu::project::ArchiveFormatDetect;
  vu::project::importProject(package("wave.zip"), work / "out", format);
  expectWave(work / "out");
  EXPECT_EQ("mine", readFile(work / "out/mine.txt"));
  EXPECT_EQ("other", readFile(work / "out/data/other.bin"));
  EXPECT_EQ((std::vector<std::string>{"out", "package"}), listDir(work.path()));
}

TEST_F(PackageTest, NotAnArchive) {
  writeFile(package("notes.txt"), "These are just words, not an archive.\n");
  expectRefused(package("notes.txt"), work / "out/deeper",
                {package("notes.txt"), "is not a package"});
}

TEST_F(PackageTest, EmptyFileMissingFileAndDirectory) {
  writeFile(package("empty.zip"), "");
  expectRefused(package("empty.zip"), work / "out", {"is not a package"});
  expectRefused(package("missing.zip"), work / "out", {"is not a package"});
  expectRefused(work / "package", work / "out", {"not a regular file"});
}

TEST_F(PackageTest, ArchiveWithoutFiles) {
  writeArchive(package("nothing.tar"), Container::Tar, {{"./", ArchiveEntry::Directory, ""}});
  expectRefused(package("nothing.tar"), work / "out", {"holds no file"});
}

TEST_F(PackageTest, TruncatedTarGz) {
  writeArchive(package("big.tgz"), Container::TarGz,
               {{"behavior.xar", ArchiveEntry::File, "x"},
                {"data.bin", ArchiveEntry::File, noise(256 * 1024)}});
  fs::resize_file(package("big.tgz"), fs::file_size(package("big.tgz")) / 2);
  expectRefused(package("big.tgz"), work / "out", {package("big.tgz"), "is not a package"});
}

TEST_F(PackageTest, TruncatedZip) {
  writeArchive(package("big.zip"), Container::Zip,
               {{"data.bin", ArchiveEntry::File, noise(256 * 1024)},
                {"behavior.xar", ArchiveEntry::File, "x"}});
  fs::resize_file(package("big.zip"), fs::file_size(package("big.zip")) / 2);
  expectRefused(package("big.zip"), work / "out", {package("big.zip"), "is not a package"});
}

TEST_F(PackageTest, ZipSlipEntryIsRefused) {
  const std::string escape = "../../" + fs::path(outside.path()).filename().string() + "/evil";
  for (Container container : {Container::Zip, Container::TarGz}) {
    writeArchive(package("slip"), container,
                 {{"behavior.xar", ArchiveEntry::File, "x"},
                  {"data/" + escape, ArchiveEntry::File, "evil"}});
    expectRefused(package("slip"), work / "out", {"\"..\""});
    EXPECT_FALSE(exists(outside / "evil"));
    fs::remove(package("slip"));
  }
}

TEST_F(PackageTest, AbsoluteEntryIsRefused) {
  for (Container container : {Container::Zip, Container::Tar}) {
    writeArchive(package("abs"), container,
                 {{"behavior.xar", ArchiveEntry::File, "x"},
                  {outside / "evil", ArchiveEntry::File, "evil"}});
    expectRefused(package("abs"), work / "out", {"absolute"});
    EXPECT_FALSE(exists(outside / "evil"));
    fs::remove(package("abs"));
  }
}

TEST_F(PackageTest, SymlinkPointingOutsideIsRefused) {
  const std::vector<std::vector<ArchiveEntry>> packages = {
      {{"behavior.xar", ArchiveEntry::File, "x"},
       {"escape", ArchiveEntry::Symlink, outside.path()}},
      {{"behavior.xar", ArchiveEntry::File, "x"}, {"escape", ArchiveEntry::Symlink, "../"}},
      {{"behavior.xar", ArchiveEntry::File, "x"}, {"d/escape", ArchiveEntry::Symlink, "../../x"}},
      {{"behavior.xar", ArchiveEntry::File, "x"},
       {"d/escape", ArchiveEntry::Symlink, "sub/../../.."}},
      // "self" is the top level itself; "self/.." would be the directory above it.
      {{"self", ArchiveEntry::Symlink, "."}, {"escape", ArchiveEntry::Symlink, "self/../x"}},
  };
  for (const auto& entries : packages) {
    writeArchive(package("link.tar"), Container::Tar, entries);
    expectRefused(package("link.tar"), work / "out", {"link pointing outside"});
    fs::remove(package("link.tar"));
  }
}

TEST_F(PackageTest, WritingThroughALinkIsRefused) {
  // The link itself stays inside, but the entry after it would pass through a link.
  writeArchive(package("through.tar"), Container::Tar,
               {{"real/", ArchiveEntry::Directory, ""},
                {"alias", ArchiveEntry::Symlink, "real"},
                {"alias/file", ArchiveEntry::File, "x"}});
  expectRefused(package("through.tar"), work / "out", {"alias/file"});
}

TEST_F(PackageTest, HardLinkInsideIsKeptAndOutsideRefused) {
  writeArchive(package("hard.tar"), Container::Tar,
               {{"behavior.xar", ArchiveEntry::File, "x"},
                {"copy.xar", ArchiveEntry::Hardlink, "behavior.xar"}});
  ArchiveFormat format = vu::project::ArchiveFormatDetect;
  vu::project::importProject(package("hard.tar"), work / "out", format);
  EXPECT_EQ("x", readFile(work / "out/copy.xar"));
  fs::remove_all(work / "out");

  writeArchive(
      package("hardout.tar"), Container::Tar,
      {{"behavior.xar", ArchiveEntry::File, "x"}, {"copy", ArchiveEntry::Hardlink, "../keep"}});
  fs::remove(package("hard.tar"));
  expectRefused(package("hardout.tar"), work / "out", {"\"..\""});
}

TEST_F(PackageTest, FailureKeepsAnExistingDestinationAsItWas) {
  writeFile(work / "out/mine.txt", "mine");
  writeArchive(package("slip.zip"), Container::Zip,
               {{"mine.txt", ArchiveEntry::File, "replaced"}, {"../evil", ArchiveEntry::File, ""}});
  ArchiveFormat format = vu::project::ArchiveFormatDetect;
  EXPECT_THROW(vu::project::importProject(package("slip.zip"), work / "out", format),
               std::runtime_error);
  EXPECT_EQ((std::vector<std::string>{"mine.txt"}), listDir(work / "out"));
  EXPECT_EQ("mine", readFile(work / "out/mine.txt"));
  EXPECT_EQ((std::vector<std::string>{"out", "package"}), listDir(work.path()));
}

namespace {

using Setting = tuqvutest::ScopedEnvironment;

}  // namespace

TEST_F(PackageTest, AnArchiveThatUnpacksToMoreThan200TimesItsSizeIsRefused) {
  // 20 MiB of zeros in a few kilobytes: above the 16 MiB under which the ratio is free.
  writeArchive(package("bomb.tgz"), Container::TarGz,
               {{"behavior.xar", ArchiveEntry::File, "<xar/>"},
                {"data/zeros.bin", ArchiveEntry::File, std::string(20u << 20, '\0')}});
  expectRefused(package("bomb.tgz"), work / "out/bomb",
                {"bomb.tgz is refused: it unpacks to more than ", "TUQVU_PACKAGE_MAX_RATIO"});

  Setting ratio("TUQVU_PACKAGE_MAX_RATIO", "1000000");
  ArchiveFormat format = vu::project::ArchiveFormatDetect;
  vu::project::importProject(package("bomb.tgz"), work / "out/bomb", format);
  EXPECT_EQ(20u << 20, fs::file_size(work / "out/bomb/data/zeros.bin"));
}

TEST_F(PackageTest, ACompressedPackageUnderSixteenMebibytesHasNoRatioLimit) {
  writeArchive(package("text.tgz"), Container::TarGz,
               {{"behavior.xar", ArchiveEntry::File, std::string(4u << 20, 'a')}});
  ArchiveFormat format = vu::project::ArchiveFormatDetect;
  vu::project::importProject(package("text.tgz"), work / "out/text", format);
  EXPECT_EQ(4u << 20, fs::file_size(work / "out/text/behavior.xar"));
}

TEST_F(PackageTest, APackageAboveTheAbsoluteLimitIsRefusedAndLeavesNothing) {
  Setting limit("TUQVU_PACKAGE_MAX_UNPACKED_BYTES", "10000");
  writeArchive(package("big.zip"), Container::Zip,
               {{"behavior.xar", ArchiveEntry::File, "<xar/>"},
                {"data/noise.bin", ArchiveEntry::File, noise(20000)}});
  expectRefused(package("big.zip"), work / "out/big",
                {"big.zip is refused: it unpacks to more than 10000 bytes",
                 "TUQVU_PACKAGE_MAX_UNPACKED_BYTES"});
}

TEST_F(PackageTest, APackageOfMoreEntriesThanTheLimitIsRefusedAndLeavesNothing) {
  Setting limit("TUQVU_PACKAGE_MAX_ENTRIES", "100");
  std::vector<ArchiveEntry> entries = {{"behavior.xar", ArchiveEntry::File, "<xar/>"}};
  for (int i = 0; i < 100; ++i) {
    entries.push_back({"data/" + std::to_string(i), ArchiveEntry::File, ""});
  }
  writeArchive(package("many.tgz"), Container::TarGz, entries);
  expectRefused(
      package("many.tgz"), work / "out/many",
      {"many.tgz is refused: it holds more than 100 entries (TUQVU_PACKAGE_MAX_ENTRIES)"});

  // Exactly as many as allowed unpack.
  entries.pop_back();
  writeArchive(package("enough.tgz"), Container::TarGz, entries);
  ArchiveFormat format = vu::project::ArchiveFormatDetect;
  vu::project::importProject(package("enough.tgz"), work / "out/enough", format);
  EXPECT_TRUE(exists(work / "out/enough/data/98"));
}

TEST_F(PackageTest, APackageThatWouldFillTheDiskUnderTheReserveIsRefused) {
  Setting reserve("TUQVU_PACKAGE_DISK_RESERVE_BYTES", "1152921504606846976");  // 1 EiB
  writeArchive(package("wave.zip"), Container::Zip, kWave);
  expectRefused(package("wave.zip"), work / "out/wave",
                {"wave.zip is refused: unpacking it would leave less than 1152921504606846976 "
                 "bytes free on the disk (TUQVU_PACKAGE_DISK_RESERVE_BYTES)"});
}
