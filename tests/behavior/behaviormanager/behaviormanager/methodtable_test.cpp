#include "fixture.h"

namespace bmtest {
namespace {

struct Row {
  const char* name;
  const char* description;
  std::vector<std::pair<const char*, const char*>> params;  // name, type
  const char* returnName;
  const char* returnType;
};

const std::vector<Row>& expectedTable() {
  static const std::vector<Row> rows = {
      {"_setBehaviorsPath", "Set the user behaviors path.", {{"path", "std::string"}}, "", "void"},
      {"installBehavior",
       "Install a behavior.\nCheck the given local path for a valid behavior or package.\nOn "
       "success, behavior added or updated signal is emitted.",
       {{"localPath", "std::string"}},
       "success",
       "bool"},
      {"installBehavior",
       "Install a behavior.\nCheck and take the behavior found at the given absolute path "
       "andimport it to the given local path, relative to behaviors path.\nOn success, behavior "
       "added signal is emitted before returning.",
       {{"absolutePath", "std::string"}, {"localPath", "std::string"}, {"overwrite", "bool"}},
       "success",
       "bool"},
      {"preloadBehavior", "Load a behavior", {{"behavior", "std::string"}}, "success", "bool"},
      {"runBehavior", "Run a behavior", {{"behavior", "std::string"}}, "", "void"},
      {"stopBehavior", "Stop a behavior", {{"behavior", "std::string"}}, "", "void"},
      {"stopAllBehaviors", "Stop all behaviors", {}, "", "void"},
      {"removeBehavior",
       "Remove a behavior from the filesystem",
       {{"behavior", "std::string"}},
       "",
       "bool"},
      {"isBehaviorInstalled",
       "Tell if supplied name corresponds to a behavior that has been installed",
       {{"name", "std::string"}},
       "return",
       "bool"},
      {"isBehaviorPresent",
       "Tell if the supplied namecorresponds to an existing behavior.",
       {{"prefixedBehavior", "std::string"}},
       "return",
       "bool"},
      {"getBehaviorNames", "Get behaviors", {}, "return", "std::vector<std::string>"},
      {"getUserBehaviorNames", "Get user's behaviors", {}, "return", "std::vector<std::string>"},
      {"getSystemBehaviorNames", "Get system behaviors", {}, "return", "std::vector<std::string>"},
      {"getInstalledBehaviors",
       "Get installed behaviors directories names",
       {},
       "return",
       "std::vector<std::string>"},
      {"getBehaviorsByTag",
       "Get installed behaviors directories names and filter it by tag.",
       {{"tag", "std::string"}},
       "behaviors",
       "std::vector<std::string>"},
      {"isBehaviorRunning",
       "Tell if supplied name corresponds to a running behavior",
       {{"behavior", "std::string"}},
       "return",
       "bool"},
      {"getRunningBehaviors", "Get running behaviors", {}, "return", "std::vector<std::string>"},
      {"getTagList",
       "Get tags found on installed behaviors.",
       {},
       "tags",
       "std::vector<std::string>"},
      {"getBehaviorTags",
       "Get tags found on the given behavior.",
       {{"behavior", "std::string"}},
       "tags",
       "std::vector<std::string>"},
      {"addDefaultBehavior",
       "Set the given behavior as default",
       {{"behavior", "std::string"}},
       "",
       "void"},
      {"removeDefaultBehavior",
       "Remove the given behavior from the default behaviors",
       {{"behavior", "std::string"}},
       "",
       "void"},
      {"getDefaultBehaviors", "Get default behaviors", {}, "return", "std::vector<std::string>"},
      {"playDefaultProject", "Play default behaviors", {}, "", "void"},
      {"_onDataChanged",
       "Be notified when something we have subscribe to has changed in ZRMemory",
       {{"dataName", "std::string"}, {"dataValue", "ZRValue"}, {"message", "std::string"}},
       "",
       "void"},
      {"_getBehaviorFrameManagerId",
       "get the FrameManagerID. INTERNAL",
       {{"name", "std::string"}},
       "ID",
       "std::string"},
      {"_httpFileTransferPort",
       "Get the port to transfer files between Cadenzo and TUQvu",
       {},
       "return",
       "int"},
  };
  return rows;
}

class MethodTable : public ManagerTest {};

TEST_F(MethodTable, IntrospectionListsExactlyTheTwentySixMethodsInOrder) {
  startPlatform();
  startManager();
  const std::vector<ZR::ZRMethodInfo> methods = broker->getMethods("ZRBehaviorManager");
  const std::vector<Row>& rows = expectedTable();
  ASSERT_EQ(methods.size(), 26u);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i].name);
    EXPECT_EQ(methods[i].name, rows[i].name);
    EXPECT_EQ(methods[i].description, rows[i].description);
    EXPECT_EQ(methods[i].moduleName, "ZRBehaviorManager");
    EXPECT_EQ(methods[i].returnName, rows[i].returnName);
    EXPECT_EQ(methods[i].returnType, rows[i].returnType);
    ASSERT_EQ(methods[i].parameters.size(), rows[i].params.size());
    for (std::size_t p = 0; p < rows[i].params.size(); ++p) {
      EXPECT_EQ(methods[i].parameters[p].name, rows[i].params[p].first);
      EXPECT_EQ(methods[i].parameters[p].type, rows[i].params[p].second);
    }
  }
  for (const ZR::ZRMethodInfo& method : methods) {
    EXPECT_NE(method.name, "isBehaviorLoaded");
    EXPECT_NE(method.name, "getLoadedBehaviors");
    EXPECT_NE(method.name, "unloadBehavior");
  }
}

