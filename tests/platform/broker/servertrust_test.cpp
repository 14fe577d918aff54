#include <common/environment.h>
#include <gtest/gtest.h>
#include <tuqvu/broker/cli.h>
#include <tuqvu/broker/servertrust.h>

#include <iostream>
#include <sstream>

using namespace tuqvu::broker;

namespace {

const std::string kSeen =
    "AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:"
    "89";
const std::string kOther =
    "01:02:03:04:05:06:07:08:09:0A:0B:0C:0D:0E:0F:10:11:12:13:14:15:16:17:18:19:1A:1B:1C:1D:1E:1F:"
    "20";
const std::string kFile = "/home/u/.config/tuqvu/known_robots";

ServerTrust plainTrust() {
  ServerTrust trust;
  trust.knownRobots = kFile;
  return trust;
}

ServerTrust pinnedTo(const std::string& fingerprint) {
  ServerTrust trust = plainTrust();
  trust.pinned = fingerprint;
  trust.pinnedFrom = "--fingerprint";
  return trust;
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

TEST(ServerTrust, APinnedFingerprintDecidesAloneWhateverElseIsKnown) {
  const std::vector<KnownRobot> recorded = {{"robot:9600", kSeen, 1}};
  EXPECT_EQ(TrustVerdict::Pinned, decideTrust(pinnedTo(kSeen), kSeen, false, {}));
  EXPECT_EQ(TrustVerdict::PinMismatch, decideTrust(pinnedTo(kOther), kSeen, false, {}));
  // Neither an authority's signature nor the known-robots file overrules the pin.
  EXPECT_EQ(TrustVerdict::PinMismatch, decideTrust(pinnedTo(kOther), kSeen, true, recorded));
  ServerTrust lenient = pinnedTo(kOther);
  lenient.trustNew = true;
  lenient.ask = [](const std::string&) { return true; };
  EXPECT_EQ(TrustVerdict::PinMismatch, decideTrust(lenient, kSeen, false, {}));
}

TEST(ServerTrust, ACertificateTheAuthoritiesVouchForIsTrustedWithoutTheFile) {
  const std::vector<KnownRobot> changed = {{"robot:9600", kOther, 1}};
  EXPECT_EQ(TrustVerdict::Verified, decideTrust(plainTrust(), kSeen, true, {}));
  EXPECT_EQ(TrustVerdict::Verified, decideTrust(plainTrust(), kSeen, true, changed));
}

TEST(ServerTrust, AKnownRobotMustPresentARecordedFingerprint) {
  EXPECT_EQ(TrustVerdict::Known,
            decideTrust(plainTrust(), kSeen, false, {{"robot:9600", kSeen, 4}}));
  EXPECT_EQ(TrustVerdict::Known,
            decideTrust(plainTrust(), kSeen, false,
                        {{"robot:9600", kOther, 1}, {"robot:9600", kSeen, 2}}));
  EXPECT_EQ(TrustVerdict::Changed,
            decideTrust(plainTrust(), kSeen, false, {{"robot:9600", kOther, 4}}));
  // Neither --trust-new nor a user at the terminal turns a changed certificate into a new one.
  ServerTrust lenient = plainTrust();
  lenient.trustNew = true;
  lenient.ask = [](const std::string&) { return true; };
  EXPECT_EQ(TrustVerdict::Changed, decideTrust(lenient, kSeen, false, {{"robot:9600", kOther, 4}}));
}

TEST(ServerTrust, ARobotMetFirstIsRecordedWithTrustNewAskedAboutOnATerminalElseRefused) {
  EXPECT_EQ(TrustVerdict::Unknown, decideTrust(plainTrust(), kSeen, false, {}));
  ServerTrust asking = plainTrust();
  asking.ask = [](const std::string&) { return false; };
  EXPECT_EQ(TrustVerdict::AskUser, decideTrust(asking, kSeen, false, {}));
  ServerTrust trustNew = plainTrust();
  trustNew.trustNew = true;
  EXPECT_EQ(TrustVerdict::RecordNew, decideTrust(trustNew, kSeen, false, {}));
  trustNew.ask = asking.ask;
  EXPECT_EQ(TrustVerdict::RecordNew, decideTrust(trustNew, kSeen, false, {}));
}

TEST(ServerTrust, TheChangedCertificateWarningShowsBothFingerprintsAndHowToForgetTheOldOne) {
  const std::string message = changedCertificateMessage(
      "robot:9600", {{"robot:9600", kOther, 3}, {"robot:9600", kOther, 7}}, kSeen, kFile);
  for (const std::string& part :
       {std::string("WARNING: THE CERTIFICATE OF robot:9600 HAS CHANGED"), kSeen, kOther,
        std::string("intercepting"), std::string("Nothing was sent"),
        std::string("remove lines 3 and 7 of " + kFile), "sed -i '3d;7d' " + kFile,
        std::string("tuqvu-call --fingerprint")}) {
    EXPECT_TRUE(contains(message, part)) << part << "\n" << message;
  }
}

TEST(ServerTrust, ThePinMismatchWarningShowsBothFingerprintsAndWhereThePinCameFrom) {
  ServerTrust trust = pinnedTo(kOther);
  trust.pinnedFrom = "TUQVU_FINGERPRINT";
  const std::string message = pinMismatchMessage("[::1]:9600", trust, kSeen);
  for (const std::string& part :
       {std::string("[::1]:9600"), std::string("TUQVU_FINGERPRINT"),
        std::string("expected:  ") + kOther, std::string("presented: ") + kSeen,
        std::string("intercepting"), std::string("Nothing was sent")}) {
    EXPECT_TRUE(contains(message, part)) << part << "\n" << message;
  }
}

TEST(ServerTrust, TheRefusalOfANewRobotShowsItsFingerprintAndBothWaysOn) {
  const std::string message = unknownRobotMessage("robot:9600", kSeen, kFile);
  for (const std::string& part :
       {std::string("robot:9600"), std::string("Nothing was sent"), kSeen, "--fingerprint " + kSeen,
        std::string("TUQVU_FINGERPRINT"), std::string("--trust-new"), kFile}) {
    EXPECT_TRUE(contains(message, part)) << part << "\n" << message;
  }
  const std::string question = trustQuestion("robot:9600", kSeen, kFile);
  EXPECT_TRUE(contains(question, kSeen)) << question;
  EXPECT_TRUE(contains(question, "Trust it and remember it in " + kFile + "? (yes/no) "))
      << question;
  EXPECT_TRUE(contains(recordedNotice("robot:9600", kSeen, kFile), kSeen));
}

TEST(ServerTrust, TheCommandLineFingerprintWinsOverTheEnvironment) {
  tuqvutest::ScopedEnvironment environment("TUQVU_FINGERPRINT", kOther);
  CliCommand command;
  command.fingerprint = kSeen;
  command.trustNew = true;
  ServerTrust trust = serverTrustOf(command);
  EXPECT_EQ(kSeen, trust.pinned);
  EXPECT_EQ("--fingerprint", trust.pinnedFrom);
  EXPECT_TRUE(trust.trustNew);

  command.fingerprint.clear();
  command.trustNew = false;
  trust = serverTrustOf(command);
  EXPECT_EQ(kOther, trust.pinned);
  EXPECT_EQ("TUQVU_FINGERPRINT", trust.pinnedFrom);
  EXPECT_FALSE(trust.trustNew);
}

TEST(ServerTrust, TheEnvironmentsFingerprintIsReadAsTypedAndRefusedWhenItIsNone) {
  {
    tuqvutest::ScopedEnvironment environment(
        "TUQVU_FINGERPRINT",
        "sha256:abcdef0123456789abcdef0123456789abcdef0123456789abcdef0123456789");
    EXPECT_EQ(kSeen, serverTrustOf(CliCommand()).pinned);
  }
  {
    tuqvutest::ScopedEnvironment environment("TUQVU_FINGERPRINT", "");
    EXPECT_EQ("", serverTrustOf(CliCommand()).pinned);
  }
  tuqvutest::ScopedEnvironment environment("TUQVU_FINGERPRINT", "AB:CD");
  try {
    serverTrustOf(CliCommand());
    FAIL() << "no error";
  } catch (const UsageError& error) {
    EXPECT_TRUE(contains(error.what(), "TUQVU_FINGERPRINT")) << error.what();
    EXPECT_TRUE(contains(error.what(), "\"AB:CD\"")) << error.what();
  }
}

TEST(ServerTrust, TheKnownRobotsFileIsTheUsersOwn) {
  tuqvutest::ScopedEnvironment config("XDG_CONFIG_HOME", "/somewhere/config");
  tuqvutest::ScopedEnvironment environment("TUQVU_FINGERPRINT", nullptr);
  const ServerTrust trust = serverTrustOf(CliCommand());
  EXPECT_EQ("/somewhere/config/tuqvu/known_robots", trust.knownRobots);
  EXPECT_EQ("", trust.pinned);
}

namespace {

// Standard input and error of this process replaced for the lifetime of the object.
class ConsoleStandIn {
public:
  explicit ConsoleStandIn(const std::string& input)
      : fInput(input),
        fOldIn(std::cin.rdbuf(fInput.rdbuf())),
        fOldErr(std::cerr.rdbuf(fErr.rdbuf())) {}
  ~ConsoleStandIn() {
    std::cin.rdbuf(fOldIn);
    std::cin.clear();
    std::cerr.rdbuf(fOldErr);
  }
  std::string shown() const { return fErr.str(); }

private:
  std::istringstream fInput;
  std::ostringstream fErr;
  std::streambuf* fOldIn;
  std::streambuf* fOldErr;
};

}  // namespace

TEST(ServerTrust, TheTerminalQuestionTakesYesOrNoAndAsksAgainForAnythingElse) {
  {
    ConsoleStandIn console("maybe\n  Yes \n");
    EXPECT_TRUE(askOnTerminal("Trust it? (yes/no) "));
    EXPECT_EQ("Trust it? (yes/no) Please type yes or no: ", console.shown());
  }
  {
    ConsoleStandIn console("y\n");
    EXPECT_TRUE(askOnTerminal("?"));
  }
  {
    ConsoleStandIn console("no\n");
    EXPECT_FALSE(askOnTerminal("?"));
  }
  {
    ConsoleStandIn console("N\n");
    EXPECT_FALSE(askOnTerminal("?"));
  }
  {
    ConsoleStandIn console("");  // the input ended: no
    EXPECT_FALSE(askOnTerminal("?"));
  }
}
