#include <gtest/gtest.h>
#include <zr/zrbroker.h>
#include <zr/zrerror.h>
#include <zr/zrmodulecore.h>

#include "testmodule.h"

using zrtest::TestModule;

TEST(ZRModuleCore, IntrospectionListsMethodsInRegistrationOrder) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  module.setModuleDescription("a module");
  module.add("zeta", {}, ZR::TypeCodeVoid, [](const ZR::ZRValue&, ZR::ZRValue&) {});
  module.add("alpha", {ZR::TypeCodeString}, ZR::TypeCodeBool,
             [](const ZR::ZRValue&, ZR::ZRValue&) {});
  const std::vector<ZR::ZRMethodInfo> methods = module.getMethods();
  ASSERT_EQ(methods.size(), 2u);
  EXPECT_EQ(methods[0].name, "zeta");
  EXPECT_EQ(methods[1].name, "alpha");
  EXPECT_EQ(methods[1].moduleName, "M");
  EXPECT_EQ(methods[1].description, "test method alpha");
  ASSERT_EQ(methods[1].parameters.size(), 1u);
  EXPECT_EQ(methods[1].parameters[0].name, "p1");
  EXPECT_EQ(methods[1].parameters[0].type, "std::string");
  EXPECT_EQ(methods[1].returnType, "bool");
  EXPECT_EQ(module.getModuleDescription(), "a module");
}

TEST(ZRModuleCore, BindMethodRefusesADuplicateName) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  module.add("f", {}, ZR::TypeCodeVoid, [](const ZR::ZRValue&, ZR::ZRValue&) {});
  EXPECT_THROW(
      module.add("f", {ZR::TypeCodeInt}, ZR::TypeCodeVoid, [](const ZR::ZRValue&, ZR::ZRValue&) {}),
      ZR::ZRError);
}

TEST(ZRModuleCore, BindMethodOverloadNeedsADifferentArity) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  module.add(
      "f", {ZR::TypeCodeString}, ZR::TypeCodeVoid, [](const ZR::ZRValue&, ZR::ZRValue&) {}, true);
  EXPECT_NO_THROW(module.add(
      "f", {ZR::TypeCodeString, ZR::TypeCodeString}, ZR::TypeCodeVoid,
      [](const ZR::ZRValue&, ZR::ZRValue&) {}, true));
  EXPECT_THROW(
      module.add(
          "f", {ZR::TypeCodeInt}, ZR::TypeCodeVoid, [](const ZR::ZRValue&, ZR::ZRValue&) {}, true),
      ZR::ZRError);
}

TEST(ZRModuleCore, DescriptionCallsWithoutAnOpenMethodThrow) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  EXPECT_THROW(module.addParam("x", "y"), ZR::ZRError);
  EXPECT_THROW(module.getCurrentMethodDescription(), ZR::ZRError);
}

TEST(ZRModuleCore, ModuleRegistersAndWithdrawsItselfByName) {
  auto broker = ZR::ZRBroker::create();
  {
    TestModule module(broker, "Named");
    EXPECT_TRUE(broker->hasModule("Named"));
    EXPECT_THROW(TestModule(broker, "Named"), ZR::ZRError);
  }
  EXPECT_FALSE(broker->hasModule("Named"));
}

TEST(ZRModuleCore, DefaultPageListsTheMethods) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  module.add("hello", {ZR::TypeCodeString}, ZR::TypeCodeVoid,
             [](const ZR::ZRValue&, ZR::ZRValue&) {});
  const std::string page = broker->modulePage("M");
  EXPECT_NE(page.find("hello("), std::string::npos);
  EXPECT_NE(page.find("std::string p1"), std::string::npos);
}
