// Installing behaviors and resources: in place, from directories and from zip and tar.gz
// packages built here with the zip and bsdtar commands, with and without overwrite, and
// what each leaves in the temporary directory (TMPDIR is private to each test).
#include <sys/stat.h>
#include <unistd.h>
#include <vu/project/package.h>

#include <boost/make_shared.hpp>
#include <condition_variable>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "fixture.h"
#include "interposer.h"

namespace bmtest {
namespace {

const char* const kAdded = "ZRBehaviorManager/BehaviorAdded";
const char* const kUpdated = "ZRBehaviorManager/BehaviorUpdated";
const char* const kRemoved = "ZRBehaviorManager/BehaviorRemoved";

std::string readFile(const fs::path& file) {
  std::ifstream in(file.string(), std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

// Every entry below dir by relative path: file content, or "<dir>" for a directory.
std::map<std::string, std::string> readTree(const fs::path& dir) {
  std::map<std::string, std::string> tree;
  for (fs::recursive_directory_iterator it(dir), end; it != end; ++it) {
    const std::string rel = it->path().string().substr(dir.string().size() + 1);
    tree[rel] = fs::is_directory(it->path()) ? "<dir>" : readFile(it->path());
  }
  return tree;
}

unsigned modeOf(const fs::path& file) {
  struct stat info;
  EXPECT_EQ(::stat(file.c_str(), &info), 0) << file;
  return info.st_mode & 07777;
}

// Packs the top-level entries of dir into an archive with the command-line tools.
void pack(const fs::path& dir, const fs::path& out, bool zipFormat) {
  std::string names;
  for (fs::directory_iterator it(dir), end; it != end; ++it) {
    names += " '" + it->path().filename().string() + "'";
  }
  fs::create_directories(out.parent_path());
  const std::string command =
      zipFormat ? "cd '" + dir.string() + "' && zip -q -r '" + out.string() + "'" + names
                : "bsdtar -czf '" + out.string() + "' -C '" + dir.string() + "'" + names;
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
  const std::string head = readFile(out).substr(0, 4);
  if (zipFormat) {
    ASSERT_EQ(head, std::string("PK\x03\x04", 4));
  } else {
    ASSERT_EQ(head.substr(0, 2), "\x1f\x8b");
  }
}

class Install : public ManagerTest {
protected:
  fs::path scratch() const { return uploads(); }
  fs::path tmpDir() const { return fs::temp_directory_path(); }

  std::vector<std::string> tmpEntries() const {
    std::vector<std::string> names;
    for (fs::directory_iterator it(tmpDir()), end; it != end; ++it) {
      names.push_back(it->path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  bool install(const std::string& local) {
    ZR::ZRValue args = ZR::ZRValue::array();
    args.arrayPush(ZR::ZRValue(local));
    return broker->call("ZRBehaviorManager", "installBehavior", args).toBool();
  }

  bool install(const fs::path& source, const std::string& local, bool overwrite) {
    ZR::ZRValue args = ZR::ZRValue::array();
    args.arrayPush(ZR::ZRValue(source.string()));
    args.arrayPush(ZR::ZRValue(local));
    args.arrayPush(ZR::ZRValue(overwrite));
    return broker->call("ZRBehaviorManager", "installBehavior", args).toBool();
  }

  // Added, updated and removed events since the last clear, as "key path".
  std::vector<std::string> libraryEvents() {
    std::vector<std::string> seen;
    for (const EventRecorder::Event& event : events->drain()) {
      if (event.first == kAdded || event.first == kUpdated || event.first == kRemoved) {
        seen.push_back(event.first + " " + event.second.toString());
      }
    }
    return seen;
  }

  int installLogCount(int level, const std::string& text) {
    return logs->count(level, "behavior.manager", "installBehavior", text);
  }

  std::vector<vu::log::Message> installLogs() {
    std::vector<vu::log::Message> found;
    for (const vu::log::Message& message : logs->messages()) {
      if (message.function == "installBehavior") found.push_back(message);
    }
    return found;
  }

  void start() {
    startPlatform();
    startManager();
    events->clear();
    logs->clear();
  }
};

// ---- in place

TEST_F(Install, InPlaceDirectoryWrittenAfterStartIsAddedWithOneEvent) {
  start();
  makeBehavior(userRoot() / "greetings" / "wave", "<behavior><log text=\"hi\"/></behavior>");
  const auto before = readTree(userRoot() / "greetings" / "wave");

  EXPECT_TRUE(install("greetings/wave"));

  EXPECT_EQ(libraryEvents(), std::vector<std::string>{std::string(kAdded) + " greetings/wave"});
  EXPECT_EQ(readTree(userRoot() / "greetings" / "wave"), before);
  EXPECT_EQ(manager->getInstalledBehaviors(), std::vector<std::string>{"greetings/wave"});
  EXPECT_TRUE(installLogs().empty());
  EXPECT_TRUE(tmpEntries().empty());
}

TEST_F(Install, InPlaceBehaviorKnownAtStartIsUpdatedWithOneEventEachTime) {
  makeBehavior(userRoot() / "dance");
  start();

  EXPECT_TRUE(install("dance"));
  EXPECT_EQ(libraryEvents(), std::vector<std::string>{std::string(kUpdated) + " dance"});
  events->clear();
  EXPECT_TRUE(install("/dance/"));  // separators are tidied when joined to the root
  EXPECT_EQ(libraryEvents(), std::vector<std::string>{std::string(kUpdated) + " dance"});
  EXPECT_TRUE(fs::exists(userRoot() / "dance" / "behavior.xar"));
  EXPECT_TRUE(tmpEntries().empty());
}

TEST_F(Install, InPlaceOfSomethingThatIsNeitherBehaviorNorPackageFails) {
  start();
  fs::create_directories(userRoot() / "empty");
  EXPECT_FALSE(install("empty"));
  EXPECT_EQ(installLogCount(2, "Error trying to import package " + (userRoot() / "empty").string() +
                                   ": unrecognized package type"),
            1);
  EXPECT_TRUE(libraryEvents().empty());
  EXPECT_TRUE(tmpEntries().empty());
}

// ---- behaviors from directories and packages

TEST_F(Install, DirectoryIsCopiedAndTheSourceStays) {
  start();
  makeBehavior(scratch() / "wave", "<behavior><wait ms=\"1\"/></behavior>", {"arm"});
  writeFile(scratch() / "wave" / "scripts" / "run.sh", "#!/bin/sh\n");
  fs::permissions(scratch() / "wave" / "scripts" / "run.sh", static_cast<fs::perms>(0751));
  fs::permissions(scratch() / "wave" / "project.xml", static_cast<fs::perms>(0600));
  const auto source = readTree(scratch() / "wave");

  EXPECT_TRUE(install(scratch() / "wave", "moves/wave", false));
  EXPECT_EQ(libraryEvents(), std::vector<std::string>{std::string(kAdded) + " moves/wave"});
  EXPECT_EQ(readTree(userRoot() / "moves" / "wave"), source);
  EXPECT_EQ(readTree(scratch() / "wave"), source);
  EXPECT_EQ(modeOf(userRoot() / "moves" / "wave" / "scripts" / "run.sh"), 0751u);
  EXPECT_EQ(modeOf(userRoot() / "moves" / "wave" / "project.xml"), 0600u);
  EXPECT_EQ(manager->getBehaviorTags("moves/wave"), std::vector<std::string>{"arm"});

  // Without overwrite an existing behavior is refused; with it, replaced.
  events->clear();
  writeFile(scratch() / "wave" / "behavior.xar", "<behavior><wait ms=\"2\"/></behavior>");
  EXPECT_FALSE(install(scratch() / "wave", "moves/wave", false));
  EXPECT_EQ(installLogCount(2, "Error trying to import package " + (scratch() / "wave").string() +
                                   ": unrecognized package type"),
            1);
  EXPECT_EQ(readFile(userRoot() / "moves" / "wave" / "behavior.xar"),
            "<behavior><wait ms=\"1\"/></behavior>");
  EXPECT_TRUE(libraryEvents().empty());

  EXPECT_TRUE(install(scratch() / "wave", "moves/wave", true));
  EXPECT_EQ(libraryEvents(), std::vector<std::string>{std::string(kUpdated) + " moves/wave"});
  EXPECT_EQ(readFile(userRoot() / "moves" / "wave" / "behavior.xar"),
            "<behavior><wait ms=\"2\"/></behavior>");
  EXPECT_TRUE(tmpEntries().empty());
}

class InstallPackage : public Install, public ::testing::WithParamInterface<bool> {};

TEST_P(InstallPackage, BehaviorPackageIsUnpackedImportedAndTheTemporaryDirectoryRemoved) {
  const bool zipFormat = GetParam();
  start();
  makeBehavior(scratch() / "src", "<behavior><log text=\"packed\"/></behavior>", {"packed"});
  writeFile(scratch() / "src" / "sounds" / "beep.txt", "beep");
  const auto content = readTree(scratch() / "src");
  const fs::path package = scratch() / (zipFormat ? "wave.zip" : "wave.tar.gz");
  pack(scratch() / "src", package, zipFormat);

  EXPECT_TRUE(install(package, "packs/wave", false));
  EXPECT_EQ(libraryEvents(), std::vector<std::string>{std::string(kAdded) + " packs/wave"});
  EXPECT_EQ(readTree(userRoot() / "packs" / "wave"), content);
  EXPECT_TRUE(fs::exists(package));
  EXPECT_TRUE(tmpEntries().empty());
  EXPECT_TRUE(installLogs().empty());

  // The same package over the installed behavior: refused without overwrite, the
  // temporary directory removed all the same; replaced with overwrite.
  events->clear();
  EXPECT_FALSE(install(package, "packs/wave", false));
  EXPECT_EQ(installLogCount(2, "Error trying to import package " + package.string() +
                                   ": unrecognized package type"),
            1);
  EXPECT_TRUE(tmpEntries().empty());
  EXPECT_TRUE(install(package, "packs/wave", true));
  EXPECT_EQ(libraryEvents(), std::vector<std::string>{std::string(kUpdated) + " packs/wave"});
  EXPECT_EQ(readTree(userRoot() / "packs" / "wave"), content);
  EXPECT_TRUE(tmpEntries().empty());
}

INSTANTIATE_TEST_SUITE_P(ZipAndTarGz, InstallPackage, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return std::string(info.param ? "Zip" : "TarGz");
                         });

// ---- neither project nor package

struct NotAPackage {
  const char* name;
  std::function<void(const fs::path&)> make;
};

class InstallNotAPackage : public Install, public ::testing::WithParamInterface<NotAPackage> {};

TEST_P(InstallNotAPackage, LogsTheLibraryTextReturnsFalseAndLeavesNoTemporaryDirectory) {
  start();
  const fs::path source = scratch() / GetParam().name;
  fs::create_directories(scratch());
  GetParam().make(source);
  // What the project library says about this file, asked directly.
  std::string libraryText;
  try {
    vu::project::ArchiveFormat format = vu::project::ArchiveFormatDetect;
    vu::project::importProject(source.string(), (home() / "probe").string(), format);
    FAIL() << "the library unpacked " << source;
  } catch (const std::runtime_error& error) {
    libraryText = error.what();
  }
  ASSERT_FALSE(libraryText.empty());
  logs->clear();

  EXPECT_FALSE(install(source, "target", true));

  const std::vector<vu::log::Message> lines = installLogs();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 2);
  EXPECT_EQ(lines[0].category, "behavior.manager");
  EXPECT_EQ(lines[0].text,
            "Error trying to import package " + source.string() + ": " + libraryText);
  EXPECT_TRUE(tmpEntries().empty());
  EXPECT_FALSE(fs::exists(userRoot() / "target"));
  EXPECT_TRUE(libraryEvents().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Files, InstallNotAPackage,
    ::testing::Values(NotAPackage{"TextFile",
                                  [](const fs::path& p) { writeFile(p, "just some notes\n"); }},
                      NotAPackage{"EmptyFile", [](const fs::path& p) { writeFile(p, ""); }},
                      NotAPackage{"Missing", [](const fs::path&) {}},
                      NotAPackage{"TruncatedTarGz",
                                  [](const fs::path& p) {
                                    makeBehavior(p.parent_path() / "big");
                                    std::string noise;
                                    for (int i = 0; i < 200000; ++i)
                                      noise += std::to_string(i * 7919);
                                    writeFile(p.parent_path() / "big" / "noise.txt", noise);
                                    pack(p.parent_path() / "big", p.string() + ".full", false);
                                    const std::string whole = readFile(p.string() + ".full");
                                    writeFile(p, whole.substr(0, whole.size() / 2));
                                  }}),
    [](const ::testing::TestParamInfo<NotAPackage>& info) { return std::string(info.param.name); });

// ---- resources

class InstallResource : public Install {
protected:
  // The resource "sounds" with one file whose text tells versions apart.
  void makeSounds(const fs::path& dir, const std::string& version,
                  const std::string& type = "Resources") {
    makeResource(dir, type);
    writeFile(dir / "version.txt", version);
    writeFile(dir / "clips" / "beep.raw", "beep " + version);
  }
};

TEST_F(InstallResource, PackageToANewPlaceIsMovedOutOfTheTemporaryDirectory) {
  start();
  makeSounds(scratch() / "src", "1");
  const auto content = readTree(scratch() / "src");
  pack(scratch() / "src", scratch() / "sounds.zip", true);

  EXPECT_TRUE(install(scratch() / "sounds.zip", "media/sounds", false));
  EXPECT_EQ(readTree(userRoot() / "media" / "sounds"), content);
  EXPECT_TRUE(tmpEntries().empty());
  EXPECT_TRUE(libraryEvents().empty());  // resources announce nothing
  EXPECT_TRUE(installLogs().empty());
  EXPECT_TRUE(manager->getInstalledBehaviors().empty());
  EXPECT_TRUE(manager->isBehaviorInstalled("media/sounds"));
}

TEST_F(InstallResource, PackageUnpackedOnAnotherFileSystemIsCopiedAndItsTemporaryDirectoryRemoved) {
  const fs::path shm = fs::path("/dev/shm") / fs::unique_path("bmtest-%%%%-%%%%-%%%%");
  boost::system::error_code error;
  fs::create_directories(shm, error);
  struct stat shmInfo, homeInfo;
  if (error || ::stat(shm.c_str(), &shmInfo) != 0 || ::stat(home().c_str(), &homeInfo) != 0 ||
      shmInfo.st_dev == homeInfo.st_dev) {
    fs::remove_all(shm, error);
    GTEST_SKIP() << "no second file system for the temporary directory";
  }
  struct Remove {
    fs::path dir;
    ~Remove() {
      boost::system::error_code ignored;
      fs::remove_all(dir, ignored);
    }
  } removeShm{shm};
  setenv("TMPDIR", shm.c_str(), 1);  // the fixture puts the old value back
  ASSERT_EQ(tmpDir(), shm);
  start();
  makeSounds(scratch() / "src", "far");
  const auto content = readTree(scratch() / "src");
  pack(scratch() / "src", scratch() / "sounds.tar.gz", false);

  EXPECT_TRUE(install(scratch() / "sounds.tar.gz", "sounds", false));
  EXPECT_EQ(readTree(userRoot() / "sounds"), content);
  EXPECT_TRUE(tmpEntries().empty());  // the rename across file systems failed; copied
  EXPECT_TRUE(installLogs().empty());
}

TEST_F(InstallResource, PackageOverAnExistingResourceWithoutOverwriteLeavesTheTemporaryDirectory) {
  start();
  makeSounds(userRoot() / "sounds", "old");
  const auto old = readTree(userRoot() / "sounds");
  makeSounds(scratch() / "src", "new");
  const auto unpacked = readTree(scratch() / "src");
  pack(scratch() / "src", scratch() / "sounds.tar.gz", false);

  EXPECT_FALSE(install(scratch() / "sounds.tar.gz", "sounds", false));

  EXPECT_EQ(readTree(userRoot() / "sounds"), old);
  const std::vector<std::string> left = tmpEntries();
  ASSERT_EQ(left.size(), 1u);
  EXPECT_TRUE(
      std::regex_match(left[0], std::regex("[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}")))
      << left[0];
  EXPECT_EQ(readTree(tmpDir() / left[0]), unpacked);
  EXPECT_TRUE(installLogs().empty());  // nothing is logged for this refusal
  EXPECT_TRUE(libraryEvents().empty());
}

TEST_F(InstallResource, PackageOverAnExistingResourceWithOverwriteReplacesIt) {
  start();
  makeSounds(userRoot() / "sounds", "old");
  writeFile(userRoot() / "sounds" / "only-in-old.txt", "x");
  makeSounds(scratch() / "src", "new");
  const auto content = readTree(scratch() / "src");
  pack(scratch() / "src", scratch() / "sounds.tar.gz", false);

  EXPECT_TRUE(install(scratch() / "sounds.tar.gz", "sounds", true));
  EXPECT_EQ(readTree(userRoot() / "sounds"), content);
  EXPECT_TRUE(tmpEntries().empty());
  EXPECT_TRUE(libraryEvents().empty());
}

TEST_F(InstallResource, DirectoryWithOverwriteReplacesTheDestinationByACopyAndTheSourceStays) {
  start();
  makeSounds(userRoot() / "sounds", "old");
  writeFile(userRoot() / "sounds" / "only-in-old.txt", "x");
  makeSounds(scratch() / "sounds", "new", "Resource");
  fs::permissions(scratch() / "sounds" / "clips" / "beep.raw", static_cast<fs::perms>(0640));
  const auto source = readTree(scratch() / "sounds");

  EXPECT_TRUE(install(scratch() / "sounds", "sounds", true));

  EXPECT_EQ(readTree(userRoot() / "sounds"), source);
  EXPECT_EQ(modeOf(userRoot() / "sounds" / "clips" / "beep.raw"), 0640u);
  EXPECT_EQ(readTree(scratch() / "sounds"), source);
  // A copy, not the same files: changing the source does not change the destination.
  writeFile(scratch() / "sounds" / "version.txt", "changed");
  EXPECT_EQ(readFile(userRoot() / "sounds" / "version.txt"), "new");
  EXPECT_TRUE(tmpEntries().empty());
  EXPECT_TRUE(libraryEvents().empty());
  EXPECT_TRUE(installLogs().empty());
}

TEST_F(InstallResource, DirectoryWithoutOverwriteGoesOnlyWhereNothingIs) {
  start();
  makeSounds(userRoot() / "sounds", "old");
  const auto old = readTree(userRoot() / "sounds");
  makeSounds(scratch() / "sounds", "new");
  const auto source = readTree(scratch() / "sounds");

  EXPECT_FALSE(install(scratch() / "sounds", "sounds", false));
  EXPECT_EQ(readTree(userRoot() / "sounds"), old);
  EXPECT_TRUE(installLogs().empty());

  EXPECT_TRUE(install(scratch() / "sounds", "more-sounds", false));
  EXPECT_EQ(readTree(userRoot() / "more-sounds"), source);
  EXPECT_TRUE(tmpEntries().empty());
}

TEST_F(InstallResource, TypeMustBeExactlyResourceOrResources) {
  start();
  makeResource(scratch() / "lower", "resources");
  EXPECT_FALSE(install(scratch() / "lower", "lower", true));
  EXPECT_EQ(installLogCount(2, "Error trying to import package " + (scratch() / "lower").string() +
                                   ": unrecognized package type"),
            1);
  EXPECT_FALSE(fs::exists(userRoot() / "lower"));
}

TEST_F(InstallResource, InPlaceResourceIsLeftAsItIs) {
  start();
  makeSounds(userRoot() / "sounds", "here");
  const auto content = readTree(userRoot() / "sounds");
  EXPECT_TRUE(install("sounds"));
  EXPECT_EQ(readTree(userRoot() / "sounds"), content);
  EXPECT_TRUE(tmpEntries().empty());
}

TEST_F(InstallResource, DestinationOutsideTheLibraryOrTheLibraryItselfIsRefused) {
  start();
  makeBehavior(userRoot() / "dance");
  makeSounds(home() / "outside", "keep");
  const auto outside = readTree(home() / "outside");
  makeSounds(scratch() / "src", "new");
  pack(scratch() / "src", scratch() / "sounds.zip", true);

  for (const std::string& local : {std::string(""), std::string("/"), std::string("../../outside"),
                                   std::string("a/../../../outside")}) {
    SCOPED_TRACE("local \"" + local + "\"");
    logs->clear();
    EXPECT_FALSE(install(scratch() / "src", local, true));
    EXPECT_FALSE(install(scratch() / "sounds.zip", local, true));
    EXPECT_EQ(installLogs().size(), 2u);
    for (const vu::log::Message& line : installLogs()) EXPECT_EQ(line.level, 2);
    EXPECT_TRUE(tmpEntries().empty());
  }
  EXPECT_EQ(readTree(home() / "outside"), outside);
  EXPECT_TRUE(fs::exists(userRoot() / "dance" / "behavior.xar"));
  EXPECT_EQ(manager->getInstalledBehaviors(), std::vector<std::string>{"dance"});
}

// ---- other failures

TEST_F(Install, WithoutAValidUserLibraryNothingIsInstalled) {
  start();
  ZR::ZRValue args = ZR::ZRValue::array();
  args.arrayPush(ZR::ZRValue(""));
  broker->call("ZRBehaviorManager", "_setBehaviorsPath", args);
  makeBehavior(scratch() / "wave");
  logs->clear();

  EXPECT_FALSE(install(scratch() / "wave", "wave", true));
  EXPECT_EQ(installLogCount(2,
                            "No valid user behavior library path was set, behavior will not be "
                            "installed."),
            1);
  EXPECT_EQ(installLogs().size(), 1u);
  EXPECT_FALSE(fs::exists(userRoot() / "wave"));
}

// ---- through an interposed memory module

class InstallObserved : public Install {
protected:
  // The real memory module under another name, behind an interposer named "ZRMemory".
  void startObserved(Interposer::Hook hook) {
    startPlatform(false, true, true);
    memory = std::make_unique<ZR::ZRMemory>(broker, "RealMemory");
    interposer = std::make_unique<Interposer>(broker, "ZRMemory", "RealMemory", std::move(hook));
    events = std::make_unique<EventRecorder>(broker, managerEventKeys());
    startManager();
    events->clear();
    logs->clear();
  }

  // Points TMPDIR at a fresh folder on a file system apart from the user library's, so
  // that unpacked packages are copied into the library and their temporary directory is
  // still there when the behavior is announced (on the library's own file system the
  // unpacked directory is moved into place instead). False when there is no such place.
  bool temporaryDirectoryOnAnotherFileSystem() {
    const fs::path shm = "/dev/shm";
    const fs::path testTmp = tmpDir();  // private to the test, beside the user library
    struct stat shmInfo, libraryInfo;
    if (::stat(shm.c_str(), &shmInfo) != 0 || ::access(shm.c_str(), W_OK) != 0 ||
        ::stat(testTmp.c_str(), &libraryInfo) != 0 || shmInfo.st_dev == libraryInfo.st_dev) {
      return false;
    }
    fOtherTmp = shm / fs::unique_path("bmtest-tmp-%%%%-%%%%-%%%%");
    fs::create_directories(fOtherTmp);
    setenv("TMPDIR", fOtherTmp.c_str(), 1);  // the fixture restores it
    return true;
  }

  void TearDown() override {
    Install::TearDown();
    if (!fOtherTmp.empty()) {
      boost::system::error_code ignored;
      fs::remove_all(fOtherTmp, ignored);
    }
  }

  std::unique_ptr<Interposer> interposer;
  fs::path fOtherTmp;
};

TEST_F(InstallObserved, TwoInstallationsAtTheSameTimeUseDifferentTemporaryDirectories) {
  // Each installation, when it announces its behavior (its temporary directory still
  // in place), waits for the other one to get there too, lists TMPDIR, and waits until
  // the other has listed it as well.
  std::mutex mutex;
  std::condition_variable arrived;
  int arrivals = 0;
  std::vector<std::map<std::string, std::string>> listings;  // temporary dir -> behavior.xar
  const std::regex pattern("[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}");
  if (!temporaryDirectoryOnAnotherFileSystem()) {
    GTEST_SKIP() << "no file system apart from the library's for the temporary directory";
  }
  startObserved([&](const std::string& method, const ZR::ZRValue& args) {
    if (method != "raiseMicroEvent" || args[0].toString() != kAdded) return;
    std::unique_lock<std::mutex> lock(mutex);
    ++arrivals;
    arrived.notify_all();
    arrived.wait_for(lock, std::chrono::seconds(20), [&] { return arrivals >= 2; });
    std::map<std::string, std::string> listing;
    for (fs::directory_iterator it(tmpDir()), end; it != end; ++it) {
      const std::string name = it->path().filename().string();
      if (std::regex_match(name, pattern)) listing[name] = readFile(it->path() / "behavior.xar");
    }
    listings.push_back(listing);
    // Neither goes on (and removes its directory) before both have looked.
    arrived.notify_all();
    arrived.wait_for(lock, std::chrono::seconds(20), [&] { return listings.size() >= 2; });
  });
  makeBehavior(scratch() / "a", "<behavior><log text=\"A\"/></behavior>");
  makeBehavior(scratch() / "b", "<behavior><log text=\"B\"/></behavior>");
  pack(scratch() / "a", scratch() / "a.tar.gz", false);
  pack(scratch() / "b", scratch() / "b.zip", true);

  bool resultA = false, resultB = false;
  std::thread first([&] { resultA = install(scratch() / "a.tar.gz", "a", false); });
  std::thread second([&] { resultB = install(scratch() / "b.zip", "b", false); });
  first.join();
  second.join();

  EXPECT_TRUE(resultA);
  EXPECT_TRUE(resultB);
  ASSERT_EQ(arrivals, 2) << "an installation announced nothing";
  ASSERT_EQ(listings.size(), 2u);
  for (const auto& listing : listings) {
    ASSERT_EQ(listing.size(), 2u) << "both temporary directories were not there at once";
    std::set<std::string> contents;
    for (const auto& [dir, xar] : listing) contents.insert(xar);
    EXPECT_EQ(contents, (std::set<std::string>{"<behavior><log text=\"A\"/></behavior>",
                                               "<behavior><log text=\"B\"/></behavior>"}));
  }
  EXPECT_EQ(listings[0], listings[1]);
  EXPECT_EQ(readFile(userRoot() / "a" / "behavior.xar"), "<behavior><log text=\"A\"/></behavior>");
  EXPECT_EQ(readFile(userRoot() / "b" / "behavior.xar"), "<behavior><log text=\"B\"/></behavior>");
  EXPECT_TRUE(tmpEntries().empty());
}

TEST_F(InstallObserved, BehaviorGoneRightAfterItsImportIsReportedAfterTheEvent) {
  // Another program deletes the behavior as soon as it appears.
  startObserved([&](const std::string& method, const ZR::ZRValue& args) {
    if (method == "raiseMicroEvent" && args[0].toString() == kAdded &&
        args[1].toString() == "vanish") {
      fs::remove_all(userRoot() / "vanish");
    }
  });
  makeBehavior(scratch() / "vanish");
  pack(scratch() / "vanish", scratch() / "vanish.zip", true);

  EXPECT_FALSE(install(scratch() / "vanish.zip", "vanish", false));
  EXPECT_EQ(
      installLogCount(2, "Error trying to import package " + (scratch() / "vanish.zip").string() +
                             ": behavior was not properly installed"),
      1);
  EXPECT_EQ(libraryEvents(), std::vector<std::string>{std::string(kAdded) + " vanish"});
  EXPECT_TRUE(tmpEntries().empty());
}

TEST_F(InstallObserved, PackageUnpackedOnTheLibrarysFileSystemIsMovedIntoPlace) {
  // When the behavior is announced, its temporary directory is already gone: the
  // unpacked files were moved into the library, not copied.
  std::vector<std::string> seenAtEvent = {"not called"};
  startObserved([&](const std::string& method, const ZR::ZRValue& args) {
    if (method == "raiseMicroEvent" && args[0].toString() == kAdded) seenAtEvent = tmpEntries();
  });
  makeBehavior(scratch() / "src");
  writeFile(scratch() / "src" / "media" / "clip.raw", "clip");
  pack(scratch() / "src", scratch() / "clip.tar.gz", false);

  EXPECT_TRUE(install(scratch() / "clip.tar.gz", "clip", false));
  EXPECT_EQ(seenAtEvent, std::vector<std::string>{});
  EXPECT_EQ(readFile(userRoot() / "clip" / "media" / "clip.raw"), "clip");
  EXPECT_EQ(libraryEvents(), std::vector<std::string>{std::string(kAdded) + " clip"});
  EXPECT_TRUE(tmpEntries().empty());
}

TEST_F(InstallObserved, TemporaryDirectoryThatCannotBeRemovedIsLoggedAndTheInstallGoesOn) {
  // While the behavior is announced, a folder of the temporary directory is made
  // immutable, so that its removal fails.
  fs::path locked;
  bool lockedOk = false;
  if (!temporaryDirectoryOnAnotherFileSystem()) {
    GTEST_SKIP() << "no file system apart from the library's for the temporary directory";
  }
  startObserved([&](const std::string& method, const ZR::ZRValue& args) {
    if (method != "raiseMicroEvent" || args[0].toString() != kAdded) return;
    for (fs::directory_iterator it(tmpDir()), end; it != end; ++it) {
      if (fs::exists(it->path() / "media")) {
        locked = it->path() / "media";
        lockedOk = setImmutable(locked, true);
      }
    }
  });
  makeBehavior(scratch() / "src");
  writeFile(scratch() / "src" / "media" / "clip.raw", "clip");
  pack(scratch() / "src", scratch() / "clip.tar.gz", false);
  logs->clear();

  const bool installed = install(scratch() / "clip.tar.gz", "clip", false);
  struct Unlock {
    fs::path dir;
    ~Unlock() {
      if (!dir.empty()) setImmutable(dir, false);
    }
  } unlock{locked};
  ASSERT_FALSE(locked.empty()) << "no temporary directory was seen";
  if (!lockedOk) GTEST_SKIP() << "the immutable attribute cannot be set here";

  EXPECT_TRUE(installed);
  EXPECT_EQ(readFile(userRoot() / "clip" / "media" / "clip.raw"), "clip");
  const fs::path tmp = locked.parent_path();
  std::string text;
  try {
    fs::remove_all(tmp);  // fails the same way
    ADD_FAILURE() << "the temporary directory could be removed";
  } catch (const fs::filesystem_error& error) {
    text = error.what();
  }
  EXPECT_EQ(installLogCount(3, "Could not clean temporary path " + tmp.string() + ": " + text), 1);
  EXPECT_EQ(installLogs().size(), 1u);
}

TEST_F(InstallObserved, TwoResourcePackagesRefusedAtOnceLeaveTwoTemporaryDirectories) {
  startObserved(nullptr);
  makeResource(userRoot() / "res");
  makeResource(scratch() / "a");
  writeFile(scratch() / "a" / "data.txt", "A");
  makeResource(scratch() / "b");
  writeFile(scratch() / "b" / "data.txt", "B");
  pack(scratch() / "a", scratch() / "a.zip", true);
  pack(scratch() / "b", scratch() / "b.tar.gz", false);

  bool resultA = true, resultB = true;
  std::thread first([&] { resultA = install(scratch() / "a.zip", "res", false); });
  std::thread second([&] { resultB = install(scratch() / "b.tar.gz", "res", false); });
  first.join();
  second.join();

  EXPECT_FALSE(resultA);
  EXPECT_FALSE(resultB);
  const std::vector<std::string> left = tmpEntries();
  ASSERT_EQ(left.size(), 2u);
  std::set<std::string> contents;
  for (const std::string& dir : left) contents.insert(readFile(tmpDir() / dir / "data.txt"));
  EXPECT_EQ(contents, (std::set<std::string>{"A", "B"}));
}

}  // namespace
}  // namespace bmtest
