// What the network side of tuqvu-call shares besides connectToServer (cliclient.h): the
// Host field and the credentials it sends. Internal to the client library.
#pragma once

#include <tuqvu/broker/cli.h>

#include <boost/beast/http.hpp>
#include <chrono>
#include <string>

namespace tuqvu {
namespace broker {
namespace cli {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start);

// The Host field for the URL's host and port ("[::1]:9600" for IPv6 literals).
std::string hostField(const Url& url);

// "Basic ..." with the installation's secret ($TUQVU_SECRET, else the secret file of
// this user), for brokers that listen beyond loopback; "" when there is none.
std::string authorization();

template <typename Body>
void setAuthorization(boost::beast::http::request<Body>& message) {
  const std::string credentials = authorization();
  if (!credentials.empty()) message.set(boost::beast::http::field::authorization, credentials);
}

}  // namespace cli
}  // namespace broker
}  // namespace tuqvu
