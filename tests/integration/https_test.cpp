// HTTPS on the broker's port, against a real tuqvu: the certificate it makes for itself,
// calls, pages, events and files over TLS, the protocols it refuses, plain HTTP refused
// from other machines, a certificate renewed on disk, and clients nobody here wrote (curl
// with a pinned key, Python's ssl and requests, Node's fetch).
#include <arpa/inet.h>
#include <common/files.h>
#include <common/shell.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <tuqvu/broker/tlscertificate.h>

#include <boost/filesystem.hpp>
#include <string>

#include "support/httpclient.h"
#include "support/tlsclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
namespace fs = boost::filesystem;
using tuqvutest::run;
using tuqvutest::shellWord;

namespace {

const std::string kModules = rpcRequest("ZRBroker.getModules", nlohmann::json::array());

// An IPv4 address of this machine beyond loopback, "" when it has none.
std::string addressBeyondLoopback() {
  ifaddrs* interfaces = nullptr;
  if (::getifaddrs(&interfaces) != 0) return "";
  std::string found;
  for (const ifaddrs* entry = interfaces; entry != nullptr && found.empty();
       entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET ||
        (entry->ifa_flags & IFF_LOOPBACK) != 0 || (entry->ifa_flags & IFF_UP) == 0) {
      continue;
    }
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr, text,
                sizeof text);
    found = text;
  }
  ::freeifaddrs(interfaces);
  return found;
}

// "sha256//BASE64" of the certificate's public key, as curl pins it.
std::string pinnedKeyOf(const std::string& certificate) {
  const tuqvutest::CommandRun pin =
      run("openssl x509 -in " + shellWord(certificate) +
          " -pubkey -noout | openssl pkey -pubin -outform der | openssl dgst -sha256 -binary | "
          "base64");
  std::string base64 = pin.output;
  while (!base64.empty() && base64.back() == '\n') base64.pop_back();
  return "sha256//" + base64;
}

// A broker with HTTPS on loopback, its own certificate made in its home.
class Https : public ::testing::Test {
protected:
  void SetUp() override {
    TuqvuProcess::Setup setup;
    setup.args = {"--https"};
    setup.env["TMPDIR"] = fTmp.path();
    fBroker = std::make_unique<TuqvuProcess>(setup);
    fCertificate = fBroker->home() + "/.config/tuqvu/certificate.pem";
    fKey = fBroker->home() + "/.config/tuqvu/certificate.key";
  }
  int port() const { return fBroker->port(); }
  std::string url(const std::string& path) const {
    return "https://127.0.0.1:" + std::to_string(port()) + path;
  }

  TempDir fTmp;
  TempDir fWork;
  std::unique_ptr<TuqvuProcess> fBroker;
  std::string fCertificate;
  std::string fKey;
};

TEST_F(Https, TheFirstStartMakesAPrivateEcdsaCertificateForTheHostsNamesAndLogsItsFingerprint) {
  struct stat key {};
  ASSERT_EQ(0, ::stat(fKey.c_str(), &key));
  EXPECT_EQ(0600u, key.st_mode & 0777);
  const tuqvutest::CommandRun text =
      run("openssl x509 -noout -text -in " + shellWord(fCertificate));
  ASSERT_EQ(0, text.status) << text.output;
  EXPECT_NE(std::string::npos, text.output.find("prime256v1")) << text.output;
  EXPECT_NE(std::string::npos, text.output.find("ecdsa-with-SHA256")) << text.output;
  EXPECT_NE(std::string::npos, text.output.find("DNS:localhost")) << text.output;
  EXPECT_NE(std::string::npos, text.output.find("IP Address:127.0.0.1")) << text.output;
  const std::string fingerprint = brokertest::opensslKeyFingerprint(fCertificate);
  ASSERT_EQ(95u, fingerprint.size());
  EXPECT_NE(std::string::npos, fBroker->stderrText().find("SHA-256 fingerprint " + fingerprint))
      << fBroker->stderrText();
  TlsConnection connection(port(), "");
  EXPECT_EQ(fingerprint, connection.peerFingerprint());
}

