#include "support/mqtt311proxy.h"

#include <array>
#include <boost/asio.hpp>
#include <cstdint>
#include <vector>

namespace brokertest {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;

constexpr std::uint8_t kMqtt5 = 5;
// More than any CONNECT of the fleet's clients: a larger one is no client of the tests.
constexpr std::size_t kLargestConnect = 64 * 1024;
// The protocol name's length (2 bytes) and "MQTT" come before the protocol level.
constexpr std::size_t kLevelOffset = 6;

// The sizes of the first packet of `bytes`: its fixed header (the type byte and the
// remaining length, 1 to 4 bytes) and the whole packet. Zeros while the fixed header is
// incomplete; a whole of SIZE_MAX when its length is malformed.
struct PacketSize {
  std::size_t header = 0;
  std::size_t whole = 0;
};

PacketSize packetSize(const std::vector<std::uint8_t>& bytes) {
  std::size_t remaining = 0;
  for (std::size_t i = 1; i < 5; ++i) {
    if (i >= bytes.size()) return {};
    remaining |= static_cast<std::size_t>(bytes[i] & 0x7f) << (7 * (i - 1));
    if ((bytes[i] & 0x80) == 0) return {i + 1, i + 1 + remaining};
  }
  return {0, SIZE_MAX};
}

// One client's connection, held by the handlers waiting on it.
class Connection : public std::enable_shared_from_this<Connection> {
public:
  Connection(tcp::socket client, int brokerPort, Mqtt311Proxy::Refusal refusal,
             std::shared_ptr<std::atomic<int>> refused)
      : fClient(std::move(client)),
        fBroker(fClient.get_executor()),
        fBrokerPort(brokerPort),
        fRefusal(refusal),
        fRefused(std::move(refused)) {}

  void start() { readConnect(); }

private:
  void readConnect() {
    fClient.async_read_some(asio::buffer(fChunk), [self = shared_from_this()](
                                                      boost::system::error_code error,
                                                      std::size_t read) {
      if (error) return self->close();
      self->fFirst.insert(self->fFirst.end(), self->fChunk.begin(), self->fChunk.begin() + read);
      const PacketSize size = packetSize(self->fFirst);
      if (size.whole == SIZE_MAX || size.whole > kLargestConnect) return self->close();
      if (size.whole == 0 || self->fFirst.size() < size.whole) return self->readConnect();
      self->decide(size);
    });
  }

  void decide(PacketSize connect) {
    const std::size_t level = connect.header + kLevelOffset;
    if (level >= connect.whole) return close();  // too short to be a CONNECT
    if (fFirst[level] != kMqtt5) return passOn();
    ++*fRefused;
    if (fRefusal == Mqtt311Proxy::Refusal::Hangup) return close();
    static const std::array<std::uint8_t, 4> kUnacceptableVersion{0x20, 0x02, 0x00, 0x01};
    asio::async_write(
        fClient, asio::buffer(kUnacceptableVersion),
        [self = shared_from_this()](boost::system::error_code, std::size_t) { self->close(); });
  }

  void passOn() {
    const tcp::endpoint broker(asio::ip::address_v4::loopback(),
                               static_cast<unsigned short>(fBrokerPort));
    fBroker.async_connect(broker, [self = shared_from_this()](boost::system::error_code error) {
      if (error) return self->close();
      asio::async_write(self->fBroker, asio::buffer(self->fFirst),
                        [self](boost::system::error_code error, std::size_t) {
                          if (error) return self->close();
                          self->pipe(self->fClient, self->fBroker, self->fUp);
                          self->pipe(self->fBroker, self->fClient, self->fDown);
                        });
    });
  }

  void pipe(tcp::socket& from, tcp::socket& to, std::array<std::uint8_t, 16384>& buffer) {
    from.async_read_some(asio::buffer(buffer), [self = shared_from_this(), &from, &to, &buffer](
                                                   boost::system::error_code error,
                                                   std::size_t read) {
      if (error) return self->close();
      asio::async_write(to, asio::buffer(buffer.data(), read),
                        [self, &from, &to, &buffer](boost::system::error_code error, std::size_t) {
                          if (error) return self->close();
                          self->pipe(from, to, buffer);
                        });
    });
  }

  // Either side ending ends both, as a broker's own connection would end.
  void close() {
    boost::system::error_code ignored;
    fClient.close(ignored);
    fBroker.close(ignored);
  }

  tcp::socket fClient;
  tcp::socket fBroker;
  const int fBrokerPort;
  const Mqtt311Proxy::Refusal fRefusal;
  const std::shared_ptr<std::atomic<int>> fRefused;
  std::array<std::uint8_t, 512> fChunk{};
  std::vector<std::uint8_t> fFirst;
  std::array<std::uint8_t, 16384> fUp{};
  std::array<std::uint8_t, 16384> fDown{};
};

}  // namespace

struct Mqtt311Proxy::Io {
  asio::io_context context;
  tcp::acceptor acceptor{context, tcp::endpoint(asio::ip::address_v4::loopback(), 0)};
};

namespace {

void acceptNext(tcp::acceptor& acceptor, int brokerPort, Mqtt311Proxy::Refusal refusal,
                const std::shared_ptr<std::atomic<int>>& refused) {
  acceptor.async_accept([&acceptor, brokerPort, refusal, refused](boost::system::error_code error,
                                                                  tcp::socket client) {
    if (error) return;  // the proxy is closing
    std::make_shared<Connection>(std::move(client), brokerPort, refusal, refused)->start();
    acceptNext(acceptor, brokerPort, refusal, refused);
  });
}

}  // namespace

Mqtt311Proxy::Mqtt311Proxy(int brokerPort, Refusal refusal) : fIo(std::make_unique<Io>()) {
  fPort = fIo->acceptor.local_endpoint().port();
  acceptNext(fIo->acceptor, brokerPort, refusal, fRefused);
  fThread = std::thread([this] { fIo->context.run(); });
}

Mqtt311Proxy::~Mqtt311Proxy() {
  fIo->context.stop();
  if (fThread.joinable()) fThread.join();
}

}  // namespace brokertest
