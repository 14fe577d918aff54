// Installing behaviors through the behavior manager, against the command-line tools doing
// the same data movement in the same run:
//   - a 100 MiB behavior package (tar.gz and zip) installed with "installBehavior", against
//     "bsdtar -xf" of the same package into an empty directory, and against the tools doing
//     the installation's own steps (unpack into a temporary directory, copy into place,
//     remove the temporary directory);
//   - a behavior directory of 10,000 files installed with "installBehavior", against
//     "cp -r" of the same directory.
// The cases alternate round after round, so that a change of machine load hits them all.
// Before each timed operation its destination is removed and the page cache is written
// back (sync), neither of which is timed. Times are wall-clock.
//
//   behaviormanager_install_bench [rounds [filter]]   (default 5 rounds, every case)
//
// A filter keeps the comparisons whose installation's name contains it ("tar.gz", "zip" or
// "directory").
//
// The data is made once in $INSTALL_BENCH_DIR (default <tmp>/tuqvu-install-bench).
#include <behaviormanager/behaviormanager.h>
#include <unistd.h>
#include <vu/log.h>
#include <zr/modules/zrframemanager.h>
#include <zr/modules/zrmemory.h>
#include <zr/modules/zrpreferences.h>
#include <zr/zrbroker.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace fs = boost::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kPackageFiles = 25;
constexpr std::size_t kPackageFileBytes = 4u << 20;  // 25 x 4 MiB = 100 MiB
constexpr int kDirectoryFolders = 100;
constexpr int kFilesPerFolder = 100;  // 10,000 files

void writeFile(const fs::path& file, const std::string& content) {
  fs::create_directories(file.parent_path());
  std::ofstream out(file.string(), std::ios::binary);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + file.string());
}