TEST_F(Https, ASecondStartKeepsTheSameCertificate) {
  const std::string before = brokertest::opensslKeyFingerprint(fCertificate);
  const std::string home = fBroker->home();
  ASSERT_EQ(0, fBroker->terminate(SIGTERM));
  TuqvuProcess::Setup setup;
  setup.args = {"--https"};
  setup.env["HOME"] = home;
  setup.env["TMPDIR"] = fTmp.path();
  TuqvuProcess again(setup);
  TlsConnection connection(again.port(), "");
  EXPECT_EQ(before, connection.peerFingerprint());
}

TEST_F(Https, CallsPagesEventsAndFilesWorkOverTlsWithTheCertificateVerified) {
  TlsConnection connection(port(), fCertificate, "127.0.0.1");
  EXPECT_TRUE(connection.protocol() == "TLSv1.3" || connection.protocol() == "TLSv1.2");
  const HttpReply call = connection.request("POST", "/rpc", kModules);
  ASSERT_EQ(200, call.status) << call.body;
  EXPECT_NE(std::string::npos, call.body.find("ZRBehaviorManager")) << call.body;
  // The cookie handed out over TLS is never sent in clear by a browser.
  EXPECT_NE(std::string::npos, call.headers.at("set-cookie").find("; Secure"));
  const HttpReply page = connection.request("GET", "/");
  EXPECT_EQ(200, page.status);
  EXPECT_NE(std::string::npos, page.body.find("ZRMemory"));
  // Files: a PUT and the GET of what it wrote, on the same connection.
  const HttpReply put = connection.request("PUT", "/files/tmp/over-tls.txt", "sealed");
  EXPECT_EQ(201, put.status) << put.body;
  EXPECT_EQ("sealed", tuqvutest::readFile(fTmp.path() + "/over-tls.txt"));
  EXPECT_EQ("sealed", connection.request("GET", "/files/tmp/over-tls.txt").body);

  TlsConnection events(port(), fCertificate, "localhost");
  events.sendRaw(
      "GET /events?key=Https/Seen HTTP/1.1\r\nHost: localhost:" + std::to_string(port()) +
      "\r\nAuthorization: " + fBroker->authorization() + "\r\n\r\n");
  ASSERT_NE(std::string::npos, events.readStreamUntil("retry:", 10000).find("200 OK"));
  rpc(port(), "ZRMemory.insertData", {"Https/Seen", 7});
  EXPECT_NE(std::string::npos, events.readStreamUntil("\"value\":7", 10000).find("\"value\":7"));
}

TEST_F(Https, APageOfTheBrokerCallsItOverHttpsAndOtherOriginsAreRefused) {
  TlsConnection connection(port(), fCertificate);
  const std::string self = "https://127.0.0.1:" + std::to_string(port());
  EXPECT_EQ(200, connection.request("POST", "/rpc", kModules, {{"Origin", self}}).status);
  // The same host in clear text is another origin.
  EXPECT_EQ(403, connection
                     .request("POST", "/rpc", kModules,
                              {{"Origin", "http://127.0.0.1:" + std::to_string(port())}})
                     .status);
  EXPECT_EQ(
      403,
      connection.request("POST", "/rpc", kModules, {{"Origin", "https://evil.example"}}).status);
}

TEST_F(Https, PlainHttpFromTheRobotItselfIsStillServed) {
  EXPECT_EQ("ZRMemory", rpc(port(), "ZRBroker.getModules", nlohmann::json::array())["result"][0]);
}

