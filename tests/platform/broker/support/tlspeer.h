// TLS peers for tests of tuqvu-call's https side: certificates made with the openssl
// program, and `openssl s_server` on a loopback port, which writes on its output what it
// receives.
//
//   TempDir folder;
//   const TestCertificate robot = makeSelfSignedCertificate(folder.path() + "/robot");
//   OpensslServer server(robot);
//   connect to 127.0.0.1:server.port(); server.received() holds what was sent
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "tuqvuprocess.h"

namespace brokertest {

// A certificate and its key, PEM files.
struct TestCertificate {
  std::string certificate;
  std::string key;
};

// A self-signed ECDSA P-256 certificate, "<stem>.pem" and "<stem>.key", for the subject
// alternative names (OpenSSL's syntax: "DNS:localhost", "IP:127.0.0.1").
TestCertificate makeSelfSignedCertificate(const std::string& stem,
                                          const std::vector<std::string>& names = {"DNS:localhost",
                                                                                   "IP:127.0.0.1"});

// An authority's certificate ("<stem>.pem", "<stem>.key") and a certificate it signed for
// the names ("<stem>-server.pem", "<stem>-server.key"), which is the second's .second.
std::pair<TestCertificate, TestCertificate> makeAuthorityAndServer(
    const std::string& stem, const std::vector<std::string>& names);

// `openssl s_server` with the certificate on 127.0.0.1, on `port` (a free one for 0).
// It serves one connection after another; what it receives is in its output.
class OpensslServer {
public:
  explicit OpensslServer(const TestCertificate& certificate, int port = 0,
                         const std::vector<std::string>& extraArgs = {});
  ~OpensslServer();  // ends it
  OpensslServer(const OpensslServer&) = delete;
  OpensslServer& operator=(const OpensslServer&) = delete;

  int port() const { return fPort; }
  // Its standard output so far: the lines it logs and the bytes it received.
  std::string received() const;

private:
  TempDir fOutput;
  pid_t fPid = -1;
  int fInput = -1;  // its standard input, kept open: at its end it would drop a connection
  int fPort = 0;
};

}  // namespace brokertest
