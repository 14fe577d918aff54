// Platform modules: parsing and instancing behavior files of 1 and 32 MiB (steps on lines
// of their own or all on one line), the latency from exitBehavior to the return of
// completeBehavior, and raiseMicroEvent with 10 subscribers.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <vu/log.h>
#include <zr/modules/zrframemanager.h>
#include <zr/modules/zrmemory.h>
#include <zr/proxies/zrmemoryproxy.h>
#include <zr/zrbinding.h>
#include <zr/zrbroker.h>
#include <zr/zrfunctorbase.h>

#include <algorithm>
#include <atomic>
#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

using namespace ZR;
using Clock = std::chrono::steady_clock;

namespace {

std::string temporaryFile(const std::string& name) {
  const auto dir = boost::filesystem::temp_directory_path() /
                   boost::filesystem::unique_path("tuqvu-bench-%%%%-%%%%");
  boost::filesystem::create_directories(dir);
  return (dir / name).string();
}

// A behavior file of about `bytes` bytes, every kind of step, nested repeats; with
// `oneLine` the steps follow each other on a single line, without indentation. The number
// of steps written goes to `steps` when given.
std::string writeLargeBehavior(std::size_t bytes, bool oneLine = false,
                               std::size_t* steps = nullptr) {
  const std::string path = temporaryFile("behavior.xar");
  std::ofstream out(path);
  out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<behavior>\n";
  std::size_t written = 0;
  for (int block = 0; written < bytes; ++block) {
    std::string text = "  <repeat count=\"2\">\n";
    text += "    <log text=\"block " + std::to_string(block) + "\" level=\"5\"/>\n";
    text += "    <set key=\"Bench/Int" + std::to_string(block) + "\" type=\"int\" value=\"" +
            std::to_string(block) + "\"/>\n";
    text += "    <raise key=\"Bench/Float\" type=\"float\" value=\"0.25\"/>\n";
    text += "    <wait ms=\"1\"/>\n";
    text += "    <call module=\"ZRMemory\" method=\"insertData\">\n";
    text +=
        "      <arg type=\"string\" value=\"Bench/Last\"/><arg type=\"bool\" value=\"true\"/>\n";
    text += "    </call>\n  </repeat>\n";
    if (oneLine) {
      text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
      text.erase(0, text.find_first_not_of(' '));
      for (std::size_t at; (at = text.find("  ")) != std::string::npos;) text.erase(at, 1);
    }
    out << text;
    written += text.size();
    if (steps) *steps += 6;  // the repeat and the five steps of its body
  }
  out << "</behavior>\n";
  return path;
}

// range(0): the size in KiB; range(1): 1 when every step is on one line.
void BM_ParseAndInstanceLargeFile(benchmark::State& state) {
  const std::size_t bytes = static_cast<std::size_t>(state.range(0)) << 10;
  const std::string path = writeLargeBehavior(bytes, state.range(1) != 0);
  const auto size = boost::filesystem::file_size(path);
  auto broker = ZRBroker::create();
  ZRFrameManager frames(broker);
  for (auto _ : state) {
    const std::string id = frames.newBehaviorFromFile(path, "large");
    benchmark::DoNotOptimize(id);
    frames.deleteBehavior(id);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
  state.counters["file_bytes"] = static_cast<double>(size);
  boost::filesystem::remove_all(boost::filesystem::path(path).parent_path());
}
BENCHMARK(BM_ParseAndInstanceLargeFile)
    ->ArgNames({"KiB", "one_line"})
    ->Args({1024, 0})
    ->Args({1024, 1})
    ->Args({32 * 1024 - 64, 0})
    ->Args({32 * 1024 - 64, 1})
    ->Unit(benchmark::kMillisecond);

// The heap in use by this thread's arena and by mapped blocks: what a program read on
// this thread takes, as the allocator itself counts it.
std::size_t heapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// A file of `steps` steps, all like `step` with {n} replaced by the step's number.
std::string writeRepeatedStep(const std::string& step, std::size_t steps) {
  const std::string path = temporaryFile("behavior.xar");
  std::ofstream out(path);
  out << "<behavior>\n";
  for (std::size_t n = 0; n < steps; ++n) {
    std::string line = step;
    const std::size_t at = line.find("{n}");
    if (at != std::string::npos) line.replace(at, 3, std::to_string(n));
    out << "  " << line << "\n";
  }
  out << "</behavior>\n";
  return path;
}

// What one step holds once read: the heap that stays in use after newBehaviorFromFile
// (the XML tree and the reader's tables are gone by then), divided by the steps, beside
// what the frame manager counts against TUQVU_BEHAVIOR_MAX_BYTES. range(0) picks the file.
void BM_HeldBytesPerStep(benchmark::State& state) {
  static const std::vector<std::pair<std::string, std::size_t>> files = {
      {"<wait ms=\"1\"/>", 0},
      {"<log text=\"step number {n} of the behavior\" level=\"4\"/>", 0},
      {"<set key=\"Bench/Key{n}\" type=\"string\" value=\"value {n}\"/>", 0},
      {"<call module=\"ZRMemory\" method=\"insertData\"><arg value=\"Bench/Last\"/>"
       "<arg type=\"int\" value=\"{n}\"/></call>",
       0},
      {"", 0},  // the mixed file of BM_ParseAndInstanceLargeFile, 1 MiB
  };
  const std::size_t which = static_cast<std::size_t>(state.range(0));
  constexpr std::size_t kSteps = 200000;
  std::size_t steps = kSteps;
  std::string path;
  if (files[which].first.empty()) {
    steps = 0;
    path = writeLargeBehavior(1u << 20, false, &steps);
  } else {
    path = writeRepeatedStep(files[which].first, kSteps);
  }
  auto broker = ZRBroker::create();
  ZRFrameManager frames(broker);
  std::size_t heap = 0;
  std::size_t counted = 0;
  for (auto _ : state) {
    const std::size_t before = heapInUse();
    const std::string id = frames.newBehaviorFromFile(path, "held");
    heap = heapInUse() - before;
    counted = frames.heldBytes();
    frames.deleteBehavior(id);
  }
  state.counters["steps"] = static_cast<double>(steps);
  state.counters["heap_per_step"] = static_cast<double>(heap) / static_cast<double>(steps);
  state.counters["counted_per_step"] = static_cast<double>(counted) / static_cast<double>(steps);
  state.counters["file_per_step"] =
      static_cast<double>(boost::filesystem::file_size(path)) / static_cast<double>(steps);
  boost::filesystem::remove_all(boost::filesystem::path(path).parent_path());
}
BENCHMARK(BM_HeldBytesPerStep)
    ->ArgName("file")
    ->DenseRange(0, 4)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// Runs completeBehavior on its own thread, one run per request, and records when it
// returned.
class Runner {
public:
  Runner(ZRFrameManager& frames, std::string id) : fFrames(frames), fId(std::move(id)) {
    fThread = std::thread([this] { loop(); });
  }
  ~Runner() {
    {
      std::lock_guard<std::mutex> lock(fMutex);
      fStop = true;
      fChanged.notify_all();
    }
    fThread.join();
  }
  void startRun() {
    std::lock_guard<std::mutex> lock(fMutex);
    fRequested = true;
    fReturned = false;
    fChanged.notify_all();
  }
  Clock::time_point waitReturn() {
    std::unique_lock<std::mutex> lock(fMutex);
    fChanged.wait(lock, [&] { return fReturned; });
    return fReturnedAt;
  }

private:
  void loop() {
    std::unique_lock<std::mutex> lock(fMutex);
    for (;;) {
      fChanged.wait(lock, [&] { return fStop || fRequested; });
      if (fStop) return;
      fRequested = false;
      lock.unlock();
      fFrames.completeBehavior(fId);
      const Clock::time_point now = Clock::now();
      lock.lock();
      fReturnedAt = now;
      fReturned = true;
      fChanged.notify_all();
    }
  }

  ZRFrameManager& fFrames;
  const std::string fId;
  std::mutex fMutex;
  std::condition_variable fChanged;
  bool fRequested = false;
  bool fReturned = false;
  bool fStop = false;
  Clock::time_point fReturnedAt;
  std::thread fThread;
};

void BM_ExitToCompleteReturn(benchmark::State& state) {
  const int background = static_cast<int>(state.range(0));
  const std::string path = temporaryFile("behavior.xar");
  std::ofstream(path) << "<behavior><repeat><wait ms=\"600000\"/></repeat></behavior>";
  auto broker = ZRBroker::create();
  ZRFrameManager frames(broker);

  // Other instances waiting at the same time, each on its own thread.
  std::vector<std::thread> others;
  for (int i = 0; i < background; ++i) {
    const std::string id = frames.newBehaviorFromFile(path, "background");
    others.emplace_back([&frames, id] { frames.completeBehavior(id); });
  }

  const std::string id = frames.newBehaviorFromFile(path, "measured");
  Runner runner(frames, id);
  std::vector<double> latencies;
  for (auto _ : state) {
    runner.startRun();
    while (!frames.isBehaviorRunning(id)) std::this_thread::yield();
    const Clock::time_point exitAt = Clock::now();
    frames.exitBehavior(id);
    const Clock::time_point returnedAt = runner.waitReturn();
    const double seconds = std::chrono::duration<double>(returnedAt - exitAt).count();
    state.SetIterationTime(seconds);
    latencies.push_back(seconds * 1e6);
  }
  frames.cleanBehaviors();
  for (auto& thread : others) thread.join();
  boost::filesystem::remove_all(boost::filesystem::path(path).parent_path());

  std::sort(latencies.begin(), latencies.end());
  const auto at = [&](double q) {
    return latencies[std::min(latencies.size() - 1,
                              static_cast<std::size_t>(q * latencies.size()))];
  };
  state.counters["p50_us"] = at(0.50);
  state.counters["p99_us"] = at(0.99);
  state.counters["max_us"] = latencies.back();
}
BENCHMARK(BM_ExitToCompleteReturn)
    ->Arg(0)
    ->Arg(200)
    ->Iterations(2000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

// A subscriber that only counts its notifications.
class CountingModule : public ZRModule {
public:
  CountingModule(boost::shared_ptr<ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    bindCallable(
        *this,
        {"onEvent",
         "count",
         {{"name", TypeCodeString}, {"value", TypeCodeValue}, {"message", TypeCodeString}}},
        [this](const ZRValue&, ZRValue&) { fCount.fetch_add(1, std::memory_order_relaxed); });
  }
  long count() const { return fCount.load(); }

private:
  std::atomic<long> fCount{0};
};

struct TenSubscribers {
  boost::shared_ptr<ZRBroker> broker = ZRBroker::create();
  ZRMemory memory{broker};
  std::vector<std::unique_ptr<CountingModule>> subscribers;
  TenSubscribers() {
    for (int i = 0; i < 10; ++i) {
      subscribers.emplace_back(new CountingModule(broker, "Subscriber" + std::to_string(i)));
      memory.subscribeToMicroEvent("Bench/Event", subscribers.back()->getName(), "m", "onEvent");
    }
  }
  long delivered() const {
    long total = 0;
    for (const auto& s : subscribers) total += s->count();
    return total;
  }
};

// Raise calls through the proxy (as modules make them), delivery to all ten subscribers
// included: each iteration raises a batch and waits until it has been delivered.
void BM_RaiseMicroEventDelivered(benchmark::State& state) {
  TenSubscribers setup;
  ZRMemoryProxy proxy(setup.broker);
  const int batch = static_cast<int>(state.range(0));
  for (auto _ : state) {
    for (int i = 0; i < batch; ++i) proxy.raiseMicroEvent("Bench/Event", i);
    if (!setup.memory.flushNotifications(60000)) state.SkipWithError("delivery stalled");
  }
  state.SetItemsProcessed(state.iterations() * batch);
  state.counters["deliveries_per_s"] =
      benchmark::Counter(static_cast<double>(setup.delivered()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_RaiseMicroEventDelivered)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();

// The cost of the raise call alone while the notification thread delivers behind it.
void BM_RaiseMicroEventCall(benchmark::State& state) {
  TenSubscribers setup;
  ZRMemoryProxy proxy(setup.broker);
  int i = 0;
  for (auto _ : state) {
    proxy.raiseMicroEvent("Bench/Event", ++i);
    if (i % 50000 == 0) {
      state.PauseTiming();
      setup.memory.flushNotifications(60000);  // keep the queue below its bound
      state.ResumeTiming();
    }
  }
  state.SetItemsProcessed(state.iterations());
  setup.memory.flushNotifications(60000);
}
BENCHMARK(BM_RaiseMicroEventCall)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  vu::log::setMaxLevel(3);  // the per-instance verbose lines are not what is measured
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
