#include <dirent.h>
#include <sys/stat.h>
#include <tuqvu/broker/localclient.h>
#include <unistd.h>
#include <vu/text.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

namespace tuqvu {
namespace broker {
namespace {

using boost::asio::ip::tcp;

// An endpoint as the kernel writes it in /proc/net/tcp{,6}: the address as the words it
// stores, each printed as a host-order hexadecimal number, then ":" and the port.
std::string kernelForm(const tcp::endpoint& endpoint, bool asIpv6) {
  char text[64];
  std::string out;
  if (!asIpv6) {
    const auto bytes = endpoint.address().to_v4().to_bytes();
    std::uint32_t word;
    std::memcpy(&word, bytes.data(), sizeof word);
    std::snprintf(text, sizeof text, "%08X", word);
    out = text;
  } else {
    const auto address = endpoint.address();
    const auto bytes = address.is_v4() ? boost::asio::ip::make_address_v6(
                                             boost::asio::ip::v4_mapped, address.to_v4())
                                             .to_bytes()
                                       : address.to_v6().to_bytes();
    for (std::size_t at = 0; at < bytes.size(); at += 4) {
      std::uint32_t word;
      std::memcpy(&word, bytes.data() + at, sizeof word);
      std::snprintf(text, sizeof text, "%08X", word);
      out += text;
    }
  }
  std::snprintf(text, sizeof text, ":%04X", static_cast<unsigned>(endpoint.port()));
  return out + text;
}

struct SocketOwner {
  bool found = false;
  unsigned long uid = 0;
  unsigned long inode = 0;
};

// The row of the program's end of the connection: its local address is `peer`.
SocketOwner findSocket(const char* table, const std::string& peer, const std::string& local) {
  std::ifstream in(table);
  std::string line;
  std::getline(in, line);  // the header
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string slot, localAddress, remoteAddress, state, queues, timer, retransmits;
    SocketOwner owner;
    fields >> slot >> localAddress >> remoteAddress >> state >> queues >> timer >> retransmits >>
        owner.uid;
    if (localAddress != peer || remoteAddress != local) continue;
    std::string timeout;
    fields >> timeout >> owner.inode;
    owner.found = !fields.fail();
    return owner;
  }
  return {};
}

// The process of `uid` that holds the socket `inode`, or 0.
unsigned long processHolding(unsigned long uid, unsigned long inode) {
  const std::string wanted = "socket:[" + std::to_string(inode) + "]";
  DIR* processes = ::opendir("/proc");
  if (!processes) return 0;
  unsigned long holder = 0;
  while (holder == 0) {
    const dirent* process = ::readdir(processes);
    if (!process) break;
    if (!vu::text::isAllDigits(process->d_name)) continue;
    const std::string base = std::string("/proc/") + process->d_name;
    struct stat owner;
    if (::stat(base.c_str(), &owner) != 0 || owner.st_uid != uid) continue;
    DIR* descriptors = ::opendir((base + "/fd").c_str());
    if (!descriptors) continue;  // another user's, or gone
    while (const dirent* descriptor = ::readdir(descriptors)) {
      if (!vu::text::isAllDigits(descriptor->d_name)) continue;
      char target[64];
      const std::string link = base + "/fd/" + descriptor->d_name;
      const ssize_t length = ::readlink(link.c_str(), target, sizeof target - 1);
      if (length <= 0) continue;
      if (wanted.compare(0, std::string::npos, target, static_cast<std::size_t>(length)) == 0) {
        holder = std::stoul(process->d_name);
        break;
      }
    }
    ::closedir(descriptors);
  }
  ::closedir(processes);
  return holder;
}

}  // namespace

std::string localClientName(const tcp::endpoint& peer, const tcp::endpoint& local) {
  tcp::endpoint peerEndpoint = peer;
  tcp::endpoint localEndpoint = local;
  // A dual-stack listener sees an IPv4 client as ::ffff:a.b.c.d; the client's own socket
  // is an IPv4 one.
  const auto unmapped = [](const tcp::endpoint& endpoint) {
    const auto address = endpoint.address();
    if (address.is_v6() && address.to_v6().is_v4_mapped()) {
      return tcp::endpoint(
          boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, address.to_v6()),
          endpoint.port());
    }
    return endpoint;
  };
  peerEndpoint = unmapped(peerEndpoint);
  localEndpoint = unmapped(localEndpoint);
  const bool v4 = peerEndpoint.address().is_v4() && localEndpoint.address().is_v4();
  SocketOwner owner;
  if (v4) {
    owner = findSocket("/proc/net/tcp", kernelForm(peerEndpoint, false),
                       kernelForm(localEndpoint, false));
  }
  if (!owner.found) {
    owner = findSocket("/proc/net/tcp6", kernelForm(peerEndpoint, true),
                       kernelForm(localEndpoint, true));
  }
  if (!owner.found) return "local";
  const unsigned long process = processHolding(owner.uid, owner.inode);
  if (process == 0) return "local user " + std::to_string(owner.uid);
  return "local process " + std::to_string(process);
}

}  // namespace broker
}  // namespace tuqvu
