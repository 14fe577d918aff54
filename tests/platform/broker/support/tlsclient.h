// An HTTPS client for the broker's tests: one keep-alive TLS connection over a real
// loopback socket, which either verifies the broker's certificate against a file of
// trusted certificates or takes any and reports what it saw.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "support/httpclient.h"

namespace brokertest {

class TlsConnection {
public:
  // `trusted`: a PEM file the broker's certificate must verify against, for the name
  // `host`; "" takes any certificate. Throws when the handshake or verification fails.
  TlsConnection(int port, const std::string& trusted, const std::string& host = "127.0.0.1",
                const std::string& address = "127.0.0.1");
  ~TlsConnection();
  TlsConnection(const TlsConnection&) = delete;
  TlsConnection& operator=(const TlsConnection&) = delete;

  // The SHA-256 fingerprint of the certificate the broker presented.
  std::string peerFingerprint() const;
  // "TLSv1.3" and the like.
  std::string protocol() const;

  // A request with the broker's Authorization unless `headers` names its own ("" for none).
  HttpReply request(const std::string& method, const std::string& target,
                    const std::string& body = "",
                    const std::map<std::string, std::string>& headers = {});
  // Reads from an answer whose body does not end (an event stream): the head once, then
  // whatever arrives, until `needle` shows or `timeoutMs` passes; everything read so far.
  std::string readStreamUntil(const std::string& needle, int timeoutMs);
  void sendRaw(const std::string& bytes);

private:
  struct Impl;
  std::unique_ptr<Impl> fImpl;
  int fPort;
  std::string fHost;
};

// The SHA-256 fingerprint of a PEM certificate's public key as openssl's own command-line
// tools compute it ("AB:CD:..."), to check the broker's against.
std::string opensslKeyFingerprint(const std::string& certificateFile);

}  // namespace brokertest