TEST_F(Https, OldProtocolsWeakCiphersAndCompressionAreRefused) {
  const std::string target = "127.0.0.1:" + std::to_string(port());
  for (const char* old : {"-tls1", "-tls1_1"}) {
    const tuqvutest::CommandRun refused = run("echo | openssl s_client -connect " + target + " " +
                                              old + " -cipher DEFAULT@SECLEVEL=0");
    EXPECT_NE(0, refused.status) << old << ": " << refused.output;
  }
  // TLS 1.2 without forward secrecy or with CBC.
  for (const char* weak :
       {"AES128-GCM-SHA256", "ECDHE-ECDSA-AES128-SHA", "ECDHE-ECDSA-AES256-SHA384"}) {
    const tuqvutest::CommandRun refused =
        run("echo | openssl s_client -connect " + target + " -tls1_2 -cipher " + weak);
    EXPECT_NE(0, refused.status) << weak << ": " << refused.output;
  }
  const tuqvutest::CommandRun good = run("echo | openssl s_client -connect " + target + " -tls1_2");
  EXPECT_EQ(0, good.status) << good.output;
  EXPECT_NE(std::string::npos, good.output.find("Compression: NONE")) << good.output;
  EXPECT_NE(std::string::npos, good.output.find("ECDHE-ECDSA-AES")) << good.output;
}

TEST_F(Https, CurlWithThePinnedPublicKeyCallsAndAWrongPinIsRefused) {
  const std::string curl = "curl -sS --max-time 30 -u robot:" + shellWord(fBroker->secret()) +
                           " -H 'Content-Type: application/json' --data " + shellWord(kModules) +
                           " ";
  const tuqvutest::CommandRun pinned =
      run(curl + "--cacert " + shellWord(fCertificate) + " --pinnedpubkey " +
          shellWord(pinnedKeyOf(fCertificate)) + " " + shellWord(url("/rpc")));
  ASSERT_EQ(0, pinned.status) << pinned.output;
  EXPECT_NE(std::string::npos, pinned.output.find("ZRBehaviorManager")) << pinned.output;
  const tuqvutest::CommandRun wrong =
      run(curl + "-k --pinnedpubkey 'sha256//AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=' " +
          shellWord(url("/rpc")));
  EXPECT_EQ(90, wrong.status) << wrong.output;  // curl: SSL public key does not match
  // Without the certificate as trusted, curl refuses a self-signed one.
  EXPECT_EQ(60, run(curl + shellWord(url("/rpc"))).status);
}

TEST_F(Https, PythonSslAndRequestsTrustTheCertificateFile) {
  tuqvutest::writeFile(fWork.path() + "/client.py", R"(
import base64, json, os, socket, ssl, urllib.parse, urllib.request
base, secret, certificate = os.environ['BASE'], os.environ['SECRET'], os.environ['CERTIFICATE']
auth = 'Basic ' + base64.b64encode(('robot:' + secret).encode()).decode()
call = json.dumps({'jsonrpc': '2.0', 'id': 1, 'method': 'ZRBroker.getModules', 'params': []}).encode()
context = ssl.create_default_context(cafile=certificate)
request = urllib.request.Request(base + '/rpc', data=call,
                                 headers={'Content-Type': 'application/json', 'Authorization': auth})
with urllib.request.urlopen(request, context=context) as answer:
    modules = json.load(answer)['result']
where = urllib.parse.urlsplit(base)
with context.wrap_socket(socket.create_connection((where.hostname, where.port)),
                         server_hostname=where.hostname) as sealed:
    version = sealed.version()
result = {'ssl': modules, 'version': version}
try:
    import requests
    reply = requests.post(base + '/rpc', data=call, verify=certificate,
                          headers={'Content-Type': 'application/json', 'Authorization': auth})
    result['requests'] = reply.json()['result']
except ImportError:
    result['requests'] = None
try:
    urllib.request.urlopen(request, context=ssl.create_default_context())
    result['unverified'] = 'accepted'
except Exception as error:
    result['unverified'] = type(error).__name__
print(json.dumps(result))
)");
  const tuqvutest::CommandRun python =
      run("BASE=" + shellWord("https://localhost:" + std::to_string(port())) +
          " SECRET=" + shellWord(fBroker->secret()) + " CERTIFICATE=" + shellWord(fCertificate) +
          " python3 " + shellWord(fWork.path() + "/client.py"));
  ASSERT_EQ(0, python.status) << python.output;
  const nlohmann::json seen = nlohmann::json::parse(python.output);
  EXPECT_EQ("ZRMemory", seen["ssl"][0]);
  EXPECT_EQ("TLSv1.3", seen["version"]);
  if (!seen["requests"].is_null()) EXPECT_EQ("ZRMemory", seen["requests"][0]);
  EXPECT_EQ("URLError", seen["unverified"]);  // the system's authorities know no such robot
}

