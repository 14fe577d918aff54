// The module's page in the broker's web interface: loaded, running and installed
// behaviors, with links that play or stop one through "?eval=" requests.
#include <behaviormanager/behaviormanager.h>
#include <vu/html.h>

#include <cctype>

#include "detail.h"

namespace ZR {
namespace BehaviorManager {

namespace {

// One of the two request helpers of the page: `first` is called, then `second` once the
// first request answered 200.
std::string requestPair(const std::string& function, const std::string& first,
                        const std::string& second) {
  return "function " + function +
         " (behavior) {\n"
         "var xhr_object = null;\n"
         "if (window.XMLHttpRequest) {\n"
         "xhr_object = new XMLHttpRequest();\n"
         "}\n"
         "else if (window.ActiveXObject) {\n"
         "xhr_object = new ActiveXObject(\"Microsoft.XMLHTTP\");\n"
         "}\n"
         "else {\n"
         "return;\n"
         "}\n"
         "var evalUrl = document.URL.substring(0, document.URL.lastIndexOf(\"/\") + 1) + "
         "\"?eval=\";\n"
         "xhr_object.onreadystatechange = function () {\n"
         "if (xhr_object.readyState == 4 && xhr_object.status == 200) {\n"
         "xhr_object.onreadystatechange = null;\n"
         "xhr_object.open(\"GET\", evalUrl + \"ZRBehaviorManager." +
         second +
         "('\" + behavior + \"')\");\n"
         "xhr_object.send(null);\n"
         "}\n"
         "}\n"
         "xhr_object.open(\"GET\", evalUrl + \"ZRBehaviorManager." +
         first +
         "('\" + behavior + \"')\");\n"
         "xhr_object.send(null);\n"
         "}\n";
}

const char* const kTableOpen = "<table cellspacing=\"5\" cellpadding=\"5\">";

// A name inside the quoted string of a "javascript:" link. The attribute is decoded as
// HTML, then as a URL (%XX), then run as a script: every ASCII character outside letters,
// digits and " _-./" becomes a \xHH escape, which none of the three decodings touches.
// Bytes of multi-byte UTF-8 characters pass unchanged.
std::string scriptString(const std::string& name) {
  static const char* const kHex = "0123456789abcdef";
  std::string out;
  out.reserve(name.size());
  for (const char c : name) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte >= 0x80 || std::isalnum(byte) || c == ' ' || c == '_' || c == '-' || c == '.' ||
        c == '/') {
      out += c;
    } else {
      out += "\\x";
      out += kHex[byte >> 4];
      out += kHex[byte & 0xF];
    }
  }
  return out;
}

// The page's script pastes a name between the quotes of "?eval=...Behavior('<name>')" as
// it is, so a name holding a quote, "#", "%", "&" or a blank would end the string, cut the
// URL or be decoded into another name. The argument handed to the script is therefore
// the name already written for that place: quotes and backslashes escaped for the
// expression, then every byte outside letters, digits and "-._~/" percent-encoded for
// the URL. The broker decodes both, and the behavior manager receives the name intact.
std::string evalArgument(const std::string& name) {
  static const char* const kHex = "0123456789ABCDEF";
  std::string quoted;
  for (const char c : name) {
    if (c == '\\' || c == '\'') quoted += '\\';
    quoted += c;
  }
  std::string out;
  for (const char c : quoted) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte < 0x80 &&
        (std::isalnum(byte) || c == '-' || c == '.' || c == '_' || c == '~' || c == '/')) {
      out += c;
    } else {
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 0xF];
    }
  }
  return out;
}

// The argument of a link's script call for the behavior `name`.
std::string linkArgument(const std::string& name) {
  return scriptString(evalArgument(name));
}

}  // namespace

std::string ZRBehaviorManager::javaScriptCode() const {
  return requestPair("playBehavior", "loadBehavior", "runBehavior") +
         requestPair("stopBehavior", "stopBehavior", "unloadBehavior");
}

std::string ZRBehaviorManager::httpGet() {
  std::string page = "<html><body><script>" + javaScriptCode() + "</script>";
  {
    ZRCriticalSection section(fRegistryLock);
    if (!fLoadedBehaviors.empty()) {
      page += std::string("<i><u>Loaded behaviors</u></i><br>") + kTableOpen +
              "<tr><td><b>Name</b></td><td><b>Loaded by dependency</b></td></tr>";
      for (const auto& entry : fLoadedBehaviors) {
        page += "<tr><td>" + vu::html::escape(entry.first) + "</td><td>" + "</td></tr>";
      }
      page += "</table><br><br><br>";
    }
  }
  {
    boost::mutex::scoped_lock lock(fRunningMutex);
    if (!fRunning.empty()) {
      page += std::string("<i><u>Running behaviors</u></i><br>") + kTableOpen +
              "<tr><td><b>Name</b></td></tr>";
      for (const std::string& name : fRunning) {
        page += "<tr><td><a href=\"javascript:stopBehavior('" + linkArgument(name) + "');\">" +
                vu::html::escape(name) + "</a></td></tr>";
      }
      page += "</table><br><br><br>";
    }
  }
  const std::vector<std::string> installed = getInstalledBehaviors();
  if (!installed.empty()) {
    page += std::string("<i><u>Installed behaviors</u></i><br>") + kTableOpen +
            "<tr><td><b>Name</b></td></tr>";
    for (const std::string& name : installed) {
      page += "<tr><td><a href=\"javascript:playBehavior('" + linkArgument(name) + "');\">" +
              vu::html::escape(name) + "</a></td></tr>";
    }
    page += "</table>";
  }
  return page + "</body></html>";
}

}  // namespace BehaviorManager
}  // namespace ZR
