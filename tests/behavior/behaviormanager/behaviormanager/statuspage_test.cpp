#include <zr/zrmutex.h>

#include <cctype>
#include <string>
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
      "x\\x253Cimg\\x2520src\\x253Dx\\x2520onerror\\x253Dalert\\x25281\\x2529\\x253E\\x255C"
      "\\x2527\\x2522\\x2529\\x253Balert\\x25282\\x2529//\\x252527\\x2526amp\\x253B";
  EXPECT_NE(page.find("<tr><td><a href=\"javascript:stopBehavior('" + script + "');\">" + text +
                      "</a></td></tr>"),
            std::string::npos)
      << page;
}

// What the browser does with a link's argument: the href is a URL (%XX decoded), then a
// script whose string literal holds \xHH escapes; the script pastes the string into the
// "?eval=" URL, which the broker percent-decodes, and the expression's quoted string
// takes backslash escapes.
std::string percentDecoded(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(text[i + 1]) &&
        std::isxdigit(text[i + 2])) {
      out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}
std::string scriptDecoded(const std::string& literal) {
  std::string out;
  for (std::size_t i = 0; i < literal.size(); ++i) {
    if (literal.compare(i, 2, "\\x") == 0) {
      out += static_cast<char>(std::stoi(literal.substr(i + 2, 2), nullptr, 16));
      i += 3;
    } else {
      out += literal[i];
    }
  }
  return out;
}
std::string expressionString(const std::string& quotedBody) {
  std::string out;
  for (std::size_t i = 0; i < quotedBody.size(); ++i) {
    if (quotedBody[i] == '\\' && i + 1 < quotedBody.size()) ++i;
    out += quotedBody[i];
  }
  return out;
}

TEST_F(StatusPage, ANameReachesTheEvalRequestIntactWhateverCharactersItHolds) {
  startPlatform();
  startManager();
  for (const std::string& name :
       {std::string("r8')#"), std::string("a b&c=d"), std::string("100% sure"),
        std::string("back\\slash'"), std::string("n\xc3\xa9 \"q\""), std::string("x#y?z")}) {
    manager->setBehaviorState(name, ZR::BehaviorManager::StateRunning);
    const std::string page = manager->httpGet();
    manager->setBehaviorState(name, ZR::BehaviorManager::StateUnloaded);
    const std::string open = "javascript:stopBehavior('";
    const std::size_t begin = page.find(open);
    ASSERT_NE(begin, std::string::npos) << page;
    const std::size_t end = page.find("');\"", begin);
    const std::string argument = page.substr(begin + open.size(), end - begin - open.size());
    // Nothing in it ends the string, the URL or the query, nor is it decoded twice.
    EXPECT_EQ(argument.find_first_of("'\"#&? <>"), std::string::npos) << argument;
    const std::string inScript = scriptDecoded(percentDecoded(argument));
    const std::string url = "?eval=ZRBehaviorManager.stopBehavior('" + inScript + "')";
    EXPECT_EQ(url.find('#'), std::string::npos) << url;
    const std::string expression = percentDecoded(url.substr(6));
    const std::string prefix = "ZRBehaviorManager.stopBehavior('";
    ASSERT_EQ(expression.rfind(prefix, 0), 0u) << expression;
    ASSERT_EQ(expression.substr(expression.size() - 2), "')") << expression;
    EXPECT_EQ(
        expressionString(expression.substr(prefix.size(), expression.size() - prefix.size() - 2)),
        name);
  }
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
