// Who calls over loopback. Every program of the robot connects from the same loopback
// address, so the address cannot tell them apart; the kernel knows which process holds
// the other end of a connection, and its tables say so.
//
//   const std::string who = localClientName(socket.remote_endpoint(), socket.local_endpoint());
//   // "local process 4242", or "local user 1000" when the process cannot be seen
//
// The lookup reads /proc/net/tcp (or tcp6) and the descriptors of the processes of the
// connection's user: a few milliseconds, done once per connection.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <string>

namespace tuqvu {
namespace broker {

// The name of the local program at the far end of a connection whose endpoints are
// `peer` (the program's) and `local` (ours): "local process PID" when the process is
// found, "local user UID" when only its user is (a process of another user hides its
// descriptors), "local" when the kernel's tables are not readable.
std::string localClientName(const boost::asio::ip::tcp::endpoint& peer,
                            const boost::asio::ip::tcp::endpoint& local);

}  // namespace broker
}  // namespace tuqvu
