// Helpers shared by the module tests: a temporary folder, a log capture, and a small
// module that records the calls it receives (a subscriber or a <call> target).
#pragma once

#include <common/environment.h>
#include <common/logcapture.h>

#include <vu/log.h>
#include <zr/zrbinding.h>
#include <zr/zrbroker.h>
#include <zr/zrfunctorbase.h>
#include <zr/zrmodule.h>
#include <zr/zrtypes.h>
#include <zr/zrvalue.h>

#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace modulestest {

// A fresh folder under the temporary directory, removed at the end.
class TempDir {
 public:
  TempDir() {
    path_ = boost::filesystem::temp_directory_path() /
            boost::filesystem::unique_path("tuqvu-modules-%%%%-%%%%-%%%%");
    boost::filesystem::create_directories(path_);
  }
  ~TempDir() {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(path_, ignored);
  }
  std::string str() const { return path_.string(); }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

 private:
  boost::filesystem::path path_;
};

using ScopedEnv = tuqvutest::ScopedEnvironment;

using tuqvutest::LogCapture;

// A module with a three-parameter method "onEvent" (a memory subscriber) and a
// one-parameter method "tick", recording every call. An optional action runs inside
// each onEvent call (it may block or throw).
class RecordingModule : public ZR::ZRModule {
 public:
  struct Call {
    std::string name;
    ZR::ZRValue value;
    std::string message;
    std::thread::id thread;
  };
  using Action = std::function<void(const Call&)>;

  RecordingModule(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name,
                  Action action = {})
      : ZR::ZRModule(broker, name), action_(std::move(action)) {
    ZR::bindCallable(*this,
                     {"onEvent",
                      "Record a notification.",
                      {{"name", ZR::TypeCodeString},
                       {"value", ZR::TypeCodeValue},
                       {"message", ZR::TypeCodeString}}},
                     [this](const ZR::ZRValue& args, ZR::ZRValue&) {
                       Call call{args[0].toString(), args[1], args[2].toString(),
                                 std::this_thread::get_id()};
                       if (action_) action_(call);
                       record(call);
                     });
    ZR::bindCallable(*this, {"tick", "Record a call with one argument.", {{"value", ZR::TypeCodeValue}}},
        ([this](const ZR::ZRValue& args, ZR::ZRValue&) {
          record(Call{"tick", args[0], "", std::this_thread::get_id()});
        }));
  }

  std::vector<Call> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  std::size_t size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_.size();
  }
  // Waits (up to a generous limit, only so a broken build cannot hang) for n calls.
  bool waitFor(std::size_t n, int limitMs = 20000) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(limitMs),
                             [&] { return calls_.size() >= n; });
  }

 private:
  // Notifies under the lock: a waiter may destroy the module as soon as it wakes.
  void record(const Call& call) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(call);
    changed_.notify_all();
  }

  Action action_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Call> calls_;
};

// A one-shot gate: wait() blocks until open() was called.
class Gate {
 public:
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  bool wait(int limitMs = 20000) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(limitMs), [&] { return open_; });
  }
  bool isOpen() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return open_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

}  // namespace modulestest
