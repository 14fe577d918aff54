// The project library at scale: a library of 10,000 behaviors (100 directories of 100,
// each behavior with a project.xml carrying two tags out of 60). Measures building the
// index, the warm queries, and the first query after a change on disk.
//
//   project_bench [--benchmark_filter=...]   (PROJECT_BENCH_DIR: where to build the tree)
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/project/behaviorlibraryproject.h>

#include <boost/filesystem.hpp>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>

namespace fs = boost::filesystem;
using vu::project::BehaviorLibraryProject;

namespace {

constexpr int kGroups = 100;
constexpr int kPerGroup = 100;

std::string name(const char* format, int value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, format, value);
  return buffer;
}

// The tree, made once per run and removed at exit.
class Tree {
public:
  Tree() {
    const char* base = std::getenv("PROJECT_BENCH_DIR");
    fRoot = (fs::path(base != nullptr ? base : fs::temp_directory_path().string()) /
             fs::unique_path("project-bench-%%%%-%%%%"))
                .string();
    std::cerr << "building " << kGroups * kPerGroup << " behaviors in " << fRoot << "\n";
    for (int g = 0; g < kGroups; ++g) {
      for (int b = 0; b < kPerGroup; ++b) {
        const int i = g * kPerGroup + b;
        const fs::path dir = fs::path(fRoot) / name("g%02d", g) / name("b%04d", i);
        fs::create_directories(dir);
        std::ofstream(dir / "project.xml")
            << "<project><metadata key=\"Type\" value=\"Behavior\"/><tag>" << name("t%02d", i % 50)
            << "</tag><tag>" << name("group%d", g % 10) << "</tag></project>\n";
        std::ofstream(dir / "behavior.xar") << "<xar/>";
      }
    }
  }
  ~Tree() {
    boost::system::error_code ignored;
    fs::remove_all(fRoot, ignored);
  }
  const std::string& root() const { return fRoot; }

private:
  std::string fRoot;
};

const Tree& tree() {
  static Tree instance;
  return instance;
}

// One warm library shared by the query benchmarks.
BehaviorLibraryProject& library() {
  static BehaviorLibraryProject instance(tree().root());
  return instance;
}

void IndexBuild(benchmark::State& state) {
  const std::string root = tree().root();
  std::size_t count = 0;
  for (auto _ : state) {
    BehaviorLibraryProject fresh(root);  // the last library of a root builds its index
    count = fresh.behaviorPaths("", true).size();
  }
  state.counters["behaviors"] = static_cast<double>(count);
}
BENCHMARK(IndexBuild)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void BehaviorPathsAll(benchmark::State& state) {
  BehaviorLibraryProject& lib = library();
  std::size_t count = 0;
  for (auto _ : state) {
    count = lib.behaviorPaths("", true).size();
    benchmark::DoNotOptimize(count);
  }
  state.counters["behaviors"] = static_cast<double>(count);
}
BENCHMARK(BehaviorPathsAll)->Unit(benchmark::kMicrosecond);

void BehaviorPathsOneDirectory(benchmark::State& state) {
  BehaviorLibraryProject& lib = library();
  std::size_t count = 0;
  for (auto _ : state) {
    count = lib.behaviorPaths("g42", true).size();
    benchmark::DoNotOptimize(count);
  }
  state.counters["behaviors"] = static_cast<double>(count);
}
BENCHMARK(BehaviorPathsOneDirectory)->Unit(benchmark::kMicrosecond);

void HasBehavior(benchmark::State& state) {
  BehaviorLibraryProject& lib = library();
  int found = 0;
  for (auto _ : state) {
    found += lib.hasBehavior("g42/b4242") ? 1 : 0;
    found += lib.hasBehavior("g42/missing") ? 1 : 0;
  }
  state.counters["found_per_iteration"] =
      static_cast<double>(found) / static_cast<double>(state.iterations());
}
BENCHMARK(HasBehavior)->Unit(benchmark::kMicrosecond);

void FindTag(benchmark::State& state) {
  BehaviorLibraryProject& lib = library();
  std::size_t count = 0;
  for (auto _ : state) {
    count = lib.findTag("t07").size();
    benchmark::DoNotOptimize(count);
  }
  state.counters["behaviors"] = static_cast<double>(count);
}
BENCHMARK(FindTag)->Unit(benchmark::kMicrosecond);

void TagsAll(benchmark::State& state) {
  BehaviorLibraryProject& lib = library();
  std::size_t count = 0;
  for (auto _ : state) {
    count = lib.tags("", true).size();
    benchmark::DoNotOptimize(count);
  }
  state.counters["tags"] = static_cast<double>(count);
}
BENCHMARK(TagsAll)->Unit(benchmark::kMicrosecond);

void TagsOneDirectory(benchmark::State& state) {
  BehaviorLibraryProject& lib = library();
  std::size_t count = 0;
  for (auto _ : state) {
    count = lib.tags("g42", true).size();
    benchmark::DoNotOptimize(count);
  }
  state.counters["tags"] = static_cast<double>(count);
}
BENCHMARK(TagsOneDirectory)->Unit(benchmark::kMicrosecond);

// A behavior made by plain file-system calls, then the first query: is it seen, and what
// does that first query cost? The same for its removal.
void FirstQueryAfterAChange(benchmark::State& state) {
  BehaviorLibraryProject& lib = library();
  const std::string dir = tree().root() + "/g42/fresh";
  int missed = 0;
  for (auto _ : state) {
    state.PauseTiming();
    ::mkdir(dir.c_str(), 0755);
    std::ofstream(dir + "/behavior.xar") << "<xar/>";
    state.ResumeTiming();
    missed += lib.hasBehavior("g42/fresh") ? 0 : 1;
    state.PauseTiming();
    fs::remove_all(dir);
    state.ResumeTiming();
    missed += lib.hasBehavior("g42/fresh") ? 1 : 0;
  }
  state.counters["missed_changes"] = missed;
}
BENCHMARK(FirstQueryAfterAChange)->Unit(benchmark::kMicrosecond)->Iterations(200);

}  // namespace

BENCHMARK_MAIN();
