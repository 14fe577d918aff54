// A real Mosquitto MQTT broker for a test: on loopback at a free port, with the users and
// the access list the test gives, retained messages kept on disk so that a restart loses
// none. The configuration, password file and store live in a temporary folder.
//
//   Mosquitto mqtt({{"robot", "r-secret"}, {"operator", "o-secret"}}, acl);
//   mqtt.url();        // "mqtt://127.0.0.1:PORT"
//   mqtt.stop(); mqtt.start();
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

#include "support/tuqvuprocess.h"

namespace brokertest {

class Mosquitto {
public:
  // users: name -> password; acl: the text of Mosquitto's acl_file.
  Mosquitto(const std::map<std::string, std::string>& users, const std::string& acl);
  ~Mosquitto();
  Mosquitto(const Mosquitto&) = delete;
  Mosquitto& operator=(const Mosquitto&) = delete;

  // Starts it on its port (the same after a stop) and waits until it accepts connections.
  void start();
  // SIGTERM and the wait: it saves what it retains.
  void stop();
  bool running() const { return fPid > 0; }

  int port() const { return fPort; }
  std::string url() const { return "mqtt://127.0.0.1:" + std::to_string(fPort); }
  // A file holding the password of `user`, for --mqtt-password-file.
  std::string passwordFile(const std::string& user) const;
  std::string log() const;

private:
  TempDir fDir;
  int fPort = 0;
  pid_t fPid = -1;
  std::map<std::string, std::string> fUsers;
};

}  // namespace brokertest