TEST_F(Https, NodeFetchTrustsTheCertificateGivenAsAnExtraAuthority) {
  if (run("node --version").status != 0) GTEST_SKIP() << "no Node.js here";
  tuqvutest::writeFile(fWork.path() + "/client.mjs", R"(
const auth = 'Basic ' + Buffer.from('robot:' + process.env.SECRET).toString('base64');
const answer = await fetch(process.env.BASE + '/rpc', {
  method: 'POST',
  headers: {'Content-Type': 'application/json', Authorization: auth},
  body: JSON.stringify({jsonrpc: '2.0', id: 1, method: 'ZRBroker.getModules', params: []}),
});
console.log(JSON.stringify({status: answer.status, body: await answer.json()}));
)");
  const std::string script = shellWord(fWork.path() + "/client.mjs");
  const std::string environment =
      "BASE=" + shellWord(url("")) + " SECRET=" + shellWord(fBroker->secret()) + " ";
  const tuqvutest::CommandRun trusted =
      run(environment + "NODE_EXTRA_CA_CERTS=" + shellWord(fCertificate) + " node " + script);
  ASSERT_EQ(0, trusted.status) << trusted.output;
  const nlohmann::json seen = nlohmann::json::parse(trusted.output);
  EXPECT_EQ(200, seen["status"]);
  EXPECT_EQ("ZRMemory", seen["body"]["result"][0]);
  // Without it, fetch refuses the self-signed certificate.
  EXPECT_NE(0, run(environment + "node " + script).status);
}

TEST_F(Https, TuqvuCallShowsTheFingerprintAndCallsOnlyTheRobotItWasToldToTrust) {
  // The broker's user: its home holds the secret and the certificate.
  const std::map<std::string, std::string> asBroker = {
      {"HOME", fBroker->home()}, {"XDG_CONFIG_HOME", fBroker->home() + "/.config"}};
  const std::string fingerprint = brokertest::opensslKeyFingerprint(fCertificate);
  const CommandResult shown = runCommand({tuqvuCallPath(), "--fingerprint"}, asBroker);
  ASSERT_EQ(0, shown.status) << shown.err;
  EXPECT_EQ(fingerprint + "\n", shown.out);

  const std::vector<std::string> call = {tuqvuCallPath(), "--url", url(""), "ZRBroker.getModules"};
  std::map<std::string, std::string> pinned = asBroker;
  pinned["TUQVU_FINGERPRINT"] = fingerprint;
  const CommandResult trusted = runCommand(call, pinned);
  ASSERT_EQ(0, trusted.status) << trusted.err;
  EXPECT_NE(std::string::npos, trusted.out.find("ZRBehaviorManager")) << trusted.out;

  std::map<std::string, std::string> wrong = asBroker;
  // Another first byte: one certificate in 256 has a fingerprint that begins with 00.
  const std::string otherFirstByte = fingerprint.compare(0, 2, "00") == 0 ? "11" : "00";
  wrong["TUQVU_FINGERPRINT"] = otherFirstByte + fingerprint.substr(2);
  const CommandResult refused = runCommand(call, wrong);
  EXPECT_EQ(1, refused.status) << refused.out;
  EXPECT_NE(std::string::npos, refused.err.find(fingerprint)) << refused.err;
  EXPECT_EQ("", refused.out);

  // A robot met for the first time, without a terminal to ask on: refused, its fingerprint
  // shown; --trust-new records it, and the next call needs no option.
  const CommandResult unknown = runCommand(call, asBroker);
  EXPECT_EQ(1, unknown.status) << unknown.out;
  EXPECT_NE(std::string::npos, unknown.err.find(fingerprint)) << unknown.err;
  std::vector<std::string> trustNew = call;
  trustNew.insert(trustNew.begin() + 1, "--trust-new");
  ASSERT_EQ(0, runCommand(trustNew, asBroker).status);
  EXPECT_NE(std::string::npos,
            tuqvutest::readFile(fBroker->home() + "/.config/tuqvu/known_robots").find(fingerprint));
  const CommandResult known = runCommand(call, asBroker);
  EXPECT_EQ(0, known.status) << known.err;
}

