#include "serve/yaml_reader.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <tuple>

#include "serve/duration.h"

namespace fetchlet::serve {
namespace {

bool IsScalar(const YAML::Node& node) {
  return node.IsDefined() && node.IsScalar();
}

}  // namespace

std::optional<YAML::Node> YamlReader::Parse(
    const std::string& path, std::vector<ConfigProblem>* problems) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    problems->push_back(
        {{path, 1, 1}, std::string("cannot open the file: ") +
                           std::strerror(errno)});
    return std::nullopt;
  }
  std::stringstream text;
  text << in.rdbuf();
  try {
    return YAML::Load(text.str());
  } catch (const YAML::ParserException& e) {
    problems->push_back({{path, e.mark.line + 1, e.mark.column + 1}, e.msg});
  } catch (const YAML::Exception& e) {
    problems->push_back({{path, 1, 1}, e.msg});
  }
  return std::nullopt;
}

void YamlReader::SortByPlace(std::vector<ConfigProblem>* problems,
                             size_t from) {
  std::stable_sort(problems->begin() + static_cast<ptrdiff_t>(from),
                   problems->end(),
                   [](const ConfigProblem& a, const ConfigProblem& b) {
                     return std::tie(a.where.line, a.where.column) <
                            std::tie(b.where.line, b.where.column);
                   });
}

Position YamlReader::Where(const YAML::Node& node) const {
  const YAML::Mark mark = node.Mark();
  // A node made up by yaml-cpp has no place; the file is the best we have.
  if (mark.is_null()) return {file_, 1, 1};
  return {file_, mark.line + 1, mark.column + 1};
}

void YamlReader::Problem(const YAML::Node& node, const std::string& message) {
  problems_->push_back({Where(node), message});
}

void YamlReader::ProblemAt(const Position& where,
                           const std::string& message) {
  problems_->push_back({where, message});
}

void YamlReader::Warning(const YAML::Node& node, const std::string& message) {
  warnings_->push_back({Where(node), message});
}

std::vector<YamlReader::Entry> YamlReader::Entries(
    const YAML::Node& node, const std::string& what,
    const std::vector<std::string>& allowed) {
  std::vector<Entry> entries;
  if (!node.IsMap()) {
    Problem(node, what + " must be a mapping");
    return entries;
  }
  std::set<std::string> seen;
  for (const auto& pair : node) {
    if (!pair.first.IsScalar()) {
      Problem(pair.first, "a key of " + what + " must be a string");
      continue;
    }
    const std::string key = pair.first.Scalar();
    if (!seen.insert(key).second) {
      Problem(pair.first, "duplicate key '" + key + "'");
      continue;
    }
    if (!allowed.empty() &&
        std::find(allowed.begin(), allowed.end(), key) == allowed.end()) {
      std::string message = "unknown key '" + key + "' in ";
      Problem(pair.first, message += what);
      continue;
    }
    entries.push_back({key, pair.first, pair.second});
  }
  return entries;
}

YAML::Node YamlReader::Find(const std::vector<Entry>& entries,
                            const std::string& key) {
  for (const Entry& entry : entries) {
    if (entry.key == key) return entry.value;
  }
  return YAML::Node(YAML::NodeType::Undefined);
}

std::optional<std::string> YamlReader::String(const YAML::Node& node,
                                              const std::string& key) {
  if (!IsScalar(node)) {
    Problem(node, "'" + key + "' must be a string");
    return std::nullopt;
  }
  return node.Scalar();
}

std::optional<long long> YamlReader::Integer(const YAML::Node& node,
                                             const std::string& key,
                                             long long least) {
  long long value = 0;
  if (IsScalar(node)) {
    const std::string& text = node.Scalar();
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc() && end == text.data() + text.size() &&
        !text.empty()) {
      if (value >= least) return value;
      Problem(node, "'" + key + "' must be at least " + std::to_string(least));
      return std::nullopt;
    }
  }
  Problem(node, "'" + key + "' must be an integer");
  return std::nullopt;
}

std::optional<double> YamlReader::Number(const YAML::Node& node,
                                         const std::string& key) {
  double value = 0;
  if (IsScalar(node)) {
    const std::string& text = node.Scalar();
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc() && end == text.data() + text.size() &&
        !text.empty() && std::isfinite(value)) {
      return value;
    }
  }
  Problem(node, "'" + key + "' must be a number");
  return std::nullopt;
}

std::optional<bool> YamlReader::Bool(const YAML::Node& node,
                                     const std::string& key) {
  if (IsScalar(node)) {
    if (node.Scalar() == "true") return true;
    if (node.Scalar() == "false") return false;
  }
  Problem(node, "'" + key + "' must be true or false");
  return std::nullopt;
}

std::optional<Duration> YamlReader::DurationValue(const YAML::Node& node,
                                                  const std::string& key) {
  if (IsScalar(node)) {
    const auto value = ParseDuration(node.Scalar());
    if (value && value->count() > 0) return value;
  }
  Problem(node, "'" + key +
                    "' must be a duration above zero (500ms, 10s, 5m, 1h)");
  return std::nullopt;
}

std::optional<uint64_t> YamlReader::Size(const YAML::Node& node,
                                         const std::string& key) {
  if (IsScalar(node)) {
    const auto value = ParseSize(node.Scalar());
    if (value) return value;
  }
  Problem(node, "'" + key + "' must be a size (1048576, 64MiB, 1GiB)");
  return std::nullopt;
}

}  // namespace fetchlet::serve
