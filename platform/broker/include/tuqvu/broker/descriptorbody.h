// A Beast body over a file descriptor that the body does not own: a response sends
// `length` bytes from `offset` (pread, 64 KiB at a time), a request body is written to the
// descriptor as it arrives. The descriptor must outlive the message.
//
//   http::response<DescriptorBody> reply;
//   reply.body() = {file.get(), range.first, range.length};
#pragma once

#include <unistd.h>

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/optional.hpp>
#include <cerrno>
#include <cstdint>
#include <utility>

namespace tuqvu {
namespace broker {

struct DescriptorBody {
  struct value_type {
    int fd = -1;
    std::uint64_t offset = 0;    // where a response starts reading
    std::uint64_t length = 0;    // how much a response sends
    std::uint64_t received = 0;  // what a request body has written so far
  };

  static std::uint64_t size(const value_type& body) { return body.length; }

  class writer {
  public:
    using const_buffers_type = boost::asio::const_buffer;

    template <bool isRequest, class Fields>
    writer(boost::beast::http::header<isRequest, Fields>&, value_type& body)
        : fBody(body), fNext(body.offset), fRemaining(body.length) {}

    void init(boost::beast::error_code& error) { error = {}; }

    boost::optional<std::pair<const_buffers_type, bool>> get(boost::beast::error_code& error) {
      error = {};
      if (fRemaining == 0) return boost::none;
      const std::size_t wanted =
          static_cast<std::size_t>(std::min<std::uint64_t>(fRemaining, fBuffer.size()));
      ssize_t got;
      do {
        got = ::pread(fBody.fd, fBuffer.data(), wanted, static_cast<off_t>(fNext));
      } while (got < 0 && errno == EINTR);
      if (got < 0) {
        error = boost::beast::error_code(errno, boost::system::generic_category());
        return boost::none;
      }
      if (got == 0) {
        // The file was cut short while it was sent: the promised length cannot be kept.
        error = boost::beast::error_code(EIO, boost::system::generic_category());
        return boost::none;
      }
      fNext += static_cast<std::uint64_t>(got);
      fRemaining -= static_cast<std::uint64_t>(got);
      return std::make_pair(const_buffers_type(fBuffer.data(), static_cast<std::size_t>(got)),
                            fRemaining > 0);
    }

  private:
    value_type& fBody;
    std::uint64_t fNext;
    std::uint64_t fRemaining;
    std::array<char, 65536> fBuffer;
  };

  class reader {
  public:
    template <bool isRequest, class Fields>
    reader(boost::beast::http::header<isRequest, Fields>&, value_type& body) : fBody(body) {}

    void init(const boost::optional<std::uint64_t>&, boost::beast::error_code& error) {
      error = {};
    }

    template <class ConstBufferSequence>
    std::size_t put(const ConstBufferSequence& buffers, boost::beast::error_code& error) {
      error = {};
      std::size_t taken = 0;
      for (auto it = boost::asio::buffer_sequence_begin(buffers);
           it != boost::asio::buffer_sequence_end(buffers); ++it) {
        const char* data = static_cast<const char*>((*it).data());
        std::size_t size = (*it).size();
        while (size > 0) {
          const ssize_t written = ::write(fBody.fd, data, size);
          if (written < 0) {
            if (errno == EINTR) continue;
            error = boost::beast::error_code(errno, boost::system::generic_category());
            return taken;
          }
          data += written;
          size -= static_cast<std::size_t>(written);
          taken += static_cast<std::size_t>(written);
        }
      }
      fBody.received += taken;
      return taken;
    }

    void finish(boost::beast::error_code& error) { error = {}; }

  private:
    value_type& fBody;
  };
};

}  // namespace broker
}  // namespace tuqvu
