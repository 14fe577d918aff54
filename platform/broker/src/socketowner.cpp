#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <tuqvu/broker/socketowner.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

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

// The row whose local address is `own` and remote address `remote`.
std::optional<SocketOwner> findRow(const char* table, const std::string& own,
                                   const std::string& remote) {
  std::ifstream in(table);
  std::string line;
  std::getline(in, line);  // the header
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string slot, localAddress, remoteAddress, state, queues, timer, retransmits;
    SocketOwner owner;
    fields >> slot >> localAddress >> remoteAddress >> state >> queues >> timer >> retransmits >>
        owner.uid;
    if (localAddress != own || remoteAddress != remote) continue;
    std::string timeout;
    fields >> timeout >> owner.inode;
    if (fields.fail()) return std::nullopt;
    return owner;
  }
  return std::nullopt;
}

// Copies an endpoint's address into a sock_diag address field (network order).
void putAddress(const tcp::endpoint& endpoint, __be32 field[4]) {
  const auto address = endpoint.address();
  if (address.is_v4()) {
    const auto bytes = address.to_v4().to_bytes();
    std::memcpy(field, bytes.data(), bytes.size());
  } else {
    const auto bytes = address.to_v6().to_bytes();
    std::memcpy(field, bytes.data(), bytes.size());
  }
}

// Closes the netlink socket on every way out.
struct Descriptor {
  int fd;
  ~Descriptor() {
    if (fd >= 0) ::close(fd);
  }
};

}  // namespace

std::optional<SocketOwner> socketOwnerBySockDiag(const tcp::endpoint& own,
                                                 const tcp::endpoint& remote, bool* unavailable) {
  if (unavailable != nullptr) *unavailable = false;
  const Descriptor diag{::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)};
  if (diag.fd < 0) {
    if (unavailable != nullptr) *unavailable = true;
    return std::nullopt;
  }
  struct {
    nlmsghdr header;
    inet_diag_req_v2 request;
  } query{};
  query.header.nlmsg_len = sizeof query;
  query.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  // No NLM_F_DUMP: the kernel looks up this one socket instead of listing them all.
  query.header.nlmsg_flags = NLM_F_REQUEST;
  query.request.sdiag_family = own.address().is_v4() ? AF_INET : AF_INET6;
  query.request.sdiag_protocol = IPPROTO_TCP;
  query.request.idiag_states = ~0U;
  query.request.id.idiag_sport = htons(own.port());
  query.request.id.idiag_dport = htons(remote.port());
  putAddress(own, query.request.id.idiag_src);
  putAddress(remote, query.request.id.idiag_dst);
  query.request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
  query.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(diag.fd, &query, sizeof query, 0, reinterpret_cast<const sockaddr*>(&kernel),
               sizeof kernel) != static_cast<ssize_t>(sizeof query)) {
    if (unavailable != nullptr) *unavailable = true;
    return std::nullopt;
  }
  alignas(nlmsghdr) char answer[8192];
  ssize_t length;
  do {
    length = ::recv(diag.fd, answer, sizeof answer, 0);
  } while (length < 0 && errno == EINTR);
  if (length < 0) {
    if (unavailable != nullptr) *unavailable = true;
    return std::nullopt;
  }
  std::size_t left = static_cast<std::size_t>(length);
  for (const nlmsghdr* message = reinterpret_cast<const nlmsghdr*>(answer); NLMSG_OK(message, left);
       message = NLMSG_NEXT(message, left)) {
    if (message->nlmsg_type == NLMSG_ERROR) {
      const auto* error = static_cast<const nlmsgerr*>(NLMSG_DATA(message));
      // ENOENT: no such connection. Anything else: the kernel cannot answer this way.
      if (error->error != -ENOENT && unavailable != nullptr) *unavailable = true;
      return std::nullopt;
    }
    if (message->nlmsg_type != SOCK_DIAG_BY_FAMILY ||
        message->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) {
      continue;
    }
    const auto* found = static_cast<const inet_diag_msg*>(NLMSG_DATA(message));
    return SocketOwner{found->idiag_uid, found->idiag_inode};
  }
  return std::nullopt;
}

std::optional<SocketOwner> socketOwnerByProcTables(const tcp::endpoint& own,
                                                   const tcp::endpoint& remote) {
  std::optional<SocketOwner> owner;
  if (own.address().is_v4() && remote.address().is_v4()) {
    owner = findRow("/proc/net/tcp", kernelForm(own, false), kernelForm(remote, false));
  }
  if (!owner) owner = findRow("/proc/net/tcp6", kernelForm(own, true), kernelForm(remote, true));
  return owner;
}

std::optional<SocketOwner> socketOwner(const tcp::endpoint& own, const tcp::endpoint& remote) {
  bool unavailable = false;
  std::optional<SocketOwner> owner = socketOwnerBySockDiag(own, remote, &unavailable);
  if (owner) return owner;
  if (!unavailable && own.address().is_v4() == remote.address().is_v4()) {
    // The kernel looked and found none; an IPv4 connection of an IPv6 socket is asked for
    // once more in its mapped form.
    if (!own.address().is_v4()) return std::nullopt;
    const auto mapped = [](const tcp::endpoint& endpoint) {
      return tcp::endpoint(
          boost::asio::ip::make_address_v6(boost::asio::ip::v4_mapped, endpoint.address().to_v4()),
          endpoint.port());
    };
    owner = socketOwnerBySockDiag(mapped(own), mapped(remote), &unavailable);
    if (owner || !unavailable) return owner;
  }
  return socketOwnerByProcTables(own, remote);
}

}  // namespace broker
}  // namespace tuqvu
