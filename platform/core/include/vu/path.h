// vu::path — where the installation keeps its read-only data and where a user's
// writable data goes.
//
//   sdkPrefix()                      $TUQVU_SDK_PREFIX, else the prefix of the running binary
//   findData("tuqvu", "behaviors")   "<prefix>/share/tuqvu/behaviors" if it exists, else ""
//   userWritableDataPath("tuqvu", "DefaultBehaviors.xml")
//                                    "$XDG_DATA_HOME/tuqvu/DefaultBehaviors.xml"
//   userConfigPath("tuqvu", "secret") "$XDG_CONFIG_HOME/tuqvu/secret"
#pragma once

#include <string>

namespace vu {
namespace path {

// The installation prefix. TUQVU_SDK_PREFIX wins when set; otherwise the prefix is the
// parent of the folder holding the running executable (".../bin/tuqvu" gives "..."),
// and a build tree (no share/tuqvu there) falls back to the source tree.
std::string sdkPrefix();

// The first existing "<prefix>/share/<application>/<name>" (an empty name means the
// application's data folder itself); "" when nothing exists there.
std::string findData(const std::string& application, const std::string& name);

// "<data home>/<application>/<name>", where the data home is $XDG_DATA_HOME when it
// is an absolute path, else "$HOME/.local/share". Nothing is created.
std::string userWritableDataPath(const std::string& application, const std::string& name);

// "<config home>/<application>/<name>", where the config home is $XDG_CONFIG_HOME when
// it is an absolute path, else "$HOME/.config". Nothing is created. No server of the
// platform serves this folder: what grants access (the secret) lives here.
std::string userConfigPath(const std::string& application, const std::string& name);

}  // namespace path
}  // namespace vu
