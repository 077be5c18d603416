// Strict reading of YAML nodes: every problem is collected with its
// position, and reading goes on so that one pass reports them all.
#ifndef FETCHLET_SERVE_YAML_READER_H_
#define FETCHLET_SERVE_YAML_READER_H_

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <yaml-cpp/yaml.h>

#include "serve/config.h"

namespace fetchlet::serve {

class YamlReader {
 public:
  // The document in path, or nullopt with the reason (and where the
  // parser stopped) in *problems.
  static std::optional<YAML::Node> Parse(const std::string& path,
                                         std::vector<ConfigProblem>* problems);
  // Problems from index from on in the order of the file, whatever order
  // the checks ran in.
  static void SortByPlace(std::vector<ConfigProblem>* problems, size_t from);

  YamlReader(std::string file, std::vector<ConfigProblem>* problems,
             std::vector<ConfigProblem>* warnings)
      : file_(std::move(file)), problems_(problems), warnings_(warnings) {}

  Position Where(const YAML::Node& node) const;
  void Problem(const YAML::Node& node, const std::string& message);
  void ProblemAt(const Position& where, const std::string& message);
  void Warning(const YAML::Node& node, const std::string& message);
  size_t ProblemCount() const { return problems_->size(); }

  // The entries of a mapping, in order, each key once: unknown keys (when
  // allowed is not empty) and repeated keys are reported and left out.
  struct Entry {
    std::string key;
    YAML::Node key_node;
    YAML::Node value;
  };
  std::vector<Entry> Entries(const YAML::Node& node, const std::string& what,
                             const std::vector<std::string>& allowed);

  // The value under key in entries, or an undefined node.
  static YAML::Node Find(const std::vector<Entry>& entries,
                         const std::string& key);

  // Scalars of a given type; a problem naming key when node has another.
  std::optional<std::string> String(const YAML::Node& node,
                                    const std::string& key);
  std::optional<long long> Integer(const YAML::Node& node,
                                   const std::string& key, long long least);
  std::optional<double> Number(const YAML::Node& node, const std::string& key);
  std::optional<bool> Bool(const YAML::Node& node, const std::string& key);
  std::optional<Duration> DurationValue(const YAML::Node& node,
                                        const std::string& key);
  std::optional<uint64_t> Size(const YAML::Node& node, const std::string& key);

 private:
  std::string file_;
  std::vector<ConfigProblem>* problems_;
  std::vector<ConfigProblem>* warnings_;
};

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_YAML_READER_H_