TEST(HttpsCertificateChange, TuqvuCallRefusesARobotWhoseCertificateChanged) {
  TempDir tmp, keys, client;
  const tuqvu::broker::CertificateFiles files{keys.path() + "/robot.pem",
                                              keys.path() + "/robot.key"};
  tuqvu::broker::makeSelfSignedCertificate(files, {"localhost", "127.0.0.1"});
  TuqvuProcess::Setup setup;
  setup.args = {"--tls-cert", files.certificate, "--tls-key",
                files.key,    "--module",        "TestModule=" + testModulePath()};
  setup.env["TMPDIR"] = tmp.path();
  TuqvuProcess broker(setup);
  const std::map<std::string, std::string> someone = {
      {"HOME", client.path()},
      {"XDG_CONFIG_HOME", client.path() + "/.config"},
      {"TUQVU_SECRET", broker.secret()}};
  const std::string url = "https://127.0.0.1:" + std::to_string(broker.port());
  ASSERT_EQ(
      0, runCommand({tuqvuCallPath(), "--trust-new", "--url", url, "ZRBroker.getModules"}, someone)
             .status);
  // Another key in the robot's place, as an impostor would have.
  tuqvu::broker::makeSelfSignedCertificate(files, {"localhost", "127.0.0.1"});
  const CommandResult changed =
      runCommand({tuqvuCallPath(), "--trust-new", "--url", url, "ZRBroker.getModules"}, someone);
  EXPECT_EQ(1, changed.status) << changed.out;
  EXPECT_EQ("", changed.out);
  EXPECT_NE(std::string::npos,
            changed.err.find(brokertest::opensslKeyFingerprint(files.certificate)))
      << changed.err;
}

TEST(HttpsBeyondLoopback, PlainHttpFromAnotherMachineIsRefusedUnlessTheAdministratorAllowsIt) {
  const std::string address = addressBeyondLoopback();
  if (address.empty()) GTEST_SKIP() << "this machine has no address beyond loopback";
  TempDir tmp;
  TuqvuProcess::Setup setup;
  setup.args = {"--bind", "0.0.0.0"};
  setup.env["TMPDIR"] = tmp.path();
  TuqvuProcess broker(setup);
  // A connection to the machine's own address comes from that address, not loopback.
  tuqvutest::RawConnection plain(address, broker.port());
  plain.send("POST /rpc HTTP/1.1\r\nHost: " + address + "\r\nContent-Type: application/json\r\n" +
             "Content-Length: " + std::to_string(kModules.size()) + "\r\n\r\n" + kModules);
  const std::string refused = plain.readUntilClosed(std::chrono::milliseconds(15000));
  EXPECT_NE(std::string::npos, refused.find("HTTP/1.1 403")) << refused;
  EXPECT_NE(std::string::npos, refused.find("over HTTPS only")) << refused;
  // Over TLS from the same address it is served (and asks for the secret).
  TlsConnection secure(broker.port(), "", address, address);
  EXPECT_EQ(401, secure.request("POST", "/rpc", kModules, {{"Authorization", ""}}).status);
  EXPECT_EQ(200, secure.request("POST", "/rpc", kModules).status);

  TempDir tmp2;
  setup.args = {"--bind", "0.0.0.0", "--allow-plain-http"};
  setup.env["TMPDIR"] = tmp2.path();
  TuqvuProcess open(setup);
  tuqvutest::RawConnection allowed(address, open.port());
  allowed.send("POST /rpc HTTP/1.1\r\nHost: " + address + "\r\nContent-Type: application/json\r\n" +
               "Connection: close\r\nContent-Length: " + std::to_string(kModules.size()) +
               "\r\n\r\n" + kModules);
  const std::string served = allowed.readUntilClosed(std::chrono::milliseconds(15000));
  EXPECT_NE(std::string::npos, served.find("HTTP/1.1 401")) << served;
}

