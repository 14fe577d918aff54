// A module library for the broker's tests, loaded by the real tuqvu daemon through its
// entry point. It can echo, add, fail with a ZRError, block until released, and it logs
// its destruction so that tests can see the order in which modules go.
//
// Environment:
//   TUQVU_TEST_DESTRUCTOR_LOG  a file the destructor appends "destroyed <name>\n" to
//   TUQVU_TEST_MODULE_THROW    a module name whose constructor throws
//   TUQVU_TEST_DESTRUCTOR_CALLS  when set, the destructor calls ZRMemory.getData first
#include <unistd.h>
#include <zr/zrbinding.h>
#include <zr/zrbroker.h>
#include <zr/zrerror.h>
#include <zr/zrfunctorbase.h>
#include <zr/zrmodule.h>
#include <zr/zrtypes.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace {

class BrokerTestModule : public ZR::ZRModule {
public:
  BrokerTestModule(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZR::ZRModule(broker, name) {
    const char* refuse = std::getenv("TUQVU_TEST_MODULE_THROW");
    if (refuse != nullptr && name == refuse) {
      throw ZR::ZRError(name, name, "constructor failed on purpose", "testmodule.cpp", __LINE__);
    }
    setModuleDescription("A module for the broker's tests.");
    add("echo", "returns its argument", {{"value", ZR::TypeCodeValue}}, ZR::TypeCodeValue,
        [](const ZR::ZRValue& args, ZR::ZRValue& result) { result = args[0]; });
    add("add", "adds two integers", {{"a", ZR::TypeCodeInt}, {"b", ZR::TypeCodeInt}},
        ZR::TypeCodeInt, [](const ZR::ZRValue& args, ZR::ZRValue& result) {
          result = ZR::ZRValue(args[0].toInt() + args[1].toInt());
        });
    add("noop", "does nothing", {}, ZR::TypeCodeVoid, [](const ZR::ZRValue&, ZR::ZRValue&) {});
    add("fail", "throws a ZRError with the description", {{"description", ZR::TypeCodeString}},
        ZR::TypeCodeVoid, [this](const ZR::ZRValue& args, ZR::ZRValue&) {
          throw ZR::ZRError(getName(), "fail", args[0].toString(), "tests/broker/test_module",
                            4242);
        });
    add("pair", "one or two values", {{"a", ZR::TypeCodeValue}}, ZR::TypeCodeValue,
        [](const ZR::ZRValue& args, ZR::ZRValue& result) { result = args; });
    add(
        "pair", "one or two values", {{"a", ZR::TypeCodeValue}, {"b", ZR::TypeCodeValue}},
        ZR::TypeCodeValue, [](const ZR::ZRValue& args, ZR::ZRValue& result) { result = args; },
        true);
    add("block", "blocks until release(key) is called", {{"key", ZR::TypeCodeString}},
        ZR::TypeCodeString, [this](const ZR::ZRValue& args, ZR::ZRValue& result) {
          result = ZR::ZRValue("released " + block(args[0].toString()));
        });
    add("release", "releases the calls blocked on key; returns how many",
        {{"key", ZR::TypeCodeString}}, ZR::TypeCodeInt,
        [this](const ZR::ZRValue& args, ZR::ZRValue& result) {
          result = ZR::ZRValue(release(args[0].toString()));
        });
    add("blockedCount", "calls blocked now", {}, ZR::TypeCodeInt,
        [this](const ZR::ZRValue&, ZR::ZRValue& result) {
          std::lock_guard<std::mutex> lock(fMutex);
          result = ZR::ZRValue(fBlocked);
        });
    add("completedCount", "blocked calls that have returned", {}, ZR::TypeCodeInt,
        [this](const ZR::ZRValue&, ZR::ZRValue& result) {
          std::lock_guard<std::mutex> lock(fMutex);
          result = ZR::ZRValue(fCompleted);
        });
    add("sleep", "sleeps for ms milliseconds (counted as blocked meanwhile)",
        {{"ms", ZR::TypeCodeInt}}, ZR::TypeCodeString,
        [this](const ZR::ZRValue& args, ZR::ZRValue& result) {
          {
            std::lock_guard<std::mutex> lock(fMutex);
            ++fBlocked;
          }
          std::this_thread::sleep_for(std::chrono::milliseconds(args[0].toInt()));
          {
            std::lock_guard<std::mutex> lock(fMutex);
            --fBlocked;
            ++fCompleted;
          }
          fChanged.notify_all();
          result = ZR::ZRValue("slept");
        });
    add("waitForFile",
        "returns once the file exists (counted as blocked meanwhile); on entry it makes the "
        "file <path>.entered.<n>, n counting its calls from 1",
        {{"path", ZR::TypeCodeString}}, ZR::TypeCodeString,
        [this](const ZR::ZRValue& args, ZR::ZRValue& result) {
          // For tests that fill every call slot: the file releases the call without one,
          // and the entry files show the calls running without one either.
          const std::string path = args[0].toString();
          int entered = 0;
          {
            std::lock_guard<std::mutex> lock(fMutex);
            ++fBlocked;
            entered = ++fWaitersEntered;
          }
          std::ofstream(path + ".entered." + std::to_string(entered)) << "";
          std::unique_lock<std::mutex> lock(fMutex);
          while (::access(path.c_str(), F_OK) != 0 && !fShuttingDown) {
            fChanged.wait_for(lock, std::chrono::milliseconds(10));
          }
          lock.unlock();
          {
            std::lock_guard<std::mutex> lock(fMutex);
            --fBlocked;
            ++fCompleted;
          }
          fChanged.notify_all();
          result = ZR::ZRValue("found");
        });
    add("raise", "raises a memory event through ZRMemory.raiseMicroEvent",
        {{"key", ZR::TypeCodeString}, {"value", ZR::TypeCodeValue}}, ZR::TypeCodeVoid,
        [this](const ZR::ZRValue& args, ZR::ZRValue&) {
          getParentBroker()->call("ZRMemory", "raiseMicroEvent", args);
        });
    add("callOther", "calls module.method() through the broker and returns its result",
        {{"module", ZR::TypeCodeString}, {"method", ZR::TypeCodeString}}, ZR::TypeCodeValue,
        [this](const ZR::ZRValue& args, ZR::ZRValue& result) {
          result =
              getParentBroker()->call(args[0].toString(), args[1].toString(), ZR::ZRValue::array());
        });
  }

  ~BrokerTestModule() override {
    {
      // Like a module that stops its work on destruction: blocked calls return.
      std::lock_guard<std::mutex> lock(fMutex);
      fShuttingDown = true;
      fReleased.clear();
    }
    fChanged.notify_all();
    // Like a module that needs another one to stop its work: ask ZRMemory something.
    std::string called;
    if (std::getenv("TUQVU_TEST_DESTRUCTOR_CALLS") != nullptr) {
      ZR::ZRValue args = ZR::ZRValue::array();
      args.arrayPush(ZR::ZRValue("TUQvuReady"));
      try {
        called = " (ZRMemory answered " +
                 getParentBroker()->call("ZRMemory", "getData", args).toDebugString() + ")";
      } catch (const std::exception& error) {
        called = std::string(" (ZRMemory refused: ") + error.what() + ")";
      }
    }
    if (const char* log = std::getenv("TUQVU_TEST_DESTRUCTOR_LOG")) {
      if (std::FILE* file = std::fopen(log, "a")) {
        std::fprintf(file, "destroyed %s%s\n", getName().c_str(), called.c_str());
        std::fclose(file);
      }
    }
    // Wait for the blocked calls to leave before the members go.
    std::unique_lock<std::mutex> lock(fMutex);
    fChanged.wait(lock, [&] { return fBlocked == 0; });
  }

  std::string httpGet() override {
    return "<html><body><h1>test page of " + getName() + "</h1></body></html>";
  }

private:
  void add(const std::string& name, const std::string& description,
           const std::vector<std::pair<std::string, int>>& params, int returnType,
           ZR::ZRCallableFunctor::Target target, bool overload = false) {
    ZR::bindCallable(*this,
                     {name, description, params, returnType, "return", "the result", overload},
                     std::move(target));
  }

  std::string block(const std::string& key) {
    std::unique_lock<std::mutex> lock(fMutex);
    ++fBlocked;
    ++fBlockedOn[key];
    fChanged.notify_all();
    fChanged.wait(lock, [&] { return fReleased[key] > 0 || fShuttingDown; });
    if (!fShuttingDown) --fReleased[key];
    --fBlockedOn[key];
    --fBlocked;
    ++fCompleted;
    fChanged.notify_all();
    return fShuttingDown ? "by shutdown" : key;
  }

  int release(const std::string& key) {
    // Every call blocked on the key now may go.
    std::lock_guard<std::mutex> lock(fMutex);
    const int waiting = fBlockedOn[key] - fReleased[key];
    fReleased[key] += waiting;
    fChanged.notify_all();
    return waiting;
  }

  // Guards the counters and the release table.
  std::mutex fMutex;
  std::condition_variable fChanged;
  std::map<std::string, int> fBlockedOn;  // calls blocked per key
  std::map<std::string, int> fReleased;   // permits per key not yet taken
  int fBlocked = 0;
  int fCompleted = 0;
  int fWaitersEntered = 0;  // calls of waitForFile so far
  bool fShuttingDown = false;
};

}  // namespace

extern "C" ZR::ZRModule* tuqvuCreateModule(boost::shared_ptr<ZR::ZRBroker> broker,
                                           const char* name) {
  return new BrokerTestModule(broker, name);
}
