#include "serve/http_wire.h"

#include <microhttpd.h>

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

HttpResponse ErrorResponse(int status) {
  HttpResponse response;
  response.status = status;
  const char* reason = MHD_get_reason_phrase_for(static_cast<unsigned>(status));
  response.body = std::string(*reason != '\0' ? reason : "Error") + "\n";
  response.close = true;
  if (status == 405) response.headers.emplace_back("Allow", "GET, HEAD");
  return response;
}

}  // namespace fetchlet::serve
