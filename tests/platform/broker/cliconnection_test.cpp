// tuqvu-call's connections to https servers: an `openssl s_server` as the robot, the
// known-robots file in a temporary config folder.
#include <common/environment.h>
#include <common/eventually.h>
#include <common/files.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tuqvu/broker/cli.h>
#include <tuqvu/broker/cliclient.h>
#include <tuqvu/broker/knownrobots.h>
#include <tuqvu/broker/servertrust.h>
#include <tuqvu/broker/tlsfingerprint.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <sstream>
#include <thread>

#include "support/tlspeer.h"
#include "support/tuqvuprocess.h"

using namespace tuqvu::broker;
namespace net = boost::asio;

namespace {

class CliConnection : public ::testing::Test {
protected:
  CliConnection()
      : fHome("HOME", fFolder.path()),
        fConfig("XDG_CONFIG_HOME", fFolder.path() + "/config"),
        fNoPin("TUQVU_FINGERPRINT", nullptr) {}

  // A certificate of its own for each robot of a test.
  brokertest::TestCertificate robotCertificate(const std::string& name) {
    return brokertest::makeSelfSignedCertificate(fFolder.path() + "/" + name);
  }
  static Url urlOf(int port, const std::string& host = "127.0.0.1") {
    return parseUrl("https://" + host + ":" + std::to_string(port));
  }
  // What the trust of tuqvu-call is with no option, nobody at a terminal and its notices
  // kept here.
  ServerTrust trust() {
    ServerTrust trust;
    trust.notices = &notices;
    return trust;
  }
  const std::string& folder() const { return fFolder.path(); }
  std::string knownRobotsFile() const { return fFolder.path() + "/config/tuqvu/known_robots"; }
  bool knownRobotsFileExists() const {
    struct stat status {};
    return ::stat(knownRobotsFile().c_str(), &status) == 0;
  }
  // The message of the refusal of a connection; "" when it was made.
  std::string refusalOf(const Url& url, const ServerTrust& trust) {
    try {
      net::io_context ioc;
      connectToServer(ioc, url, trust);
    } catch (const UntrustedServer& error) {
      return error.what();
    }
    return "";
  }

