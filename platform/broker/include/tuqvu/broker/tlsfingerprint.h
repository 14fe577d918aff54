// Certificate fingerprints: the SHA-256 digest of the certificate's public key (its DER
// SubjectPublicKeyInfo), written as 32 upper-case hexadecimal pairs joined by ':'
// ("AB:CD:...:09"), as the broker logs it, tuqvu-call shows it and the known-robots file
// keeps it. The key is what ssh pins of a host, and what curl's --pinnedpubkey and
// browsers pin: a certificate renewed with the same key keeps its fingerprint.
//
//   const std::string seen = tuqvu::broker::fingerprintOfPeer(tls.native_handle());
//   if (seen != *tuqvu::broker::parseFingerprint(pinned)) refuse();
#pragma once

#include <openssl/types.h>

#include <optional>
#include <stdexcept>
#include <string>

namespace tuqvu {
namespace broker {

// A certificate that cannot be read; what() names the file and why.
class CertificateError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

// The fingerprint of the certificate the peer of a TLS connection presented, once its
// handshake is done; CertificateError when it presented none.
std::string fingerprintOfPeer(const SSL* connection);

// The fingerprint of the first certificate of a PEM file; CertificateError when there is
// none.
std::string fingerprintOfPemFile(const std::string& path);

// A fingerprint as a person may type it (either case, with or without ':' between the
// pairs, optionally after "SHA256:") in the canonical form; nullopt when it is not 64
// hexadecimal digits.
std::optional<std::string> parseFingerprint(const std::string& text);

}  // namespace broker
}  // namespace tuqvu
