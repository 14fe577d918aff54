// The server's I/O threads, as lanes: each lane is an io_context of its own, run by one
// thread, and every connection lives on one lane. A connection's handlers then never wake
// or wait for a thread of another lane: on a small machine, handing work between threads
// costs more than most calls themselves.
//
// Calls run on the lane's thread that read them, one at a time per lane. A call that
// lasts (a behavior run lasts as long as the behavior) must not hold up the other
// connections of its lane: once it has run for a tick (a millisecond by default), the
// lane's standby thread runs the lane's other handlers until it returns, and while it
// runs, the lane's further calls are refused a claim (they go to the executor).
//
//   IoLanes lanes(2);
//   lanes.start();
//   acceptor.async_accept(net::make_strand(lanes.next()), onAccept);   // its lane
//   ...in a handler of that connection:
//   if (IoLanes::Call call = lanes.enterCall(net::query(executor, net::execution::context))) {
//     ...make the call on this thread; the lane takes calls again once `call` goes
//   } else {
//     callExecutor->submit(job);
//   }
//   lanes.stop();
#pragma once

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

namespace tuqvu {
namespace broker {

class IoLanes {
  struct Lane;

public:
  // A claim on a lane for one call made on the calling thread; empty when none was made.
  class Call {
  public:
    Call() = default;
    Call(Call&& other) noexcept : fLane(other.fLane) { other.fLane = nullptr; }
    Call& operator=(Call&& other) noexcept;
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
    ~Call() { release(); }

    explicit operator bool() const { return fLane != nullptr; }
    // The lane takes calls again.
    void release();

  private:
    friend class IoLanes;
    explicit Call(Lane* lane) : fLane(lane) {}
    Lane* fLane = nullptr;
  };

  // `count` lanes (at least one); `tick`: how long a call may hold its lane before the
  // standby thread takes over the lane's other connections.
  explicit IoLanes(int count, std::chrono::microseconds tick = std::chrono::milliseconds(1));
  ~IoLanes();  // stop()
  IoLanes(const IoLanes&) = delete;
  IoLanes& operator=(const IoLanes&) = delete;

  // One lane per core.
  static int defaultCount();

  // Starts every lane's thread, its standby and the watch over calls that last.
  void start();
  // Stops every lane and joins its threads; handlers not yet run are dropped.
  void stop();

  boost::asio::io_context& lane(int index);
  // The lane of the next new connection: each in turn.
  boost::asio::io_context& next();

  // A claim to make one call on the calling thread, which runs a handler of the lane
  // whose io_context is `context`; empty when that lane is already making a call, or when
  // `context` is no lane's.
  Call enterCall(const boost::asio::execution_context& context);

  // How often a standby thread took a lane over from a call that lasted.
  std::uint64_t takeovers() const;

private:
  void watch();
  void runStandby(Lane& lane);
  bool anyCallRunning() const;
  std::uint64_t callsEnded() const;

  struct Shared;
  std::vector<std::unique_ptr<Lane>> fLanes;
  std::unique_ptr<Shared> fShared;
};

}  // namespace broker
}  // namespace tuqvu
