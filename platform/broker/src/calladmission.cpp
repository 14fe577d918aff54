#include <tuqvu/broker/calladmission.h>
#include <vu/settings.h>

namespace tuqvu {
namespace broker {
CallAdmission::Limits CallAdmission::limitsFromEnvironment() {
  Limits limits;
  limits.perClient = static_cast<std::size_t>(
      vu::settings::positiveNumber("TUQVU_MAX_CALLS_PER_CLIENT", limits.perClient, 1u << 20));
  limits.total = static_cast<std::size_t>(
      vu::settings::positiveNumber("TUQVU_MAX_CALLS", limits.total, 1u << 20));
  return limits;
}

CallAdmission::CallAdmission(Limits limits) : fState(std::make_shared<State>(limits)) {}

CallAdmission::Decision CallAdmission::admit(const std::string& client) {
  std::shared_ptr<State> state = fState;
  {
    std::lock_guard<std::mutex> lock(state->mutex);
    std::size_t& mine = state->perClient[client];
    if (mine >= state->limits.perClient) {
      return Refused{
          "too many calls at once: " + client + " already has " + std::to_string(mine) +
          " running, the most one client may have (TUQVU_MAX_CALLS_PER_CLIENT); try again "
          "when one has answered"};
    }
    if (state->total >= state->limits.total) {
      if (mine == 0) state->perClient.erase(client);
      return Refused{"too many calls at once: " + std::to_string(state->total) +
                     " are running, the most the broker makes (TUQVU_MAX_CALLS); try again "
                     "when one has answered"};
    }
    ++mine;
    ++state->total;
  }
  // The ticket points at the shared state only so that it tests true; the deleter frees
  // the slot.
  return Ticket(static_cast<void*>(state.get()), [state, client](void*) {
    std::lock_guard<std::mutex> lock(state->mutex);
    --state->total;
    const auto found = state->perClient.find(client);
    if (found != state->perClient.end() && --found->second == 0) state->perClient.erase(found);
  });
}

std::size_t CallAdmission::running() const {
  std::lock_guard<std::mutex> lock(fState->mutex);
  return fState->total;
}

}  // namespace broker
}  // namespace tuqvu
