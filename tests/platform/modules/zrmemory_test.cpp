// ZRMemory: data, events, subscribers on the notification thread, observers.
#include <common/environment.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <stdlib.h>
#include <zr/modules/zrmemory.h>
#include <zr/proxies/zrmemoryproxy.h>
#include <zr/zrerror.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "testsupport.h"

using namespace ZR;
using modulestest::Gate;
using modulestest::LogCapture;
using modulestest::RecordingModule;

namespace {

class MemoryTest : public ::testing::Test {
protected:
  boost::shared_ptr<ZRBroker> broker = ZRBroker::create();
  std::unique_ptr<ZRMemory> memory{new ZRMemory(broker)};
};

// The module "Slow", subscribed to "Key", whose call for the value -1 (raised at once)
// does not return until `release` opens: notifications raised meanwhile wait in the queue.
struct StuckSubscriber {
  StuckSubscriber(boost::shared_ptr<ZRBroker> broker, ZRMemory& memory)
      : module(broker, "Slow", [this](const RecordingModule::Call& call) {
          if (call.value == ZRValue(-1)) {
            inside.open();
            release.wait();
          }
        }) {
    memory.subscribeToMicroEvent("Key", "Slow", "", "onEvent");
    memory.raiseMicroEvent("Key", -1);
  }
  bool stuck() { return inside.wait(); }

