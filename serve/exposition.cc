#include "serve/exposition.h"

#include <charconv>
#include <cmath>
#include <unordered_map>
#include <unordered_set>

namespace fetchlet::serve {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

// Length of the valid UTF-8 sequence at text[i], or 0.
size_t SequenceLength(std::string_view text, size_t i) {
  const auto byte = [&](size_t k) {
    return static_cast<unsigned char>(text[k]);
  };
  const unsigned char lead = byte(i);
  if (lead < 0x80) return 1;
  size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;   // overlong
    if (lead == 0xED) high = 0x9F;  // surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;   // overlong
    if (lead == 0xF4) high = 0x8F;  // beyond U+10FFFF
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  if (byte(i + 1) < low || byte(i + 1) > high) return 0;
  for (size_t k = 2; k < length; ++k) {
    if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
  }
  return length;
}

// Escapes backslash, line feed and (when quotes) the double quote.
void AppendEscaped(std::string_view text, bool quotes, std::string* out) {
  for (const char c : text) {
    if (c == '\\') {
      out->append("\\\\");
    } else if (c == '\n') {
      out->append("\\n");
    } else if (c == '"' && quotes) {
      out->append("\\\"");
    } else {
      out->push_back(c);
    }
  }
}

// The name on # TYPE lines: OpenMetrics names a counter without its
// "_total"; 0.0.4 has no info type, so its gauge is named like the samples.
std::string MetadataName(const Family& family, Format format) {
  const std::string_view total = "_total";
  if (format == Format::kOpenMetrics && family.type == MetricType::kCounter &&
      family.name.ends_with(total)) {
    return family.name.substr(0, family.name.size() - total.size());
  }
  if (format == Format::kText && family.type == MetricType::kInfo) {
    return family.name + "_info";
  }
  return family.name;
}

std::string SampleName(const Family& family) {
  return family.type == MetricType::kInfo ? family.name + "_info"
                                          : family.name;
}

void AppendMetadata(const Family& family, Format format, std::string* out) {
  const std::string name = MetadataName(family, format);
  out->append("# HELP ").append(name).push_back(' ');
  AppendEscaped(ValidUtf8(family.help), format == Format::kOpenMetrics, out);
  out->append("\n# TYPE ").append(name).push_back(' ');
  out->append(TypeName(family.type, format)).push_back('\n');
  if (format == Format::kOpenMetrics && !family.unit.empty()) {
    out->append("# UNIT ").append(name).push_back(' ');
    out->append(family.unit).push_back('\n');
  }
}

void AppendLabels(const Labels& labels, std::string* out) {
  if (labels.empty()) return;
  out->push_back('{');
  bool first = true;
  for (const auto& [name, value] : labels) {
    if (!first) out->push_back(',');
    first = false;
    out->append(name).append("=\"");
    AppendLabelValue(value, out);
    out->push_back('"');
  }
  out->push_back('}');
}

// The samples of one family's parts, a series seen before dropped.
size_t AppendSamples(const std::vector<const Family*>& parts,
                     std::string* out) {
  const std::string name = SampleName(*parts.front());
  std::unordered_set<std::string> seen;
  std::string labels;
  size_t duplicates = 0;
  for (const Family* part : parts) {
    for (const Sample& sample : part->samples) {
      labels.assign(sample.suffix);
      AppendLabels(sample.labels, &labels);
      if (!seen.insert(labels).second) {
        ++duplicates;
        continue;
      }
      out->append(name).append(labels).push_back(' ');
      AppendNumber(sample.value, out);
      out->push_back('\n');
    }
  }
  return duplicates;
}

// Families grouped by name, in the order each name first appears.
std::vector<std::vector<const Family*>> GroupByName(
    const std::vector<const Families*>& parts) {
  std::vector<std::vector<const Family*>> groups;
  std::unordered_map<std::string_view, size_t> index;
  for (const Families* families : parts) {
    for (const Family& family : *families) {
      const auto [it, fresh] = index.emplace(family.name, groups.size());
      if (fresh) groups.emplace_back();
      groups[it->second].push_back(&family);
    }
  }
  return groups;
}


}  // namespace

const char* TypeName(MetricType type, Format format) {
  const bool open = format == Format::kOpenMetrics;
  switch (type) {
    case MetricType::kCounter:
      return "counter";
    case MetricType::kInfo:
      return open ? "info" : "gauge";
    case MetricType::kStateset:
      return open ? "stateset" : "gauge";
    case MetricType::kUnknown:
      return open ? "unknown" : "untyped";
    case MetricType::kHistogram:
      return "histogram";
    case MetricType::kSummary:
      return "summary";
    case MetricType::kGauge:
      break;
  }
  return "gauge";
}

std::string ValidUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    const size_t length = SequenceLength(text, i);
    if (length == 0) {
      out.append(kReplacement);
      ++i;
    } else {
      out.append(text.substr(i, length));
      i += length;
    }
  }
  return out;
}

void AppendNumber(double value, std::string* out) {
  if (std::isnan(value)) {
    out->append("NaN");
  } else if (std::isinf(value)) {
    out->append(value > 0 ? "+Inf" : "-Inf");
  } else {
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out->append(buffer, result.ptr);
  }
}

void AppendLabelValue(std::string_view value, std::string* out) {
  bool ascii = true;
  for (const char c : value) ascii = ascii && static_cast<signed char>(c) >= 0;
  std::string valid;
  if (!ascii) {
    valid = ValidUtf8(value);
    value = valid;
  }
  if (value.size() > kMaxLabelValueBytes) {
    size_t cut = kMaxLabelValueBytes;
    while (cut > 0 && (static_cast<unsigned char>(value[cut]) & 0xC0) == 0x80) {
      --cut;
    }
    value = value.substr(0, cut);
  }
  AppendEscaped(value, true, out);
}

size_t AppendFamilies(const std::vector<const Families*>& parts,
                      Format format, std::string* out) {
  size_t duplicates = 0;
  for (const auto& group : GroupByName(parts)) {
    bool empty = true;
    for (const Family* family : group) empty = empty && family->samples.empty();
    if (empty) continue;
    AppendMetadata(*group.front(), format, out);
    duplicates += AppendSamples(group, out);
  }
  return duplicates;
}

std::string RenderExposition(const std::vector<FamiliesPtr>& collectors,
                             Format format) {
  std::vector<const Families*> parts;
  for (const FamiliesPtr& families : collectors) {
    if (families) parts.push_back(families.get());
  }
  std::string out;
  AppendFamilies(parts, format, &out);
  if (format == Format::kOpenMetrics) out.append("# EOF\n");
  return out;
}

}  // namespace fetchlet::serve
