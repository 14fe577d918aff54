#include <common/files.h>
#include <common/logcapture.h>
#include <common/shell.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <sys/stat.h>
#include <tuqvu/broker/tlscertificate.h>
#include <tuqvu/broker/tlscredentials.h>

#include <algorithm>
#include <boost/filesystem.hpp>

#include "support/tlsclient.h"
#include "support/tuqvuprocess.h"

using namespace tuqvu::broker;
using tuqvutest::run;
using tuqvutest::shellWord;
namespace fs = boost::filesystem;

namespace {

CertificateFiles filesIn(const brokertest::TempDir& folder, const std::string& name = "robot") {
  return {folder.path() + "/" + name + ".pem", folder.path() + "/" + name + ".key"};
}

}  // namespace

TEST(TlsCertificate, ASelfSignedCertificateNamesEveryHostNameAndAddressAndVerifiesAgainstItself) {
  brokertest::TempDir folder;
  const CertificateFiles files = filesIn(folder);
  makeSelfSignedCertificate(files, {"robot", "robot.local", "192.0.2.7", "fd00::7"});
  const tuqvutest::CommandRun text =
      run("openssl x509 -noout -text -in " + shellWord(files.certificate));
  ASSERT_EQ(0, text.status) << text.output;
  for (const char* expected : {"DNS:robot", "DNS:robot.local", "IP Address:192.0.2.7",
                               "IP Address:FD00:0:0:0:0:0:0:7", "CN = robot", "prime256v1",
                               "ecdsa-with-SHA256", "TLS Web Server Authentication", "CA:FALSE"}) {
    EXPECT_NE(std::string::npos, text.output.find(expected)) << expected << "\n" << text.output;
  }
  const tuqvutest::CommandRun verified =
      run("openssl verify -CAfile " + shellWord(files.certificate) + " -verify_ip 192.0.2.7 " +
          shellWord(files.certificate));
  EXPECT_EQ(0, verified.status) << verified.output;
  const tuqvutest::CommandRun otherName =
      run("openssl verify -CAfile " + shellWord(files.certificate) +
          " -verify_hostname elsewhere " + shellWord(files.certificate));
  EXPECT_NE(0, otherName.status) << otherName.output;
  const tuqvutest::CommandRun keyFits = run("test \"$(openssl pkey -in " + shellWord(files.key) +
                                            " -pubout)\" = \"$(openssl x509 -in " +
                                            shellWord(files.certificate) + " -pubkey -noout)\"");
  EXPECT_EQ(0, keyFits.status);
}

TEST(TlsCertificate, TheKeyIsPrivateAndNoTemporaryFileStaysBehind) {
  brokertest::TempDir folder;
  const CertificateFiles files{folder.path() + "/new/folder/c.pem",
                               folder.path() + "/new/folder/c.key"};
  makeSelfSignedCertificate(files, {"localhost"});
  struct stat key {};
  ASSERT_EQ(0, ::stat(files.key.c_str(), &key));
  EXPECT_EQ(0600u, key.st_mode & 0777);
  struct stat created {};
  ASSERT_EQ(0, ::stat((folder.path() + "/new/folder").c_str(), &created));
  EXPECT_EQ(0700u, created.st_mode & 0777);
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder.path() + "/new/folder"))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  EXPECT_EQ((std::vector<std::string>{"c.key", "c.pem"}), names);
}

TEST(TlsCertificate, TheFingerprintIsTheSha256OfThePublicKeyAsOpensslComputesIt) {
  brokertest::TempDir folder;
  const CertificateFiles files = filesIn(folder);
  makeSelfSignedCertificate(files, {"localhost"});
  const std::string fingerprint = fingerprintOfPemFile(files.certificate);
  EXPECT_EQ(brokertest::opensslKeyFingerprint(files.certificate), fingerprint);
  EXPECT_EQ(95u, fingerprint.size());
  EXPECT_THROW(fingerprintOfPemFile(folder.path() + "/none.pem"), CertificateError);
  EXPECT_THROW(fingerprintOfPemFile(files.key), CertificateError);
}

TEST(TlsCertificate, FingerprintsAreReadInTheFormsPeopleTypeThem) {
  const std::string canonical =
      "AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:"
      "67:89";
  EXPECT_EQ(canonical, parseFingerprint(canonical));
  EXPECT_EQ(canonical,
            parseFingerprint("abcdef0123456789abcdef0123456789abcdef0123456789abcdef0123456789"));
  EXPECT_EQ(canonical, parseFingerprint("SHA256:" + canonical));
  EXPECT_FALSE(parseFingerprint(""));
  EXPECT_FALSE(parseFingerprint(canonical.substr(3)));         // one pair short
  EXPECT_FALSE(parseFingerprint(canonical + ":00"));           // one pair too many
  EXPECT_FALSE(parseFingerprint("ZZ" + canonical.substr(2)));  // not hexadecimal
}

