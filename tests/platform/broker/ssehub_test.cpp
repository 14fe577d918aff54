#include <gtest/gtest.h>
#include <tuqvu/broker/ssehub.h>

#include <thread>

using tuqvu::broker::SseHub;
using tuqvu::broker::SseSubscriber;

namespace {

// Keeps each frame without its id line, and the ids apart ("" for a frame without one).
class Recorder : public SseSubscriber {
public:
  void deliver(const std::shared_ptr<const std::string>& frame) override {
    std::string text = *frame;
    std::string id;
    if (text.rfind("id: ", 0) == 0) {
      const std::size_t end = text.find('\n');
      id = text.substr(4, end - 4);
      text.erase(0, end + 1);
    }
    fIds.push_back(id);
    fFrames.push_back(text);
  }
  void close() override { fClosed = true; }

  const std::vector<std::string>& frames() const { return fFrames; }
  const std::vector<std::string>& ids() const { return fIds; }
  bool closed() const { return fClosed; }

private:
  std::vector<std::string> fFrames;
  std::vector<std::string> fIds;
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

TEST(SseHub, EveryEventHasAnIdOfThisRunCountingFromOne) {
  SseHub hub;
  auto recorder = std::make_shared<Recorder>();
  hub.subscribe(recorder, {"A"});
  hub.publish("A", ZR::ZRValue(1));
  hub.publish("B", ZR::ZRValue(2));  // counted, though nobody here follows it
  hub.publish("A", ZR::ZRValue(3));
  EXPECT_EQ((std::vector<std::string>{hub.eventId(1), hub.eventId(3)}), recorder->ids());
  EXPECT_EQ(hub.eventId(3).substr(0, hub.eventId(3).find('.')),
            hub.eventId(1).substr(0, hub.eventId(1).find('.')));
  SseHub other;  // another run of the broker
  EXPECT_NE(other.eventId(1), hub.eventId(1));
}

TEST(SseHub, AReconnectingClientGetsWhatItMissedAndThenWhatComes) {
  SseHub hub;
  auto first = std::make_shared<Recorder>();
  const SseHub::Token token = hub.subscribe(first, {"A", "C"});
  hub.publish("A", ZR::ZRValue(1));
  hub.unsubscribe(token);  // the connection is cut
  hub.publish("A", ZR::ZRValue(2));
  hub.publish("B", ZR::ZRValue(3));
  hub.publish("C", ZR::ZRValue(4));
  auto again = std::make_shared<Recorder>();
  hub.subscribe(again, {"A", "C"}, nullptr, first->ids().back());
  hub.publish("A", ZR::ZRValue(5));
  EXPECT_EQ((std::vector<std::string>{SseHub::frame("A", 2), SseHub::frame("C", 4),
                                      SseHub::frame("A", 5)}),
            again->frames());
  EXPECT_EQ((std::vector<std::string>{hub.eventId(2), hub.eventId(4), hub.eventId(5)}),
            again->ids());
}

TEST(SseHub, AClientThatMissedMoreThanIsKeptIsToldEventsWereLostBeforeTheRest) {
  SseHub hub;
  hub.publish("A", ZR::ZRValue(0));
  const std::string last = hub.eventId(1);
  for (std::size_t i = 1; i <= SseHub::kReplayEvents + 5; ++i) hub.publish("A", ZR::ZRValue(1));
  auto again = std::make_shared<Recorder>();
  hub.subscribe(again, {}, nullptr, last);
  ASSERT_EQ(SseHub::kReplayEvents + 1, again->frames().size());
  EXPECT_EQ("event: lost\ndata: {\"reason\":\"5 events after " + last +
                " are no longer kept (the broker keeps the last 1000)\"}\n\n",
            again->frames()[0]);
  EXPECT_EQ("", again->ids()[0]);
  EXPECT_EQ(hub.eventId(7), again->ids()[1]);
  EXPECT_EQ(hub.eventId(SseHub::kReplayEvents + 6), again->ids().back());
}

TEST(SseHub, AnIdOfAnotherRunOrNoIdAtAllIsToldAsLostEvents) {
  SseHub hub;
  hub.publish("A", ZR::ZRValue(1));
  for (const std::string& id :
       {std::string("0badc0de.1"), std::string("garbage"), hub.eventId(99)}) {
    auto again = std::make_shared<Recorder>();
    hub.subscribe(again, {}, nullptr, id);
    ASSERT_EQ(1u, again->frames().size()) << id;
    EXPECT_EQ(0u, again->frames()[0].find("event: lost\ndata: {\"reason\":\"the broker "
                                          "restarted since event " +
                                          id))
        << again->frames()[0];
  }
}

TEST(SseHub, AClientUpToDateGetsNothingAgain) {
  SseHub hub;
  hub.publish("A", ZR::ZRValue(1));
  auto again = std::make_shared<Recorder>();
  hub.subscribe(again, {}, nullptr, hub.eventId(1));
  EXPECT_TRUE(again->frames().empty());
}
