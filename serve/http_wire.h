// HTTP/1.1 as serve speaks it on the wire: request heads read under hard
// limits, responses written as one buffer. No request may carry a body.
#ifndef FETCHLET_SERVE_HTTP_WIRE_H_
#define FETCHLET_SERVE_HTTP_WIRE_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fetchlet::serve {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  std::string method;
  std::string target;  // as sent: path and query
  HttpHeaders headers;
  bool keep_alive = true;

  std::string_view path() const;
  // The first value of a header named so (any case), "" when absent.
  std::string_view Header(std::string_view name) const;
};

struct HttpResponse {
  int status = 200;
  std::string content_type = "text/plain; charset=utf-8";
  HttpHeaders headers;
  std::string body;
  bool close = false;  // the connection ends after this response

  void Set(std::string content, std::string type) {
    body = std::move(content);
    content_type = std::move(type);
  }
};

// What a request head may hold. A client sending more is answered with an
// error and closed: nothing it sends can grow the server's memory further.
struct HeadLimits {
  std::size_t line = 8 * 1024;   // the request line
  std::size_t head = 16 * 1024;  // the line and every header
  std::size_t headers = 64;      // header fields
};

// Either a complete head (status 0), more bytes wanted (status -1), or the
// status that refuses the request.
struct HeadParse {
  int status = -1;
  std::size_t used = 0;  // bytes of the head, its blank line included
};

// Reads one head from the start of data. A request announcing a body is
// refused (413) and any method but GET and HEAD too (405), before a byte
// of a body is read.
HeadParse ParseHead(std::string_view data, const HeadLimits& limits,
                    HttpRequest* request);

// The status line, headers and (unless head_only) body, in one buffer.
std::string Serialize(const HttpResponse& response, bool head_only);

// An error answer that ends the connection.
HttpResponse ErrorResponse(int status);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_HTTP_WIRE_H_
