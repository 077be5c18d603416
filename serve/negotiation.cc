#include "serve/negotiation.h"

#include <cctype>
#include <charconv>

namespace fetchlet::serve {
namespace {

// One entry of an Accept or Accept-Encoding header; a q that is not a
// number counts as 0.
struct MediaRange {
  std::string_view type;
  std::string_view version;
  double q = 1;
};

std::string_view Trim(std::string_view text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  const size_t end = text.find_last_not_of(" \t");
  return text.substr(begin, end - begin + 1);
}

MediaRange ParseRange(std::string_view range) {
  MediaRange parsed;
  size_t semicolon = range.find(';');
  parsed.type = Trim(range.substr(0, semicolon));
  while (semicolon != std::string_view::npos) {
    range.remove_prefix(semicolon + 1);
    semicolon = range.find(';');
    const std::string_view param = Trim(range.substr(0, semicolon));
    const size_t equals = param.find('=');
    if (equals == std::string_view::npos) continue;
    const std::string_view key = Trim(param.substr(0, equals));
    const std::string_view value = Trim(param.substr(equals + 1));
    if (key == "q") {
      double q = 0;
      const auto [end, error] =
          std::from_chars(value.data(), value.data() + value.size(), q);
      parsed.q = error == std::errc() ? q : 0;
    } else if (key == "version") {
      parsed.version = value;
    }
  }
  return parsed;
}

template <typename Visit>
void ForEachRange(std::string_view header, Visit visit) {
  while (!header.empty()) {
    const size_t comma = header.find(',');
    visit(ParseRange(header.substr(0, comma)));
    if (comma == std::string_view::npos) break;
    header.remove_prefix(comma + 1);
  }
}

bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

}  // namespace

Format NegotiateFormat(std::string_view accept) {
  Format best = Format::kText;
  double best_q = 0;
  ForEachRange(accept, [&](const MediaRange& range) {
    Format format = Format::kText;
    if (EqualsNoCase(range.type, "application/openmetrics-text")) {
      if (!range.version.empty() && range.version != "1.0.0") return;
      format = Format::kOpenMetrics;
    } else if (EqualsNoCase(range.type, "text/plain")) {
      if (!range.version.empty() && range.version != "0.0.4") return;
    } else if (range.type != "*/*" && !EqualsNoCase(range.type, "text/*")) {
      return;
    }
    if (range.q > best_q) {
      best = format;
      best_q = range.q;
    }
  });
  return best;
}

const char* ContentType(Format format) {
  return format == Format::kOpenMetrics
             ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
             : "text/plain; version=0.0.4; charset=utf-8";
}

bool AcceptsGzip(std::string_view accept_encoding) {
  // An explicit gzip entry wins over the wildcard.
  int gzip = -1;
  int any = -1;
  ForEachRange(accept_encoding, [&](const MediaRange& range) {
    if (EqualsNoCase(range.type, "gzip")) gzip = range.q > 0;
    if (range.type == "*") any = range.q > 0;
  });
  return gzip >= 0 ? gzip == 1 : any == 1;
}

}  // namespace fetchlet::serve
