#include <tuqvu/broker/callexecutor.h>
#include <vu/log.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace tuqvu {
namespace broker {

// Shared with the worker threads, which are detached and may outlive the executor.
struct CallExecutor::State {
  const std::size_t keepIdle;
  const std::chrono::milliseconds idleTime;
  const std::size_t maxThreads;

  // Guards everything below. workAvailable wakes idle workers; changed is notified when
  // a job ends or a thread exits.
  mutable std::mutex mutex;
  std::condition_variable workAvailable;
  mutable std::condition_variable changed;
  std::deque<std::function<void()>> jobs;
  std::size_t threads = 0;
  std::size_t idle = 0;  // workers waiting in workAvailable
  std::size_t busy = 0;
  bool stopping = false;

  State(std::size_t keep, std::chrono::milliseconds time, std::size_t max)
      : keepIdle(keep), idleTime(time), maxThreads(max) {}
};

CallExecutor::CallExecutor(std::size_t keepIdle, std::chrono::milliseconds idleTime,
                           std::size_t maxThreads)
    : fState(std::make_shared<State>(keepIdle, idleTime, maxThreads == 0 ? 1 : maxThreads)) {}

CallExecutor::~CallExecutor() {
  stop();
}

void CallExecutor::submit(std::function<void()> job) {
  std::unique_lock<std::mutex> lock(fState->mutex);
  if (fState->stopping) throw ExecutorStopped("the call executor is stopped");
  fState->jobs.push_back(std::move(job));
  // Each queued job needs a worker of its own: wake a sleeper while there are enough of
  // them for the queue, otherwise start one more thread.
  if (fState->jobs.size() <= fState->idle) {
    fState->workAvailable.notify_one();
    return;
  }
  if (fState->threads >= fState->maxThreads) return;
  ++fState->threads;
  lock.unlock();
  try {
    std::thread(&CallExecutor::work, fState).detach();
  } catch (const std::system_error& error) {
    lock.lock();
    --fState->threads;
    vu::log::write(vu::log::error, "tuqvu.calls", "submit",
                   std::string("cannot start a call thread: ") + error.what() + "; " +
                       std::to_string(fState->jobs.size()) + " call(s) wait for a free thread");
  }
}

void CallExecutor::work(std::shared_ptr<State> state) {
  std::unique_lock<std::mutex> lock(state->mutex);
  for (;;) {
    if (!state->jobs.empty()) {
      std::function<void()> job = std::move(state->jobs.front());
      state->jobs.pop_front();
      ++state->busy;
      lock.unlock();
      try {
        job();
      } catch (const std::exception& error) {
        vu::log::write(vu::log::error, "tuqvu.calls", "work",
                       std::string("a call failed: ") + error.what());
      } catch (...) {
        vu::log::write(vu::log::error, "tuqvu.calls", "work", "a call failed");
      }
      job = nullptr;  // what it captured goes before the next job starts
      lock.lock();
      --state->busy;
      state->changed.notify_all();
      continue;
    }
    if (state->stopping) break;
    ++state->idle;
    const bool woken = state->workAvailable.wait_for(
        lock, state->idleTime, [&] { return !state->jobs.empty() || state->stopping; });
    --state->idle;
    if (!woken && state->threads > state->keepIdle) break;
  }
  --state->threads;
  state->changed.notify_all();
}

void CallExecutor::stop() {
  std::lock_guard<std::mutex> lock(fState->mutex);
  fState->stopping = true;
  fState->workAvailable.notify_all();
}

bool CallExecutor::waitIdle(std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(fState->mutex);
  return fState->changed.wait_for(lock, timeout,
                                  [&] { return fState->jobs.empty() && fState->busy == 0; });
}

std::size_t CallExecutor::threadCount() const {
  std::lock_guard<std::mutex> lock(fState->mutex);
  return fState->threads;
}

std::size_t CallExecutor::busyCount() const {
  std::lock_guard<std::mutex> lock(fState->mutex);
  return fState->busy;
}

}  // namespace broker
}  // namespace tuqvu
