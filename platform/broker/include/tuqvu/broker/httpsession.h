// One HTTP/1.1 connection: reads requests one after the other (keep-alive), routes each,
// and writes the answer. A call runs on the I/O lane's thread that read it while the lane
// makes no other call, else on the executor's threads; the connection waits for its
// answer meanwhile. GET /events hands the connection over to an SseSession, a request of the
// file API (/files/...) to a FileSession once its header is read.
#pragma once

#include <tuqvu/broker/httptypes.h>
#include <tuqvu/broker/router.h>
#include <tuqvu/broker/servercontext.h>
#include <tuqvu/broker/stream.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tuqvu {
namespace broker {

class HttpSession : public std::enable_shared_from_this<HttpSession> {
public:
  HttpSession(Stream::Socket&& socket, std::shared_ptr<ServerContext> context);
  // A connection handed over by another session (after its TLS handshake, or a request
  // another session served); `buffer` holds what was read beyond that.
  HttpSession(Stream&& stream, boost::beast::flat_buffer&& buffer,
              std::shared_ptr<ServerContext> context);
  void run();
  // For a handed-over connection, on its strand: reads the next request, or ends the
  // connection after its last answer.
  void resume() { doRead(); }
  void close() { doClose(); }
  // For a handed-over connection, on its strand: answers `text` with `status` instead of
  // reading a request, and ends the connection.
  void refuse(http::status status, const std::string& text) { sendAndClose(status, text); }

private:
  void doRead();
  void onHeader(boost::beast::error_code error, std::size_t bytes);
  void onRead(boost::beast::error_code error, std::size_t bytes);
  void handle(Request&& request);
  // Makes the call on this I/O thread when its lane makes no other call now (see
  // IoLanes), else on the executor, and answers it.
  void startCall(Routed&& routed, unsigned version, bool keepAlive);
  static Response runCall(const std::function<Response()>& call);  // an exception: 500
  // Whom the calls of this connection are counted for: its address, or the local process.
  const std::string& clientName();
  // Finishes the response for the request (version, keep-alive, length) and writes it.
  // token, when set, is held until the write ends.
  void send(Response&& response, unsigned version, bool keepAlive,
            std::shared_ptr<void> token = nullptr);
  void sendAndClose(http::status status, const std::string& text);
  void doClose();
  // After the answer that ends a connection: what the client still sends is read and
  // dropped for a while, so that closing does not reset the connection before the client
  // has read the answer.
  void drainBeforeClose(std::size_t drained);

  Stream fStream;
  boost::beast::flat_buffer fBuffer;
  std::optional<http::request_parser<http::string_body>> fParser;
  std::string fAnswer;  // the answer being written, on the wire; reused for the next
  // The request being answered came with the secret: its answer sets the session cookie.
  // Touched only by this session's handlers, one request at a time.
  bool fHandOutSessionCookie = false;
  std::optional<std::string> fClientName;  // found at the first call
  std::shared_ptr<ServerContext> fContext;
  char fDiscard[16384];
};

}  // namespace broker
}  // namespace tuqvu
