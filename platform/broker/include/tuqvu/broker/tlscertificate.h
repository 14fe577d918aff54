// The broker's own certificate: a self-signed one made at the first start that needs
// HTTPS and kept beside the secret, unless the owner gives one (--tls-cert, --tls-key).
//
//   const CertificateFiles files = defaultCertificateFiles();
//   if (makeCertificateUnlessPresent(files, localNames())) log("made " + files.certificate);
#pragma once

#include <tuqvu/broker/tlsfingerprint.h>

#include <string>
#include <vector>

namespace tuqvu {
namespace broker {

// A certificate chain and its private key, both PEM files.
struct CertificateFiles {
  std::string certificate;
  std::string key;
};

// "certificate.pem" and "certificate.key" in the folder of the secret file.
CertificateFiles certificateFilesBeside(const std::string& secretFile);

// Beside the default secret file, in the user's config folder of tuqvu.
CertificateFiles defaultCertificateFiles();

// The names and addresses the certificate is made for: "localhost", the host name (and
// its ".local" name), the loopback addresses and every address of the host's interfaces.
std::vector<std::string> localNames();

// How long a self-signed certificate is valid: within the 825 days (its hour of
// back-dating included) beyond which clients and checkers call a certificate's life too
// long. Renewed with the same key (and so the same fingerprint) once it has less than
// kRenewalDays left.
constexpr int kValidityDays = 824;
constexpr int kRenewalDays = 30;

// Makes a self-signed certificate (ECDSA P-256, SHA-256, valid kValidityDays) for `names`
// (each an IP literal or a DNS name, all in the subject alternative names, the first as
// the common name): the key in a new file of mode 0600, the certificate beside it, both
// replacing what was there only once complete. CertificateError saying why on failure.
void makeSelfSignedCertificate(const CertificateFiles& files,
                               const std::vector<std::string>& names);

enum class OwnCertificate { Kept, Made, Renewed };

// The broker's own certificate: made when neither file exists, renewed with its key and
// names when it ends within kRenewalDays, else kept. CertificateError when only one of
// the files exists, they cannot be read, or the key file may be read by others.
OwnCertificate ensureOwnCertificate(const CertificateFiles& files,
                                    const std::vector<std::string>& names);

}  // namespace broker
}  // namespace tuqvu
