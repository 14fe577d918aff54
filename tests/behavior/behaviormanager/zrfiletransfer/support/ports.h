// Port helpers for the server tests: occupy a port the way another program would, or ask
// whether a port is free.
#pragma once

namespace zrft_test {

// Holds a listening IPv4 socket on a port (all interfaces) while alive. It binds with
// SO_REUSEADDR, so that connections of earlier tests in TIME_WAIT don't stop it; as a
// listener it still keeps every other socket off the port.
class PortHolder {
public:
  explicit PortHolder(int port);
  ~PortHolder();

  PortHolder(const PortHolder&) = delete;
  PortHolder& operator=(const PortHolder&) = delete;

  // False when the port was already taken by someone else.
  bool held() const { return fSocket >= 0; }

private:
  int fSocket;
};

// Whether a server could bind and listen on the port right now.
bool portIsFree(int port);

}  // namespace zrft_test
