// The TLS side of the broker's port: the certificate and key it presents, and the rules
// every connection is held to (TLS 1.2 and 1.3 only, forward-secret AEAD ciphers, no
// compression, no renegotiation). A certificate renewed on disk is taken by the next
// connection, without a restart; connections already open keep the one they began with.
//
//   auto credentials = std::make_shared<TlsCredentials>(files);   // CertificateError
//   Stream::Tls tls(std::move(tcp), *credentials->current());
#pragma once

#include <sys/types.h>
#include <tuqvu/broker/tlscertificate.h>

#include <boost/asio/ssl/context.hpp>
#include <memory>
#include <mutex>
#include <string>

namespace tuqvu {
namespace broker {

class TlsCredentials {
public:
  // Loads the files; CertificateError saying why they cannot serve.
  explicit TlsCredentials(CertificateFiles files);

  // The context for a new connection. When either file changed since the last look, it
  // is loaded again; a renewal that cannot be used (a key that does not fit, a file half
  // written) is logged once and the previous certificate stays in service.
  std::shared_ptr<boost::asio::ssl::context> current();

  // The fingerprint of the certificate now in service.
  std::string fingerprint();

  const CertificateFiles& files() const { return fFiles; }

private:
  // What tells a changed file: its identity, size and modification time.
  struct Stamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    long long modifiedNs = 0;
    bool operator==(const Stamp& other) const;
  };
  static Stamp stampOf(const std::string& path);
  static std::shared_ptr<boost::asio::ssl::context> load(const CertificateFiles& files);

  const CertificateFiles fFiles;
  // Guards every member below; held for a stat of the two files, or a reload.
  std::mutex fMutex;
  std::shared_ptr<boost::asio::ssl::context> fContext;
  std::string fFingerprint;
  Stamp fCertificateStamp;
  Stamp fKeyStamp;
};

}  // namespace broker
}  // namespace tuqvu
