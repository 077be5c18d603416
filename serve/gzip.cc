#include <zlib.h>

#include "serve/negotiation.h"

namespace fetchlet::serve {

std::string Gzip(std::string_view data) {
  z_stream stream{};
  // 15 window bits plus 16: a gzip header and trailer rather than zlib's.
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    return {};
  }
  std::string out(deflateBound(&stream, static_cast<uLong>(data.size())), '\0');
  stream.next_in =
      reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  const int result = deflate(&stream, Z_FINISH);
  out.resize(result == Z_STREAM_END ? stream.total_out : 0);
  deflateEnd(&stream);
  return out;
}

}  // namespace fetchlet::serve
