#include <tuqvu/broker/ssesession.h>
#include <vu/log.h>

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <chrono>

namespace tuqvu {
namespace broker {

namespace beast = boost::beast;
namespace net = boost::asio;

namespace {

constexpr auto kWriteTimeout = std::chrono::seconds(30);
constexpr auto kHeartbeatPeriod = std::chrono::seconds(15);

const char* const kHeader =
    "HTTP/1.1 200 OK\r\n"
    "Content-Type: text/event-stream\r\n"
    "Cache-Control: no-store\r\n"
    "Connection: close\r\n"
    "X-Accel-Buffering: no\r\n"
    "\r\n";

}  // namespace

SseSession::SseSession(Stream&& stream, std::shared_ptr<SseHub> hub, std::vector<std::string> keys,
                       std::optional<std::string> lastEventId)
    : fStream(std::move(stream)),
      fHub(std::move(hub)),
      fKeys(std::move(keys)),
      fLastEventId(std::move(lastEventId)),
      fHeartbeat(fStream.get_executor()) {}

SseSession::~SseSession() {
  if (fToken != 0) fHub->unsubscribe(fToken);
}

void SseSession::start() {
  // The header goes first in the queue, before any event can reach it. Nothing is written
  // before this returns: writes run on this strand after it.
  enqueue(std::make_shared<const std::string>(std::string(kHeader) +
                                              "retry: " + std::to_string(kRetryMs) + "\n\n"),
          false);
  SseHub::Refusal refusal = SseHub::Refusal::None;
  fToken = fHub->subscribe(weak_from_this(), fKeys, &refusal, fLastEventId);
  if (refusal == SseHub::Refusal::Closed) {
    close();  // the broker is shutting down
    return;
  }
  if (refusal == SseHub::Refusal::Full) {
    const std::string body = "503 - Service Unavailable: this robot serves at most " +
                             std::to_string(fHub->maxSubscribers()) +
                             " event streams at once (TUQVU_EVENTS_MAX_SUBSCRIBERS)\n";
    endWith(
        "HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain\r\nRetry-After: "
        "5\r\nConnection: close\r\nContent-Length: " +
        std::to_string(body.size()) + "\r\n\r\n" + body);
    return;
  }
  doRead();
  scheduleHeartbeat();
}

void SseSession::deliver(const std::shared_ptr<const std::string>& frame) {
  enqueue(frame, true);
}

void SseSession::enqueue(const std::shared_ptr<const std::string>& frame, bool limited) {
  {
    std::lock_guard<std::mutex> lock(fMutex);
    if (fClosing) return;
    if (!limited || fQueuedBytes + frame->size() <= kMaxQueuedBytes) {
      fQueue.push_back(frame);
      fQueuedBytes += frame->size();
      if (!fWriteActive) {
        fWriteActive = true;
        net::post(fStream.get_executor(),
                  beast::bind_front_handler(&SseSession::doWrite, shared_from_this()));
      }
      return;
    }
  }
  // Too slow a reader: its events are let go now rather than held back or lost without a
  // word; it learns why from the last one.
  vu::log::write(vu::log::warning, "tuqvu.events", "deliver",
                 "an event stream client reads too slowly and is disconnected");
  endWith("event: dropped\ndata: {\"reason\":\"this client read too slowly: more than " +
          std::to_string(kMaxQueuedBytes) +
          " bytes of events waited for it; connect again to go on\"}\n\n");
}

void SseSession::endWith(std::string last) {
  std::lock_guard<std::mutex> lock(fMutex);
  if (fClosing) return;
  fClosing = true;
  fCloseAfterWrite = true;
  fQueue.clear();
  fQueue.push_back(std::make_shared<const std::string>(std::move(last)));
  fQueuedBytes = fQueue.back()->size();
  if (!fWriteActive) {
    fWriteActive = true;
    net::post(fStream.get_executor(),
              beast::bind_front_handler(&SseSession::doWrite, shared_from_this()));
  }
}

void SseSession::close() {
  std::lock_guard<std::mutex> lock(fMutex);
  fClosing = true;
  net::post(fStream.get_executor(),
            beast::bind_front_handler(&SseSession::shutdown, shared_from_this()));
}

void SseSession::doWrite() {
  {
    std::lock_guard<std::mutex> lock(fMutex);
    if (fQueue.empty() && fCloseAfterWrite) {
      fWriteActive = false;
      net::post(fStream.get_executor(),
                beast::bind_front_handler(&SseSession::shutdown, shared_from_this()));
      return;
    }
    if ((fClosing && !fCloseAfterWrite) || fQueue.empty()) {
      fWriteActive = false;
      return;
    }
    // Everything queued goes out in one write, from the frames themselves.
    fWriting.assign(fQueue.begin(), fQueue.end());
    fQueue.clear();
    fQueuedBytes = 0;
  }
  fWritingBuffers.clear();
  for (const auto& frame : fWriting) fWritingBuffers.emplace_back(net::buffer(*frame));
  fStream.expiresAfter(kWriteTimeout);
  net::async_write(fStream, fWritingBuffers,
                   beast::bind_front_handler(&SseSession::onWrite, shared_from_this()));
}

void SseSession::onWrite(beast::error_code error, std::size_t) {
  fWriting.clear();
  if (error) {
    if (error != net::error::operation_aborted) {
      vu::log::write(vu::log::verbose, "tuqvu.events", "write",
                     "event stream ends: " + error.message());
    }
    return shutdown();
  }
  doWrite();
}

void SseSession::doRead() {
  // A client sends nothing more; reading only tells when it goes away.
  auto self = shared_from_this();
  fStream.async_read_some(net::buffer(fReadBuffer), [self](beast::error_code error, std::size_t) {
    if (error) return self->shutdown();
    self->doRead();
  });
}

void SseSession::scheduleHeartbeat() {
  fHeartbeat.expires_after(kHeartbeatPeriod);
  auto self = shared_from_this();
  fHeartbeat.async_wait([self](beast::error_code error) {
    if (error) return;
    self->enqueue(std::make_shared<const std::string>(": keep-alive\n\n"), true);
    self->scheduleHeartbeat();
  });
}

void SseSession::shutdown() {
  {
    std::lock_guard<std::mutex> lock(fMutex);
    fClosing = true;
    fCloseAfterWrite = false;
    fQueue.clear();
    fQueuedBytes = 0;
  }
  if (fToken != 0) {
    fHub->unsubscribe(fToken);
    fToken = 0;
  }
  fHeartbeat.cancel();
  beast::error_code ignored;
  fStream.socket().shutdown(net::ip::tcp::socket::shutdown_both, ignored);
  fStream.socket().close(ignored);
}

}  // namespace broker
}  // namespace tuqvu
