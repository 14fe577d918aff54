// tuqvu-call: reaching a server (TCP, and TLS with the server's verification for https),
// and the credentials sent to it.
#include "connection.h"

#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <tuqvu/broker/cliclient.h>
#include <tuqvu/broker/secretfile.h>
#include <tuqvu/broker/tlsfingerprint.h>
#include <vu/base64.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/error.hpp>
#include <cstdlib>
#include <iostream>
#include <memory>

namespace tuqvu {
namespace broker {

namespace net = boost::asio;
namespace ssl = net::ssl;
namespace beast = boost::beast;
using tcp = net::ip::tcp;

namespace {

// A server that accepts the connection and then says nothing must not hold tuqvu-call
// for ever.
constexpr std::chrono::seconds kHandshakeTimeout{30};
constexpr std::chrono::seconds kShutdownTimeout{1};

// What the server presented in the handshake.
struct Presented {
  std::string fingerprint;     // of its own (leaf) certificate
  bool chainVerified = false;  // the system's authorities vouch for it under the host name
};

bool isAddress(const std::string& host) {
  boost::system::error_code error;
  net::ip::make_address(host, error);
  return !error;
}

// The TLS settings of a client: TLS 1.2 or later, the system's authorities. The chain is
// verified during the handshake but a failure does not end it (verify_none): the verdict,
// read afterwards, is only one of the ways a server may be trusted (decideTrust). Each
// connection has its own context, so that the authorities are those of the moment
// ($SSL_CERT_FILE, $SSL_CERT_DIR).
std::shared_ptr<ssl::context> clientContext() {
  auto context = std::make_shared<ssl::context>(ssl::context::tls_client);
  if (SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION) != 1) {
    throw ClientError("cannot require TLS 1.2 or later");
  }
  boost::system::error_code ignored;  // without authorities, no chain verifies
  context->set_default_verify_paths(ignored);
  context->set_verify_mode(ssl::verify_none);
  return context;
}

// Sends the host name (SNI) when it is a name, and asks the chain's verification to check
// that the certificate is made for the host. False when the host cannot be checked (an
// IPv6 address with a zone): the chain's verdict then does not count.
bool expectHost(Stream::Tls& tls, const std::string& host) {
  SSL* ssl = tls.native_handle();
  if (isAddress(host)) {
    return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host.c_str()) == 1;
  }
  if (SSL_set_tlsext_host_name(ssl, host.c_str()) != 1) {
    throw ClientError("cannot send the host name " + host + " in the TLS handshake");
  }
  return SSL_set1_host(ssl, host.c_str()) == 1;
}

std::string handshakeFailure(const std::string& key, const boost::system::error_code& error) {
  std::string text = "the TLS handshake with " + key + " failed: " + error.message();
  if (error == beast::error::timeout) {
    text = "the TLS handshake with " + key + " got no answer within " +
           std::to_string(kHandshakeTimeout.count()) + " s";
  }
  if (error.category() == net::error::get_ssl_category() || error == ssl::error::stream_truncated ||
      error == net::error::eof) {
    text +=
        " (is it an https server? the URL of a broker serving plain HTTP starts with "
        "http://)";
  }
  return text;
}

Presented handshake(net::io_context& ioc, Stream::Tls& tls, const Url& url) {
  const bool hostChecked = expectHost(tls, url.host);
  boost::system::error_code error;
  tls.next_layer().expires_after(kHandshakeTimeout);
  tls.async_handshake(ssl::stream_base::client,
                      [&](const boost::system::error_code& result) { error = result; });
  ioc.run();
  ioc.restart();  // ready for the requests' own runs
  tls.next_layer().expires_never();
  if (error) throw ClientError(handshakeFailure(robotKey(url.host, url.port), error));

  SSL* ssl = tls.native_handle();
  if (SSL_get0_peer_certificate(ssl) == nullptr) {
    throw ClientError("the server presented no certificate");
  }
  return {fingerprintOfPeer(ssl), hostChecked && SSL_get_verify_result(ssl) == X509_V_OK};
}

std::ostream& noticesOf(const ServerTrust& trust) {
  return trust.notices != nullptr ? *trust.notices : std::cerr;
}

}  // namespace

