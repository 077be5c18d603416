#include "serve/format_nagios.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace fetchlet::serve {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

constexpr const char* kStates[] = {"ok", "warning", "critical", "unknown"};

struct Unit {
  std::string_view uom;
  std::string_view unit;  // the family's unit; "" for none
  double scale;
};

constexpr Unit kUnits[] = {
    {"s", "seconds", 1},        {"ms", "seconds", 1e-3},
    {"us", "seconds", 1e-6},    {"%", "ratio", 0.01},
    {"B", "bytes", 1},          {"KB", "bytes", 1024.0},
    {"MB", "bytes", 1048576.0}, {"GB", "bytes", 1073741824.0},
    {"TB", "bytes", 1099511627776.0}};

// One 'label'=value[UOM];[warn];[crit];[min];[max] of the performance data.
struct Perf {
  std::string label;
  std::string_view data;
};

std::string_view Trim(std::string_view text) {
  const size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t\r\n") - begin + 1);
}

// The number at the start of text; *rest is what follows it.
std::optional<double> LeadingNumber(std::string_view text,
                                    std::string_view* rest) {
  const bool negative = !text.empty() && text.front() == '-';
  if (!text.empty() && (text.front() == '+' || negative)) text.remove_prefix(1);
  double value = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || (!text.empty() && (text.front() == '+' ||
                                                 text.front() == '-'))) {
    return std::nullopt;
  }
  *rest = text.substr(static_cast<size_t>(end - text.data()));
  return negative ? -value : value;
}

std::optional<double> Number(std::string_view text) {
  std::string_view rest;
  const auto value = LeadingNumber(text, &rest);
  return value && rest.empty() ? value : std::nullopt;
}

// The perfdata items of text, quoted labels ('it''s') taken whole.
std::vector<Perf> SplitPerf(std::string_view text, Parsed* parsed) {
  std::vector<Perf> items;
  size_t i = 0;
  while (true) {
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    if (i == text.size()) break;
    Perf perf;
    if (text[i] == '\'') {
      for (++i; i < text.size(); ++i) {
        if (text[i] != '\'') {
          perf.label.push_back(text[i]);
        } else if (i + 1 < text.size() && text[i + 1] == '\'') {
          perf.label.push_back(text[++i]);
        } else {
          ++i;
          break;
        }
      }
    } else {
      while (i < text.size() && text[i] != '=' &&
             !std::isspace(static_cast<unsigned char>(text[i]))) {
        perf.label.push_back(text[i++]);
      }
    }
    const size_t end = text.find_first_of(" \t\r\n", i);
    const std::string_view rest = text.substr(i, end - std::min(end, i));
    i = end == std::string_view::npos ? text.size() : end;
    if (!rest.starts_with("=") || perf.label.empty()) {
      ++parsed->parse;
      parsed->Note("perfdata '" + perf.label + std::string(rest) +
                   "' dropped: not label=value");
      continue;
    }
    perf.data = rest.substr(1);
    items.push_back(std::move(perf));
  }
  return items;
}

// Names given out so far, and the next free number for each base.
class Names {
 public:
  bool Free(const std::vector<std::string>& names) const {
    for (const std::string& name : names) {
      if (taken_.contains(name)) return false;
    }
    return true;
  }
  void Take(const std::vector<std::string>& names) {
    taken_.insert(names.begin(), names.end());
  }
  int& Next(const std::string& base) { return next_.try_emplace(base, 2).first->second; }

 private:
  std::unordered_set<std::string> taken_;
  std::unordered_map<std::string, int> next_;
};

class PerfReader {
 public:
  PerfReader(const NagiosOptions& options, Parsed* parsed)
      : options_(options), parsed_(*parsed) {
    names_.Take({options.prefix + "_state", options.prefix + "_exit_status"});
  }
  void Read(const Perf& perf);

 private:
  std::string Drop(const Perf& perf, const std::string& why);
  std::vector<std::string> FamilyNames(const std::string& base,
                                       const Unit& unit, bool counter) const;
  // The value and threshold families' names, made unique among the output's.
  std::vector<std::string> TakeNames(const Perf& perf, const Unit& unit,
                                     bool counter);

