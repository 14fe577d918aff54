// The module's method table: every remote method with its description, parameters and
// result, bound to its member.
#include <behaviormanager/behaviormanager.h>
#include <behaviormanager/binding/zrcompleteandcheck.h>
#include <behaviormanager/binding/zrfunctor.h>
#include <zr/zrtypes.h>

namespace ZR {
namespace BehaviorManager {

namespace {

template <typename Member>
struct ResultCode;
template <typename C, typename R>
struct ResultCode<R (C::*)()> {
  static constexpr int value = ZR::detail::TypeCode<R>::value;
};
template <typename C, typename R, typename... P>
struct ResultCode<R (C::*)(P...)> {
  static constexpr int value = ZR::detail::TypeCode<R>::value;
};

// One row of the method table: describe, complete, bind.
template <typename C, typename Member>
void bindRow(C* module, const std::string& name, const std::string& description,
             std::initializer_list<std::pair<const char*, const char*>> params,
             const char* resultName, const char* resultDescription, Member member,
             bool overload = false) {
  module->functionName(name, module->getName(), description, 0);
  for (const auto& param : params) {
    module->addParam(param.first, param.second);
  }
  if (resultName != nullptr) {
    module->setReturn(resultName, resultDescription);
  }
  if (params.size() == 0) {
    // Without parameters there is nothing to check: only the result's type text is set.
    module->getCurrentMethodDescription().returnType = getTypeString(ResultCode<Member>::value);
  } else {
    completeAndCheck(member, module->getCurrentMethodDescription());
  }
  if (overload) {
    module->bindMethodOverload(createFunctor(module, member));
  } else {
    module->bindMethod(createFunctor(module, member));
  }
}

}  // namespace

void ZRBehaviorManager::registerMethods() {
  using M = ZRBehaviorManager;
  const char* behaviorParam = "Behavior name ";
  bindRow(this, "_setBehaviorsPath", "Set the user behaviors path.",
          {{"path", "the desired behaviors path, as an utf8 std::string."}}, nullptr, nullptr,
          &M::xSetBehaviorsPathForRemoteCaller);
  bindRow(this, "installBehavior",
          "Install a behavior.\nCheck the given local path for a valid behavior or package.\nOn "
          "success, behavior added or updated signal is emitted.",
          {{"localPath", "the relative destination path."}}, "success",
          "true on success, false on failure.",
          static_cast<bool (M::*)(const std::string&)>(&M::installBehavior), true);
  bindRow(
      this, "installBehavior",
      "Install a behavior.\nCheck and take the behavior found at the given absolute path "
      "andimport it to the given local path, relative to behaviors path.\nOn success, "
      "behavior added signal is emitted before returning.",
      {{"absolutePath", "a behavior on the local file system to install."},
       {"localPath", "the relative destination path."},
       {"overwrite", "whether to replace existing behavior if present."}},
      "success", "true on success, false on failure.",
      static_cast<bool (M::*)(const std::string&, const std::string&, bool)>(&M::installBehavior),
      true);
  bindRow(this, "preloadBehavior", "Load a behavior", {{"behavior", behaviorParam}}, "success",
          "Returns true if it was successfully loaded.", &M::loadBehavior);
  bindRow(this, "runBehavior", "Run a behavior", {{"behavior", behaviorParam}}, nullptr, nullptr,
          &M::runBehavior);
  bindRow(this, "stopBehavior", "Stop a behavior", {{"behavior", behaviorParam}}, nullptr, nullptr,
          &M::stopBehavior);
  bindRow(this, "stopAllBehaviors", "Stop all behaviors", {}, nullptr, nullptr,
          &M::stopAllBehaviors);
  bindRow(this, "removeBehavior", "Remove a behavior from the filesystem",
          {{"behavior", behaviorParam}}, nullptr, nullptr, &M::removeBehavior);
  bindRow(this, "isBehaviorInstalled",
          "Tell if supplied name corresponds to a behavior that has been installed",
          {{"name", "The behavior directory name"}}, "return",
          "Returns true if it is a valid behavior", &M::isBehaviorInstalled);
  bindRow(this, "isBehaviorPresent",
          "Tell if the supplied namecorresponds to an existing behavior.",
          {{"prefixedBehavior",
            "Prefixed behavior or just behavior's name (latter usage deprecated, in this case the "
            "behavior is searched for amongst user's behaviors, then in system behaviors) "
            "DEPRECATED."}},
          "return", "Returns true if it is an existing behavior", &M::isBehaviorPresent);
  bindRow(this, "getBehaviorNames", "Get behaviors", {}, "return",
          "Returns the list of behaviors prefixed by their type (User/ or System/). DEPRECATED",
          &M::getBehaviorNames);
  bindRow(this, "getUserBehaviorNames", "Get user's behaviors", {}, "return",
          "Returns the list of user's behaviors prefixed by User/. DEPRECATED.",
          &M::getUserBehaviorNames);
  bindRow(this, "getSystemBehaviorNames", "Get system behaviors", {}, "return",
          "Returns the list of system behaviors prefixed by System/.", &M::getSystemBehaviorNames);
  bindRow(this, "getInstalledBehaviors", "Get installed behaviors directories names", {}, "return",
          "Returns the behaviors list", &M::getInstalledBehaviors);
  bindRow(this, "getBehaviorsByTag",
          "Get installed behaviors directories names and filter it by tag.",
          {{"tag", "A tag to filter the list with."}}, "behaviors", "Returns the behaviors list",
          &M::getBehaviorsByTag);
  bindRow(this, "isBehaviorRunning", "Tell if supplied name corresponds to a running behavior",
          {{"behavior", behaviorParam}}, "return", "Returns true if it is a running behavior",
          &M::isBehaviorRunning);
  bindRow(this, "getRunningBehaviors", "Get running behaviors", {}, "return",
          "Return running behaviors", &M::getRunningBehaviors);
  bindRow(this, "getTagList", "Get tags found on installed behaviors.", {}, "tags",
          "The list of tags found.", &M::getTagList);
  bindRow(this, "getBehaviorTags", "Get tags found on the given behavior.",
          {{"behavior", "The local path towards a behavior or a directory."}}, "tags",
          "The list of tags found.", &M::getBehaviorTags);
  bindRow(this, "addDefaultBehavior", "Set the given behavior as default",
          {{"behavior", behaviorParam}}, nullptr, nullptr, &M::addDefaultBehavior);
  bindRow(this, "removeDefaultBehavior", "Remove the given behavior from the default behaviors",
          {{"behavior", behaviorParam}}, nullptr, nullptr, &M::removeDefaultBehavior);
  bindRow(this, "getDefaultBehaviors", "Get default behaviors", {}, "return",
          "Return default behaviors", &M::getDefaultBehaviors);
  bindRow(this, "playDefaultProject", "Play default behaviors", {}, nullptr, nullptr,
          &M::playDefaultProject);
  bindRow(this, "_onDataChanged",
          "Be notified when something we have subscribe to has changed in ZRMemory",
          {{"dataName", "name of the data"},
           {"dataValue", "value of the data"},
           {"message", "callback message"}},
          nullptr, nullptr, &M::onDataChanged);
  bindRow(this, "_getBehaviorFrameManagerId", "get the FrameManagerID. INTERNAL",
          {{"name", "name of Cadenzo project"}}, "ID", "", &M::getBehaviorFrameManagerId);
  bindRow(this, "_httpFileTransferPort", "Get the port to transfer files between Cadenzo and TUQvu",
          {}, "return", "Return the connection port", &M::httpFileTransferPort);
}

}  // namespace BehaviorManager
}  // namespace ZR