TEST_F(MethodTable, ParameterDescriptionsKeepTheirTrailingBlank) {
  startPlatform();
  startManager();
  ZR::ZRModuleCore::BoundMethod run;
  ASSERT_TRUE(manager->findMethod("runBehavior", 1, run));
  EXPECT_EQ(run.info.parameters[0].description, "Behavior name ");
  ZR::ZRModuleCore::BoundMethod id;
  ASSERT_TRUE(manager->findMethod("_getBehaviorFrameManagerId", 1, id));
  EXPECT_EQ(id.info.returnDescription, "");
  EXPECT_EQ(manager->getModuleDescription(),
            "This module is intended to manage behaviors. With this module, you can load, start, "
            "stop behaviors, add default behaviors or remove them. \n");
}

// The published texts of every parameter and result, with their odd blanks.
struct Texts {
  const char* name;
  int arity;
  std::vector<const char*> params;
  const char* result;
};

TEST_F(MethodTable, EveryParameterAndResultKeepsItsPublishedText) {
  const char* behavior = "Behavior name ";
  const char* success = "true on success, false on failure.";
  const std::vector<Texts> rows = {
      {"_setBehaviorsPath", 1, {"the desired behaviors path, as an utf8 std::string."}, ""},
      {"installBehavior", 1, {"the relative destination path."}, success},
      {"installBehavior",
       3,
       {"a behavior on the local file system to install.", "the relative destination path.",
        "whether to replace existing behavior if present."},
       success},
      {"preloadBehavior", 1, {behavior}, "Returns true if it was successfully loaded."},
      {"runBehavior", 1, {behavior}, ""},
      {"stopBehavior", 1, {behavior}, ""},
      {"stopAllBehaviors", 0, {}, ""},
      {"removeBehavior", 1, {behavior}, ""},
      {"isBehaviorInstalled",
       1,
       {"The behavior directory name"},
       "Returns true if it is a valid behavior"},
      {"isBehaviorPresent",
       1,
       {"Prefixed behavior or just behavior's name (latter usage deprecated, in this case the "
        "behavior is searched for amongst user's behaviors, then in system behaviors) "
        "DEPRECATED."},
       "Returns true if it is an existing behavior"},
      {"getBehaviorNames",
       0,
       {},
       "Returns the list of behaviors prefixed by their type (User/ or System/). DEPRECATED"},
      {"getUserBehaviorNames",
       0,
       {},
       "Returns the list of user's behaviors prefixed by User/. DEPRECATED."},
      {"getSystemBehaviorNames",
       0,
       {},
       "Returns the list of system behaviors prefixed by System/."},
      {"getInstalledBehaviors", 0, {}, "Returns the behaviors list"},
      {"getBehaviorsByTag", 1, {"A tag to filter the list with."}, "Returns the behaviors list"},
      {"isBehaviorRunning", 1, {behavior}, "Returns true if it is a running behavior"},
      {"getRunningBehaviors", 0, {}, "Return running behaviors"},
      {"getTagList", 0, {}, "The list of tags found."},
      {"getBehaviorTags",
       1,
       {"The local path towards a behavior or a directory."},
       "The list of tags found."},
      {"addDefaultBehavior", 1, {behavior}, ""},
      {"removeDefaultBehavior", 1, {behavior}, ""},
      {"getDefaultBehaviors", 0, {}, "Return default behaviors"},
      {"playDefaultProject", 0, {}, ""},
      {"_onDataChanged", 3, {"name of the data", "value of the data", "callback message"}, ""},
      {"_getBehaviorFrameManagerId", 1, {"name of Cadenzo project"}, ""},
      {"_httpFileTransferPort", 0, {}, "Return the connection port"},
  };
  startPlatform();
  startManager();
  const std::vector<ZR::ZRMethodInfo> methods = broker->getMethods("ZRBehaviorManager");
  ASSERT_EQ(methods.size(), rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i].name);
    EXPECT_EQ(methods[i].name, rows[i].name);
    EXPECT_EQ(methods[i].mask, 0);
    ASSERT_EQ(methods[i].arity(), rows[i].arity);
    for (int p = 0; p < rows[i].arity; ++p) {
      EXPECT_EQ(methods[i].parameters[p].description, rows[i].params[p]);
    }
    EXPECT_EQ(methods[i].returnDescription, rows[i].result);
  }
}

