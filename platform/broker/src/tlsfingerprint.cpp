#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <tuqvu/broker/tlsfingerprint.h>

#include <cctype>
#include <cstdio>
#include <memory>

namespace tuqvu {
namespace broker {
namespace {

constexpr const char* kHexDigits = "0123456789ABCDEF";
constexpr std::size_t kDigestBytes = 32;

std::string colonHex(const unsigned char* bytes, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    if (i > 0) text += ':';
    text += kHexDigits[bytes[i] >> 4];
    text += kHexDigits[bytes[i] & 0xF];
  }
  return text;
}

// The fingerprint of the public key of `certificate`.
std::string fingerprintOfKeyOf(X509* certificate) {
  unsigned char* key = nullptr;
  const int keyLength = i2d_PUBKEY(X509_get0_pubkey(certificate), &key);
  if (keyLength <= 0) throw CertificateError("a certificate without a usable public key");
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  const int digested =
      EVP_Digest(key, static_cast<std::size_t>(keyLength), digest, &length, EVP_sha256(), nullptr);
  OPENSSL_free(key);
  if (digested != 1 || length != kDigestBytes) {
    throw CertificateError("cannot compute the SHA-256 digest of a public key");
  }
  return colonHex(digest, length);
}

}  // namespace

std::string fingerprintOfPeer(const SSL* connection) {
  X509* certificate = SSL_get0_peer_certificate(connection);
  if (certificate == nullptr) throw CertificateError("the peer presented no certificate");
  return fingerprintOfKeyOf(certificate);
}

std::string fingerprintOfPemFile(const std::string& path) {
  std::unique_ptr<BIO, decltype(&BIO_free)> file(BIO_new_file(path.c_str(), "r"), &BIO_free);
  if (!file) throw CertificateError("cannot open the certificate " + path);
  std::unique_ptr<X509, decltype(&X509_free)> certificate(
      PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr), &X509_free);
  if (!certificate) throw CertificateError("no PEM certificate in " + path);
  return fingerprintOfKeyOf(certificate.get());
}

std::optional<std::string> parseFingerprint(const std::string& text) {
  std::string digits;
  std::size_t start = 0;
  if (text.size() > 7 && (text.compare(0, 7, "SHA256:") == 0 || text.compare(0, 7, "sha256:") == 0))
    start = 7;
  for (std::size_t i = start; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == ':') continue;
    if (!std::isxdigit(c)) return std::nullopt;
    digits += static_cast<char>(std::toupper(c));
  }
  if (digits.size() != 2 * kDigestBytes) return std::nullopt;
  std::string canonical;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    if (i > 0) canonical += ':';
    canonical += digits.substr(i, 2);
  }
  return canonical;
}

}  // namespace broker
}  // namespace tuqvu
