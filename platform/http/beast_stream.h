#pragma once
// A Transport as the byte stream that Boost.Beast reads from. Costs ten seconds of compiling wherever it is
// included.

#include <boost/asio/error.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include "platform/http/transport.h"

namespace http_transport {

class Beast_Stream {
 public:
  explicit Beast_Stream(Transport& transport) : transport_(transport) {}

  template <typename Buffers>
  std::size_t read_some(const Buffers& buffers, boost::beast::error_code& error) {
    for (const boost::asio::mutable_buffer part : boost::beast::buffers_range_ref(buffers)) {
      if (part.size() == 0) continue;
      const ssize_t got = transport_.read(part.data(), part.size());
      if (got > 0) return error = {}, static_cast<std::size_t>(got);
      // The transport keeps the words of its own failures.
      if (got == 0) return error = boost::asio::error::eof, 0;
      return error = boost::beast::errc::make_error_code(boost::beast::errc::io_error), 0;
    }
    return error = {}, 0;
  }

  // Beast asks for this form too, but calls it only from functions of its own that throw.
  template <typename Buffers>
  std::size_t read_some(const Buffers& buffers) {
    boost::beast::error_code error;
    const std::size_t got = read_some(buffers, error);
    if (error) throw boost::beast::system_error(error);
    return got;
  }

 private:
  Transport& transport_;
};

}  // namespace http_transport
