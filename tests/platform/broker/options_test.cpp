#include <gtest/gtest.h>
#include <tuqvu/broker/options.h>

using namespace tuqvu::broker;

namespace {
Options parse(std::vector<const char*> args) {
  args.insert(args.begin(), "tuqvu");
  return parseOptions(static_cast<int>(args.size()), args.data());
}
}  // namespace

TEST(Options, Defaults) {
  const Options options = parse({});
  EXPECT_EQ(9600, options.port);
  EXPECT_EQ("127.0.0.1", options.bind);  // loopback until the administrator opens it
  EXPECT_TRUE(options.hostNames.empty());
  EXPECT_EQ("", options.secretFile);
  EXPECT_EQ(4, options.logLevel);
  EXPECT_FALSE(options.modulesGiven);
  EXPECT_TRUE(options.modules.empty());
  EXPECT_FALSE(options.showHelp);
  EXPECT_FALSE(options.showVersion);
}

TEST(Options, ReadsEveryOptionInBothForms) {
  const Options options =
      parse({"--port", "0", "--bind=127.0.0.1", "--module", "/x/libzrbehaviormanager.so",
             "--module=Other=/y/libother.so.1", "--optional-module", "/z/libextra.so",
             "--log-level", "6", "--shutdown-grace=250", "--help", "--version"});
  EXPECT_EQ(0, options.port);
  EXPECT_EQ("127.0.0.1", options.bind);
  ASSERT_EQ(3u, options.modules.size());
  EXPECT_EQ("/x/libzrbehaviormanager.so", options.modules[0].path);
  EXPECT_EQ("ZRBehaviorManager", options.modules[0].name);
  EXPECT_FALSE(options.modules[0].optional);
  EXPECT_EQ("/y/libother.so.1", options.modules[1].path);
  EXPECT_EQ("Other", options.modules[1].name);
  EXPECT_EQ("extra", options.modules[2].name);
  EXPECT_TRUE(options.modules[2].optional);
  EXPECT_TRUE(options.modulesGiven);
  EXPECT_EQ(6, options.logLevel);
  EXPECT_EQ(250, options.shutdownGraceMs);
  EXPECT_TRUE(options.showHelp);
  EXPECT_TRUE(options.showVersion);
}

TEST(Options, HostNamesAndTheSecretFileAreRead) {
  const Options options = parse(
      {"--host-name", "robot.local", "--host-name=robot-7", "--secret-file", "/etc/tuqvu/secret"});
  EXPECT_EQ((std::vector<std::string>{"robot.local", "robot-7"}), options.hostNames);
  EXPECT_EQ("/etc/tuqvu/secret", options.secretFile);
  EXPECT_FALSE(options.trustLoopback);
}

TEST(Options, LoopbackIsTrustedOnlyWhenTheAdministratorSaysSo) {
  EXPECT_FALSE(parse({}).trustLoopback);
  EXPECT_TRUE(parse({"--trust-loopback"}).trustLoopback);
}

TEST(Options, RefusesBadValuesWithAReason) {
  const std::vector<std::vector<const char*>> bad = {{"--port", "65536"},
                                                     {"--port", "-1"},
                                                     {"--port", "12a"},
                                                     {"--port"},
                                                     {"--bind", "nowhere"},
                                                     {"--log-level", "0"},
                                                     {"--log-level", "7"},
                                                     {"--module"},
                                                     {"--module", ""},
                                                     {"--frobnicate"},
                                                     {"extra"}};
  for (const auto& args : bad) {
    EXPECT_THROW(parse(args), OptionsError) << args[0];
  }
  try {
    parse({"--port", "99999"});
  } catch (const OptionsError& error) {
    EXPECT_NE(std::string::npos, std::string(error.what()).find("--port"));
  }
}

TEST(Options, ModuleNamesComeFromTheLibraryFileUnlessGiven) {
  EXPECT_EQ("ZRBehaviorManager", moduleNameForLibrary("build/lib/libzrbehaviormanager.so"));
  EXPECT_EQ("mything", moduleNameForLibrary("libmything.so"));
  EXPECT_EQ("plain", moduleNameForLibrary("/a/b/plain"));
  const ModuleSpec named = parseModuleArgument("Mine=/a=b/lib.so", false);
  EXPECT_EQ("Mine", named.name);
  EXPECT_EQ("/a=b/lib.so", named.path);
  const ModuleSpec pathWithEquals = parseModuleArgument("/a=b/libq.so", false);
  EXPECT_EQ("/a=b/libq.so", pathWithEquals.path);
  EXPECT_EQ("q", pathWithEquals.name);
}

TEST(Options, HelpNamesEveryOption) {
  const std::string help = helpText();
  for (const char* option :
       {"--port", "--bind", "--module", "--log-level", "--help", "--version", "--host-name",
        "--secret-file", "--trust-loopback", "HOME", "TUQVU_SDK_PREFIX"}) {
    EXPECT_NE(std::string::npos, help.find(option)) << option;
  }
  EXPECT_EQ(0u, versionText().find("tuqvu "));
}

TEST(Options, HttpsIsOnBeyondLoopbackAndOnLoopbackOnlyWhenAsked) {
  EXPECT_FALSE(parse({}).servesHttps(false));
  EXPECT_TRUE(parse({}).servesHttps(true));
  EXPECT_TRUE(parse({"--https"}).servesHttps(false));
  const Options owned = parse({"--tls-cert", "/etc/robot.pem", "--tls-key=/etc/robot.key"});
  EXPECT_EQ("/etc/robot.pem", owned.tlsCertificate);
  EXPECT_EQ("/etc/robot.key", owned.tlsKey);
  EXPECT_TRUE(owned.servesHttps(false));  // a certificate given is a certificate to serve
  EXPECT_FALSE(parse({}).allowPlainHttp);
  EXPECT_TRUE(parse({"--allow-plain-http"}).allowPlainHttp);
}

TEST(Options, ACertificateWithoutItsKeyIsRefused) {
  for (const std::vector<const char*>& args :
       {std::vector<const char*>{"--tls-cert", "/etc/robot.pem"},
        std::vector<const char*>{"--tls-key", "/etc/robot.key"},
        std::vector<const char*>{"--tls-cert"}}) {
    EXPECT_THROW(parse(args), OptionsError) << args[0];
  }
}
