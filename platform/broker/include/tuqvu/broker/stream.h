// A TCP connection, in clear or inside TLS. The broker's sessions and tuqvu-call talk
// through it without caring which: it reads and writes like a Beast stream (synchronous
// and asynchronous), and its time-outs are those of the TCP stream underneath, which also
// bound the TLS handshake and shut-down.
//
//   tuqvu::broker::Stream stream(std::move(tlsStream));
//   stream.expiresAfter(std::chrono::seconds(30));
//   http::async_read(stream, buffer, parser, handler);
#pragma once

#include <tuqvu/broker/openconnection.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <chrono>
#include <memory>
#include <utility>
#include <variant>

namespace tuqvu {
namespace broker {

class Stream {
public:
  // A connection's strand on its I/O lane: named, not type-erased, because every read and
  // write passes through it.
  using Strand = boost::asio::strand<boost::asio::io_context::executor_type>;
  using Plain = boost::beast::basic_stream<boost::asio::ip::tcp, Strand>;
  using Socket = Plain::socket_type;
  using Tls = boost::beast::ssl_stream<Plain>;
  using executor_type = Plain::executor_type;

  explicit Stream(Plain&& plain) : fStream(std::in_place_type<Plain>, std::move(plain)) {}
  // `context`: the one `tls` was made from, kept as long as the stream is.
  Stream(Tls&& tls, std::shared_ptr<boost::asio::ssl::context> context)
      : fStream(std::in_place_type<Tls>, std::move(tls)), fContext(std::move(context)) {}

  // Keeps the server's count of this connection for as long as the stream lives.
  void keepCounted(OpenConnection counted) { fCounted = std::move(counted); }

  bool encrypted() const { return std::holds_alternative<Tls>(fStream); }
  // The TLS layer; only for an encrypted stream.
  Tls& tls() { return std::get<Tls>(fStream); }

  executor_type get_executor() noexcept { return tcp().get_executor(); }
  Plain& tcp() {
    return encrypted() ? std::get<Tls>(fStream).next_layer() : std::get<Plain>(fStream);
  }
  Socket& socket() { return tcp().socket(); }

  template <class Duration>
  void expiresAfter(Duration duration) {
    tcp().expires_after(duration);
  }
  void expiresAt(std::chrono::steady_clock::time_point when) { tcp().expires_at(when); }
  void expiresNever() { tcp().expires_never(); }

  // The stream concepts of Asio and Beast (AsyncReadStream, AsyncWriteStream,
  // SyncReadStream, SyncWriteStream).
  template <class MutableBuffers, class Handler>
  void async_read_some(const MutableBuffers& buffers, Handler&& handler) {
    std::visit(
        [&](auto& stream) { stream.async_read_some(buffers, std::forward<Handler>(handler)); },
        fStream);
  }
  template <class ConstBuffers, class Handler>
  void async_write_some(const ConstBuffers& buffers, Handler&& handler) {
    std::visit(
        [&](auto& stream) { stream.async_write_some(buffers, std::forward<Handler>(handler)); },
        fStream);
  }
  template <class MutableBuffers>
  std::size_t read_some(const MutableBuffers& buffers) {
    return std::visit([&](auto& stream) { return stream.read_some(buffers); }, fStream);
  }
  template <class MutableBuffers>
  std::size_t read_some(const MutableBuffers& buffers, boost::system::error_code& error) {
    return std::visit([&](auto& stream) { return stream.read_some(buffers, error); }, fStream);
  }
  template <class ConstBuffers>
  std::size_t write_some(const ConstBuffers& buffers) {
    return std::visit([&](auto& stream) { return stream.write_some(buffers); }, fStream);
  }
  template <class ConstBuffers>
  std::size_t write_some(const ConstBuffers& buffers, boost::system::error_code& error) {
    return std::visit([&](auto& stream) { return stream.write_some(buffers, error); }, fStream);
  }

private:
  std::variant<Plain, Tls> fStream;
  std::shared_ptr<boost::asio::ssl::context> fContext;
  OpenConnection fCounted;
};

}  // namespace broker
}  // namespace tuqvu
