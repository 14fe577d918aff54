#include <gtest/gtest.h>
#include <tuqvu/broker/ssehub.h>

#include <thread>

using tuqvu::broker::SseHub;
using tuqvu::broker::SseSubscriber;

namespace {

class Recorder : public SseSubscriber {
public:
  void deliver(const std::shared_ptr<const std::string>& frame) override {
    fFrames.push_back(*frame);
  }
  void close() override { fClosed = true; }

  const std::vector<std::string>& frames() const { return fFrames; }
  bool closed() const { return fClosed; }

private:
  std::vector<std::string> fFrames;
  bool fClosed = false;
};

}  // namespace

TEST(SseHub, FramesAreOneDataLineOfKeyAndValue) {
  ZR::ZRValue value = ZR::ZRValue::array();
  value.arrayPush(ZR::ZRValue("a\nb"));
  value.arrayPush(ZR::ZRValue(1));
  EXPECT_EQ("data: {\"key\":\"Demo/\\\"Key\\\"\",\"value\":[\"a\\nb\",1]}\n\n",
            SseHub::frame("Demo/\"Key\"", value));
  EXPECT_EQ("data: {\"key\":\"K\",\"value\":null}\n\n", SseHub::frame("K", ZR::ZRValue()));
}

TEST(SseHub, DeliversMatchingKeysInPublishOrder) {
  SseHub hub;
  auto all = std::make_shared<Recorder>();
  auto some = std::make_shared<Recorder>();
  hub.subscribe(all, {});
  hub.subscribe(some, {"A", "C"});
  hub.publish("A", ZR::ZRValue(1));
  hub.publish("B", ZR::ZRValue(2));
  hub.publish("C", ZR::ZRValue(3));
  hub.publish("A", ZR::ZRValue(4));
  EXPECT_EQ((std::vector<std::string>{SseHub::frame("A", 1), SseHub::frame("B", 2),
                                      SseHub::frame("C", 3), SseHub::frame("A", 4)}),
            all->frames());
  EXPECT_EQ((std::vector<std::string>{SseHub::frame("A", 1), SseHub::frame("C", 3),
                                      SseHub::frame("A", 4)}),
            some->frames());
}

TEST(SseHub, UnsubscribedAndVanishedSubscribersGetNothing) {
  SseHub hub;
  auto kept = std::make_shared<Recorder>();
  auto dropped = std::make_shared<Recorder>();
  const SseHub::Token keptToken = hub.subscribe(kept, {});
  hub.subscribe(dropped, {});
  EXPECT_EQ(2u, hub.subscriberCount());
  dropped.reset();
  EXPECT_EQ(1u, hub.subscriberCount());
  hub.publish("A", ZR::ZRValue(1));
  hub.unsubscribe(keptToken);
  hub.publish("A", ZR::ZRValue(2));
  EXPECT_EQ(1u, kept->frames().size());
  EXPECT_EQ(0u, hub.subscriberCount());
}

TEST(SseHub, CloseAllClosesEveryoneAndRefusesNewcomers) {
  SseHub hub;
  auto first = std::make_shared<Recorder>();
  hub.subscribe(first, {});
  hub.closeAll();
  EXPECT_TRUE(first->closed());
  auto late = std::make_shared<Recorder>();
  EXPECT_EQ(0u, hub.subscribe(late, {}));
  hub.publish("A", ZR::ZRValue(1));
  EXPECT_TRUE(first->frames().empty());
}

TEST(SseHub, PublishingFromOneThreadKeepsOrderWhileOthersSubscribe) {
  SseHub hub;
  auto recorder = std::make_shared<Recorder>();
  hub.subscribe(recorder, {"K"});
  std::thread churn([&] {
    for (int i = 0; i < 2000; ++i) {
      auto other = std::make_shared<Recorder>();
      hub.unsubscribe(hub.subscribe(other, {}));
    }
  });
  for (int i = 0; i < 2000; ++i) hub.publish("K", ZR::ZRValue(i));
  churn.join();
  ASSERT_EQ(2000u, recorder->frames().size());
  for (int i = 0; i < 2000; ++i) EXPECT_EQ(SseHub::frame("K", i), recorder->frames()[i]);
}

TEST(SseHub, NoMoreThanTheCapOfSubscribersAndAPlaceFreesWhenOneGoes) {
  SseHub hub(2);
  auto first = std::make_shared<Recorder>();
  auto second = std::make_shared<Recorder>();
  auto third = std::make_shared<Recorder>();
  const SseHub::Token firstToken = hub.subscribe(first, {});
  EXPECT_NE(0u, firstToken);
  EXPECT_NE(0u, hub.subscribe(second, {}));
  SseHub::Refusal refusal = SseHub::Refusal::None;
  EXPECT_EQ(0u, hub.subscribe(third, {}, &refusal));
  EXPECT_EQ(SseHub::Refusal::Full, refusal);

  hub.unsubscribe(firstToken);
  EXPECT_NE(0u, hub.subscribe(third, {}, &refusal));
  EXPECT_EQ(SseHub::Refusal::None, refusal);
  // One that vanished without unsubscribing frees its place too.
  second.reset();
  auto fourth = std::make_shared<Recorder>();
  EXPECT_NE(0u, hub.subscribe(fourth, {}));
  hub.closeAll();
  EXPECT_EQ(0u, hub.subscribe(std::make_shared<Recorder>(), {}, &refusal));
  EXPECT_EQ(SseHub::Refusal::Closed, refusal);
}

TEST(SseHub, EverySubscriberGetsTheSameFrameNotACopy) {
  SseHub hub;
  std::vector<std::shared_ptr<const std::string>> seen;
  class Keeper : public SseSubscriber {
  public:
    explicit Keeper(std::vector<std::shared_ptr<const std::string>>& seen) : fSeen(seen) {}
    void deliver(const std::shared_ptr<const std::string>& frame) override {
      fSeen.push_back(frame);
    }
    void close() override {}

  private:
    std::vector<std::shared_ptr<const std::string>>& fSeen;
  };
  auto a = std::make_shared<Keeper>(seen);
  auto b = std::make_shared<Keeper>(seen);
  hub.subscribe(a, {});
  hub.subscribe(b, {});
  hub.publish("Big", ZR::ZRValue(std::string(100000, 'b')));
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ(seen[0].get(), seen[1].get());
}
