// Local programs are told apart by the process holding the far end of their connection.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <tuqvu/broker/localclient.h>
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

TEST(LocalClient, AConnectionOfAnotherProcessNamesThatProcess) {
  Loopback server(boost::asio::ip::make_address("127.0.0.1"));
  const unsigned short port = server.acceptor.local_endpoint().port();
  // A shell connects and holds the connection until its input closes.
  int input[2];
  ASSERT_EQ(0, ::pipe(input));
  const std::string script =
      "exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(port) + "; read -r _ || true";
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::dup2(input[0], 0);
    ::close(input[0]);
    ::close(input[1]);
    ::execl("/bin/bash", "bash", "-c", script.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(input[0]);
  tcp::socket accepted = server.acceptor.accept();
  const std::string name = localClientName(accepted.remote_endpoint(), accepted.local_endpoint());
  ::close(input[1]);
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ("local process " + std::to_string(child), name);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
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
