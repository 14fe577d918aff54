#include <behaviormanager/binding/zrfunctor.h>
#include <gtest/gtest.h>
#include <zr/zrerror.h>

using ZR::createFunctor;
using ZR::ZRError;
using ZR::ZRValue;

namespace {

ZRValue args(std::initializer_list<ZRValue> values) {
  ZRValue array = ZRValue::array();
  for (const ZRValue& value : values) array.arrayPush(value);
  return array;
}

// Shaped like the behavior manager's members; records what reached it.
class Target {
public:
  virtual ~Target() = default;
  void runBehavior(const std::string& name) { fCalls.push_back("run " + name); }
  bool installBehavior(const std::string& source, const std::string& local, bool overwrite) {
    fCalls.push_back("install " + source + " " + local + (overwrite ? " 1" : " 0"));
    return overwrite;
  }
  void onDataChanged(const std::string& name, const ZRValue& value, const std::string& message) {
    fCalls.push_back("data " + name + " " + value.toDebugString() + " " + message);
  }
  std::vector<std::string> list() { return {"a", "b"}; }
  int port() { return 15000; }
  void stopAll() { fCalls.push_back("stopAll"); }
  std::string id(const std::string& name) { return "id-" + name; }
  virtual bool isRunning(const std::string&) { return false; }
  void throws(const std::string&) { throw ZRError("T", "throws", "boom", "f", 1); }

  // What the bound methods were called with, in order.
  const std::vector<std::string>& calls() const { return fCalls; }

private:
  std::vector<std::string> fCalls;
};

class Derived : public Target {
public:
  bool isRunning(const std::string& name) override { return name == "yes"; }
};

std::string conversionError(const std::function<void()>& action) {
  try {
    action();
  } catch (const ZRError& error) {
    EXPECT_EQ(error.module(), "convertFromZRValue");
    EXPECT_EQ(error.method(), "convertFromZRValue");
    EXPECT_EQ(error.file(), "zrvalue/detail/zrfunctorconvert");
    return error.description() + "@" + std::to_string(error.line());
  }
  return "<no error>";
}

}  // namespace

TEST(ZRFunctor, StringArgumentReachesTheMember) {
  Target target;
  ZRValue result;
  createFunctor(&target, &Target::runBehavior)->call(args({"dance"}), result);
  EXPECT_EQ(target.calls(), std::vector<std::string>{"run dance"});
  EXPECT_FALSE(result.isValid());  // a void member leaves the result untouched
}

TEST(ZRFunctor, IntegerForAStringParameterIsRefusedBeforeTheMemberRuns) {
  Target target;
  ZRValue result;
  auto functor = createFunctor(&target, &Target::runBehavior);
  EXPECT_EQ(
      conversionError([&] { functor->call(args({3}), result); }),
      "Parameter type is " + ZRValue::TypeToString(ZRValue::TypeInt) + " instead of string@88");
  EXPECT_TRUE(target.calls().empty());
}

TEST(ZRFunctor, IntegerForTheBoolOfInstallBehaviorIsRefused) {
  Target target;
  ZRValue result;
  auto functor = createFunctor(&target, &Target::installBehavior);
  EXPECT_EQ(
      conversionError([&] {
        functor->call(args({"/a", "b", 1}), result);
      }),
      "Parameter type is " + ZRValue::TypeToString(ZRValue::TypeInt) + " instead of bool@137");
  EXPECT_TRUE(target.calls().empty());
  functor->call(args({"/a", "b", true}), result);
  EXPECT_EQ(target.calls(), std::vector<std::string>{"install /a b 1"});
  EXPECT_EQ(result, ZRValue(true));
}

TEST(ZRFunctor, ValueParameterAcceptsAnyType) {
  Target target;
  ZRValue result;
  auto functor = createFunctor(&target, &Target::onDataChanged);
  functor->call(args({"TUQvuReady", 1, ""}), result);
  functor->call(args({"TUQvuReady", 1.5, "m"}), result);
  functor->call(args({"TUQvuReady", "text", ""}), result);
  functor->call(args({"TUQvuReady", ZRValue::array(), ""}), result);
  ASSERT_EQ(target.calls().size(), 4u);
  EXPECT_EQ(target.calls()[0], "data TUQvuReady 1 ");
  EXPECT_EQ(target.calls()[2], "data TUQvuReady \"text\" ");
}

TEST(ZRFunctor, ResultsOfEveryUsedTypeAreStored) {
  Target target;
  ZRValue result;
  createFunctor(&target, &Target::list)->call(args({}), result);
  EXPECT_EQ(result, ZRValue(std::vector<std::string>{"a", "b"}));
  createFunctor(&target, &Target::port)->call(args({}), result);
  EXPECT_EQ(result, ZRValue(15000));
  createFunctor(&target, &Target::id)->call(args({"x"}), result);
  EXPECT_EQ(result, ZRValue("id-x"));
  ZRValue untouched("keep");
  createFunctor(&target, &Target::stopAll)->call(args({}), untouched);
  EXPECT_EQ(untouched, ZRValue("keep"));
}

TEST(ZRFunctor, VirtualMemberIsCalledThroughTheObject) {
  Derived derived;
  ZRValue result;
  createFunctor<Target>(&derived, &Target::isRunning)->call(args({"yes"}), result);
  EXPECT_EQ(result, ZRValue(true));
}

TEST(ZRFunctor, MemberExceptionsPassThroughUnchanged) {
  Target target;
  ZRValue result;
  try {
    createFunctor(&target, &Target::throws)->call(args({"x"}), result);
    FAIL();
  } catch (const ZRError& error) {
    EXPECT_EQ(error.module(), "T");
    EXPECT_EQ(error.description(), "boom");
  }
}
