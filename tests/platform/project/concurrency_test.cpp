// Many readers, an importer, a remover, an assigner and changes made by hand, all at once
// on one library object, as the behavior manager uses it. Run under ThreadSanitizer too.
#include <gtest/gtest.h>
#include <vu/project/behaviorlibraryproject.h>

#include <atomic>
#include <boost/bind/bind.hpp>
#include <boost/filesystem.hpp>
#include <thread>

#include "support.h"

using namespace projecttest;
using vu::project::BehaviorLibraryProject;
using Paths = std::set<std::string>;
namespace fs = boost::filesystem;

namespace {

// The behaviors on disk, found by walking the tree the plain way.
Paths diskBehaviors(const std::string& root) {
  Paths result;
  for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
    if (fs::is_directory(it->status()) && fs::is_regular_file(it->path() / "behavior.xar")) {
      result.insert(it->path().string().substr(root.size() + 1));
      it.disable_recursion_pending();
    }
  }
  return result;
}

struct Module {
  explicit Module(BehaviorLibraryProject& library) : library(library) {}
  void onBehaviorAdded(const std::string& path) {
    ++added;
    library.hasBehavior(path);  // slots query the library
  }
  void onBehaviorRemoved(const std::string&) { ++removed; }
  void connect() {
    using boost::placeholders::_1;
    library.behaviorAdded.connect(boost::bind(&Module::onBehaviorAdded, this, _1));
    library.behaviorRemoved.connect(boost::bind(&Module::onBehaviorRemoved, this, _1));
  }
  void disconnect() {
    using boost::placeholders::_1;
    library.behaviorAdded.disconnect(boost::bind(&Module::onBehaviorAdded, this, _1));
    library.behaviorRemoved.disconnect(boost::bind(&Module::onBehaviorRemoved, this, _1));
  }
  BehaviorLibraryProject& library;
  std::atomic<int> added{0};
  std::atomic<int> removed{0};
};

}  // namespace

TEST(Concurrency, ReadersImporterRemoverAssignerAndChangesByHand) {
  ScratchDir first;
  ScratchDir second;
  ScratchDir source;
  for (const ScratchDir* root : {&first, &second}) {
    for (int i = 0; i < 40; ++i) {
      makeBehavior(*root / ("stable/" + std::to_string(i)),
                   {"stable", "t" + std::to_string(i % 4)});
    }
  }
  makeBehavior(source / "b", {"moving"});

  BehaviorLibraryProject library(first.path());
  Module module(library);
  module.connect();

  std::atomic<int> readerFailures{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int r = 0; r < 3; ++r) {
    threads.emplace_back([&] {
      for (int i = 0; i < 300; ++i) {
        const Paths all = library.behaviorPaths("", true);
        const Paths stable = library.behaviorPaths("stable", true);
        const bool known = library.hasBehavior("stable/7");
        const Paths tags = library.tags("", true);
        const Paths tagged = library.findTag("stable");
        const std::string root = library.projectPath();
        const bool valid = library.valid();
        if (stable.size() != 40 || !known || tags.count("stable") == 0 || tagged.size() != 40 ||
            all.size() < 40 || !valid || (root != first.path() && root != second.path())) {
          ++readerFailures;
        }
        for (const std::string& path : all) {
          if (path.compare(0, 7, "stable/") != 0 && path.compare(0, 7, "moving/") != 0 &&
              path.compare(0, 9, "external/") != 0) {
            ++readerFailures;
          }
        }
      }
    });
  }
  std::atomic<int> importFailures{0};
  threads.emplace_back([&] {
    for (int i = 0; i < 60; ++i) {
      const std::string path = "moving/" + std::to_string(i % 7);
      if (!library.importBehavior(source / "b", path, true)) {
        ++importFailures;
      }
      library.removeBehavior("moving/" + std::to_string((i + 3) % 7));
    }
  });
  threads.emplace_back([&] {
    for (int i = 0; i < 30; ++i) {
      module.disconnect();
      library = BehaviorLibraryProject(i % 2 == 0 ? second.path() : first.path());
      module.connect();
    }
  });
  threads.emplace_back([&] {
    for (int i = 0; i < 100 && !stop; ++i) {
      const std::string dir = first / ("external/" + std::to_string(i % 9));
      if (fs::exists(dir)) {
        fs::remove_all(dir);
      } else {
        makeBehavior(dir);
      }
    }
  });
  for (std::thread& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(0, readerFailures.load());
  EXPECT_EQ(0, importFailures.load());
  EXPECT_GE(module.added.load() + module.removed.load(), 1);
  EXPECT_EQ(1u, library.behaviorAdded.num_slots());
  EXPECT_EQ(1u, library.behaviorRemoved.num_slots());
  // Whatever happened, the library agrees with the disk afterwards.
  EXPECT_EQ(first.path(), library.projectPath());  // the last assignment
  EXPECT_EQ(diskBehaviors(first.path()), library.behaviorPaths("", true));
  library = BehaviorLibraryProject(second.path());
  EXPECT_EQ(diskBehaviors(second.path()), library.behaviorPaths("", true));
}

TEST(Concurrency, AnOverwrittenBehaviorNeverDisappearsFromItsPath) {
  ScratchDir root;
  ScratchDir source;
  for (const char* version : {"a", "b"}) {
    makeBehavior(source / version, {version}, version);
    for (int i = 0; i < 4; ++i) {
      writeFile(source / (std::string(version) + "/data/" + std::to_string(i)), version);
    }
  }
  BehaviorLibraryProject library(root.path());
  ASSERT_TRUE(library.importBehavior(source / "a", "x", false));
  std::atomic<bool> done{false};
  std::atomic<int> missing{0};
  std::atomic<int> checks{0};
  std::thread reader([&] {
    while (!done) {
      if (!library.hasBehavior("x") || !exists(root / "x/behavior.xar")) {
        ++missing;
      }
      ++checks;
    }
  });
  int failures = 0;
  for (int i = 0; i < 15; ++i) {
    failures += library.importBehavior(source / (i % 2 == 0 ? "b" : "a"), "x", true) ? 0 : 1;
  }
  done = true;
  reader.join();
  EXPECT_EQ(0, failures);
  EXPECT_EQ(0, missing.load()) << "out of " << checks.load() << " checks";
  EXPECT_EQ("b", readFile(root / "x/behavior.xar"));  // the last import, i = 14
  EXPECT_EQ((Paths{"b"}), library.tags("x", true));
  EXPECT_EQ((std::vector<std::string>{"x"}), listDir(root.path()));  // no copy left beside it
}
