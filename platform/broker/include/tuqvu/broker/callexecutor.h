// Runs every submitted job on a thread of its own: an idle worker when one is waiting,
// else a new thread. A call may block for minutes (a behavior that runs), so jobs never
// wait for one another; idle workers beyond keepIdle end after idleTime.
//
//   auto executor = std::make_shared<CallExecutor>();
//   executor->submit([] { broker->call("ZRBehaviorManager", "runBehavior", args); });
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>

namespace tuqvu {
namespace broker {

// Thrown by CallExecutor::submit once the executor has stopped taking jobs.
class ExecutorStopped : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

class CallExecutor {
public:
  explicit CallExecutor(std::size_t keepIdle = 4,
                        std::chrono::milliseconds idleTime = std::chrono::seconds(30),
                        std::size_t maxThreads = 4096);
  // Stops; jobs still running finish on their threads, which then end.
  ~CallExecutor();
  CallExecutor(const CallExecutor&) = delete;
  CallExecutor& operator=(const CallExecutor&) = delete;

  // Runs the job soon on a thread that runs nothing else meanwhile. Past maxThreads
  // running jobs, jobs wait for a free thread. Throws ExecutorStopped once stopped.
  // Exceptions that leave a job are logged.
  void submit(std::function<void()> job);

  // Refuses new jobs and lets idle workers end.
  void stop();

  // Waits until no job is queued or running; false on time-out.
  bool waitIdle(std::chrono::milliseconds timeout) const;

  std::size_t threadCount() const;
  std::size_t busyCount() const;

private:
  struct State;
  static void work(std::shared_ptr<State> state);
  std::shared_ptr<State> fState;
};

}  // namespace broker
}  // namespace tuqvu
