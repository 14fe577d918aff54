// One request of the file API (/files/<path>) on a connection whose request header has
// been read; afterwards the connection goes back to an HttpSession (keep-alive) or is
// closed. The folders are those a module published with the broker (ZR::ZRFileFolders);
// every open, create and removal happens beneath the root the path was mapped under
// (vu::beneath).
//
//   GET, HEAD  a file: Content-Length, Content-Type, ETag, Last-Modified, Accept-Ranges;
//              one byte range (206, 416); If-None-Match / If-Modified-Since (304).
//              A folder: JSON for "Accept: application/json", else a page of links; a
//              folder named without its trailing "/" is redirected there (301).
//   PUT        Content-Length or chunked, "Expect: 100-continue" answered once the
//              request may go ahead; the body goes to a new file that replaces the old
//              one only when complete. If-Match / If-None-Match: * guard against lost
//              updates (412). 201 for a new file, 204 for a replaced one, with its ETag.
//   DELETE     the file or folder tree: 204, 404 when nothing was there.
//
// The body must keep up kMinBytesPerSecond after kBodyGraceSeconds, and a reply is held
// to the same rate, so a slow client holds only its own connection.
#pragma once

#include <tuqvu/broker/descriptorbody.h>
#include <tuqvu/broker/httptypes.h>
#include <tuqvu/broker/servercontext.h>
#include <tuqvu/broker/stream.h>
#include <zr/zrfilefolders.h>

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <memory>
#include <optional>
#include <string>

namespace tuqvu {
namespace broker {

class FileSession : public std::enable_shared_from_this<FileSession> {
public:
  static constexpr const char* kPrefix = "/files/";
  static constexpr int kBodyGraceSeconds = 15;
  static constexpr std::uint64_t kMinBytesPerSecond = 32768;

  // Whether a request target belongs to the file API.
  static bool handles(const std::string& target);

  // `parser` holds the request header and nothing of its body; `cookie`, when not empty, is a
  // Set-Cookie value for the answer.
  FileSession(Stream&& stream, boost::beast::flat_buffer&& buffer,
              http::request_parser<http::string_body>&& parser,
              std::shared_ptr<ServerContext> context, std::string cookie);
  ~FileSession();
  void start();

private:
  struct Upload;

  void serveRead(const ZR::ZRFileTarget& target, const std::string& urlPath);
  void serveFolder(int folder, const std::string& urlPath);
  void serveWrite(const ZR::ZRFileTarget& target);
  void receiveBody();
  void onBody(boost::beast::error_code error, std::size_t bytes);
  void finishUpload();
  void serveRemove(const ZR::ZRFileTarget& target);

  // Answers with a plain text (the status's code and the reason said in words).
  void refuse(http::status status, const std::string& why);
  // `held` lives until the answer is written (the file an answer is read from).
  template <class Body>
  void send(std::shared_ptr<http::response<Body>> response, std::shared_ptr<void> held = nullptr);
  // Hands the connection back for the next request, or closes it.
  void done(bool keepAlive);

  Stream fStream;
  boost::beast::flat_buffer fBuffer;
  // Holds the request header; a PUT's body is read through it into the new file.
  std::optional<http::request_parser<DescriptorBody>> fParser;
  std::shared_ptr<ServerContext> fContext;
  std::shared_ptr<const ZR::ZRFileFolders> fFolders;
  std::string fCookie;
  unsigned fVersion = 11;
  bool fKeepAlive = true;
  bool fHasBody = false;               // the request announced a body (length > 0 or chunked)
  std::uint64_t fCountedReceived = 0;  // of the body, in the metrics already
  std::unique_ptr<Upload> fUpload;
};

}  // namespace broker
}  // namespace tuqvu
