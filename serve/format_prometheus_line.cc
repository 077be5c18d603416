#include "serve/format_prometheus_line.h"

#include <charconv>
#include <cmath>
#include <limits>


namespace fetchlet::serve {
namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

void SkipBlanks(std::string_view* text) {
  while (!text->empty() && IsBlank(text->front())) text->remove_prefix(1);
}

std::string_view TakeWord(std::string_view* text) {
  SkipBlanks(text);
  size_t end = 0;
  while (end < text->size() && !IsBlank((*text)[end])) ++end;
  const std::string_view word = text->substr(0, end);
  text->remove_prefix(end);
  return word;
}

// A name up to the first character that cannot be in one.
std::string_view TakeName(std::string_view* text) {
  const auto name_char = [](char c, bool first) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
           (!first && c >= '0' && c <= '9');
  };
  size_t end = 0;
  while (end < text->size() && name_char((*text)[end], end == 0)) ++end;
  const std::string_view name = text->substr(0, end);
  text->remove_prefix(end);
  return name;
}

bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if ((a[i] | 0x20) != (b[i] | 0x20)) return false;
  }
  return true;
}

// A quoted label value after its opening quote, unescaped; text is left
// after the closing quote.
std::string LexQuoted(std::string_view* text, std::string* value) {
  size_t i = 0;
  while (i < text->size()) {
    // A loop, not find_first_of, which searches its set for each character.
    size_t special = i;
    while (special < text->size() && (*text)[special] != '"' &&
           (*text)[special] != '\\') {
      ++special;
    }
    if (special == text->size()) break;
    value->append(text->substr(i, special - i));
    i = special + 1;
    if ((*text)[special] == '"') {
      text->remove_prefix(i);
      return "";
    }
    if (i == text->size()) break;
    const char escaped = (*text)[i++];
    if (escaped == 'n') {
      value->push_back('\n');
    } else if (escaped == '\\' || escaped == '"') {
      value->push_back(escaped);
    } else {
      return std::string("invalid escape \\") + escaped + " in a label value";
    }
  }
  return "unterminated label value";
}

std::string LexLabels(std::string_view* text, Labels* labels) {
  text->remove_prefix(1);  // '{'
  while (true) {
    SkipBlanks(text);
    if (!text->empty() && text->front() == '}') break;
    const std::string name(TakeName(text));
    if (name.empty()) return "invalid label name";
    if (name.starts_with("__")) return "label name '" + name + "' is reserved";
    SkipBlanks(text);
    if (text->size() < 2 || text->substr(0, 1) != "=") {
      return "no '=' after label " + name;
    }
    text->remove_prefix(1);
    SkipBlanks(text);
    if (text->empty() || text->front() != '"') return "unquoted label value";
    text->remove_prefix(1);
    std::string value;
    if (std::string error = LexQuoted(text, &value); !error.empty()) {
      return error;
    }
    for (const auto& label : *labels) {
      if (label.first == name) return "label " + name + " given twice";
    }
    labels->emplace_back(name, std::move(value));
    SkipBlanks(text);
    if (!text->empty() && text->front() == ',') text->remove_prefix(1);
    else if (text->empty() || text->front() != '}') return "no ',' or '}'";
  }
  text->remove_prefix(1);
  return "";
}

// Whatever follows the value: a timestamp, and in OpenMetrics an exemplar.
std::string LexRest(std::string_view rest, bool openmetrics,
                    SampleLine* sample) {
  const std::string_view word = TakeWord(&rest);
  if (word.empty()) return "";
  if (word != "#") {
    if (!ParseFloat(word)) return "invalid timestamp '" + std::string(word) + "'";
    sample->timestamp = true;
    SkipBlanks(&rest);
    if (rest.empty()) return "";
    if (TakeWord(&rest) != "#") return "text after the timestamp";
  }
  if (!openmetrics) return "an exemplar outside OpenMetrics";
  SkipBlanks(&rest);
  if (rest.empty() || rest.front() != '{') return "invalid exemplar";
  Labels ignored;
  if (std::string error = LexLabels(&rest, &ignored); !error.empty()) {
    return "exemplar: " + error;
  }
  if (!ParseFloat(TakeWord(&rest))) return "invalid exemplar value";
  const std::string_view time = TakeWord(&rest);
  if (!time.empty() && !ParseFloat(time)) return "invalid exemplar timestamp";
  SkipBlanks(&rest);
  return rest.empty() ? "" : "text after the exemplar";
}

// HELP text: \\ and \n, and in OpenMetrics \", are escapes.
std::string UnescapeHelp(std::string_view text, bool openmetrics) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const char next = i + 1 < text.size() ? text[i + 1] : '\0';
    if (text[i] == '\\' &&
        (next == '\\' || next == 'n' || (openmetrics && next == '"'))) {
      out.push_back(next == 'n' ? '\n' : next);
      ++i;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

}  // namespace

std::optional<double> ParseFloat(std::string_view text) {
  if (text.empty()) return std::nullopt;
  const bool negative = text.front() == '-';
  if (text.front() == '+' || negative) text.remove_prefix(1);
  if (EqualsNoCase(text, "inf") || EqualsNoCase(text, "infinity")) {
    const double inf = std::numeric_limits<double>::infinity();
    return negative ? -inf : inf;
  }
  if (EqualsNoCase(text, "nan")) return std::numeric_limits<double>::quiet_NaN();
  if (text.empty() || text.front() == '+' || text.front() == '-') {
    return std::nullopt;
  }
  double value = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return negative ? -value : value;
}

std::string LexSample(std::string_view line, bool openmetrics,
                      SampleLine* sample) {
  sample->name = TakeName(&line);
  if (sample->name.empty()) return "invalid metric name";
  if (!line.empty() && line.front() == '{') {
    sample->labels.reserve(4);
    if (std::string error = LexLabels(&line, &sample->labels); !error.empty()) {
      return error;
    }
  }
  if (line.empty() || !IsBlank(line.front())) return "no value";
  const std::string_view value = TakeWord(&line);
  const auto number = ParseFloat(value);
  if (!number) return "invalid value '" + std::string(value) + "'";
  sample->value = *number;
  return LexRest(line, openmetrics, sample);
}

std::string LexMetadata(std::string_view line, bool openmetrics,
                        MetadataLine* metadata) {
  line.remove_prefix(1);  // '#'
  if (line.empty() || !IsBlank(line.front())) return "";  // a comment
  const std::string_view keyword = TakeWord(&line);
  if (keyword != "HELP" && keyword != "TYPE" &&
      !(openmetrics && keyword == "UNIT")) {
    return "";
  }
  metadata->keyword = keyword;
  SkipBlanks(&line);
  metadata->name = TakeName(&line);
  if (metadata->name.empty()) return "invalid metric name in # " + metadata->keyword;
  if (!line.empty() && !IsBlank(line.front())) {
    return "invalid metric name in # " + metadata->keyword;
  }
  if (!line.empty()) line.remove_prefix(1);
  if (keyword == "HELP") {
    metadata->text = UnescapeHelp(line, openmetrics);
    return "";
  }
  metadata->text = TakeWord(&line);
  SkipBlanks(&line);
  if (!line.empty()) return "text after # " + metadata->keyword;
  if (keyword == "TYPE" && metadata->text.empty()) return "# TYPE without a type";
  return "";
}

}  // namespace fetchlet::serve
