#include <openssl/ssl.h>
#include <sys/stat.h>
#include <tuqvu/broker/tlscredentials.h>
#include <vu/log.h>

namespace tuqvu {
namespace broker {
namespace {

namespace ssl = boost::asio::ssl;

// TLS 1.2 suites with forward secrecy and authenticated encryption only, ECDSA keys first
// (the certificate the broker makes is one), then RSA for certificates an owner brings.
// TLS 1.3 has only such suites.
constexpr const char* kTls12Ciphers =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-RSA-AES256-GCM-SHA384:ECDHE-RSA-CHACHA20-POLY1305";
constexpr const char* kGroups = "X25519:P-256:P-384";

}  // namespace

bool TlsCredentials::Stamp::operator==(const Stamp& other) const {
  return device == other.device && inode == other.inode && size == other.size &&
         modifiedNs == other.modifiedNs;
}

TlsCredentials::Stamp TlsCredentials::stampOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return {};
  return {status.st_dev, status.st_ino, status.st_size,
          static_cast<long long>(status.st_mtim.tv_sec) * 1000000000LL + status.st_mtim.tv_nsec};
}

std::shared_ptr<ssl::context> TlsCredentials::load(const CertificateFiles& files) {
  auto context = std::make_shared<ssl::context>(ssl::context::tls_server);
  SSL_CTX* native = context->native_handle();
  SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION);
  SSL_CTX_set_options(
      native, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE);
  if (SSL_CTX_set_cipher_list(native, kTls12Ciphers) != 1 ||
      SSL_CTX_set1_groups_list(native, kGroups) != 1) {
    throw CertificateError("this OpenSSL offers none of the ciphers or groups the broker uses");
  }
  boost::system::error_code error;
  context->use_certificate_chain_file(files.certificate, error);
  if (error) {
    throw CertificateError("cannot use the certificate " + files.certificate + ": " +
                           error.message());
  }
  context->use_private_key_file(files.key, ssl::context::pem, error);
  if (error) throw CertificateError("cannot use the key " + files.key + ": " + error.message());
  if (SSL_CTX_check_private_key(native) != 1) {
    throw CertificateError("the key " + files.key + " does not belong to the certificate " +
                           files.certificate);
  }
  return context;
}

TlsCredentials::TlsCredentials(CertificateFiles files) : fFiles(std::move(files)) {
  fCertificateStamp = stampOf(fFiles.certificate);
  fKeyStamp = stampOf(fFiles.key);
  fContext = load(fFiles);
  fFingerprint = fingerprintOfPemFile(fFiles.certificate);
}

std::shared_ptr<ssl::context> TlsCredentials::current() {
  std::lock_guard<std::mutex> lock(fMutex);
  const Stamp certificate = stampOf(fFiles.certificate);
  const Stamp key = stampOf(fFiles.key);
  if (certificate == fCertificateStamp && key == fKeyStamp) return fContext;
  // Looked at once per change: a renewal that fails is not tried again on every
  // connection, only when the files change again.
  fCertificateStamp = certificate;
  fKeyStamp = key;
  try {
    auto renewed = load(fFiles);
    const std::string fingerprint = fingerprintOfPemFile(fFiles.certificate);
    fContext = std::move(renewed);
    fFingerprint = fingerprint;
    vu::log::write(vu::log::info, "tuqvu.tls", "certificate",
                   "serving the renewed certificate " + fFiles.certificate +
                       ", SHA-256 fingerprint " + fFingerprint);
  } catch (const CertificateError& error) {
    vu::log::write(vu::log::warning, "tuqvu.tls", "certificate",
                   std::string(error.what()) + "; the previous certificate stays in service");
  }
  return fContext;
}

std::string TlsCredentials::fingerprint() {
  std::lock_guard<std::mutex> lock(fMutex);
  return fFingerprint;
}

}  // namespace broker
}  // namespace tuqvu
