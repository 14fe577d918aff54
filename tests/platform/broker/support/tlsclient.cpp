#include "tlsclient.h"

#include <common/shell.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <tuqvu/broker/stream.h>
#include <tuqvu/broker/tlsfingerprint.h>

#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <stdexcept>

namespace brokertest {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;
using tuqvu::broker::Stream;

struct TlsConnection::Impl {
  net::io_context ioc;
  std::shared_ptr<ssl::context> context = std::make_shared<ssl::context>(ssl::context::tls_client);
  std::unique_ptr<Stream> stream;
  beast::flat_buffer buffer;
};

TlsConnection::TlsConnection(int port, const std::string& trusted, const std::string& host,
                             const std::string& address)
    : fImpl(std::make_unique<Impl>()), fPort(port), fHost(host) {
  if (trusted.empty()) {
    fImpl->context->set_verify_mode(ssl::verify_none);
  } else {
    fImpl->context->load_verify_file(trusted);
    fImpl->context->set_verify_mode(ssl::verify_peer);
  }
  Stream::Tls tls(net::make_strand(fImpl->ioc), *fImpl->context);
  if (!trusted.empty()) tls.set_verify_callback(ssl::host_name_verification(host));
  tls.next_layer().connect(
      tcp::endpoint(net::ip::make_address(address), static_cast<unsigned short>(port)));
  tls.next_layer().expires_after(std::chrono::seconds(30));
  tls.handshake(ssl::stream_base::client);
  fImpl->stream = std::make_unique<Stream>(std::move(tls), fImpl->context);
}

TlsConnection::~TlsConnection() = default;

std::string TlsConnection::peerFingerprint() const {
  return tuqvu::broker::fingerprintOfPeer(fImpl->stream->tls().native_handle());
}

std::string TlsConnection::protocol() const {
  return SSL_get_version(fImpl->stream->tls().native_handle());
}

HttpReply TlsConnection::request(const std::string& method, const std::string& target,
                                 const std::string& body,
                                 const std::map<std::string, std::string>& headers) {
  http::request<http::string_body> message{http::string_to_verb(method), target, 11};
  message.set(http::field::host, fHost + ":" + std::to_string(fPort));
  const std::string authorization = authorizationFor(fPort);
  if (!authorization.empty()) message.set(http::field::authorization, authorization);
  if (method == "POST") message.set(http::field::content_type, "application/json");
  for (const auto& header : headers) {
    if (header.second.empty()) {
      message.erase(header.first);
    } else {
      message.set(header.first, header.second);
    }
  }
  message.body() = body;
  message.prepare_payload();
  fImpl->stream->expiresAfter(std::chrono::seconds(60));
  http::write(*fImpl->stream, message);
  http::response<http::string_body> answer;
  http::read(*fImpl->stream, fImpl->buffer, answer);
  HttpReply reply;
  reply.status = answer.result_int();
  for (const auto& field : answer) {
    std::string name(field.name_string());
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    reply.headers[name] = std::string(field.value());
  }
  reply.body = answer.body();
  return reply;
}

void TlsConnection::sendRaw(const std::string& bytes) {
  net::write(*fImpl->stream, net::buffer(bytes));
}

std::string TlsConnection::readStreamUntil(const std::string& needle, int timeoutMs) {
  std::string seen(static_cast<const char*>(fImpl->buffer.data().data()), fImpl->buffer.size());
  fImpl->buffer.consume(fImpl->buffer.size());
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (seen.find(needle) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
    fImpl->stream->expiresAt(deadline);
    char chunk[4096];
    beast::error_code error;
    bool done = false;
    std::size_t got = 0;
    fImpl->stream->async_read_some(net::buffer(chunk), [&](beast::error_code e, std::size_t n) {
      error = e;
      got = n;
      done = true;
    });
    fImpl->ioc.restart();
    fImpl->ioc.run();
    if (!done || error) break;
    seen.append(chunk, got);
  }
  return seen;
}

std::string opensslKeyFingerprint(const std::string& certificateFile) {
  const tuqvutest::CommandRun shown =
      tuqvutest::run("openssl x509 -noout -pubkey -in " + tuqvutest::shellWord(certificateFile) +
                     " | openssl pkey -pubin -outform der | openssl dgst -sha256 -c");
  const std::size_t equals = shown.output.find("= ");
  std::string fingerprint = equals == std::string::npos ? "" : shown.output.substr(equals + 2);
  while (!fingerprint.empty() && fingerprint.back() == '\n') fingerprint.pop_back();
  for (char& c : fingerprint) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return fingerprint;
}

}  // namespace brokertest
