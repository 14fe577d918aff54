#include <tuqvu/broker/filesession.h>
#include <tuqvu/broker/httpsession.h>
#include <tuqvu/broker/localclient.h>
#include <tuqvu/broker/requestguard.h>
#include <tuqvu/broker/router.h>
#include <tuqvu/broker/ssesession.h>
#include <vu/log.h>
#include <zr/zrnetworkaccess.h>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/execution/context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/query.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/string.hpp>
#include <chrono>
#include <limits>
#include <optional>

namespace tuqvu {
namespace broker {

namespace beast = boost::beast;
namespace net = boost::asio;

namespace {

const char* const kCategory = "tuqvu.http";
constexpr auto kIdleTimeout = std::chrono::seconds(60);   // waiting for a request
constexpr auto kWriteTimeout = std::chrono::seconds(30);  // a client taking an answer
constexpr auto kLingerTimeout = std::chrono::seconds(5);  // a closing client
constexpr std::size_t kKeptAnswerBytes = 64 * 1024;

bool isParseError(const beast::error_code& error) {
  return error.category() == beast::http::make_error_code(http::error::bad_target).category();
}

void fail(const beast::error_code& error, const char* what) {
  // Ending connections are ordinary: the client went away or was idle too long.
  if (error == net::error::operation_aborted || error == beast::error::timeout ||
      error == net::error::eof || error == net::error::connection_reset ||
      error == net::error::broken_pipe || error == http::error::end_of_stream) {
    return;
  }
  vu::log::write(vu::log::verbose, kCategory, what, error.message());
}

}  // namespace

HttpSession::HttpSession(Stream::Socket&& socket, std::shared_ptr<ServerContext> context)
    : fStream(Stream::Plain(std::move(socket))), fContext(std::move(context)) {
  fStream.keepCounted(OpenConnection(fContext->openConnections));
}

HttpSession::HttpSession(Stream&& stream, beast::flat_buffer&& buffer,
                         std::shared_ptr<ServerContext> context)
    : fStream(std::move(stream)), fBuffer(std::move(buffer)), fContext(std::move(context)) {}

void HttpSession::run() {
  // Start on the connection's strand.
  net::dispatch(fStream.get_executor(),
                beast::bind_front_handler(&HttpSession::doRead, shared_from_this()));
}

void HttpSession::doRead() {
  fParser.emplace();
  // Files may be larger than any other body: the limit is set once the header says what
  // the request is (onHeader). Not boost::none, which Beast 1.74 compares as below any
  // Content-Length.
  fParser->body_limit(std::numeric_limits<std::uint64_t>::max());
  fParser->header_limit(kMaxHeaderBytes);
  fStream.expiresAfter(kIdleTimeout);
  http::async_read_header(fStream, fBuffer, *fParser,
                          beast::bind_front_handler(&HttpSession::onHeader, shared_from_this()));
}

void HttpSession::onHeader(beast::error_code error, std::size_t bytes) {
  if (!error && FileSession::handles(std::string(fParser->get().target()))) {
    // Files are streamed, not read into memory: the file API takes over from the header.
    GuardVerdict verdict =
        guardRequest(fParser->get(), fContext->access, fContext->sessionToken, fStream.encrypted());
    if (verdict.refusal) {
      const bool bodyFollows = !fParser->is_done();
      return send(std::move(*verdict.refusal), fParser->get().version(),
                  fParser->get().keep_alive() && !bodyFollows);
    }
    auto files = std::make_shared<FileSession>(
        std::move(fStream), std::move(fBuffer), std::move(*fParser), fContext,
        verdict.signedIn ? sessionCookieHeader(fContext->sessionToken, fStream.encrypted())
                         : std::string());
    return files->start();
  }
  if (error || fParser->is_done()) return onRead(error, bytes);
  const boost::optional<std::uint64_t> length = fParser->content_length();
  if (length && *length > kMaxBodyBytes) return onRead(http::error::body_limit, bytes);
  fParser->body_limit(kMaxBodyBytes);
  const auto expect = fParser->get()[http::field::expect];
  if (beast::iequals(expect, "100-continue")) {
    // Tell the client to send its body; then read it.
    auto self = shared_from_this();
    auto interim = std::make_shared<http::response<http::empty_body>>(http::status::continue_, 11);
    fStream.expiresAfter(kWriteTimeout);
    http::async_write(fStream, *interim,
                      [self, interim](beast::error_code writeError, std::size_t) {
                        if (writeError) return fail(writeError, "continue");
                        self->fStream.expiresAfter(kIdleTimeout);
                        http::async_read(self->fStream, self->fBuffer, *self->fParser,
                                         beast::bind_front_handler(&HttpSession::onRead, self));
                      });
    return;
  }
  http::async_read(fStream, fBuffer, *fParser,
                   beast::bind_front_handler(&HttpSession::onRead, shared_from_this()));
}

void HttpSession::onRead(beast::error_code error, std::size_t) {
  if (error == http::error::end_of_stream) return doClose();
  if (error == http::error::body_limit) {
    return sendAndClose(http::status::payload_too_large,
                        "request body larger than " + std::to_string(kMaxBodyBytes) + " bytes");
  }
  if (error == http::error::header_limit) {
    return sendAndClose(http::status::request_header_fields_too_large,
                        "request header larger than " + std::to_string(kMaxHeaderBytes) + " bytes");
  }
  if (error && isParseError(error)) {
    return sendAndClose(http::status::bad_request, "malformed request: " + error.message());
  }
  if (error) return fail(error, "read");
  handle(fParser->release());
}

void HttpSession::handle(Request&& request) {
  const unsigned version = request.version();
  const bool keepAlive = request.keep_alive();
  GuardVerdict verdict =
      guardRequest(request, fContext->access, fContext->sessionToken, fStream.encrypted());
  if (verdict.refusal) return send(std::move(*verdict.refusal), version, keepAlive);
  fHandOutSessionCookie = verdict.signedIn;
  Routed routed = route(request, fContext->rpc, fContext->recentLog.get());
  switch (routed.kind) {
    case Routed::Kind::Respond: return send(std::move(routed.response), version, keepAlive);
    case Routed::Kind::Call: return startCall(std::move(routed), version, keepAlive);
    case Routed::Kind::EventStream: {
      fStream.expiresNever();
      auto stream = std::make_shared<SseSession>(
          std::move(fStream), fContext->hub, std::move(routed.keys), std::move(routed.lastEventId));
      stream->start();
      return;  // this session ends here; the stream owns the connection
    }
  }
}

Response HttpSession::runCall(const std::function<Response()>& call) {
  try {
    return call();
  } catch (const std::exception& error) {
    return textResponse(http::status::internal_server_error, error.what());
  }
}

const std::string& HttpSession::clientName() {
  if (!fClientName) {
    beast::error_code ignored;
    const net::ip::tcp::endpoint peer = fStream.socket().remote_endpoint(ignored);
    const net::ip::tcp::endpoint local = fStream.socket().local_endpoint(ignored);
    const std::string address = peer.address().to_string();
    if (!ZR::isLoopbackAddress(address)) {
      fClientName = address;
    } else {
      fClientName = fContext->localClients ? fContext->localClients->nameOf(peer, local)
                                           : localClientName(peer, local);
    }
  }
  return *fClientName;
}

void HttpSession::startCall(Routed&& routed, unsigned version, bool keepAlive) {
  if (fContext->refusingCalls.load()) {
    return send(textResponse(http::status::service_unavailable, "the broker is shutting down"),
                version, false);
  }
  // The call is made on this thread when the lane makes no other call now. The claim
  // covers the admission too, whose first look at a local client may take a while.
  IoLanes::Call inPlace;
  if (fContext->lanes) {
    inPlace =
        fContext->lanes->enterCall(net::query(fStream.get_executor(), net::execution::context));
  }
  // One slot of the client's and of the broker's calls, held until the call returns.
  CallAdmission::Ticket admitted;
  if (fContext->admission) {
    CallAdmission::Decision decision = fContext->admission->admit(clientName());
    if (const auto* refused = std::get_if<CallAdmission::Refused>(&decision)) {
      vu::log::write(vu::log::warning, "tuqvu.calls", "startCall", refused->why);
      return send(routed.refuse(refused->why), version, keepAlive);
    }
    admitted = std::get<CallAdmission::Ticket>(std::move(decision));
  }
  std::function<Response()> call = std::move(routed.call);
  // Counts this answer until its write ends, or until the handler holding it is dropped.
  std::shared_ptr<ServerContext> context = fContext;
  ++context->pendingAnswers;
  std::shared_ptr<void> token(nullptr, [context](void*) { --context->pendingAnswers; });

  // No timer runs while the call does: a call may take minutes and the client waits.
  fStream.expiresNever();
  if (inPlace) {
    Response response = runCall(call);
    admitted.reset();
    inPlace.release();
    return send(std::move(response), version, keepAlive, token);
  }
  auto self = shared_from_this();
  auto job = [self, call = std::move(call), version, keepAlive, token, admitted]() mutable {
    Response response = runCall(call);
    admitted.reset();  // the call is over; its answer may still take time to write
    net::post(self->fStream.get_executor(),
              [self, response = std::move(response), version, keepAlive, token]() mutable {
                self->send(std::move(response), version, keepAlive, token);
              });
  };
  try {
    fContext->executor->submit(std::move(job));
  } catch (const std::exception& error) {
    send(textResponse(http::status::service_unavailable, error.what()), version, false);
  }
}

void HttpSession::send(Response&& response, unsigned version, bool keepAlive,
                       std::shared_ptr<void> token) {
  if (fHandOutSessionCookie) {
    response.set(http::field::set_cookie,
                 sessionCookieHeader(fContext->sessionToken, fStream.encrypted()));
    fHandOutSessionCookie = false;
  }
  response.version(version);
  response.keep_alive(keepAlive);
  response.prepare_payload();
  const bool close = response.need_eof();
  serializeResponse(response, fAnswer);
  fStream.expiresAfter(kWriteTimeout);
  auto self = shared_from_this();
  net::async_write(fStream, net::buffer(fAnswer),
                   [self, token, close](beast::error_code error, std::size_t) {
                     // A connection keeps room for a usual answer, not for its largest.
                     if (self->fAnswer.capacity() > kKeptAnswerBytes)
                       std::string().swap(self->fAnswer);
                     if (error) return fail(error, "write");
                     if (close) return self->doClose();
                     self->doRead();
                   });
}

void HttpSession::sendAndClose(http::status status, const std::string& text) {
  send(textResponse(status, text), 11, false);
}

void HttpSession::doClose() {
  if (fStream.encrypted()) {
    // close_notify, then the peer's own or the end of the connection, whichever comes
    // first within the linger time.
    fStream.expiresAfter(kLingerTimeout);
    fStream.tls().async_shutdown([self = shared_from_this()](beast::error_code) {});
    return;
  }
  beast::error_code ignored;
  fStream.socket().shutdown(net::ip::tcp::socket::shutdown_send, ignored);
  drainBeforeClose(0);
}

void HttpSession::drainBeforeClose(std::size_t drained) {
  constexpr std::size_t kMaxDrained = 8 * 1024 * 1024;
  if (drained > kMaxDrained) return;  // the socket closes with this session
  fStream.expiresAfter(kLingerTimeout);
  fStream.async_read_some(net::buffer(fDiscard), [self = shared_from_this(), drained](
                                                     beast::error_code error, std::size_t bytes) {
    if (error) return;  // the client closed, or took too long
    self->drainBeforeClose(drained + bytes);
  });
}

}  // namespace broker
}  // namespace tuqvu
