#include "serve/http_wire.h"

#include <algorithm>
#include <cctype>

namespace fetchlet::serve {
namespace {

bool SameText(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
    text.remove_prefix(1);
  }
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
    text.remove_suffix(1);
  }
  return text;
}

bool IsToken(std::string_view text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char c) {
           return std::isgraph(static_cast<unsigned char>(c)) && c != ':' &&
                  c != '"' && c != '(' && c != ')' && c != ',';
         });
}

// "METHOD TARGET HTTP/1.x": 0, or the status refusing it.
int RequestLine(std::string_view line, HttpRequest* request) {
  const size_t first = line.find(' ');
  const size_t last = line.rfind(' ');
  if (first == std::string_view::npos || first == last) return 400;
  const std::string_view method = line.substr(0, first);
  const std::string_view target = line.substr(first + 1, last - first - 1);
  const std::string_view version = line.substr(last + 1);
  if (!IsToken(method) || target.empty() || target.front() != '/' ||
      target.find_first_of(" \t") != std::string_view::npos) {
    return 400;
  }
  if (!version.starts_with("HTTP/")) return 400;
  if (version != "HTTP/1.1" && version != "HTTP/1.0") return 505;
  request->method = method;
  request->target = target;
  request->keep_alive = version == "HTTP/1.1";
  return 0;
}

int HeaderLine(std::string_view line, HttpRequest* request) {
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos || !IsToken(line.substr(0, colon))) {
    return 400;  // no folded lines, no space before the colon
  }
  request->headers.emplace_back(line.substr(0, colon),
                                Trim(line.substr(colon + 1)));
  return 0;
}

// What the complete head asks beyond its syntax.
int Judge(HttpRequest* request) {
  const std::string_view length = request->Header("Content-Length");
  if ((!length.empty() && length != "0") ||
      !request->Header("Transfer-Encoding").empty()) {
    return 413;
  }
  if (request->method != "GET" && request->method != "HEAD") return 405;
  const std::string_view connection = request->Header("Connection");
  if (SameText(connection, "close")) request->keep_alive = false;
  if (SameText(connection, "keep-alive")) request->keep_alive = true;
  return 0;
}

const char* Reason(int status) {
  switch (status) {
    case 200: return "OK";
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 413: return "Content Too Large";
    case 414: return "URI Too Long";
    case 429: return "Too Many Requests";
    case 431: return "Request Header Fields Too Large";
    case 500: return "Internal Server Error";
    case 503: return "Service Unavailable";
    case 505: return "HTTP Version Not Supported";
    default: return "Error";
  }
}

}  // namespace

std::string_view HttpRequest::path() const {
  const std::string_view target_view = target;
  return target_view.substr(0, target_view.find('?'));
}

std::string_view HttpRequest::Header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (SameText(key, name)) return value;
  }
  return {};
}

HeadParse ParseHead(std::string_view data, const HeadLimits& limits,
                    HttpRequest* request) {
  size_t pos = 0;
  for (;;) {
    const size_t end = data.find('\n', pos);
    if (end == std::string_view::npos) {
      if (pos == 0 && data.size() > limits.line) return {414};
      if (data.size() > limits.head) return {431};
      return {};
    }
    std::string_view line = data.substr(pos, end - pos);
    if (line.ends_with('\r')) line.remove_suffix(1);
    int status = 0;
    if (pos == 0) {
      status = end > limits.line ? 414 : RequestLine(line, request);
    } else if (line.empty()) {
      status = Judge(request);
      return {status, end + 1};
    } else if (request->headers.size() >= limits.headers || end > limits.head) {
      status = 431;
    } else {
      status = HeaderLine(line, request);
    }
    if (status != 0) return {status};
    pos = end + 1;
  }
}

std::string Serialize(const HttpResponse& response, bool head_only) {
  std::string out;
  out.reserve(256 + (head_only ? 0 : response.body.size()));
  out.append("HTTP/1.1 ").append(std::to_string(response.status));
  out.append(" ").append(Reason(response.status)).append("\r\n");
  out.append("Content-Type: ").append(response.content_type).append("\r\n");
  out.append("Content-Length: ").append(std::to_string(response.body.size()));
  out.append("\r\n");
  for (const auto& [name, value] : response.headers) {
    out.append(name).append(": ").append(value).append("\r\n");
  }
  if (response.close) out += "Connection: close\r\n";
  out += "\r\n";
  if (!head_only) out += response.body;
  return out;
}

HttpResponse ErrorResponse(int status) {
  HttpResponse response;
  response.status = status;
  response.body = std::string(Reason(status)) + "\n";
  response.close = true;
  if (status == 405) response.headers.emplace_back("Allow", "GET, HEAD");
  return response;
}

}  // namespace fetchlet::serve