void run(const std::string& command) {
  if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

std::uintmax_t countFiles(const fs::path& dir, std::uintmax_t* bytes) {
  std::uintmax_t files = 0;
  *bytes = 0;
  for (fs::recursive_directory_iterator it(dir), end; it != end; ++it) {
    if (fs::is_regular_file(it->path())) {
      ++files;
      *bytes += fs::file_size(it->path());
    }
  }
  return files;
}

// The behavior of the package: behavior.xar, project.xml and 100 MiB of media-like
// (incompressible) data.
void makePackageSource(const fs::path& dir) {
  writeFile(dir / "behavior.xar", "<behavior><log text=\"big\"/></behavior>\n");
  writeFile(dir / "project.xml",
            "<project><metadata key=\"Type\" value=\"Behavior\"/><tag>bench</tag></project>\n");
  std::mt19937_64 random(42);
  std::string block(kPackageFileBytes, '\0');
  for (int i = 0; i < kPackageFiles; ++i) {
    for (std::size_t j = 0; j + 8 <= block.size(); j += 8) {
      const std::uint64_t value = random();
      std::memcpy(&block[j], &value, 8);
    }
    writeFile(dir / "media" / ("clip" + std::to_string(i) + ".raw"), block);
  }
}

// A behavior of 10,000 small files (1 to 4 KiB of text) in 100 folders, plus its two
// project files.
void makeDirectory(const fs::path& dir) {
  writeFile(dir / "behavior.xar", "<behavior><log text=\"many\"/></behavior>\n");
  writeFile(dir / "project.xml",
            "<project><metadata key=\"Type\" value=\"Behavior\"/></project>\n");
  std::mt19937 random(7);
  for (int f = 0; f < kDirectoryFolders; ++f) {
    const fs::path folder = dir / "parts" / ("p" + std::to_string(f));
    fs::create_directories(folder);
    for (int i = 0; i < kFilesPerFolder; ++i) {
      const std::size_t size = 1024 + random() % 3072;
      std::string text;
      while (text.size() < size) text += "step " + std::to_string(random()) + "\n";
      text.resize(size);
      std::ofstream((folder / ("f" + std::to_string(i) + ".txt")).string(), std::ios::binary)
          << text;
    }
  }
}

struct Case {
  std::string name;
  std::function<void()> prepare;  // untimed
  std::function<void()> operation;
  std::vector<double> seconds;
};

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  const std::string filter = argc > 2 ? argv[2] : "";
  const char* chosen = std::getenv("INSTALL_BENCH_DIR");
  const fs::path base =
      chosen ? fs::path(chosen) : fs::temp_directory_path() / "tuqvu-install-bench";
  // The sources lie in the served user data folder, one of the places an install may
  // read from; the rest of that folder is cleared below like the home.
  const fs::path dataHome = base / "xdg";
  const fs::path data = dataHome / "tuqvu" / "uploads";
  const fs::path home = base / "home";
  const fs::path tmp = base / "tmp";
  const fs::path out = base / "out";

  if (!fs::exists(data / "ready")) {
    std::printf("making the data in %s ...\n", data.c_str());
    fs::remove_all(data);
    makePackageSource(data / "package");
    makeDirectory(data / "directory");
    const std::string names = " behavior.xar project.xml media";
    run("bsdtar -czf '" + (data / "package.tar.gz").string() + "' -C '" +
        (data / "package").string() + "'" + names);
    run("bsdtar --format zip -cf '" + (data / "package.zip").string() + "' -C '" +
        (data / "package").string() + "'" + names);
    writeFile(data / "ready", "");
  }
  fs::remove_all(home);
  fs::create_directories(data);
  for (fs::directory_iterator it(dataHome / "tuqvu"), end; it != end; ++it) {
    if (it->path() != data) fs::remove_all(it->path());
  }
  fs::remove_all(tmp);
  fs::remove_all(out);
  fs::create_directories(tmp);
  fs::create_directories(out);
  fs::create_directories(base / "prefix" / "share" / "tuqvu" / "behaviors");
  setenv("HOME", home.c_str(), 1);
  setenv("TMPDIR", tmp.c_str(), 1);
  setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
  setenv("TUQVU_SDK_PREFIX", (base / "prefix").c_str(), 1);
  vu::log::setMaxLevel(2);

  using ZR::BehaviorManager::ZRBehaviorManager;
  ZRBehaviorManager::defaultUserBehaviorsPath = (home / ".tuqvu" / "behaviors").string();
  auto broker = ZR::ZRBroker::create("bench");
  ZR::ZRMemory memory(broker);
  ZR::ZRPreferences preferences(broker);
  ZR::ZRFrameManager frameManager(broker);
  ZRBehaviorManager manager(broker, "ZRBehaviorManager");
  const fs::path library = home / ".tuqvu" / "behaviors";

  const auto install = [&](const fs::path& source, const std::string& local) {
    ZR::ZRValue args = ZR::ZRValue::array();
    args.arrayPush(ZR::ZRValue(source.string()));
    args.arrayPush(ZR::ZRValue(local));
    args.arrayPush(ZR::ZRValue(true));
    if (!broker->call("ZRBehaviorManager", "installBehavior", args).toBool()) {
      throw std::runtime_error("installBehavior failed for " + source.string());
    }
  };
  const auto clean = [](const fs::path& dir) {
    fs::remove_all(dir);
    ::sync();
  };

  // Each group: the installation first, then the tools it is compared with.
  std::vector<std::vector<Case>> groups;
  for (const char* format : {"tar.gz", "zip"}) {
    const fs::path package = data / (std::string("package.") + format);
    const std::string tag = format[0] == 't' ? "targz" : "zip";
    const std::string local = "bench/" + tag;
    const fs::path into = out / tag;
    const fs::path unpacked = tmp / ("tools-" + tag);
    const fs::path placed = out / ("placed-" + tag);
    groups.push_back({
        {std::string("installBehavior, 100 MiB ") + format,
         [=] { clean(library / local); },
         [=] { install(package, local); },
         {}},
        {std::string("bsdtar -xf, 100 MiB ") + format,
         [=] {
           clean(into);
           fs::create_directories(into);
         },
         [=] { run("bsdtar -xf '" + package.string() + "' -C '" + into.string() + "'"); },
         {}},
        // The same steps as the installation, done by the tools: unpack into a
        // temporary directory, copy into place, remove the temporary directory.
        {std::string("bsdtar -xf + cp -r + rm -rf, 100 MiB ") + format,
         [=] {
           clean(placed);
           fs::create_directories(unpacked);
         },
         [=] {
           run("bsdtar -xf '" + package.string() + "' -C '" + unpacked.string() + "' && cp -r '" +
               unpacked.string() + "' '" + placed.string() + "' && rm -rf '" + unpacked.string() +
               "'");
         },
         {}},
    });
  }
  groups.push_back({
      {"installBehavior, 10,000-file directory",
       [=] { clean(library / "bench/dir"); },
       [=] { install(data / "directory", "bench/dir"); },
       {}},
      {"cp -r, 10,000-file directory",
       [=] { clean(out / "dir"); },
       [=] {
         run("cp -r '" + (data / "directory").string() + "' '" + (out / "dir").string() + "'");
       },
       {}},
  });

  std::vector<Case> cases;
  std::vector<std::pair<std::size_t, std::size_t>> ratios;  // (installation, tool) indexes
  for (const std::vector<Case>& group : groups) {
    if (!filter.empty() && group[0].name.find(filter) == std::string::npos) continue;
    const std::size_t first = cases.size();
    for (std::size_t i = 0; i < group.size(); ++i) {
      cases.push_back(group[i]);
      if (i > 0) ratios.emplace_back(first, first + i);
    }
  }
  if (cases.empty()) {
    std::fprintf(stderr, "no case matches \"%s\"\n", filter.c_str());
    return 2;
  }

  for (int round = 0; round < rounds; ++round) {
    for (Case& c : cases) {
      c.prepare();
      const Clock::time_point start = Clock::now();
      c.operation();
      c.seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
    }
  }

  // What was installed is all of the source data.
  std::uintmax_t bytes = 0, expectedBytes = 0;
  const std::uintmax_t expectedPackage = countFiles(data / "package", &expectedBytes);
  for (const char* local : {"bench/targz", "bench/zip"}) {
    if (fs::exists(library / local) &&
        (countFiles(library / local, &bytes) != expectedPackage || bytes != expectedBytes)) {
      std::fprintf(stderr, "%s does not hold the package\n", local);
      return 1;
    }
  }
  const std::uintmax_t expectedDirectory = countFiles(data / "directory", &expectedBytes);
  if (fs::exists(library / "bench/dir") &&
      (countFiles(library / "bench/dir", &bytes) != expectedDirectory || bytes != expectedBytes)) {
    std::fprintf(stderr, "bench/dir does not hold the directory\n");
    return 1;
  }
  if (!fs::is_empty(tmp)) {
    std::fprintf(stderr, "temporary directories were left in %s\n", tmp.c_str());
    return 1;
  }

  std::printf("%d rounds; median and best wall time per operation\n\n", rounds);
  std::printf("| operation | median | best |\n|---|---|---|\n");
  for (const Case& c : cases) {
    std::printf("| %s | %.3f s | %.3f s |\n", c.name.c_str(), median(c.seconds),
                *std::min_element(c.seconds.begin(), c.seconds.end()));
  }
  std::printf("\n| ratio | median | best |\n|---|---|---|\n");
  for (const auto& [i, j] : ratios) {
    const Case& mine = cases[i];
    const Case& tool = cases[j];
    std::printf("| %s / %s | %.2f | %.2f |\n", mine.name.c_str(), tool.name.c_str(),
                median(mine.seconds) / median(tool.seconds),
                *std::min_element(mine.seconds.begin(), mine.seconds.end()) /
                    *std::min_element(tool.seconds.begin(), tool.seconds.end()));
  }
  fs::remove_all(home);
  fs::remove_all(out);
  return 0;
}