  const NagiosOptions& options_;
  Parsed& parsed_;
  Names names_;
  std::unordered_set<std::string> labels_;
};

std::string PerfReader::Drop(const Perf& perf, const std::string& why) {
  ++parsed_.parse;
  parsed_.Note("perfdata '" + perf.label + "' dropped: " + why);
  return "";
}

// The value family, then the threshold family.
std::vector<std::string> PerfReader::FamilyNames(const std::string& base,
                                                 const Unit& unit,
                                                 bool counter) const {
  const std::string suffix = unit.unit.empty() ? "" : "_" + std::string(unit.unit);
  if (counter) return {base + "_total", base + "_threshold", base, base + "_created"};
  return {base + suffix, base + "_threshold" + suffix};
}

// value;warn;crit;min;max, at most five fields, missing ones empty; none
// when there are more.
std::optional<std::vector<std::string_view>> SplitFields(std::string_view data) {
  std::vector<std::string_view> fields;
  for (size_t semicolon; (semicolon = data.find(';')) != std::string_view::npos;) {
    fields.push_back(data.substr(0, semicolon));
    data.remove_prefix(semicolon + 1);
  }
  fields.push_back(data);
  if (fields.size() > 5) return std::nullopt;
  fields.resize(5);
  return fields;
}

// The warning and critical ranges' bounds and min and max, in base units,
// into threshold; the problem, or "".
std::string ReadThresholds(const std::vector<std::string_view>& fields,
                           double scale, Family* threshold) {
  static constexpr const char* kKinds[] = {"", "warning", "critical", "min", "max"};
  for (size_t i = 1; i < 5; ++i) {
    if (fields[i].empty()) continue;
    const std::string kind = kKinds[i];
    if (i >= 3) {
      const auto number = Number(fields[i]);
      if (!number) return "invalid " + kind;
      threshold->samples.push_back({{{"threshold", kind}}, *number * scale, ""});
      continue;
    }
    const auto range = ParseRange(fields[i]);
    if (!range) return "invalid " + kind + " range";
    const char* alert = range->inside ? "inside" : "outside";
    for (const auto& [bound, number] : {std::pair{"lower", range->lower},
                                        std::pair{"upper", range->upper}}) {
      threshold->samples.push_back(
          {{{"threshold", kind}, {"bound", bound}, {"range", alert}},
           number * scale, ""});
    }
  }
  return "";
}

std::vector<std::string> PerfReader::TakeNames(const Perf& perf,
                                               const Unit& unit, bool counter) {
  std::string base = options_.prefix + "_" + SanitizeName(perf.label);
  std::vector<std::string> names = FamilyNames(base, unit, counter);
  if (!names_.Free(names)) {
    int& next = names_.Next(base);
    do {
      names = FamilyNames(base + "_" + std::to_string(next++), unit, counter);
    } while (!names_.Free(names));
  }
  names_.Take(names);
  return names;
}

void PerfReader::Read(const Perf& perf) {
  if (!labels_.insert(perf.label).second) {
    ++parsed_.duplicate;
    parsed_.Note("perfdata '" + perf.label + "' given twice: dropped");
    return;
  }
  const auto split = SplitFields(perf.data);
  if (!split) return (void)Drop(perf, "more than five fields");
  const std::vector<std::string_view>& fields = *split;
  std::string_view uom;
  const bool unknown = fields[0] == "U";
  const auto value = unknown ? std::optional<double>(NAN) : LeadingNumber(fields[0], &uom);
  const auto letter = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '%';
  };
  if (!value || !std::all_of(uom.begin(), uom.end(), letter)) {
    return (void)Drop(perf, "invalid value '" + std::string(fields[0]) + "'");
  }
  Unit unit{uom, "", 1};
  for (const Unit& known : kUnits) {
    if (known.uom == uom) unit = known;
  }
  const bool counter = uom == "c";
  std::string sanitized_unit;
  if (!counter && !uom.empty() && unit.scale == 1 && unit.unit.empty()) {
    sanitized_unit = SanitizeName(uom);
    unit.unit = sanitized_unit;
  }
  Family threshold{"", MetricType::kGauge, "", "Thresholds of " + perf.label + ".", {}};
  const std::string problem = ReadThresholds(fields, unit.scale, &threshold);
  if (!problem.empty()) return (void)Drop(perf, problem);
  const std::vector<std::string> names = TakeNames(perf, unit, counter);
  const MetricType type = counter ? MetricType::kCounter : MetricType::kGauge;
  Family family{names[0], type, std::string(counter ? "" : unit.unit),
                "Performance data " + perf.label + " of the plug-in.", {}};
  if (!unknown) family.samples.push_back({{}, *value * unit.scale, ""});
  threshold.name = names[1];
  threshold.unit = counter ? "" : std::string(unit.unit);
  parsed_.families.push_back(std::move(family));
  if (!threshold.samples.empty()) parsed_.families.push_back(std::move(threshold));
}

