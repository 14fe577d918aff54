// A GET /events connection after its request: writes the stream header, then one
// "data:" frame per memory event for its keys, in publish order. Frames are queued by
// the hub without blocking and written as they are, shared with every other stream. A
// client that lets more than kMaxQueuedBytes pile up has its queue dropped at once and
// gets one last "dropped" event saying why before the connection ends; one that does not
// take a write within the write time-out is disconnected. When the hub holds as many
// streams as it may, the request is answered 503. A comment line every 15 s finds dead
// clients.
#pragma once

#include <tuqvu/broker/ssehub.h>
#include <tuqvu/broker/stream.h>

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tuqvu {
namespace broker {

class SseSession : public SseSubscriber, public std::enable_shared_from_this<SseSession> {
public:
  static constexpr std::size_t kMaxQueuedBytes = 1024 * 1024;

  // How long a client waits before it reconnects, sent at the start of every stream.
  static constexpr int kRetryMs = 2000;

  // `lastEventId`: what the client last received, when it reconnects (see SseHub).
  SseSession(Stream&& stream, std::shared_ptr<SseHub> hub, std::vector<std::string> keys,
             std::optional<std::string> lastEventId = {});
  ~SseSession() override;

  // Queues the header and the retry time, subscribes (the missed events of a reconnecting
  // client first), and starts writing.
  void start();

  void deliver(const std::shared_ptr<const std::string>& frame) override;
  void close() override;

private:
  void enqueue(const std::shared_ptr<const std::string>& frame, bool limited);
  // Sends `last` instead of everything queued, then ends the connection.
  void endWith(std::string last);
  void doWrite();
  void onWrite(boost::beast::error_code error, std::size_t bytes);
  void doRead();
  void scheduleHeartbeat();
  void shutdown();

  Stream fStream;
  std::shared_ptr<SseHub> fHub;
  std::vector<std::string> fKeys;
  std::optional<std::string> fLastEventId;
  SseHub::Token fToken = 0;
  boost::asio::steady_timer fHeartbeat;
  char fReadBuffer[256];
  // The frames of the write in progress, and their buffers (strand only).
  std::vector<std::shared_ptr<const std::string>> fWriting;
  std::vector<boost::asio::const_buffer> fWritingBuffers;

  // Guards the queue and the flags below; taken by the hub's thread and the strand.
  std::mutex fMutex;
  std::deque<std::shared_ptr<const std::string>> fQueue;
  std::size_t fQueuedBytes = 0;
  bool fWriteActive = false;
  bool fClosing = false;          // nothing more is queued
  bool fCloseAfterWrite = false;  // the connection ends once the queue is written
};

}  // namespace broker
}  // namespace tuqvu
