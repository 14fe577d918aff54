#include <behaviormanager/binding/zrcompleteandcheck.h>
#include <gtest/gtest.h>

namespace {
struct Target {
  bool installBehavior(const std::string&, const std::string&, bool) { return true; }
  void onDataChanged(const std::string&, const ZR::ZRValue&, const std::string&) {}
  std::vector<std::string> getBehaviorTags(const std::string&) { return {}; }
};
}  // namespace

TEST(CompleteAndCheck, FillsTypeTextsOfDeclaredParametersAndResult) {
  ZR::ZRMethodInfo info;
  info.parameters = {{"absolutePath", "a", ""}, {"localPath", "l", ""}, {"overwrite", "o", ""}};
  ZR::completeAndCheck(&Target::installBehavior, info);
  EXPECT_EQ(info.returnType, ZR::getTypeString(2));
  ASSERT_EQ(info.parameters.size(), 3u);
  EXPECT_EQ(info.parameters[0].name, "absolutePath");
  EXPECT_EQ(info.parameters[0].type, ZR::getTypeString(5));
  EXPECT_EQ(info.parameters[2].type, ZR::getTypeString(2));
}

TEST(CompleteAndCheck, ValueAndListTypesUseTheirCodes) {
  ZR::ZRMethodInfo info;
  info.parameters = {{"dataName", "", ""}, {"dataValue", "", ""}, {"message", "", ""}};
  ZR::completeAndCheck(&Target::onDataChanged, info);
  EXPECT_EQ(info.returnType, ZR::getTypeString(1));
  EXPECT_EQ(info.parameters[1].type, ZR::getTypeString(6));
  ZR::ZRMethodInfo tags;
  tags.parameters = {{"behavior", "", ""}};
  ZR::completeAndCheck(&Target::getBehaviorTags, tags);
  EXPECT_EQ(tags.returnType, ZR::getTypeString(25));
}

TEST(CompleteAndCheck, UndeclaredParametersGetNumberedRecords) {
  ZR::ZRMethodInfo info;
  info.parameters = {{"absolutePath", "a", ""}};
  ZR::completeAndCheck(&Target::installBehavior, info);
  ASSERT_EQ(info.parameters.size(), 3u);
  EXPECT_EQ(info.parameters[1].name, "arg2");
  EXPECT_EQ(info.parameters[2].name, "arg3");
  EXPECT_EQ(info.parameters[2].type, ZR::getTypeString(2));
}

TEST(TypeStrings, EveryUsedCodeHasItsText) {
  EXPECT_EQ(ZR::getTypeString(1), "void");
  EXPECT_EQ(ZR::getTypeString(2), "bool");
  EXPECT_EQ(ZR::getTypeString(3), "int");
  EXPECT_EQ(ZR::getTypeString(5), "std::string");
  EXPECT_EQ(ZR::getTypeString(6), "ZRValue");
  EXPECT_EQ(ZR::getTypeString(25), "std::vector<std::string>");
}
