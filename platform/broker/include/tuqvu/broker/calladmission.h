// How many calls the broker makes at once: at most `perClient` for one client and `total`
// for all clients together. A call beyond either is not made: the client gets a JSON-RPC
// error (code kTooManyCalls) and may try again once its earlier calls answered. A client
// is named by its address, or for a program of the robot itself by its process (see
// localclient.h), so that one local program that floods cannot starve another.
//
//   CallAdmission admission(CallAdmission::limitsFromEnvironment());
//   CallAdmission::Decision decision = admission.admit("192.168.1.7");
//   if (auto* refused = std::get_if<CallAdmission::Refused>(&decision)) ...say refused->why
//   ...else make the call; the slot is free again when the last copy of the ticket goes
//
// The limits come from TUQVU_MAX_CALLS_PER_CLIENT (default 64) and TUQVU_MAX_CALLS
// (default 256); a value that is not a positive whole number is logged and ignored.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <variant>

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

  // One call's slot, held until the last copy of the ticket goes.
  using Ticket = std::shared_ptr<void>;
  // Why a call was not admitted, in words for its client.
  struct Refused {
    std::string why;
  };
  using Decision = std::variant<Ticket, Refused>;

  // A ticket for one call of `client`, or Refused when the client or everybody together
  // already has as many calls running as allowed.
  Decision admit(const std::string& client);

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
