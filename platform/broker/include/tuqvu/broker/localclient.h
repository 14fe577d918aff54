// Who calls over loopback. Every program of the robot connects from the same loopback
// address, so the address cannot tell them apart; the kernel knows which process holds
// the other end of a connection, and its tables say so.
//
//   const std::string who = localClientName(socket.remote_endpoint(), socket.local_endpoint());
//   // "local process 4242", or "local user 1000" when the process cannot be seen
//
// The lookup asks the kernel for the connection's socket (socketowner.h) and reads the
// descriptors of the processes of the connection's user; done once per connection.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <mutex>
#include <string>
#include <unordered_map>

namespace tuqvu {
namespace broker {

// The name of the local program at the far end of a connection whose endpoints are
// `peer` (the program's) and `local` (ours): "local process PID" when the process is
// found, "local user UID" when only its user is (a process of another user hides its
// descriptors), "local" when the kernel's tables are not readable.
std::string localClientName(const boost::asio::ip::tcp::endpoint& peer,
                            const boost::asio::ip::tcp::endpoint& local);

// The same names, found faster for programs that open many connections: the process that
// held a user's last connection is looked at first, and every process of the user only
// when it does not hold this one. Safe to call from any thread.
class LocalClientNames {
public:
  std::string nameOf(const boost::asio::ip::tcp::endpoint& peer,
                     const boost::asio::ip::tcp::endpoint& local);

private:
  // Guards fLastHolder; held only to read or write one entry, never during a lookup.
  std::mutex fMutex;
  std::unordered_map<unsigned long, unsigned long> fLastHolder;  // user id -> process id
};

}  // namespace broker
}  // namespace tuqvu
