#include "ports.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace zrft_test {
namespace {

int listenOn(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) {
    return -1;
  }
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address;
  std::memset(&address, 0, sizeof(address));
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(fd, 8) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

PortHolder::PortHolder(int port) : fSocket(listenOn(port)) {}

PortHolder::~PortHolder() {
  if (fSocket >= 0) {
    ::close(fSocket);
  }
}

bool portIsFree(int port) {
  const int fd = listenOn(port);
  if (fd < 0) {
    return false;
  }
  ::close(fd);
  return true;
}

}  // namespace zrft_test