Stream connectToServer(net::io_context& ioc, const Url& url, const ServerTrust& trust) {
  // Requests from a run before this one may have stopped the context.
  ioc.restart();
  tcp::resolver resolver(ioc);
  Stream::Plain tcpStream(net::make_strand(ioc));
  tcpStream.connect(resolver.resolve(url.host, url.port));
  if (!url.secure) return Stream(std::move(tcpStream));

  const std::shared_ptr<ssl::context> context = clientContext();
  Stream stream(Stream::Tls(std::move(tcpStream), *context), context);
  const Presented presented = handshake(ioc, stream.tls(), url);
  const std::string key = robotKey(url.host, url.port);
  std::vector<KnownRobot> recorded;
  if (trust.pinned.empty() && !presented.chainVerified) {
    recorded = knownRobotsFor(readKnownRobots(trust.knownRobots), key);
  }
  switch (decideTrust(trust, presented.fingerprint, presented.chainVerified, recorded)) {
    case TrustVerdict::Pinned:
    case TrustVerdict::Verified:
    case TrustVerdict::Known: return stream;
    case TrustVerdict::PinMismatch:
      throw UntrustedServer(pinMismatchMessage(key, trust, presented.fingerprint));
    case TrustVerdict::Changed:
      throw UntrustedServer(
          changedCertificateMessage(key, recorded, presented.fingerprint, trust.knownRobots));
    case TrustVerdict::Unknown:
      throw UntrustedServer(unknownRobotMessage(key, presented.fingerprint, trust.knownRobots));
    case TrustVerdict::RecordNew:
      rememberRobot(trust.knownRobots, key, presented.fingerprint);
      noticesOf(trust) << recordedNotice(key, presented.fingerprint, trust.knownRobots)
                       << std::flush;
      return stream;
    case TrustVerdict::AskUser: break;
  }
  // Not held open while the user reads: the server need not wait for an answer.
  closeConnection(ioc, stream);
  if (!trust.ask(trustQuestion(key, presented.fingerprint, trust.knownRobots))) {
    throw UntrustedServer("the robot " + key + " was not trusted; nothing was sent\n");
  }
  rememberRobot(trust.knownRobots, key, presented.fingerprint);
  noticesOf(trust) << recordedNotice(key, presented.fingerprint, trust.knownRobots) << std::flush;
  // A new connection, which must present the certificate now recorded.
  ServerTrust recordedOnly = trust;
  recordedOnly.ask = nullptr;
  return connectToServer(ioc, url, recordedOnly);
}

void closeConnection(net::io_context& ioc, Stream& stream) {
  boost::system::error_code ignored;
  if (stream.encrypted() && stream.socket().is_open()) {
    stream.expiresAfter(kShutdownTimeout);
    stream.tls().async_shutdown([](const boost::system::error_code&) {});
    ioc.run();
    ioc.restart();
  }
  if (stream.socket().is_open()) stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
}

namespace cli {

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string hostField(const Url& url) {
  const bool ipv6 = url.host.find(':') != std::string::npos;
  return (ipv6 ? "[" + url.host + "]" : url.host) + ":" + url.port;
}

std::string authorization() {
  std::string secret;
  if (const char* fromEnvironment = std::getenv("TUQVU_SECRET")) {
    secret = fromEnvironment;
  } else {
    try {
      secret = readSecret(defaultSecretFile());
    } catch (const SecretFileError&) {
      secret.clear();  // a broker on loopback asks for none
    }
  }
  if (secret.empty()) return "";
  return "Basic " + vu::base64::encode("tuqvu:" + secret);
}

}  // namespace cli
}  // namespace broker
}  // namespace tuqvu
