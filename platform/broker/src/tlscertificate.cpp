#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <tuqvu/broker/tlscertificate.h>
#include <unistd.h>
#include <vu/path.h>
#include <vu/replacement.h>

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>

namespace tuqvu {
namespace broker {
namespace {

constexpr long kValiditySeconds = static_cast<long>(kValidityDays) * 24 * 3600;
// Clocks of robots that boot without a network start in the past; an hour of slack keeps
// a fresh certificate valid for them.
constexpr long kBackdateSeconds = 3600;

template <class T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* object) const { Free(object); }
};
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION, X509_EXTENSION_free>>;
using Memory = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;

bool isAddress(const std::string& name) {
  boost::system::error_code error;
  boost::asio::ip::make_address(name, error);
  return !error;
}

void addExtension(X509* certificate, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  Extension extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
  if (!extension || X509_add_ext(certificate, extension.get(), -1) != 1) {
    throw CertificateError("cannot add the certificate extension " + std::string(OBJ_nid2sn(nid)) +
                           " = " + value);
  }
}

std::string subjectAlternativeNames(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    if (!text.empty()) text += ',';
    text += (isAddress(name) ? "IP:" : "DNS:") + name;
  }
  return text;
}

Certificate signedCertificate(EVP_PKEY* key, const std::vector<std::string>& names) {
  Certificate certificate(X509_new());
  if (!certificate || X509_set_version(certificate.get(), X509_VERSION_3) != 1)
    throw CertificateError("cannot make a certificate");
  std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>> serial(BN_new());
  if (!serial || BN_rand(serial.get(), 127, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) != 1 ||
      !BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate.get()))) {
    throw CertificateError("cannot draw a serial number for the certificate");
  }
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kBackdateSeconds);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kValiditySeconds);
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>("TUQvu"), -1, -1, 0);
  X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(names.front().c_str()), -1, -1,
                             0);
  X509_set_issuer_name(certificate.get(), subject);
  X509_set_pubkey(certificate.get(), key);
  addExtension(certificate.get(), NID_basic_constraints, "critical,CA:FALSE");
  addExtension(certificate.get(), NID_key_usage, "critical,digitalSignature");
  addExtension(certificate.get(), NID_ext_key_usage, "serverAuth");
  addExtension(certificate.get(), NID_subject_key_identifier, "hash");
  addExtension(certificate.get(), NID_subject_alt_name, subjectAlternativeNames(names));
  if (X509_sign(certificate.get(), key, EVP_sha256()) <= 0)
    throw CertificateError("cannot sign the certificate");
  return certificate;
}

std::string pem(const std::function<int(BIO*)>& write, const std::string& what) {
  Memory memory(BIO_new(BIO_s_mem()));
  if (!memory || write(memory.get()) != 1) throw CertificateError("cannot encode the " + what);
  char* data = nullptr;
  const long length = BIO_get_mem_data(memory.get(), &data);
  return std::string(data, static_cast<std::size_t>(length));
}

// Puts `text` with `mode` in place of `path` in one step (vu::beneath::Replacement), so
// that a reader finds the old file or the whole new one, and a crash leaves nothing beside.
void replaceFile(const std::string& path, const std::string& text, mode_t mode) {
  const boost::filesystem::path file(path);
  const std::string folderPath = file.has_parent_path() ? file.parent_path().string() : ".";
  const vu::beneath::UniqueFd folder(vu::beneath::openDirectory(folderPath));
  vu::beneath::Replacement next(folder.get());
  bool written = folder && next.valid();
  for (std::size_t done = 0; written && done < text.size();) {
    const ssize_t got = ::write(next.fd(), text.data() + done, text.size() - done);
    if (got < 0 && errno == EINTR) continue;
    written = got > 0;
    if (written) done += static_cast<std::size_t>(got);
  }
  if (!written || !next.commit(file.filename().string(), mode)) {
    throw CertificateError("cannot write " + path + ": " + std::strerror(errno));
  }
}

void makeFolderOf(const std::string& path) {
  const boost::filesystem::path folder = boost::filesystem::path(path).parent_path();
  if (folder.empty()) return;
  boost::system::error_code error;
  if (boost::filesystem::create_directories(folder, error)) {
    boost::filesystem::permissions(folder, boost::filesystem::owner_all, error);
  }
  if (error)
    throw CertificateError("cannot create the folder " + folder.string() + ": " + error.message());
}

}  // namespace

CertificateFiles certificateFilesBeside(const std::string& secretFile) {
  const boost::filesystem::path folder = boost::filesystem::path(secretFile).parent_path();
  return {(folder / "certificate.pem").string(), (folder / "certificate.key").string()};
}