  Gate inside;
  Gate release;
  RecordingModule module;
};

TEST_F(MemoryTest, StoresAndReturnsValuesOfEveryType) {
  memory->insertData("A/Int", 3);
  memory->insertData("A/String", std::string("yes"));
  memory->insertData("A/List", ZRValue(std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(memory->getData("A/Int"), ZRValue(3));
  EXPECT_EQ(memory->getData("A/String"), ZRValue("yes"));
  EXPECT_EQ(memory->getData("A/List").toStringVector(), (std::vector<std::string>{"a", "b"}));
  memory->insertData("A/Int", 4);
  EXPECT_EQ(memory->getData("A/Int"), ZRValue(4));
}

TEST_F(MemoryTest, UnknownKeyIsAnErrorNamingIt) {
  try {
    memory->getData("Nowhere/Key");
    FAIL() << "getData of an unknown key returned";
  } catch (const ZRError& error) {
    EXPECT_EQ(error.module(), "ZRMemory");
    EXPECT_EQ(error.method(), "getData");
    EXPECT_NE(error.description().find("Nowhere/Key"), std::string::npos);
  }
  EXPECT_THROW(memory->removeData("Nowhere/Key"), ZRError);
  EXPECT_THROW(memory->insertData("", 1), ZRError);
}

TEST_F(MemoryTest, ListsKeysByPrefixSortedAndRemoves) {
  for (const char* key : {"B/2", "A/1", "B/1", "BB", "C"}) memory->insertData(key, 1);
  EXPECT_EQ(memory->getDataList("B/"), (std::vector<std::string>{"B/1", "B/2"}));
  EXPECT_EQ(memory->getDataList("B"), (std::vector<std::string>{"B/1", "B/2", "BB"}));
  EXPECT_EQ(memory->getDataList("").size(), 5u);
  memory->removeData("B/1");
  EXPECT_EQ(memory->getDataList("B/"), (std::vector<std::string>{"B/2"}));
  EXPECT_THROW(memory->getData("B/1"), ZRError);
}

TEST_F(MemoryTest, DeclaredEventsExistAndKeepTheirValue) {
  memory->insertData("Ev/B", 7);
  memory->declareEvent("Ev/A");
  memory->declareEvent("Ev/B");
  memory->declareEvent("Ev/A");
  EXPECT_EQ(memory->getEventList(), (std::vector<std::string>{"Ev/A", "Ev/B"}));
  EXPECT_FALSE(memory->getData("Ev/A").isValid());
  EXPECT_EQ(memory->getData("Ev/B"), ZRValue(7));  // declaring keeps a stored value
  memory->raiseMicroEvent("Ev/A", std::string("on"));
  EXPECT_EQ(memory->getData("Ev/A"), ZRValue("on"));
  EXPECT_THROW(memory->declareEvent(""), ZRError);
}

TEST_F(MemoryTest, SubscribersGetEveryValueInRaiseOrderOnTheNotificationThread) {
  RecordingModule subscriber(broker, "Subscriber");
  memory->subscribeToMicroEvent("Counter", "Subscriber", "my message", "onEvent");
  const int count = 300;
  for (int i = 0; i < count; ++i) {
    if (i % 3 == 0) {
      memory->insertData("Counter", i);  // insertData notifies too
    } else {
      memory->raiseMicroEvent("Counter", i);
    }
  }
  ASSERT_TRUE(subscriber.waitFor(count));
  const auto calls = subscriber.calls();
  ASSERT_EQ(calls.size(), static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(calls[i].name, "Counter");
    EXPECT_EQ(calls[i].value, ZRValue(i));
    EXPECT_EQ(calls[i].message, "my message");
    EXPECT_EQ(calls[i].thread, calls[0].thread) << "every call on the one notification thread";
  }
  EXPECT_NE(calls[0].thread, std::this_thread::get_id());
}

TEST_F(MemoryTest, EachRaisingThreadsOrderIsKept) {
  RecordingModule subscriber(broker, "Subscriber");
  memory->subscribeToMicroEvent("T0", "Subscriber", "", "onEvent");
  memory->subscribeToMicroEvent("T1", "Subscriber", "", "onEvent");
  const int perThread = 500;
  std::vector<std::thread> raisers;
  for (int t = 0; t < 2; ++t) {
    raisers.emplace_back([&, t] {
      for (int i = 0; i < perThread; ++i) memory->raiseMicroEvent("T" + std::to_string(t), i);
    });
  }
  for (auto& thread : raisers) thread.join();
  ASSERT_TRUE(subscriber.waitFor(2 * perThread));
  int next[2] = {0, 0};
  for (const auto& call : subscriber.calls()) {
    const int t = call.name == "T0" ? 0 : 1;
    EXPECT_EQ(call.value, ZRValue(next[t]));
    ++next[t];
  }
  EXPECT_EQ(next[0], perThread);
  EXPECT_EQ(next[1], perThread);
}

TEST_F(MemoryTest, AThrowingSubscriberIsLoggedAndDoesNotStopOthers) {
  LogCapture log;
  RecordingModule thrower(broker, "Thrower", [](const RecordingModule::Call&) {
    throw ZRError("Thrower", "onEvent", "refused on purpose");
  });
  RecordingModule good(broker, "Good");
  memory->subscribeToMicroEvent("Key", "Thrower", "", "onEvent");  // called first
  memory->subscribeToMicroEvent("Key", "Good", "", "onEvent");
  for (int i = 0; i < 20; ++i) memory->raiseMicroEvent("Key", i);
  ASSERT_TRUE(good.waitFor(20));
  ASSERT_TRUE(memory->flushNotifications(20000));
  const auto calls = good.calls();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(calls[i].value, ZRValue(i));
  EXPECT_EQ(log.count("zr.memory", "Thrower.onEvent failed for Key: refused on purpose"), 20);
}

TEST_F(MemoryTest, ABlockedSubscriberNeitherBlocksRaisingNorLosesLaterNotifications) {
  Gate inside;
  Gate release;
  RecordingModule slow(broker, "Slow", [&](const RecordingModule::Call&) {
    inside.open();
    release.wait();
  });
  RecordingModule fast(broker, "Fast");
  memory->subscribeToMicroEvent("Key", "Slow", "", "onEvent");
  memory->subscribeToMicroEvent("Key", "Fast", "", "onEvent");

  memory->raiseMicroEvent("Key", 0);
  ASSERT_TRUE(inside.wait());  // the notification thread is now stuck in Slow
  // Raising goes on while the subscriber blocks; the raises all return.
  auto raising = std::async(std::launch::async, [&] {
    for (int i = 1; i < 1000; ++i) memory->raiseMicroEvent("Key", i);
  });
  ASSERT_EQ(raising.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_FALSE(release.isOpen());
  EXPECT_EQ(memory->getData("Key"), ZRValue(999));

  release.open();
  ASSERT_TRUE(fast.waitFor(1000));
  const auto calls = fast.calls();
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(calls[i].value, ZRValue(i));
}

TEST_F(MemoryTest, AFullQueueDropsNotificationsButStillStoresTheValues) {
  LogCapture log;
  StuckSubscriber slow(broker, *memory);
  ASSERT_TRUE(slow.stuck());
  const int extra = 7;
  const int total = static_cast<int>(ZRMemory::kMaxPendingNotifications) + extra;
  for (int i = 0; i < total; ++i) memory->raiseMicroEvent("Key", i);
  EXPECT_EQ(memory->getData("Key"), ZRValue(total - 1));
  EXPECT_EQ(log.count("zr.memory", "the notification of Key was dropped"), 1);
  slow.release.open();
  ASSERT_TRUE(memory->flushNotifications(60000));
  const auto calls = slow.module.calls();
  ASSERT_EQ(calls.size(), ZRMemory::kMaxPendingNotifications + 1);
  EXPECT_EQ(calls.back().value, ZRValue(total - extra - 1));  // the queued ones, in order
  EXPECT_EQ(log.count("zr.memory", std::to_string(extra) + " notifications were dropped"), 1);
}

// A subscriber that does not return must not let large values pile up in the queue: the
// notifications waiting hold at most their byte limit, and what was delivered is freed.
TEST_F(MemoryTest, NotificationsWaitingForASlowSubscriberHoldNoMoreThanTheirByteLimit) {
  modulestest::ScopedEnv limit("TUQVU_MEMORY_PENDING_MAX_BYTES", "2000000");
  memory.reset();  // the module of the fixture, read with the default limit
  memory.reset(new ZRMemory(broker));
  EXPECT_EQ(memory->pendingLimitBytes(), 2000000u);
  LogCapture log;
  StuckSubscriber slow(broker, *memory);
  ASSERT_TRUE(slow.stuck());
  const std::string large(300000, 'x');  // about 300 KB a notification: six fit
  for (int i = 0; i < 20; ++i) memory->raiseMicroEvent("Key", large + std::to_string(i));
  EXPECT_EQ(memory->getData("Key"), ZRValue(large + "19"));  // every value is stored
  EXPECT_LE(memory->pendingNotificationBytes(), 2000000u);
  EXPECT_GE(memory->pendingNotificationBytes(), 1500000u);
  EXPECT_EQ(log.count("zr.memory", "the notification of Key was dropped"), 1);

  slow.release.open();
  ASSERT_TRUE(memory->flushNotifications(60000));
  EXPECT_EQ(memory->pendingNotificationBytes(), 0u);
  const auto calls = slow.module.calls();
  ASSERT_EQ(calls.size(), 7u);  // the first, then the six that fitted, in order
  for (std::size_t i = 1; i < calls.size(); ++i) {
    EXPECT_EQ(calls[i].value, ZRValue(large + std::to_string(i - 1)));
  }
  EXPECT_EQ(log.count("zr.memory", "14 notifications were dropped"), 1);
}

TEST_F(MemoryTest, SubscribingAgainReplacesAndUnsubscribingStops) {
  RecordingModule subscriber(broker, "Subscriber");
  memory->subscribeToMicroEvent("Key", "Subscriber", "first", "onEvent");
  memory->subscribeToMicroEvent("Key", "Subscriber", "second", "onEvent");
  memory->raiseMicroEvent("Key", 1);
  ASSERT_TRUE(memory->flushNotifications(20000));
  ASSERT_EQ(subscriber.size(), 1u);
  EXPECT_EQ(subscriber.calls()[0].message, "second");

  memory->unsubscribeToMicroEvent("Key", "Subscriber");
  memory->raiseMicroEvent("Key", 2);
  ASSERT_TRUE(memory->flushNotifications(20000));
  EXPECT_EQ(subscriber.size(), 1u);
  EXPECT_THROW(memory->unsubscribeToMicroEvent("Key", "Subscriber"), ZRError);
}

TEST_F(MemoryTest, RefusesSubscribersThatCannotBeCalled) {
  RecordingModule subscriber(broker, "Subscriber");
  EXPECT_THROW(memory->subscribeToMicroEvent("Key", "Nobody", "", "onEvent"), ZRError);
  EXPECT_THROW(memory->subscribeToMicroEvent("Key", "Subscriber", "", "missing"), ZRError);
  EXPECT_THROW(memory->subscribeToMicroEvent("Key", "Subscriber", "", "tick"), ZRError)
      << "tick takes one parameter, a callback takes three";
  EXPECT_THROW(memory->subscribeToMicroEvent("", "Subscriber", "", "onEvent"), ZRError);
}

TEST_F(MemoryTest, ObserversSeeEveryInsertAndRaiseInOrder) {
  std::mutex mutex;
  std::vector<std::pair<std::string, int>> seen;
  std::thread::id observerThread;
  const int id = memory->addObserver([&](const std::string& key, const ZRValue& value) {
    std::lock_guard<std::mutex> lock(mutex);
    seen.emplace_back(key, value.toInt());
    observerThread = std::this_thread::get_id();
  });
  const int throwing = memory->addObserver(
      [](const std::string&, const ZRValue&) { throw std::runtime_error("x"); });
  memory->insertData("A", 1);
  memory->raiseMicroEvent("B", 2);
  memory->insertData("A", 3);
  ASSERT_TRUE(memory->flushNotifications(20000));
  {
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(seen, (std::vector<std::pair<std::string, int>>{{"A", 1}, {"B", 2}, {"A", 3}}));
    EXPECT_NE(observerThread, std::this_thread::get_id());
  }
  memory->removeObserver(id);
  memory->removeObserver(throwing);
  memory->raiseMicroEvent("B", 4);
  ASSERT_TRUE(memory->flushNotifications(20000));
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(seen.size(), 3u);
}

TEST_F(MemoryTest, RemoveObserverReturnsOnlyAfterARunningCallEnded) {
  Gate inside;
  Gate release;
  std::atomic<bool> callRunning{false};
  std::atomic<int> calls{0};
  const int id = memory->addObserver([&](const std::string&, const ZRValue&) {
    callRunning = true;
    ++calls;
    inside.open();
    release.wait();
    callRunning = false;
  });
  memory->raiseMicroEvent("Key", 1);
  ASSERT_TRUE(inside.wait());
  std::atomic<bool> removed{false};
  std::atomic<bool> runningWhenRemoved{true};
  std::thread remover([&] {
    memory->removeObserver(id);
    runningWhenRemoved = callRunning.load();
    removed = true;
  });
  // Not an ordering wait: this is the window in which a removeObserver that did not wait
  // for the running call would return. Nothing happens when it is right, so there is no
  // event to wait on instead.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(removed.load()) << "removeObserver returned while its observer was running";
  release.open();
  remover.join();
  EXPECT_FALSE(runningWhenRemoved.load());
  memory->raiseMicroEvent("Key", 2);
  ASSERT_TRUE(memory->flushNotifications(20000));
  EXPECT_EQ(calls.load(), 1);
}

TEST_F(MemoryTest, AnObserverMayRemoveItselfWhileItRuns) {
  std::atomic<int> calls{0};
  std::atomic<int> id{0};
  id = memory->addObserver([&](const std::string&, const ZRValue&) {
    ++calls;
    memory->removeObserver(id.load());
  });
  memory->raiseMicroEvent("Key", 1);
  memory->raiseMicroEvent("Key", 2);
  ASSERT_TRUE(memory->flushNotifications(20000));
  EXPECT_EQ(calls.load(), 1);
}

TEST_F(MemoryTest, ASubscriberMayCallTheMemoryBack) {
  std::atomic<int> echoes{0};
  RecordingModule echo(broker, "Echo", [&](const RecordingModule::Call& call) {
    if (call.name == "Ping") {
      memory->insertData("Echo/Last", call.value);
      memory->raiseMicroEvent("Pong", call.value);
      ++echoes;
    }
  });
  memory->subscribeToMicroEvent("Ping", "Echo", "", "onEvent");
  memory->subscribeToMicroEvent("Pong", "Echo", "", "onEvent");
  memory->raiseMicroEvent("Ping", 5);
  ASSERT_TRUE(echo.waitFor(2));
  EXPECT_EQ(echoes.load(), 1);
  EXPECT_EQ(memory->getData("Echo/Last"), ZRValue(5));
  EXPECT_EQ(echo.calls()[1].name, "Pong");
}

TEST_F(MemoryTest, ItsMethodsAreDescribedForIntrospection) {
  std::map<std::string, ZRMethodInfo> methods;
  for (const ZRMethodInfo& info : broker->getMethods("ZRMemory")) methods[info.name] = info;
  for (const char* name : {"insertData", "getData", "getDataList", "removeData", "declareEvent",
                           "raiseMicroEvent", "subscribeToMicroEvent", "unsubscribeToMicroEvent"}) {
    ASSERT_EQ(methods.count(name), 1u) << name;
    EXPECT_FALSE(methods[name].description.empty()) << name;
  }
  const ZRMethodInfo& subscribe = methods["subscribeToMicroEvent"];
  ASSERT_EQ(subscribe.arity(), 4);
  EXPECT_EQ(subscribe.parameters[1].name, "callbackModule");
  EXPECT_EQ(subscribe.parameters[3].type, "std::string");
  EXPECT_EQ(subscribe.returnType, "void");
  EXPECT_EQ(methods["insertData"].parameters[1].type, "ZRValue");
  EXPECT_EQ(methods["getData"].returnType, "ZRValue");
  EXPECT_EQ(methods["getDataList"].returnType, "std::vector<std::string>");
}

TEST_F(MemoryTest, WrongArgumentTypesNameTheParameter) {
  ZRValue args = ZRValue::array();
  args.arrayPush(42);
  args.arrayPush(1);
  try {
    broker->call("ZRMemory", "insertData", args);
    FAIL() << "an int key was accepted";
  } catch (const ZRError& error) {
    EXPECT_EQ(error.method(), "insertData");
    EXPECT_NE(error.description().find("parameter 1 (key)"), std::string::npos)
        << error.description();
  }
}

TEST_F(MemoryTest, TheProxyReachesTheModuleThroughTheBroker) {
  ZRMemoryProxy proxy(broker);
  RecordingModule subscriber(broker, "Subscriber");
  proxy.declareEvent("P/Event");
  proxy.subscribeToMicroEvent("P/Event", "Subscriber", "m", "onEvent");
  proxy.insertData("P/Data", std::string("d"));
  proxy.raiseMicroEvent("P/Event", 9);
  EXPECT_EQ(proxy.getData("P/Data"), ZRValue("d"));
  EXPECT_EQ(proxy.getDataList("P/"), (std::vector<std::string>{"P/Data", "P/Event"}));
  EXPECT_EQ(proxy.getEventList(), (std::vector<std::string>{"P/Event"}));
  ASSERT_TRUE(subscriber.waitFor(1));
  EXPECT_EQ(subscriber.calls()[0].value, ZRValue(9));
  proxy.unsubscribeToMicroEvent("P/Event", "Subscriber");
  proxy.removeData("P/Data");
  EXPECT_THROW(proxy.getData("P/Data"), ZRError);
  auto specialised = broker->getSpecialisedProxy<ZRMemoryProxy>("ZRMemory");
  EXPECT_EQ(specialised->getData("P/Event"), ZRValue(9));
}

}  // namespace

namespace {

using EnvironmentSetting = tuqvutest::ScopedEnvironment;

std::string descriptionOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const ZRError& error) {
    return error.description();
  }
  return "";
}

}  // namespace

TEST(MemoryLimits, DefaultToOneMebibytePerValueSixtyFourInAllAndFourForTheSystem) {
  ::unsetenv("TUQVU_MEMORY_VALUE_MAX_BYTES");
  ::unsetenv("TUQVU_MEMORY_TOTAL_MAX_BYTES");
  ::unsetenv("TUQVU_MEMORY_SYSTEM_RESERVE_BYTES");
  ZRMemory memory(ZRBroker::create());
  EXPECT_EQ(memory.valueLimitBytes(), 1u << 20);
  EXPECT_EQ(memory.totalLimitBytes(), 64u << 20);
  EXPECT_EQ(memory.systemReserveBytes(), 4u << 20);
}

TEST(MemoryLimits, AValueAboveTheLimitIsRefusedAndTheOldValueStays) {
  EnvironmentSetting limit("TUQVU_MEMORY_VALUE_MAX_BYTES", "1000");
  ZRMemory memory(ZRBroker::create());
  memory.insertData("Big", std::string("small"));
  const std::string description =
      descriptionOf([&] { memory.insertData("Big", std::string(2000, 'x')); });
  EXPECT_EQ(description.rfind("the value of Big takes ", 0), 0u) << description;
  EXPECT_NE(description.find(" bytes; a value may take at most 1000 "
                             "(TUQVU_MEMORY_VALUE_MAX_BYTES)"),
            std::string::npos)
      << description;
  EXPECT_EQ(memory.getData("Big"), ZRValue(std::string("small")));
  // Nested arrays count every element: 20 arrays of one 40-character string.
  ZRValue nested = ZRValue::array();
  for (int i = 0; i < 20; ++i)
    nested.arrayPush(ZRValue(std::vector<std::string>{std::string(40, 'n')}));
  EXPECT_NE(descriptionOf([&] { memory.raiseMicroEvent("Nested", nested); }), "");
  EXPECT_THROW(memory.getData("Nested"), ZRError);
}

TEST(MemoryLimits, TheTotalCountsReplacedAndRemovedValuesOnce) {
  EnvironmentSetting total("TUQVU_MEMORY_TOTAL_MAX_BYTES", "10000");
  EnvironmentSetting reserve("TUQVU_MEMORY_SYSTEM_RESERVE_BYTES", "0");
  ZRMemory memory(ZRBroker::create());
  memory.insertData("K0", std::string(2000, 'a'));
  const std::size_t entry = memory.storedBytes();
  EXPECT_GT(entry, 2000u);
  for (int i = 1; i < 4; ++i) memory.insertData("K" + std::to_string(i), std::string(2000, 'a'));
  // Replacing a value of the same size does not grow the total.
  for (int round = 0; round < 10; ++round) memory.insertData("K0", std::string(2000, 'b'));
  EXPECT_EQ(memory.storedBytes(), 4 * entry);
  const std::string description =
      descriptionOf([&] { memory.insertData("K4", std::string(2000, 'c')); });
  EXPECT_EQ(description.rfind("storing K4 would make the memory hold " + std::to_string(5 * entry) +
                                  " bytes; it holds at most 10000 (TUQVU_MEMORY_TOTAL_MAX_BYTES)",
                              0),
            0u)
      << description;
  memory.removeData("K1");
  memory.insertData("K4", std::string(2000, 'c'));
  EXPECT_EQ(memory.getData("K4"), ZRValue(std::string(2000, 'c')));
}

// Bytes the process's allocator has handed out, small blocks and mapped ones.
std::size_t heapInUse() {
  const struct mallinfo2 info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

TEST(MemoryLimits, WhatIsCountedIsWhatTheProcessHolds) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer's allocator does not report through mallinfo2";
#endif
  EnvironmentSetting limit("TUQVU_MEMORY_VALUE_MAX_BYTES", "16777216");
  ZRMemory memory(ZRBroker::create());
  // An array of 20,000 small values: the case where counting content alone is far off.
  ZRValue numbers = ZRValue::array();
  for (int i = 0; i < 20000; ++i) numbers.arrayPush(ZRValue(i));
  ZRValue words = ZRValue::array();
  for (int i = 0; i < 2000; ++i) words.arrayPush(ZRValue(std::string(100, 'w')));
  for (const ZRValue& value : {numbers, words}) {
    ASSERT_TRUE(memory.flushNotifications(10000));
    const std::size_t heapBefore = heapInUse();
    const std::size_t countedBefore = memory.storedBytes();
    memory.insertData("Values" + std::to_string(countedBefore), value);
    ASSERT_TRUE(memory.flushNotifications(10000));
    const double held = static_cast<double>(heapInUse() - heapBefore);
    const double counted = static_cast<double>(memory.storedBytes() - countedBefore);
    EXPECT_GT(counted, 0.8 * held) << "held " << held << ", counted " << counted;
    EXPECT_LT(counted, 1.25 * held) << "held " << held << ", counted " << counted;
  }
}

TEST(MemoryLimits, DeclaringAnEventCountsItsKeyAndIsRefusedBeyondTheTotal) {
  EnvironmentSetting total("TUQVU_MEMORY_TOTAL_MAX_BYTES", "2000");
  EnvironmentSetting reserve("TUQVU_MEMORY_SYSTEM_RESERVE_BYTES", "0");
  ZRMemory memory(ZRBroker::create());
  int declared = 0;
  std::string description;
  while (description.empty() && declared < 1000) {
    description = descriptionOf(
        [&] { memory.declareEvent("Event/" + std::to_string(declared) + std::string(60, 'e')); });
    if (description.empty()) ++declared;
  }
  EXPECT_GT(declared, 0);
  EXPECT_LT(declared, 1000);
  EXPECT_LE(memory.storedBytes(), 2000u);
  EXPECT_NE(description.find("it holds at most 2000 (TUQVU_MEMORY_TOTAL_MAX_BYTES)"),
            std::string::npos)
      << description;
  EXPECT_EQ(memory.getEventList().size(), static_cast<std::size_t>(declared));
  // Declaring one again costs nothing more.
  const std::size_t before = memory.storedBytes();
  memory.declareEvent("Event/0" + std::string(60, 'e'));
  EXPECT_EQ(memory.storedBytes(), before);
}

TEST(MemoryLimits, ClientsFillOnlyWhatTheSystemReserveLeavesModulesUseTheRest) {
  EnvironmentSetting total("TUQVU_MEMORY_TOTAL_MAX_BYTES", "100000");
  EnvironmentSetting reserve("TUQVU_MEMORY_SYSTEM_RESERVE_BYTES", "40000");
  const boost::shared_ptr<ZRBroker> broker = ZRBroker::create();
  ZRMemory memory(broker);
  const auto insert = [&](const std::string& key, std::size_t size) {
    ZRValue args = ZRValue::array();
    args.arrayPush(ZRValue(key));
    args.arrayPush(ZRValue(std::string(size, 'x')));
    broker->call("ZRMemory", "insertData", args);
  };
  std::string description;
  {
    const ZRBroker::ClientCallScope client;
    insert("Client/a", 50000);
    description = descriptionOf([&] { insert("Client/b", 20000); });
  }
  EXPECT_EQ(description.rfind("storing Client/b would make the memory hold ", 0), 0u)
      << description;
  EXPECT_NE(description.find("; clients may fill it up to 60000 of its 100000, the rest is kept "
                             "for the system (TUQVU_MEMORY_TOTAL_MAX_BYTES, "
                             "TUQVU_MEMORY_SYSTEM_RESERVE_BYTES)"),
            std::string::npos)
      << description;
  // A module's call (no client behind it) fills on up to the whole total.
  insert("BehaviorsRun", 20000);
  EXPECT_EQ(memory.getData("BehaviorsRun").toString().size(), 20000u);
  EXPECT_NE(descriptionOf([&] { insert("BehaviorsRun", 60000); }), "");
}
