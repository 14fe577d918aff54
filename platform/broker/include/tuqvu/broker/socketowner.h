// Which user and socket inode the kernel has for one TCP connection of this machine,
// named by its two endpoints as the program at that end sees them (its own address
// first). Used to tell local programs apart (localclient.h).
//
//   if (auto owner = socketOwner(theirs, ours)) ... owner->uid, owner->inode
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <optional>

namespace tuqvu {
namespace broker {

struct SocketOwner {
  unsigned long uid = 0;
  unsigned long inode = 0;
};

// Asks the kernel for the one socket (netlink sock_diag: one exact lookup, whatever the
// number of sockets on the machine), else, where netlink sockets are not allowed, reads
// /proc/net/tcp and tcp6. nullopt when no such connection is found.
std::optional<SocketOwner> socketOwner(const boost::asio::ip::tcp::endpoint& own,
                                       const boost::asio::ip::tcp::endpoint& remote);

// The two ways on their own, for the tests.
std::optional<SocketOwner> socketOwnerBySockDiag(const boost::asio::ip::tcp::endpoint& own,
                                                 const boost::asio::ip::tcp::endpoint& remote,
                                                 bool* unavailable = nullptr);
std::optional<SocketOwner> socketOwnerByProcTables(const boost::asio::ip::tcp::endpoint& own,
                                                   const boost::asio::ip::tcp::endpoint& remote);

}  // namespace broker
}  // namespace tuqvu
