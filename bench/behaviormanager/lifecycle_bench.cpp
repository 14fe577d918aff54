// The behavior manager with many behaviors running at once. N behaviors (default 200),
// each of which repeats a long wait until it is stopped, are started by N remote
// "runBehavior" calls, one per thread, all at once. Measured:
//   - start to "BehaviorsRun": from the moment a thread makes its call to the delivery of
//     the first "BehaviorsRun" value holding its name (an in-process memory observer);
//   - "isBehaviorRunning" through the broker while they all run, one call after the other;
//   - the duration of one remote "stopAllBehaviors" that stops them all.
//
//   lifecycle_bench [behaviors] [queries]
#include <behaviormanager/behaviormanager.h>
#include <vu/log.h>
#include <zr/modules/zrframemanager.h>
#include <zr/modules/zrmemory.h>
#include <zr/modules/zrpreferences.h>
#include <zr/zrbroker.h>
#include <zr/zrerror.h>

#include <algorithm>
#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace fs = boost::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

double ms(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

struct Summary {
  double p50, p99, max, mean;
};

Summary summarise(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const auto at = [&](double q) {
    const std::size_t i = std::min(values.size() - 1, static_cast<std::size_t>(q * values.size()));
    return values[i];
  };
  double sum = 0;
  for (double v : values) sum += v;
  return {at(0.50), at(0.99), values.back(), sum / values.size()};
}

void write(const fs::path& file, const std::string& text) {
  fs::create_directories(file.parent_path());
  FILE* out = std::fopen(file.string().c_str(), "w");
  std::fputs(text.c_str(), out);
  std::fclose(out);
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 200;
  const int queries = argc > 2 ? std::atoi(argv[2]) : 20000;
  vu::log::setMaxLevel(2);

  const fs::path base = fs::temp_directory_path() / fs::unique_path("bm-bench-%%%%-%%%%");
  const fs::path home = base / "home";
  const fs::path prefix = base / "prefix";
  fs::create_directories(prefix / "share" / "tuqvu" / "behaviors");
  setenv("HOME", home.string().c_str(), 1);
  setenv("TUQVU_SDK_PREFIX", prefix.string().c_str(), 1);
  setenv("XDG_DATA_HOME", (home / "data").string().c_str(), 1);
  ZR::BehaviorManager::ZRBehaviorManager::defaultUserBehaviorsPath =
      home.string() + "/.tuqvu/behaviors";

  std::vector<std::string> names;
  for (int i = 0; i < count; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "bench/b%03d", i);
    names.push_back(name);
    const fs::path dir = home / ".tuqvu" / "behaviors" / name;
    write(dir / "behavior.xar",
          "<behavior>\n  <repeat>\n    <wait ms=\"600000\"/>\n  </repeat>\n</behavior>\n");
    write(dir / "project.xml",
          "<project>\n  <metadata key=\"Type\" value=\"Behavior\"/>\n</project>\n");
  }

  auto broker = ZR::ZRBroker::create("bench");
  auto memory = std::make_unique<ZR::ZRMemory>(broker);
  auto preferences = std::make_unique<ZR::ZRPreferences>(broker);
  auto frames = std::make_unique<ZR::ZRFrameManager>(broker);
  auto manager =
      std::make_unique<ZR::BehaviorManager::ZRBehaviorManager>(broker, "ZRBehaviorManager");

  // name -> when its call was made / when a published list first held it
  std::mutex mutex;
  std::condition_variable allSeen;
  std::map<std::string, Clock::time_point> started, seen;
  int publications = 0;
  memory->addObserver([&](const std::string& key, const ZR::ZRValue& value) {
    if (key != "BehaviorsRun") return;
    const Clock::time_point now = Clock::now();
    std::lock_guard<std::mutex> lock(mutex);
    ++publications;
    for (const std::string& name : value.toStringVector()) seen.emplace(name, now);
    if (static_cast<int>(seen.size()) == count) allSeen.notify_all();
  });

  std::atomic<int> failures{0};
  std::vector<std::thread> runs;
  const Clock::time_point firstCall = Clock::now();
  for (const std::string& name : names) {
    runs.emplace_back([&, name] {
      {
        std::lock_guard<std::mutex> lock(mutex);
        started[name] = Clock::now();
      }
      try {
        broker->call("ZRBehaviorManager", "runBehavior",
                     ZR::ZRValue(std::vector<std::string>{name}));
      } catch (const ZR::ZRError& error) {
        ++failures;
        std::fprintf(stderr, "run %s: %s\n", name.c_str(), error.description().c_str());
      }
    });
  }
  {
    std::unique_lock<std::mutex> lock(mutex);
    if (!allSeen.wait_for(lock, std::chrono::seconds(120),
                          [&] { return static_cast<int>(seen.size()) == count; })) {
      std::fprintf(stderr, "only %zu of %d behaviors were published\n", seen.size(), count);
      return 1;
    }
  }
  std::vector<double> startLatency;
  Clock::time_point lastSeen = firstCall;
  {
    std::lock_guard<std::mutex> lock(mutex);
    for (const std::string& name : names) {
      startLatency.push_back(ms(seen[name] - started[name]));
      lastSeen = std::max(lastSeen, seen[name]);
    }
  }

  // Quick queries while everything runs.
  std::vector<double> queryLatency;
  queryLatency.reserve(queries);
  int running = 0;
  for (int i = 0; i < queries; ++i) {
    const ZR::ZRValue args(std::vector<std::string>{names[i % count]});
    const Clock::time_point before = Clock::now();
    const ZR::ZRValue result = broker->call("ZRBehaviorManager", "isBehaviorRunning", args);
    queryLatency.push_back(ms(Clock::now() - before));
    running += result.toBool() ? 1 : 0;
  }

  const Clock::time_point stopBegin = Clock::now();
  broker->call("ZRBehaviorManager", "stopAllBehaviors", ZR::ZRValue::array());
  const double stopAll = ms(Clock::now() - stopBegin);
  for (std::thread& run : runs) run.join();
  const std::size_t stillRunning = manager->getRunningBehaviors().size();

  const Summary start = summarise(startLatency);
  const Summary query = summarise(queryLatency);
  std::printf("behaviors                        %d (run failures %d)\n", count, failures.load());
  std::printf("start -> BehaviorsRun (ms)       p50 %.2f  p99 %.2f  max %.2f  mean %.2f\n",
              start.p50, start.p99, start.max, start.mean);
  std::printf("all %d published after (ms)     %.1f\n", count, ms(lastSeen - firstCall));
  std::printf("isBehaviorRunning x%d (ms)    p50 %.4f  p99 %.4f  max %.3f  (true %d times)\n",
              queries, query.p50, query.p99, query.max, running);
  std::printf("stopAllBehaviors (ms)            %.0f  (%.1f per behavior; running after: %zu)\n",
              stopAll, stopAll / count, stillRunning);
  {
    std::lock_guard<std::mutex> lock(mutex);
    std::printf("BehaviorsRun publications seen   %d\n", publications);
  }

  manager.reset();
  frames.reset();
  preferences.reset();
  memory.reset();
  broker.reset();
  boost::system::error_code ignored;
  fs::remove_all(base, ignored);
  return failures.load() == 0 && stillRunning == 0 ? 0 : 1;
}
