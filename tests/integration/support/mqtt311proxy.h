// A broker without MQTT 5, made of a real one: a proxy on a free loopback port that reads
// the CONNECT of each connection and refuses one of MQTT 5 as a 3.1.1 broker does (CONNACK
// return code 1, "unacceptable protocol version", then the connection closed) or, as some
// brokers do, by hanging up at once. Any other CONNECT goes on to the broker behind it, and
// after it every byte both ways, so the broker sees the client's own connection end.
//
//   Mqtt311Proxy proxy(mosquitto.port());
//   proxy.url();               // "mqtt://127.0.0.1:PORT"
//   proxy.refusedConnects();   // how many MQTT 5 CONNECTs it turned away
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace brokertest {

class Mqtt311Proxy {
public:
  enum class Refusal { Connack, Hangup };

  explicit Mqtt311Proxy(int brokerPort, Refusal refusal = Refusal::Connack);
  ~Mqtt311Proxy();
  Mqtt311Proxy(const Mqtt311Proxy&) = delete;
  Mqtt311Proxy& operator=(const Mqtt311Proxy&) = delete;

  int port() const { return fPort; }
  std::string url() const { return "mqtt://127.0.0.1:" + std::to_string(fPort); }
  int refusedConnects() const { return fRefused->load(); }

private:
  struct Io;
  std::unique_ptr<Io> fIo;
  int fPort = 0;
  // Shared with the connections, which count into it on the proxy's thread.
  std::shared_ptr<std::atomic<int>> fRefused = std::make_shared<std::atomic<int>>(0);
  std::thread fThread;
};

}  // namespace brokertest
