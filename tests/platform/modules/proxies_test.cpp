// The proxies go through the broker: a test broker hosting its own stand-in under the
// module's name is what they reach, misbehaviour included.
#include <gtest/gtest.h>
#include <zr/proxies/zrframemanagerproxy.h>
#include <zr/proxies/zrmemoryproxy.h>
#include <zr/proxies/zrpreferencesproxy.h>
#include <zr/zrbinding.h>
#include <zr/zrerror.h>

#include "testsupport.h"

using namespace ZR;

namespace {

// A module that answers every method it is given with a fixed behaviour.
class StandIn : public ZRModule {
public:
  using Handler = std::function<ZRValue(const ZRValue& args)>;
  StandIn(boost::shared_ptr<ZRBroker> broker, const std::string& name) : ZRModule(broker, name) {}

  void add(const std::string& method, int arity, Handler handler) {
    std::vector<std::pair<std::string, int>> params;
    for (int i = 0; i < arity; ++i) params.emplace_back("p" + std::to_string(i), TypeCodeValue);
    bindCallable(*this, {method, "stand-in", params, TypeCodeValue},
                 [this, method, handler](const ZRValue& args, ZRValue& result) {
                   fReceived.push_back(method + " " + args.toDebugString());
                   result = handler(args);
                 });
  }
  // "<method> <arguments>" of each call, in order.
  const std::vector<std::string>& received() const { return fReceived; }

private:
  std::vector<std::string> fReceived;
};

TEST(ProxiesTest, TheMemoryProxyReachesAStandInAndPassesItsErrorsOn) {
  auto broker = ZRBroker::create("test");
  StandIn memory(broker, "ZRMemory");
  memory.add("getData", 1, [](const ZRValue&) -> ZRValue {
    throw ZRError("ZRMemory", "getData", "the stand-in refuses");
  });
  memory.add("raiseMicroEvent", 2, [](const ZRValue&) { return ZRValue(); });
  memory.add("subscribeToMicroEvent", 4, [](const ZRValue&) { return ZRValue(); });
  auto proxy = broker->getSpecialisedProxy<ZRMemoryProxy>("ZRMemory");
  proxy->raiseMicroEvent("BehaviorsRun", ZRValue(std::vector<std::string>{"a"}));
  proxy->subscribeToMicroEvent("TUQvuReady", "Me", "", "_onDataChanged");
  try {
    proxy->getData("x");
    FAIL() << "the stand-in's error was lost";
  } catch (const ZRError& error) {
    EXPECT_EQ(error.description(), "the stand-in refuses");
  }
  EXPECT_EQ(memory.received(),
            (std::vector<std::string>{"raiseMicroEvent [\"BehaviorsRun\", [\"a\"]]",
                                      "subscribeToMicroEvent [\"TUQvuReady\", \"Me\", \"\", "
                                      "\"_onDataChanged\"]",
                                      "getData [\"x\"]"}));
  // A method the stand-in lacks is the broker's error.
  EXPECT_THROW(proxy->declareEvent("E"), ZRError);
}

TEST(ProxiesTest, TheFrameManagerProxyReachesAStandIn) {
  auto broker = ZRBroker::create("test");
  StandIn frames(broker, "ZRFrameManager");
  frames.add("newBehaviorFromFile", 2,
             [](const ZRValue& args) { return ZRValue("id-of-" + args[1].toString()); });
  frames.add("completeBehavior", 1, [](const ZRValue&) -> ZRValue {
    throw ZRError("ZRFrameManager", "completeBehavior", "failed on purpose");
  });
  frames.add("exitBehavior", 1, [](const ZRValue&) { return ZRValue(); });
  frames.add("deleteBehavior", 1, [](const ZRValue&) { return ZRValue(); });
  frames.add("cleanBehaviors", 0, [](const ZRValue&) { return ZRValue(); });
  ZRFrameManagerProxy proxy(broker);
  EXPECT_EQ(proxy.newBehaviorFromFile("/x/behavior.xar", "x"), "id-of-x");
  EXPECT_THROW(proxy.completeBehavior("id-of-x"), ZRError);
  proxy.exitBehavior("id-of-x");
  proxy.deleteBehavior("id-of-x");
  proxy.cleanBehaviors();
  EXPECT_EQ(frames.received().size(), 5u);
  EXPECT_EQ(frames.received().back(), "cleanBehaviors []");
}

TEST(ProxiesTest, ThePreferencesProxyReachesAStandIn) {
  auto broker = ZRBroker::create("test");
  StandIn prefs(broker, "ZRPreferences");
  prefs.add("readPrefFile", 2, [](const ZRValue& args) {
    return ZRValue(std::vector<std::string>{args[0].toString(), args[1].toBool() ? "t" : "f"});
  });
  prefs.add("writePrefFile", 3, [](const ZRValue&) { return ZRValue(); });
  ZRPreferencesProxy proxy(broker);
  EXPECT_EQ(proxy.readPrefFile("DefaultBehaviors", false).toStringVector(),
            (std::vector<std::string>{"DefaultBehaviors", "f"}));
  proxy.writePrefFile("DefaultBehaviors", ZRValue::array(), true);
  EXPECT_EQ(prefs.received().back(), "writePrefFile [\"DefaultBehaviors\", [], true]");
}

TEST(ProxiesTest, AProxyToAModuleTheBrokerDoesNotHostFails) {
  auto broker = ZRBroker::create("test");
  ZRMemoryProxy memory(broker);
  EXPECT_THROW(memory.getData("x"), ZRError);
  ZRFrameManagerProxy frames(broker, "OtherFrames");
  EXPECT_EQ(frames.moduleName(), "OtherFrames");
  EXPECT_THROW(frames.cleanBehaviors(), ZRError);
}

}  // namespace
