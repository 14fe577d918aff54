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
    fPath = boost::filesystem::temp_directory_path() /
            boost::filesystem::unique_path("tuqvu-modules-%%%%-%%%%-%%%%");
    boost::filesystem::create_directories(fPath);
  }
  ~TempDir() {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(fPath, ignored);
  }
  std::string str() const { return fPath.string(); }
  std::string operator/(const std::string& name) const { return (fPath / name).string(); }

private:
  boost::filesystem::path fPath;
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
      : ZR::ZRModule(broker, name), fAction(std::move(action)) {
    ZR::bindCallable(
        *this,
        {"onEvent",
         "Record a notification.",
         {{"name", ZR::TypeCodeString},
          {"value", ZR::TypeCodeValue},
          {"message", ZR::TypeCodeString}}},
        [this](const ZR::ZRValue& args, ZR::ZRValue&) {
          Call call{args[0].toString(), args[1], args[2].toString(), std::this_thread::get_id()};
          if (fAction) fAction(call);
          record(call);
        });
    ZR::bindCallable(*this,
                     {"tick", "Record a call with one argument.", {{"value", ZR::TypeCodeValue}}},
                     ([this](const ZR::ZRValue& args, ZR::ZRValue&) {
                       record(Call{"tick", args[0], "", std::this_thread::get_id()});
                     }));
  }

  std::vector<Call> calls() const {
    std::lock_guard<std::mutex> lock(fMutex);
    return fCalls;
  }
  std::size_t size() const {
    std::lock_guard<std::mutex> lock(fMutex);
    return fCalls.size();
  }
  // Waits (up to a generous limit, only so a broken build cannot hang) for n calls.
  bool waitFor(std::size_t n, int limitMs = 20000) {
    std::unique_lock<std::mutex> lock(fMutex);
    return fChanged.wait_for(lock, std::chrono::milliseconds(limitMs),
                             [&] { return fCalls.size() >= n; });
  }

private:
  // Notifies under the lock: a waiter may destroy the module as soon as it wakes.
  void record(const Call& call) {
    std::lock_guard<std::mutex> lock(fMutex);
    fCalls.push_back(call);
    fChanged.notify_all();
  }

  Action fAction;
  mutable std::mutex fMutex;
  std::condition_variable fChanged;
  std::vector<Call> fCalls;
};

// A one-shot gate: wait() blocks until open() was called.
class Gate {
public:
  void open() {
    std::lock_guard<std::mutex> lock(fMutex);
    fOpen = true;
    fChanged.notify_all();
  }
  bool wait(int limitMs = 20000) {
    std::unique_lock<std::mutex> lock(fMutex);
    return fChanged.wait_for(lock, std::chrono::milliseconds(limitMs), [&] { return fOpen; });
  }
  bool isOpen() const {
    std::lock_guard<std::mutex> lock(fMutex);
    return fOpen;
  }

private:
  mutable std::mutex fMutex;
  std::condition_variable fChanged;
  bool fOpen = false;
};

}  // namespace modulestest
