#include <tuqvu/broker/iolanes.h>
#include <vu/log.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>

namespace tuqvu {
namespace broker {

namespace net = boost::asio;

namespace {

const char* const kCategory = "tuqvu.http";
// Ticks without any call before the watch sleeps until the next call starts.
constexpr int kIdleTicksBeforeSleeping = 100;

// Runs `serve` (which runs handlers) until it returns; a handler that throws is logged and
// must not take the lane down with it.
template <class Serve>
void serveLogged(Serve serve) {
  for (;;) {
    try {
      serve();
      return;
    } catch (const std::exception& error) {
      vu::log::write(vu::log::error, kCategory, "run", error.what());
    }
  }
}

}  // namespace

// Locks: a lane's `mutex` and the watch's `mutex` are never held together.
struct IoLanes::Lane {
  // Not the single-thread hint: with it, the scheduler would not wake the lane's own
  // thread when the standby hands the reactor back. With one thread running it, the
  // scheduler wakes nobody.
  net::io_context ioc;
  std::optional<net::executor_work_guard<net::io_context::executor_type>> work;
  std::thread runner;
  std::thread standby;

  // Whether one of the lane's threads is making a call now.
  alignas(64) std::atomic<bool> inCall{false};
  // Calls ended so far: tells the watch whether the call it sees is the one it saw a
  // tick ago. Counted before inCall is cleared.
  std::atomic<std::uint64_t> ended{0};

  std::mutex mutex;  // guards standbyWanted and stopping
  std::condition_variable standbyWake;
  bool standbyWanted = false;
  bool stopping = false;
};

struct IoLanes::Shared {
  explicit Shared(std::chrono::microseconds tick) : tick(tick) {}
  const std::chrono::microseconds tick;
  std::atomic<std::size_t> nextLane{0};
  std::atomic<std::uint64_t> takeovers{0};
  // Set while the watch sleeps until a call starts; a call that starts then wakes it.
  std::atomic<bool> watchAsleep{false};
  std::thread watcher;