  std::ostringstream notices;

private:
  brokertest::TempDir fFolder;
  tuqvutest::ScopedEnvironment fHome;
  tuqvutest::ScopedEnvironment fConfig;
  tuqvutest::ScopedEnvironment fNoPin;
};

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

TEST_F(CliConnection, ThePinnedFingerprintConnectsAndTheRequestArrivesEncrypted) {
  const brokertest::TestCertificate robot = robotCertificate("robot");
  brokertest::OpensslServer server(robot);
  ServerTrust pinned = trust();
  pinned.pinned = fingerprintOfPemFile(robot.certificate);

  net::io_context ioc;
  Stream stream = connectToServer(ioc, urlOf(server.port()), pinned);
  EXPECT_TRUE(stream.encrypted());
  net::write(stream, net::buffer(std::string("hello through TLS\n")));
  EXPECT_TRUE(tuqvutest::eventually([&] {
    return contains(server.received(), "hello through TLS");
  })) << server.received();
  closeConnection(ioc, stream);
  EXPECT_FALSE(knownRobotsFileExists());  // a pin needs no file and writes none
}

TEST_F(CliConnection, AnotherCertificateThanThePinnedOneIsRefusedShowingBoth) {
  const brokertest::TestCertificate robot = robotCertificate("robot");
  const brokertest::TestCertificate other = robotCertificate("other");
  brokertest::OpensslServer server(robot);
  ServerTrust pinned = trust();
  pinned.pinned = fingerprintOfPemFile(other.certificate);
  pinned.pinnedFrom = "--fingerprint";
  pinned.trustNew = true;  // no way around a pin

  const std::string message = refusalOf(urlOf(server.port()), pinned);
  EXPECT_TRUE(
      contains(message, "WARNING: the certificate of 127.0.0.1:" + std::to_string(server.port()) +
                            " is not the one given with --fingerprint"))
      << message;
  EXPECT_TRUE(contains(message, "expected:  " + pinned.pinned)) << message;
  EXPECT_TRUE(contains(message, "presented: " + fingerprintOfPemFile(robot.certificate)))
      << message;
  EXPECT_FALSE(knownRobotsFileExists());
}

TEST_F(CliConnection, ARobotMetFirstWithoutATerminalIsRefusedShowingItsFingerprint) {
  const brokertest::TestCertificate robot = robotCertificate("robot");
  brokertest::OpensslServer server(robot);
  const std::string message = refusalOf(urlOf(server.port()), trust());
  const std::string fingerprint = fingerprintOfPemFile(robot.certificate);
  EXPECT_TRUE(contains(
      message, "the robot 127.0.0.1:" + std::to_string(server.port()) + " is not known yet"))
      << message;
  EXPECT_TRUE(contains(message, "--fingerprint " + fingerprint)) << message;
  EXPECT_TRUE(contains(message, "--trust-new")) << message;
  EXPECT_TRUE(contains(message, knownRobotsFile())) << message;
  EXPECT_FALSE(knownRobotsFileExists());
}

TEST_F(CliConnection, TrustNewRemembersARobotMetFirstAndTheNextConnectionNeedsItNoMore) {
  const brokertest::TestCertificate robot = robotCertificate("robot");
  brokertest::OpensslServer server(robot);
  const std::string fingerprint = fingerprintOfPemFile(robot.certificate);
  ServerTrust trustNew = trust();
  trustNew.trustNew = true;
  EXPECT_EQ("", refusalOf(urlOf(server.port()), trustNew));
  EXPECT_EQ("127.0.0.1:" + std::to_string(server.port()) + " " + fingerprint + "\n",
            tuqvutest::readFile(knownRobotsFile()));
  EXPECT_TRUE(contains(notices.str(), fingerprint)) << notices.str();
  struct stat status {};
  ASSERT_EQ(0, ::stat(knownRobotsFile().c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 07777);

  EXPECT_EQ("", refusalOf(urlOf(server.port()), trust()));
  // Remembered once only.
  EXPECT_EQ(1u, readKnownRobots(knownRobotsFile()).size());
  // The same robot on another port is another robot.
  brokertest::OpensslServer elsewhere(robot);
  EXPECT_TRUE(contains(refusalOf(urlOf(elsewhere.port()), trust()), "is not known yet"));
}

TEST_F(CliConnection, AChangedCertificateOnTheSameHostAndPortIsRefusedLoudly) {
  const brokertest::TestCertificate before = robotCertificate("before");
  const brokertest::TestCertificate after = robotCertificate("after");
  int port = 0;
  {
    brokertest::OpensslServer server(before);
    port = server.port();
    ServerTrust trustNew = trust();
    trustNew.trustNew = true;
    ASSERT_EQ("", refusalOf(urlOf(port), trustNew));
  }
  brokertest::OpensslServer server(after, port);
  ServerTrust lenient = trust();
  lenient.trustNew = true;  // changes nothing for a robot already known
  lenient.ask = [](const std::string&) { return true; };
  const std::string message = refusalOf(urlOf(port), lenient);
  EXPECT_TRUE(contains(
      message, "WARNING: THE CERTIFICATE OF 127.0.0.1:" + std::to_string(port) + " HAS CHANGED!"))
      << message;
  EXPECT_TRUE(contains(message, fingerprintOfPemFile(before.certificate))) << message;
  EXPECT_TRUE(contains(message, "presented now: " + fingerprintOfPemFile(after.certificate)))
      << message;
  EXPECT_TRUE(contains(message, "sed -i '1d' " + knownRobotsFile())) << message;
  EXPECT_EQ(1u, readKnownRobots(knownRobotsFile()).size());  // nothing added
}

TEST_F(CliConnection, AUserWhoSaysYesHasTheRobotRememberedAndIsConnected) {
  const brokertest::TestCertificate robot = robotCertificate("robot");
  brokertest::OpensslServer server(robot);
  const std::string fingerprint = fingerprintOfPemFile(robot.certificate);
  std::vector<std::string> questions;
  ServerTrust asking = trust();
  asking.ask = [&](const std::string& question) {
    questions.push_back(question);
    return true;
  };
  net::io_context ioc;
  Stream stream = connectToServer(ioc, urlOf(server.port()), asking);
  ASSERT_EQ(1u, questions.size());
  EXPECT_TRUE(contains(questions[0], fingerprint)) << questions[0];
  EXPECT_TRUE(contains(questions[0], "Trust it and remember it in " + knownRobotsFile() + "?"))
      << questions[0];
  net::write(stream, net::buffer(std::string("after yes\n")));
  EXPECT_TRUE(tuqvutest::eventually([&] { return contains(server.received(), "after yes"); }));
  EXPECT_EQ(fingerprint, readKnownRobots(knownRobotsFile()).at(0).fingerprint);
}

TEST_F(CliConnection, AUserWhoSaysNoHasNothingRememberedNorSent) {
  const brokertest::TestCertificate robot = robotCertificate("robot");
  brokertest::OpensslServer server(robot);
  ServerTrust asking = trust();
  asking.ask = [](const std::string&) { return false; };
  EXPECT_TRUE(contains(refusalOf(urlOf(server.port()), asking), "was not trusted"));
  EXPECT_FALSE(knownRobotsFileExists());
}

TEST_F(CliConnection, NeitherTheCallNorTheSecretIsSentToARobotThatIsNotTrusted) {
  const brokertest::TestCertificate robot = robotCertificate("robot");
  brokertest::OpensslServer server(robot);
  tuqvutest::ScopedEnvironment secret("TUQVU_SECRET", "0123456789abcdef0123456789abcdef");
  Feedback feedback(std::cerr, false);
  EXPECT_THROW(runCall(urlOf(server.port()), trust(), "ZRBroker.getModules", {}, feedback),
               UntrustedServer);
  EXPECT_THROW(runWatch(urlOf(server.port()), trust(), {}), UntrustedServer);
  // The server saw the handshakes end, and nothing after them.
  EXPECT_TRUE(tuqvutest::eventually([&] {
    return contains(server.received(), "CONNECTION CLOSED") || contains(server.received(), "ERROR");
  }));
  const std::string received = server.received();
  EXPECT_FALSE(contains(received, "POST")) << received;
  EXPECT_FALSE(contains(received, "GET")) << received;
  EXPECT_FALSE(contains(received, "Authorization")) << received;
}

TEST_F(CliConnection, ACertificateAnAuthorityOfTheSystemSignedForTheHostNameIsTrusted) {
  const auto [authority, signedForLocalhost] =
      brokertest::makeAuthorityAndServer(folder() + "/authority", {"DNS:localhost"});
  tuqvutest::ScopedEnvironment authorities("SSL_CERT_FILE", authority.certificate);
  tuqvutest::ScopedEnvironment noOtherAuthorities("SSL_CERT_DIR", folder() + "/none");
  brokertest::OpensslServer server(signedForLocalhost);
  {
    tuqvutest::ScopedEnvironment noAuthority("SSL_CERT_FILE", folder() + "/none.pem");
    tuqvutest::ScopedEnvironment noAuthorities("SSL_CERT_DIR", folder() + "/none");
    EXPECT_TRUE(
        contains(refusalOf(urlOf(server.port(), "localhost"), trust()), "is not known yet"));
  }
  EXPECT_EQ("", refusalOf(urlOf(server.port(), "localhost"), trust()));
  EXPECT_FALSE(knownRobotsFileExists());
  // The same certificate under an address it was not made for is a robot met first.
  EXPECT_TRUE(contains(refusalOf(urlOf(server.port(), "127.0.0.1"), trust()), "is not known yet"));
}

TEST_F(CliConnection, AServerOfferingOnlyTlsOlderThan12IsRefused) {
  const brokertest::TestCertificate robot = robotCertificate("robot");
  brokertest::OpensslServer server(robot, 0, {"-tls1_1", "-cipher", "DEFAULT@SECLEVEL=0"});
  ServerTrust pinned = trust();
  pinned.pinned = fingerprintOfPemFile(robot.certificate);
  net::io_context ioc;
  try {
    connectToServer(ioc, urlOf(server.port()), pinned);
    FAIL() << "connected";
  } catch (const ClientError& error) {
    EXPECT_TRUE(contains(error.what(), "the TLS handshake with 127.0.0.1:" +
                                           std::to_string(server.port()) + " failed"))
        << error.what();
  }
}

TEST_F(CliConnection, AnHttpsUrlOfAPlainHttpServerFailsTheHandshakeSayingSo) {
  net::io_context serverContext;
  net::ip::tcp::acceptor acceptor(serverContext, {net::ip::make_address("127.0.0.1"), 0});
  std::thread plainServer([&] {
    net::ip::tcp::socket socket(serverContext);
    acceptor.accept(socket);
    char hello[512];
    boost::system::error_code ignored;
    socket.read_some(net::buffer(hello), ignored);
    net::write(socket,
               net::buffer(std::string("HTTP/1.1 400 Bad Request\r\n"
                                       "Connection: close\r\nContent-Length: 0\r\n\r\n")),
               ignored);
  });
  net::io_context ioc;
  try {
    connectToServer(ioc, urlOf(acceptor.local_endpoint().port()), trust());
    FAIL() << "connected";
  } catch (const ClientError& error) {
    EXPECT_TRUE(contains(error.what(), "the TLS handshake")) << error.what();
    EXPECT_TRUE(contains(error.what(), "http://")) << error.what();
  }
  plainServer.join();
}