TEST(TlsCertificate, OnlyAMissingPairIsMadeAndAHalfPairOrAnOpenKeyIsRefused) {
  brokertest::TempDir folder;
  const CertificateFiles files = filesIn(folder);
  EXPECT_EQ(OwnCertificate::Made, ensureOwnCertificate(files, {"localhost"}));
  const std::string first = fingerprintOfPemFile(files.certificate);
  const std::string text = tuqvutest::readFile(files.certificate);
  EXPECT_EQ(OwnCertificate::Kept, ensureOwnCertificate(files, {"localhost"}));
  EXPECT_EQ(text, tuqvutest::readFile(files.certificate));
  ASSERT_EQ(0, ::chmod(files.key.c_str(), 0644));
  EXPECT_THROW(ensureOwnCertificate(files, {"localhost"}), CertificateError);
  fs::remove(files.key);
  EXPECT_THROW(ensureOwnCertificate(files, {"localhost"}), CertificateError);
  EXPECT_EQ(text, tuqvutest::readFile(files.certificate));  // nothing was overwritten
}

TEST(TlsCertificate, ACertificateNearItsEndIsRenewedWithItsKeySoItsFingerprintStays) {
  brokertest::TempDir folder;
  const CertificateFiles files = filesIn(folder);
  makeSelfSignedCertificate(files, {"localhost"});
  const std::string fingerprint = fingerprintOfPemFile(files.certificate);
  // The same key, ten days left.
  const tuqvutest::CommandRun shortLived =
      run("openssl req -x509 -key " + shellWord(files.key) + " -days 10 -subj /CN=localhost -out " +
          shellWord(files.certificate));
  ASSERT_EQ(0, shortLived.status) << shortLived.output;
  EXPECT_EQ(OwnCertificate::Renewed, ensureOwnCertificate(files, {"localhost", "127.0.0.1"}));
  EXPECT_EQ(fingerprint, fingerprintOfPemFile(files.certificate));
  const tuqvutest::CommandRun lasts =
      run("openssl x509 -noout -checkend " + std::to_string((kValidityDays - 1) * 24 * 3600) +
          " -in " + shellWord(files.certificate));
  EXPECT_EQ(0, lasts.status) << lasts.output;
  EXPECT_EQ(OwnCertificate::Kept, ensureOwnCertificate(files, {"localhost"}));
}

TEST(TlsCertificate, TheLocalNamesHoldLocalhostAndTheLoopbackAddresses) {
  const std::vector<std::string> names = localNames();
  for (const char* expected : {"localhost", "127.0.0.1", "::1"}) {
    EXPECT_NE(names.end(), std::find(names.begin(), names.end(), expected)) << expected;
  }
}

TEST(TlsCredentials, OnlyTls12AndNewerWithoutCompressionAreOffered) {
  brokertest::TempDir folder;
  const CertificateFiles files = filesIn(folder);
  makeSelfSignedCertificate(files, {"localhost"});
  TlsCredentials credentials(files);
  SSL_CTX* context = credentials.current()->native_handle();
  EXPECT_EQ(TLS1_2_VERSION, SSL_CTX_get_min_proto_version(context));
  EXPECT_NE(0u, SSL_CTX_get_options(context) & SSL_OP_NO_COMPRESSION);
  EXPECT_NE(0u, SSL_CTX_get_options(context) & SSL_OP_NO_RENEGOTIATION);
}

TEST(TlsCredentials, ARenewalOnDiskIsTakenAndABrokenOneKeepsThePreviousCertificate) {
  brokertest::TempDir folder;
  const CertificateFiles files = filesIn(folder);
  makeSelfSignedCertificate(files, {"localhost"});
  TlsCredentials credentials(files);
  const std::string first = credentials.fingerprint();
  const auto firstContext = credentials.current();
  EXPECT_EQ(firstContext, credentials.current());  // unchanged files: the same context

  const CertificateFiles other = filesIn(folder, "other");
  makeSelfSignedCertificate(other, {"localhost"});
  fs::rename(other.key, files.key);
  fs::rename(other.certificate, files.certificate);
  EXPECT_NE(firstContext, credentials.current());
  const std::string second = credentials.fingerprint();
  EXPECT_NE(first, second);
  EXPECT_EQ(fingerprintOfPemFile(files.certificate), second);

  tuqvutest::LogCapture log;
  makeSelfSignedCertificate(other, {"localhost"});
  fs::rename(other.certificate, files.certificate);  // a certificate without its new key
  const auto kept = credentials.current();
  EXPECT_EQ(second, credentials.fingerprint());
  EXPECT_EQ(1u, log.find("certificate", "the previous certificate stays in service").size());
  EXPECT_EQ(kept, credentials.current());  // tried once per change, not on every connection
}

TEST(TlsCredentials, UnusableFilesAreRefusedWithTheReason) {
  brokertest::TempDir folder;
  const CertificateFiles files = filesIn(folder);
  try {
    TlsCredentials missing(files);
    FAIL() << "no files, yet credentials";
  } catch (const CertificateError& error) {
    EXPECT_NE(std::string::npos, std::string(error.what()).find(files.certificate)) << error.what();
  }
  makeSelfSignedCertificate(files, {"localhost"});
  const CertificateFiles other = filesIn(folder, "other");
  makeSelfSignedCertificate(other, {"localhost"});
  EXPECT_THROW(TlsCredentials({files.certificate, other.key}), CertificateError);
}