// The status from the last status line, and the plug-in's output before
// it. What follows it is the plug-in's standard error, which the fetchlet
// appends to the output and which is no part of the plug-in's text.
std::optional<int> TakeStatus(std::string_view* text) {
  const std::string_view output = *text;
  for (size_t at = output.rfind(kExitStatusMarker); at != std::string_view::npos;
       at = at == 0 ? std::string_view::npos : output.rfind(kExitStatusMarker, at - 1)) {
    if (at != 0 && output[at - 1] != '\n') continue;
    std::string_view line = output.substr(at + kExitStatusMarker.size());
    line = line.substr(0, line.find('\n'));
    int status = 0;
    const auto [end, error] =
        std::from_chars(line.data(), line.data() + line.size(), status);
    if (error != std::errc() || end != line.data() + line.size() || status < 0) {
      continue;
    }
    *text = output.substr(0, at);
    return status;
  }
  return std::nullopt;
}

void AddState(const NagiosOptions& options, int status, Parsed* parsed) {
  const int state = status >= 0 && status <= 3 ? status : 3;
  const std::string name = options.prefix + "_state";
  Family family{name, MetricType::kStateset, "", "State of the plug-in by its exit status.", {}};
  for (int i = 0; i < 4; ++i) {
    family.samples.push_back({{{name, kStates[i]}}, i == state ? 1.0 : 0.0, ""});
  }
  parsed->families.push_back(std::move(family));
  parsed->families.push_back({options.prefix + "_exit_status", MetricType::kGauge, "",
                              "Exit status of the plug-in.",
                              {{{}, static_cast<double>(status), ""}}});
}

}  // namespace

std::optional<Range> ParseRange(std::string_view text) {
  Range range;
  if (text.starts_with("@")) {
    range.inside = true;
    text.remove_prefix(1);
  }
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos) {
    const auto upper = Number(text);
    if (!upper) return std::nullopt;
    range.upper = *upper;
    return range;
  }
  const std::string_view start = text.substr(0, colon);
  const std::string_view end = text.substr(colon + 1);
  const auto lower = start == "~" ? std::optional(-kInf)
                     : start.empty() ? std::optional(0.0) : Number(start);
  const auto upper = end.empty() ? std::optional(kInf) : Number(end);
  if (!lower || !upper || *lower > *upper) return std::nullopt;
  range.lower = *lower;
  range.upper = *upper;
  return range;
}

Parsed ParseNagios(std::string_view text, const NagiosOptions& options) {
  Parsed parsed;
  const auto status = TakeStatus(&text);
  if (!status) {
    parsed.failure = "parse";
    parsed.Note("no exit status on the last line: run the plug-in through "
                "fetchlet-exit-status");
    return parsed;
  }
  AddState(options, *status, &parsed);
  const size_t newline = text.find('\n');
  const std::string_view first = text.substr(0, newline);
  const std::string_view rest =
      newline == std::string_view::npos ? "" : text.substr(newline + 1);
  const size_t bar = first.find('|');
  parsed.message = Trim(first.substr(0, bar));
  std::string perfdata;
  if (bar != std::string_view::npos) perfdata = first.substr(bar + 1);
  if (const size_t more = rest.find('|'); more != std::string_view::npos) {
    perfdata.append(" ").append(rest.substr(more + 1));
  }
  PerfReader reader(options, &parsed);
  for (const Perf& perf : SplitPerf(perfdata, &parsed)) reader.Read(perf);
  parsed.FinishNotes();
  return parsed;
}

}  // namespace fetchlet::serve