  std::mutex mutex;  // guards stopping (of the watch)
  std::condition_variable watchWake;
  bool stopping = false;
};

IoLanes::Call& IoLanes::Call::operator=(Call&& other) noexcept {
  if (this != &other) {
    release();
    fLane = other.fLane;
    other.fLane = nullptr;
  }
  return *this;
}

void IoLanes::Call::release() {
  if (fLane != nullptr) {
    fLane->ended.fetch_add(1);
    fLane->inCall.store(false);
    fLane = nullptr;
  }
}

IoLanes::IoLanes(int count, std::chrono::microseconds tick)
    : fShared(std::make_unique<Shared>(tick)) {
  for (int i = 0; i < std::max(1, count); ++i) {
    fLanes.push_back(std::make_unique<Lane>());
    // A lane opens its reactor (epoll, eventfd and timerfd descriptors) with its first
    // timer or socket; opened now, the broker's descriptors do not grow at the first
    // connection of each lane.
    net::steady_timer opensTheReactor(fLanes.back()->ioc);
  }
}

IoLanes::~IoLanes() {
  stop();
}

int IoLanes::defaultCount() {
  return std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
}

void IoLanes::start() {
  for (auto& lanePointer : fLanes) {
    Lane& lane = *lanePointer;
    lane.work.emplace(lane.ioc.get_executor());
    lane.runner = std::thread([&lane] { serveLogged([&lane] { lane.ioc.run(); }); });
    lane.standby = std::thread([this, &lane] { runStandby(lane); });
  }
  fShared->watcher = std::thread([this] { watch(); });
}

void IoLanes::stop() {
  {
    std::lock_guard<std::mutex> lock(fShared->mutex);
    fShared->stopping = true;
  }
  fShared->watchWake.notify_all();
  for (auto& lane : fLanes) {
    {
      std::lock_guard<std::mutex> lock(lane->mutex);
      lane->stopping = true;
    }
    lane->standbyWake.notify_all();
    lane->work.reset();
    lane->ioc.stop();
  }
  if (fShared->watcher.joinable()) fShared->watcher.join();
  for (auto& lane : fLanes) {
    if (lane->runner.joinable()) lane->runner.join();
    if (lane->standby.joinable()) lane->standby.join();
  }
}

net::io_context& IoLanes::lane(int index) {
  return fLanes.at(static_cast<std::size_t>(index))->ioc;
}

net::io_context& IoLanes::next() {
  return fLanes[fShared->nextLane.fetch_add(1) % fLanes.size()]->ioc;
}

IoLanes::Call IoLanes::enterCall(const net::execution_context& context) {
  for (auto& lane : fLanes) {
    if (&lane->ioc != &context) continue;
    bool idle = false;
    if (!lane->inCall.compare_exchange_strong(idle, true)) return Call();
    if (fShared->watchAsleep.load()) {
      {
        std::lock_guard<std::mutex> lock(fShared->mutex);
        fShared->watchAsleep.store(false);
      }
      fShared->watchWake.notify_one();
    }
    return Call(lane.get());
  }
  return Call();
}

std::uint64_t IoLanes::takeovers() const {
  return fShared->takeovers.load();
}

bool IoLanes::anyCallRunning() const {
  return std::any_of(fLanes.begin(), fLanes.end(),
                     [](const auto& lane) { return lane->inCall.load(); });
}

std::uint64_t IoLanes::callsEnded() const {
  std::uint64_t sum = 0;
  for (const auto& lane : fLanes) sum += lane->ended.load();
  return sum;
}

void IoLanes::watch() {
  constexpr std::uint64_t kNoCall = ~std::uint64_t(0);
  // Per lane: the count of ended calls when the watch last saw a call on it.
  std::vector<std::uint64_t> seen(fLanes.size(), kNoCall);
  std::uint64_t lastEnded = callsEnded();
  int idleTicks = 0;
  std::unique_lock<std::mutex> lock(fShared->mutex);
  while (!fShared->stopping) {
    lock.unlock();
    for (std::size_t i = 0; i < fLanes.size(); ++i) {
      Lane& lane = *fLanes[i];
      if (!lane.inCall.load()) {
        seen[i] = kNoCall;
        continue;
      }
      const std::uint64_t ended = lane.ended.load();
      if (seen[i] != ended) {
        seen[i] = ended;  // a call the watch had not seen yet
        continue;
      }
      // The same call as a tick ago: the lane's other connections go to its standby.
      {
        std::lock_guard<std::mutex> laneLock(lane.mutex);
        lane.standbyWanted = true;
      }
      lane.standbyWake.notify_one();
    }
    const std::uint64_t ended = callsEnded();
    idleTicks = (ended != lastEnded || anyCallRunning()) ? 0 : idleTicks + 1;
    lastEnded = ended;
    lock.lock();
    if (idleTicks < kIdleTicksBeforeSleeping) {
      fShared->watchWake.wait_for(lock, fShared->tick, [this] { return fShared->stopping; });
      continue;
    }
    // Nothing to watch: sleep until a call starts. A call that started after the last look
    // either is seen now or sees watchAsleep and wakes the watch.
    fShared->watchAsleep.store(true);
    if (anyCallRunning()) {
      fShared->watchAsleep.store(false);
    } else {
      fShared->watchWake.wait(lock,
                              [this] { return fShared->stopping || !fShared->watchAsleep.load(); });
    }
    idleTicks = 0;
    std::fill(seen.begin(), seen.end(), kNoCall);
  }
}

void IoLanes::runStandby(Lane& lane) {
  std::unique_lock<std::mutex> lock(lane.mutex);
  for (;;) {
    lane.standbyWake.wait(lock, [&lane] { return lane.standbyWanted || lane.stopping; });
    if (lane.stopping) return;
    lane.standbyWanted = false;
    lock.unlock();
    fShared->takeovers.fetch_add(1);
    // Serves the lane while its call runs; a call this thread itself makes meanwhile
    // keeps it serving until that call returns, as the lane's own thread is free again.
    serveLogged([this, &lane] {
      while (lane.inCall.load() && !lane.ioc.stopped()) lane.ioc.run_one_for(fShared->tick);
    });
    // Wakes the lane's own thread, should it still wait for the reactor this thread held.
    net::post(lane.ioc, [] {});
    lock.lock();
  }
}

}  // namespace broker
}  // namespace tuqvu
