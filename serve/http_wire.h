// A request and its answer as serve's handlers see them; the listener
// (serve/http_server.h) reads and writes them on the wire.
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
  // The request line and every header: a connection holds this much, and
  // room for its answer's head, in memory.
  std::size_t head = 16 * 1024;
  std::size_t headers = 64;      // header fields
};

// An error answer that ends the connection.
HttpResponse ErrorResponse(int status);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_HTTP_WIRE_H_
