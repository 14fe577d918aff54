#include <zr/zrmutex.h>

#include <thread>

#include "fixture.h"

namespace bmtest {
namespace {

class StatusPage : public ManagerTest {
protected:
  // The page's fixed opening: the document, the script and its closing tag.
  std::string opening() { return "<html><body><script>" + manager->javaScriptCode() + "</script>"; }
};

std::string scriptLines(const std::string& function, const std::string& first,
                        const std::string& second) {
  const std::vector<std::string> lines = {
      "function " + function + " (behavior) {",
      "var xhr_object = null;",
      "if (window.XMLHttpRequest) {",
      "xhr_object = new XMLHttpRequest();",
      "}",
      "else if (window.ActiveXObject) {",
      "xhr_object = new ActiveXObject(\"Microsoft.XMLHTTP\");",
      "}",
      "else {",
      "return;",
      "}",
      "var evalUrl = document.URL.substring(0, document.URL.lastIndexOf(\"/\") + 1) + \"?eval=\";",
      "xhr_object.onreadystatechange = function () {",
      "if (xhr_object.readyState == 4 && xhr_object.status == 200) {",
      "xhr_object.onreadystatechange = null;",
      "xhr_object.open(\"GET\", evalUrl + \"ZRBehaviorManager." + second +
          "('\" + behavior + \"')\");",
      "xhr_object.send(null);",
      "}",
      "}",
      "xhr_object.open(\"GET\", evalUrl + \"ZRBehaviorManager." + first +
          "('\" + behavior + \"')\");",
      "xhr_object.send(null);",
      "}",
  };
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

TEST_F(StatusPage, ScriptIsTheFixedTextOf1381Characters) {
  startPlatform();
  startManager();
  const std::string script = manager->javaScriptCode();
  EXPECT_EQ(script.size(), 1381u);
  EXPECT_EQ(script, scriptLines("playBehavior", "loadBehavior", "runBehavior") +
                        scriptLines("stopBehavior", "stopBehavior", "unloadBehavior"));
  EXPECT_EQ(script.back(), '\n');
  EXPECT_EQ(script.find("  "), std::string::npos);  // no indentation
}

TEST_F(StatusPage, EmptyManagerGivesOnlyTheScript) {
  startPlatform();
  startManager();
  EXPECT_EQ(manager->httpGet(), opening() + "</body></html>");
}

TEST_F(StatusPage, LoadedRunningAndInstalledSectionsHaveTheirExactRows) {
  makeBehavior(userRoot() / "a", "<behavior><repeat><wait ms=\"50\"/></repeat></behavior>");
  makeBehavior(userRoot() / "b");
  startPlatform();
  startManager();
  ASSERT_TRUE(manager->loadBehavior("b"));
  std::thread runner([&] {
    try {
      manager->runBehavior("a");
    } catch (const std::exception&) {
    }
  });
  ASSERT_TRUE(manager->waitBehaviorState("a", ZR::BehaviorManager::StateRunning, 10000));
  const std::string table = "<table cellspacing=\"5\" cellpadding=\"5\">";
  const std::string page = manager->httpGet();
  manager->stopBehavior("a");
  runner.join();

  const std::string expected =
      opening() + "<i><u>Loaded behaviors</u></i><br>" + table +
      "<tr><td><b>Name</b></td><td><b>Loaded by dependency</b></td></tr>"
      "<tr><td>a</td><td></td></tr><tr><td>b</td><td></td></tr></table><br><br><br>"
      "<i><u>Running behaviors</u></i><br>" +
      table +
      "<tr><td><b>Name</b></td></tr>"
      "<tr><td><a href=\"javascript:stopBehavior('a');\">a</a></td></tr></table><br><br><br>"
      "<i><u>Installed behaviors</u></i><br>" +
      table +
      "<tr><td><b>Name</b></td></tr>"
      "<tr><td><a href=\"javascript:playBehavior('a');\">a</a></td></tr>"
      "<tr><td><a href=\"javascript:playBehavior('b');\">b</a></td></tr></table></body></html>";
  EXPECT_EQ(page, expected);
}

TEST_F(StatusPage, RowsCarryPlainNamesUnchanged) {
  startPlatform();
  startManager();
  // A name without special characters is printed untouched.
  manager->setBehaviorState("User/a", ZR::BehaviorManager::StateRunning);
  const std::string page = manager->httpGet();
  EXPECT_NE(
      page.find("<tr><td><a href=\"javascript:stopBehavior('User/a');\">User/a</a></td></tr>"),
      std::string::npos);
  manager->setBehaviorState("User/a", ZR::BehaviorManager::StateUnloaded);
}

TEST_F(StatusPage, AHostileNameIsEscapedInTheTextAndInTheScriptOfItsLink) {
  startPlatform();
  startManager();
  const std::string name = "x<img src=x onerror=alert(1)>'\");alert(2)//%27&amp;";
  manager->setBehaviorState(name, ZR::BehaviorManager::StateRunning);
  const std::string page = manager->httpGet();
  manager->setBehaviorState(name, ZR::BehaviorManager::StateUnloaded);
  EXPECT_EQ(page.find("<img"), std::string::npos) << page;
  EXPECT_EQ(page.find("alert(1)>"), std::string::npos);
  const std::string text = "x&lt;img src=x onerror=alert(1)&gt;&#39;&quot;);alert(2)//%27&amp;amp;";
  const std::string script =
      "x\\x3cimg src\\x3dx onerror\\x3dalert\\x281\\x29\\x3e\\x27\\x22\\x29\\x3balert\\x282\\x29//"
      "\\x2527\\x26amp\\x3b";
  EXPECT_NE(page.find("<tr><td><a href=\"javascript:stopBehavior('" + script + "');\">" + text +
                      "</a></td></tr>"),
            std::string::npos)
      << page;
}

TEST_F(StatusPage, FileTransferPortIsTheServersPort) {
  startPlatform();
  startManager();
  const int port = manager->httpFileTransferPort();
  EXPECT_GE(port, 15000);
  ZR::ZRValue result =
      broker->call("ZRBehaviorManager", "_httpFileTransferPort", ZR::ZRValue::array());
  EXPECT_EQ(result, ZR::ZRValue(port));
}

}  // namespace
}  // namespace bmtest