TEST(HttpsCertificateRenewal, ARenewedCertificateIsServedToNewConnectionsWithoutARestart) {
  TempDir tmp, keys;
  const tuqvu::broker::CertificateFiles files{keys.path() + "/robot.pem",
                                              keys.path() + "/robot.key"};
  tuqvu::broker::makeSelfSignedCertificate(files, {"localhost", "127.0.0.1"});
  const std::string first = brokertest::opensslKeyFingerprint(files.certificate);
  TuqvuProcess::Setup setup;
  setup.args = {"--tls-cert", files.certificate, "--tls-key", files.key};
  setup.env["TMPDIR"] = tmp.path();
  TuqvuProcess broker(setup);
  TlsConnection before(broker.port(), files.certificate, "localhost");
  EXPECT_EQ(first, before.peerFingerprint());
  // The broker's user has no certificate of its own: the owner's is used.
  EXPECT_FALSE(fs::exists(broker.home() + "/.config/tuqvu/certificate.pem"));

  // Renewal as tools do it: new files put in place of the old.
  const tuqvu::broker::CertificateFiles renewed{keys.path() + "/new.pem", keys.path() + "/new.key"};
  tuqvu::broker::makeSelfSignedCertificate(renewed, {"localhost", "127.0.0.1"});
  fs::rename(renewed.key, files.key);
  fs::rename(renewed.certificate, files.certificate);
  const std::string second = brokertest::opensslKeyFingerprint(files.certificate);
  ASSERT_NE(first, second);
  TlsConnection after(broker.port(), files.certificate, "localhost");
  EXPECT_EQ(second, after.peerFingerprint());
  // The connection opened before goes on with the certificate it began with.
  EXPECT_EQ(200, before.request("POST", "/rpc", kModules).status);

  // A renewal half done (a key that does not fit) keeps the last good certificate.
  tuqvu::broker::makeSelfSignedCertificate(renewed, {"localhost"});
  fs::rename(renewed.key, files.key);
  TlsConnection meanwhile(broker.port(), "");
  EXPECT_EQ(second, meanwhile.peerFingerprint());
  EXPECT_EQ(200, meanwhile.request("POST", "/rpc", kModules).status);
  EXPECT_NE(std::string::npos,
            broker.stderrText().find("the previous certificate stays in service"))
      << broker.stderrText();
}

TEST(HttpsCertificateRenewal, AKeyThatDoesNotFitTheCertificateStopsTheStart) {
  TempDir tmp, keys;
  const tuqvu::broker::CertificateFiles one{keys.path() + "/one.pem", keys.path() + "/one.key"};
  const tuqvu::broker::CertificateFiles two{keys.path() + "/two.pem", keys.path() + "/two.key"};
  tuqvu::broker::makeSelfSignedCertificate(one, {"localhost"});
  tuqvu::broker::makeSelfSignedCertificate(two, {"localhost"});
  TuqvuProcess::Setup setup;
  setup.args = {"--tls-cert", one.certificate, "--tls-key",
                two.key,      "--module",      "TestModule=" + testModulePath()};
  setup.env["TMPDIR"] = tmp.path();
  setup.waitUntilListening = false;
  TuqvuProcess broker(setup);
  EXPECT_EQ(1, broker.waitExit());
  EXPECT_NE(std::string::npos, broker.stderrText().find("cannot serve HTTPS"))
      << broker.stderrText();
}

TEST(HttpsHandshake, AConnectionThatNeverFinishesItsHandshakeIsClosed) {
  TempDir tmp;
  TuqvuProcess::Setup setup;
  setup.args = {"--https", "--module", "TestModule=" + testModulePath()};
  setup.env["TMPDIR"] = tmp.path();
  TuqvuProcess broker(setup);
  tuqvutest::RawConnection stalled(broker.port());
  stalled.send(std::string("\x16\x03\x01", 3));  // the start of a ClientHello, no more
  const auto start = std::chrono::steady_clock::now();
  stalled.readUntilClosed(std::chrono::milliseconds(30000));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(25));
  // Meanwhile and afterwards others are served.
  TlsConnection other(broker.port(), "");
  EXPECT_EQ(200, other.request("POST", "/rpc", kModules).status);
}

}  // namespace
