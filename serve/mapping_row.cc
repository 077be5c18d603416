#include "serve/mapping_row.h"

#include <algorithm>
#include <charconv>

namespace fetchlet::serve {
namespace {

std::string_view Trim(std::string_view text) {
  const auto blank = [](char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
  };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

std::optional<std::string_view> Cell(const Cells& cells, int column) {
  if (column < 0 || static_cast<size_t>(column) >= cells.size()) {
    return std::nullopt;
  }
  return cells[static_cast<size_t>(column)];
}

// Why a row lacks column: "no column 3", or "no /size" with names.
std::string Missing(int column, const std::vector<std::string>* names) {
  if (names != nullptr && column >= 0 && static_cast<size_t>(column) < names->size()) {
    return "no " + (*names)[static_cast<size_t>(column)];
  }
  return "no column " + std::to_string(column);
}

// The labels of metric from the row's cells.
std::optional<Labels> RowLabels(const MetricDefinition& metric, const Cells& cells,
                                const std::vector<std::string>* names,
                                std::string* error) {
  Labels labels;
  for (const auto& [name, column] : metric.labels) {
    const auto cell = Cell(cells, column);
    if (!cell) {
      *error = Missing(column, names) + " for label " + name;
      return std::nullopt;
    }
    labels.emplace_back(name, std::string(*cell));
  }
  return labels;
}

// The samples metric takes from one row.
std::optional<std::vector<Sample>> RowSamples(const MetricDefinition& metric,
                                              const Cells& cells,
                                              const std::vector<std::string>* names,
                                              std::string* error) {
  auto labels = RowLabels(metric, cells, names, error);
  if (!labels) return std::nullopt;
  if (metric.type == MetricType::kInfo) {
    return std::vector<Sample>{{std::move(*labels), 1}};
  }
  const auto cell = Cell(cells, metric.value.column);
  if (!cell) {
    *error = Missing(metric.value.column, names) + " for the value of " + metric.name;
    return std::nullopt;
  }
  if (metric.type != MetricType::kStateset) {
    const auto value = CellValue(metric.value, *cell, error);
    if (!value) return std::nullopt;
    return std::vector<Sample>{{std::move(*labels), *value}};
  }
  const std::string state(Trim(*cell));
  if (std::find(metric.states.begin(), metric.states.end(), state) ==
      metric.states.end()) {
    *error = "'" + state + "' is not a state of " + metric.name;
    return std::nullopt;
  }
  std::vector<Sample> samples;
  for (const std::string& each : metric.states) {
    Sample sample{*labels, each == state ? 1.0 : 0.0};
    sample.labels.emplace_back(metric.name, each);
    samples.push_back(std::move(sample));
  }
  return samples;
}

}  // namespace

std::optional<double> CellValue(const ValueSpec& value,
                                std::string_view cell, std::string* error) {
  std::string_view text = Trim(cell);
  if (!value.trim_suffix.empty() && text.ends_with(value.trim_suffix)) {
    text.remove_suffix(value.trim_suffix.size());
  }
  if (!value.map.empty()) {
    for (const auto& [key, number] : value.map) {
      if (key == text) return number * value.scale;
    }
    *error = "'" + std::string(text) + "' is not in the map";
    return std::nullopt;
  }
  // from_chars takes no plus sign, which sensors print ("+45.0").
  std::string_view digits = text;
  if (digits.size() > 1 && digits[0] == '+' && digits[1] != '-') {
    digits.remove_prefix(1);
  }
  double number = 0;
  const auto [end, failed] =
      std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (failed != std::errc() || end != digits.data() + digits.size() ||
      digits.empty()) {
    *error = "'" + std::string(text) + "' is not a number";
    return std::nullopt;
  }
  return number * value.scale;
}

std::string MapRow(const std::vector<MetricDefinition>& metrics, const Cells& cells,
                   Families* families, const std::vector<std::string>* names) {
  std::vector<std::vector<Sample>> taken;
  for (const MetricDefinition& metric : metrics) {
    std::string error;
    auto samples = RowSamples(metric, cells, names, &error);
    if (!samples) return error;
    taken.push_back(std::move(*samples));
  }
  for (size_t i = 0; i < taken.size(); ++i) {
    auto& samples = (*families)[i].samples;
    std::move(taken[i].begin(), taken[i].end(), std::back_inserter(samples));
  }
  return "";
}

Families EmptyFamilies(const std::vector<MetricDefinition>& metrics) {
  Families families;
  for (const MetricDefinition& metric : metrics) {
    families.push_back({metric.name, metric.type, metric.unit, metric.help, {}});
  }
  return families;
}

}  // namespace fetchlet::serve
