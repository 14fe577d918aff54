// Local programs are told apart by the process holding the far end of their connection.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <tuqvu/broker/localclient.h>
#include <tuqvu/broker/socketowner.h>
#include <unistd.h>

#include <boost/asio.hpp>
#include <string>

using boost::asio::ip::tcp;
using tuqvu::broker::localClientName;

namespace {

struct Loopback {
  boost::asio::io_context io;
  tcp::acceptor acceptor;
  explicit Loopback(const boost::asio::ip::address& address)
      : acceptor(io, tcp::endpoint(address, 0)) {}
};

TEST(LocalClient, AConnectionOfThisProcessNamesThisProcess) {
  Loopback server(boost::asio::ip::make_address("127.0.0.1"));
  tcp::socket client(server.io);
  client.connect(server.acceptor.local_endpoint());
  tcp::socket accepted = server.acceptor.accept();
  EXPECT_EQ("local process " + std::to_string(::getpid()),
            localClientName(accepted.remote_endpoint(), accepted.local_endpoint()));
}

// A shell of its own connects to `port` and holds the connection until its input
// closes; returns its process id and the write end of its input.
std::pair<pid_t, int> shellConnectingTo(unsigned short port) {
  int input[2];
  if (::pipe(input) != 0) return {-1, -1};
  const std::string script =
      "exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(port) + "; read -r _ || true";
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(input[0], 0);
    ::close(input[0]);
    ::close(input[1]);
    ::execl("/bin/bash", "bash", "-c", script.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(input[0]);
  return {child, input[1]};
}

// Lets the shell end and checks that it ended well.
void endShell(std::pair<pid_t, int> shell) {
  ::close(shell.second);
  int status = 0;
  ::waitpid(shell.first, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(LocalClient, AConnectionOfAnotherProcessNamesThatProcess) {
  Loopback server(boost::asio::ip::make_address("127.0.0.1"));
  const auto shell = shellConnectingTo(server.acceptor.local_endpoint().port());
  ASSERT_GT(shell.first, 0);
  tcp::socket accepted = server.acceptor.accept();
  const std::string name = localClientName(accepted.remote_endpoint(), accepted.local_endpoint());
  endShell(shell);
  EXPECT_EQ("local process " + std::to_string(shell.first), name);
}

TEST(LocalClient, AnIpv4ClientOfADualStackListenerIsFoundToo) {
  boost::asio::io_context io;
  tcp::acceptor acceptor(io);
  boost::system::error_code error;
  acceptor.open(tcp::v6(), error);
  if (error) GTEST_SKIP() << "no IPv6 here: " << error.message();
  acceptor.set_option(boost::asio::ip::v6_only(false));
  acceptor.bind(tcp::endpoint(tcp::v6(), 0), error);
  if (error) GTEST_SKIP() << "no IPv6 here: " << error.message();
  acceptor.listen();
  tcp::socket client(io);
  client.connect(
      tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"), acceptor.local_endpoint().port()));
  tcp::socket accepted = acceptor.accept();
  EXPECT_TRUE(accepted.remote_endpoint().address().to_v6().is_v4_mapped());
  EXPECT_EQ("local process " + std::to_string(::getpid()),
            localClientName(accepted.remote_endpoint(), accepted.local_endpoint()));
}

TEST(LocalClient, AnEndpointWithoutAConnectionIsOnlyLocal) {
  const tcp::endpoint nowhere(boost::asio::ip::make_address("127.0.0.1"), 1);
  EXPECT_EQ("local", localClientName(nowhere, nowhere));
}

}  // namespace

TEST(SocketOwner, TheKernelsOneLookupAndItsTablesAgreeOnAConnection) {
  Loopback server(boost::asio::ip::make_address("127.0.0.1"));
  tcp::socket client(server.io);
  client.connect(server.acceptor.local_endpoint());
  tcp::socket accepted = server.acceptor.accept();
  bool unavailable = false;
  const auto asked = tuqvu::broker::socketOwnerBySockDiag(accepted.remote_endpoint(),
                                                          accepted.local_endpoint(), &unavailable);
  if (unavailable) GTEST_SKIP() << "netlink socket diagnostics are not allowed here";
  const auto read =
      tuqvu::broker::socketOwnerByProcTables(accepted.remote_endpoint(), accepted.local_endpoint());
  ASSERT_TRUE(asked);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->uid, asked->uid);
  EXPECT_EQ(read->inode, asked->inode);
  EXPECT_EQ(static_cast<unsigned long>(::getuid()), asked->uid);
  // The server's own end is another socket.
  const auto ours =
      tuqvu::broker::socketOwner(accepted.local_endpoint(), accepted.remote_endpoint());
  ASSERT_TRUE(ours);
  EXPECT_NE(asked->inode, ours->inode);
}

TEST(SocketOwner, AConnectionThatDoesNotExistIsNotFound) {
  Loopback server(boost::asio::ip::make_address("127.0.0.1"));
  const tcp::endpoint nowhere(boost::asio::ip::make_address("127.0.0.1"), 1);
  EXPECT_FALSE(tuqvu::broker::socketOwner(nowhere, server.acceptor.local_endpoint()));
  bool unavailable = false;
  EXPECT_FALSE(tuqvu::broker::socketOwnerBySockDiag(nowhere, server.acceptor.local_endpoint(),
                                                    &unavailable));
  EXPECT_FALSE(unavailable);
}

TEST(LocalClientNames, NamesTheSameProcessesAsTheLookupOfEachConnection) {
  Loopback server(boost::asio::ip::make_address("127.0.0.1"));
  tuqvu::broker::LocalClientNames names;
  // Several connections of this process: the first walks the processes, the next ones
  // look at the process found before.
  for (int i = 0; i < 3; ++i) {
    tcp::socket client(server.io);
    client.connect(server.acceptor.local_endpoint());
    tcp::socket accepted = server.acceptor.accept();
    EXPECT_EQ(localClientName(accepted.remote_endpoint(), accepted.local_endpoint()),
              names.nameOf(accepted.remote_endpoint(), accepted.local_endpoint()));
    EXPECT_EQ("local process " + std::to_string(::getpid()),
              names.nameOf(accepted.remote_endpoint(), accepted.local_endpoint()));
  }
  // Another program of the same user: not the process remembered.
  const auto shell = shellConnectingTo(server.acceptor.local_endpoint().port());
  ASSERT_GT(shell.first, 0);
  tcp::socket accepted = server.acceptor.accept();
  const std::string name = names.nameOf(accepted.remote_endpoint(), accepted.local_endpoint());
  endShell(shell);
  EXPECT_EQ("local process " + std::to_string(shell.first), name);
}
