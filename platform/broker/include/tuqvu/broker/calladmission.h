// How many calls the broker makes at once: at most `perClient` for one client and `total`
// for all clients together. A call beyond either is not made: the client gets a JSON-RPC
// error (code kTooManyCalls) and may try again once its earlier calls answered. A client
// is named by its address, or for a program of the robot itself by its process (see
// localclient.h), so that one local program that floods cannot starve another.
//
//   CallAdmission admission(CallAdmission::limitsFromEnvironment());
//   std::string why;
//   auto ticket = admission.admit("192.168.1.7", &why);   // null: refused, `why` says so
//   ...make the call; the slot is free again when the last copy of ticket goes
//
// The limits come from TUQVU_MAX_CALLS_PER_CLIENT (default 64) and TUQVU_MAX_CALLS
// (default 256); a value that is not a positive whole number is logged and ignored.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace tuqvu {
namespace broker {

class CallAdmission {
public:
  struct Limits {
    std::size_t perClient = 64;
    std::size_t total = 256;
  };
  static Limits limitsFromEnvironment();

  explicit CallAdmission(Limits limits);

  // A ticket for one call of `client`, or null with the reason in `why` when the client
  // or everybody together already has as many calls running as allowed.
  std::shared_ptr<void> admit(const std::string& client, std::string* why);

  std::size_t running() const;
  const Limits& limits() const { return fState->limits; }

private:
  struct State {
    explicit State(Limits l) : limits(l) {}
    const Limits limits;
    mutable std::mutex mutex;  // guards the two counts below
    std::map<std::string, std::size_t> perClient;
    std::size_t total = 0;
  };
  // Shared with the tickets, which may outlive the admission.
  std::shared_ptr<State> fState;
};

}  // namespace broker
}  // namespace tuqvu
