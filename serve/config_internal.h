// The parts of configuration loading, one file each.
#ifndef FETCHLET_SERVE_CONFIG_INTERNAL_H_
#define FETCHLET_SERVE_CONFIG_INTERNAL_H_

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "serve/config.h"
#include "serve/yaml_reader.h"

namespace fetchlet::serve {

// One entry of collectors, with the parts that read well; every problem is
// reported. nullopt when the entry is not a mapping. With module, the entry
// is one of modules: no schedule, and its params and cache_for go there.
std::optional<CollectorConfig> ReadCollector(YamlReader& reader,
                                             const YAML::Node& node,
                                             Duration default_timeout,
                                             ModuleConfig* module = nullptr);

// One entry of collectors or of modules (with module): read, its name not
// already among *names, its unset limits the file's, and those checked.
// nullopt when there is nothing to add.
std::optional<CollectorConfig> ReadListEntry(
    YamlReader& reader, const YAML::Node& node, const Config& config,
    std::map<std::string, Position>* names, ModuleConfig* module = nullptr);

// A module's own keys (params, cache_for), read into *module.
void ReadModuleEntry(YamlReader& reader, const YamlReader::Entry& entry,
                     ModuleConfig* module);
// The modules list; each module's properties use only declared params.
void ReadModules(YamlReader& reader, const YAML::Node& node, Config* config);

// Keys that only some kinds take, and those each kind requires.
void CheckKindKeys(YamlReader& reader, const YAML::Node& node,
                   const std::vector<YamlReader::Entry>& entries,
                   CollectorKind kind);
// format, prefix and labels of a collector.
void ReadFormatKey(YamlReader& reader, const YamlReader::Entry& entry,
                   CollectorConfig* collector);
// With a format: the keys it takes, instead of CheckKindKeys; false without.
bool CheckFormatKeys(YamlReader& reader, const YAML::Node& node,
                     const std::vector<YamlReader::Entry>& entries,
                     CollectorConfig* collector);
// Columns an os collector's families read exist among its regex's groups.
void CheckColumns(YamlReader& reader, const CollectorConfig& collector);
// A udm value's family fits the value type the fetchlet reports.
void CheckUdmValue(YamlReader& reader, const YAML::Node& node,
                   const CollectorConfig& collector);

// How a family names its cells: by column (of a table or a regex), as a
// udm's value, or by JSON Pointer relative to a row of a json collector,
// whose cells gain each pointer.
struct FamilySource {
  bool udm = false;
  CollectorConfig* json = nullptr;
};

// A family of the metrics list (table, os and json collectors), or a udm
// value.
std::optional<MetricDefinition> ReadMetric(YamlReader& reader,
                                           const YAML::Node& node,
                                           const FamilySource& source);
// The column of a json collector's pointer in node (under key), or -1 after
// a problem naming the collector and key.
int ReadJsonPointer(YamlReader& reader, const YAML::Node& node,
                    const std::string& key, CollectorConfig* collector);

// Names, units and suffixes of one family, alone.
void CheckFamily(YamlReader& reader, const YAML::Node& node,
                 const MetricDefinition& metric);

// No two families of the whole file yield the same sample or family name.
void CheckFamilyClashes(YamlReader& reader,
                        const std::vector<CollectorConfig>& collectors);

bool IsValidName(const std::string& name);
// A limits: map; the values given replace those in *limits.
void ReadLimits(YamlReader& reader, const YAML::Node& node,
                LimitsConfig* limits);
// Fills the limits a collector left unset from the file's defaults.
void InheritLimits(const LimitsConfig& defaults, LimitsConfig* limits);
// A problem where limits cannot hold on this host (no writable cgroup).
void CheckLimits(YamlReader& reader, const LimitsConfig& limits);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_CONFIG_INTERNAL_H_