CertificateFiles defaultCertificateFiles() {
  return certificateFilesBeside(vu::path::userConfigPath("tuqvu", "secret"));
}

std::vector<std::string> localNames() {
  std::vector<std::string> names;
  char host[256] = {};
  if (::gethostname(host, sizeof host - 1) == 0 && host[0] != '\0') {
    const std::string name = host;
    names.push_back(name);
    if (name.find('.') == std::string::npos) names.push_back(name + ".local");
  }
  if (std::find(names.begin(), names.end(), "localhost") == names.end())
    names.push_back("localhost");
  names.push_back("127.0.0.1");
  names.push_back("::1");
  ifaddrs* interfaces = nullptr;
  if (::getifaddrs(&interfaces) == 0) {
    for (const ifaddrs* entry = interfaces; entry != nullptr; entry = entry->ifa_next) {
      if (entry->ifa_addr == nullptr || (entry->ifa_flags & IFF_LOOPBACK) != 0) continue;
      char text[INET6_ADDRSTRLEN] = {};
      const int family = entry->ifa_addr->sa_family;
      if (family == AF_INET) {
        ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr, text,
                    sizeof text);
      } else if (family == AF_INET6) {
        const auto* address = reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr);
        if (IN6_IS_ADDR_LINKLOCAL(&address->sin6_addr)) continue;  // needs a zone, not for URLs
        ::inet_ntop(AF_INET6, &address->sin6_addr, text, sizeof text);
      } else {
        continue;
      }
      if (std::find(names.begin(), names.end(), text) == names.end()) names.push_back(text);
    }
    ::freeifaddrs(interfaces);
  }
  return names;
}

namespace {

void writeSelfSigned(const CertificateFiles& files, EVP_PKEY* key,
                     const std::vector<std::string>& names) {
  if (names.empty()) throw CertificateError("a certificate needs at least one name");
  const Certificate certificate = signedCertificate(key, names);
  const std::string keyText = pem(
      [&](BIO* out) {
        return PEM_write_bio_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr);
      },
      "private key");
  const std::string certificateText =
      pem([&](BIO* out) { return PEM_write_bio_X509(out, certificate.get()); }, "certificate");
  makeFolderOf(files.key);
  makeFolderOf(files.certificate);
  replaceFile(files.key, keyText, 0600);
  replaceFile(files.certificate, certificateText, 0644);
}

template <class T, T* (*Read)(BIO*, T**, pem_password_cb*, void*), void (*Free)(T*)>
std::unique_ptr<T, Deleter<T, Free>> readPem(const std::string& path, const std::string& what) {
  Memory file(BIO_new_file(path.c_str(), "r"));
  std::unique_ptr<T, Deleter<T, Free>> object(file ? Read(file.get(), nullptr, nullptr, nullptr)
                                                   : nullptr);
  if (!object) throw CertificateError("cannot read the " + what + " " + path);
  return object;
}

// True when the certificate ends within kRenewalDays.
bool endsSoon(X509* certificate) {
  int days = 0;
  int seconds = 0;
  if (ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate)) != 1) return true;
  return days < kRenewalDays;
}

}  // namespace

void makeSelfSignedCertificate(const CertificateFiles& files,
                               const std::vector<std::string>& names) {
  Key key(EVP_EC_gen("P-256"));
  if (!key) throw CertificateError("cannot make an ECDSA P-256 key");
  writeSelfSigned(files, key.get(), names);
}

OwnCertificate ensureOwnCertificate(const CertificateFiles& files,
                                    const std::vector<std::string>& names) {
  struct stat keyStatus {};
  struct stat certificateStatus {};
  const bool haveKey = ::lstat(files.key.c_str(), &keyStatus) == 0;
  const bool haveCertificate = ::lstat(files.certificate.c_str(), &certificateStatus) == 0;
  if (!haveKey && !haveCertificate) {
    makeSelfSignedCertificate(files, names);
    return OwnCertificate::Made;
  }
  if (!haveKey)
    throw CertificateError("the certificate " + files.certificate + " has no key file " +
                           files.key);
  if (!haveCertificate)
    throw CertificateError("the key " + files.key + " has no certificate file " +
                           files.certificate);
  if ((keyStatus.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    throw CertificateError("the key file " + files.key +
                           " may be read by others; make it private with chmod 600");
  }
  const auto certificate =
      readPem<X509, PEM_read_bio_X509, X509_free>(files.certificate, "certificate");
  if (!endsSoon(certificate.get())) return OwnCertificate::Kept;
  const Key key = readPem<EVP_PKEY, PEM_read_bio_PrivateKey, EVP_PKEY_free>(files.key, "key");
  writeSelfSigned(files, key.get(), names);
  return OwnCertificate::Renewed;
}

}  // namespace broker
}  // namespace tuqvu