TEST_F(MethodTable, InstallBehaviorOverloadsAreToldApartByArity) {
  startPlatform();
  startManager();
  ZR::ZRModuleCore::BoundMethod one, three;
  ASSERT_TRUE(manager->findMethod("installBehavior", 1, one));
  ASSERT_TRUE(manager->findMethod("installBehavior", 3, three));
  EXPECT_EQ(one.info.parameters[0].name, "localPath");
  EXPECT_EQ(three.info.parameters[0].name, "absolutePath");
}

TEST_F(MethodTable, RunBehaviorWithAnIntegerFailsBeforeReachingTheModule) {
  startPlatform();
  startManager();
  ZR::ZRValue args = ZR::ZRValue::array();
  args.arrayPush(ZR::ZRValue(3));
  try {
    broker->call("ZRBehaviorManager", "runBehavior", args);
    FAIL();
  } catch (const ZR::ZRError& error) {
    EXPECT_EQ(error.description(), "Parameter type is " +
                                       ZR::ZRValue::TypeToString(ZR::ZRValue::TypeInt) +
                                       " instead of string");
  }
  EXPECT_TRUE(manager->getRunningBehaviors().empty());
}

TEST_F(MethodTable, InstallBehaviorWithAnIntegerOverwriteFailsWithTheBoolMessage) {
  startPlatform();
  startManager();
  ZR::ZRValue args = ZR::ZRValue::array();
  args.arrayPush(ZR::ZRValue("/nowhere"));
  args.arrayPush(ZR::ZRValue("x"));
  args.arrayPush(ZR::ZRValue(1));
  logs->clear();
  try {
    broker->call("ZRBehaviorManager", "installBehavior", args);
    FAIL();
  } catch (const ZR::ZRError& error) {
    EXPECT_EQ(error.description(), "Parameter type is " +
                                       ZR::ZRValue::TypeToString(ZR::ZRValue::TypeInt) +
                                       " instead of bool");
  }
  EXPECT_TRUE(logs->messages().empty());  // installBehavior itself never ran
}

TEST_F(MethodTable, OnDataChangedAcceptsAnyValueType) {
  startPlatform();
  startManager();
  for (const ZR::ZRValue& value :
       {ZR::ZRValue("text"), ZR::ZRValue(0), ZR::ZRValue(2.5), ZR::ZRValue::array()}) {
    ZR::ZRValue args = ZR::ZRValue::array();
    args.arrayPush(ZR::ZRValue("SomethingElse"));
    args.arrayPush(value);
    args.arrayPush(ZR::ZRValue(""));
    EXPECT_NO_THROW(broker->call("ZRBehaviorManager", "_onDataChanged", args));
  }
}

}  // namespace
}  // namespace bmtest
