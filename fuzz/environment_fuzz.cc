// The environment builder and its ENV_ARRAY block on fuzzed property lists.
//
// Header: byte 0 flags: 1 an "ENV_ARRAY" property first, 2 one last (the
// same name, so the last value wins in the first one's place).
// Fields: the ENV_ARRAY block, then NAME, VALUE pairs.
//
// What must hold: the array begins with exactly the entries of the "ENV..."
// and "KTAgentConditionContext..." properties in list order; what follows
// comes from the block, each entry standing in it behind a "{", no more of
// them than "{" bytes, and no name among them that an entry before holds;
// null when there is no entry. Allocation faults are the fault sweep's.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fos/qvefos_environment.h"
#include "fuzz_support.h"

namespace {

using qvefuzz::Check;

constexpr std::string_view kEnvArray = "ENV_ARRAY";
constexpr std::string_view kEnvPrefix = "ENV";
constexpr std::string_view kConditionPrefix = "KTAgentConditionContext";

bool Holds(const std::vector<std::string>& entries, size_t count,
           std::string_view entry) {
  const std::string_view name = entry.substr(0, entry.find('='));
  return std::any_of(entries.begin(), entries.begin() + count,
                     [&](std::string_view other) {
                       return other.substr(0, other.find('=')) == name;
                     });
}

// The entries the properties give, and the block (the last one set).
std::vector<std::string> PropertyEntries(const qvefuzz::Pairs& properties,
                                         std::string* block) {
  std::vector<std::string> entries;
  for (const auto& [name, value] : properties) {
    const std::string_view view(name);
    if (view == kEnvArray) {
      *block = value;
    } else if (view.starts_with(kConditionPrefix)) {
      entries.push_back(name + "=" + value);
    } else if (view.starts_with(kEnvPrefix)) {
      entries.push_back(name.substr(kEnvPrefix.size()) + "=" + value);
    }
  }
  return entries;
}

void CheckEntries(const std::vector<std::string>& got,
                  const qvefuzz::Pairs& properties) {
  std::string block;
  const std::vector<std::string> own = PropertyEntries(properties, &block);
  Check(got.size() >= own.size() &&
            std::equal(own.begin(), own.end(), got.begin()),
        "the properties' entries differ");
  const auto slots =
      static_cast<size_t>(std::count(block.begin(), block.end(), '{'));
  Check(got.size() - own.size() <= slots, "more block entries than groups");
  for (size_t i = own.size(); i < got.size(); ++i) {
    Check(got[i].find('=') != std::string::npos, "a block entry has no '='",
          got[i]);
    Check(block.find("{" + got[i]) != std::string::npos,
          "a block entry is not the block's", got[i]);
    Check(!Holds(got, i, got[i]), "a block entry repeats a name", got[i]);
  }
}

std::vector<std::string> Collect(char** envp) {
  std::vector<std::string> entries;
  for (char** slot = envp; *slot != nullptr; ++slot)
    entries.emplace_back(*slot);
  return entries;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qvefuzz::Session session;
  qvefuzz::Input input(data, size);
  const uint8_t flags = input.Byte();
  const std::string block = input.Field();
  qvefuzz::Properties properties;
  if ((flags & 1) != 0) properties.Set(std::string(kEnvArray), block);
  properties.SetPairs(input);
  if ((flags & 2) != 0) properties.Set(std::string(kEnvArray), block);

  char** envp = qvefos_buildEnvironment(properties.list());
  const std::vector<std::string> got =
      envp != nullptr ? Collect(envp) : std::vector<std::string>();
  Check(envp == nullptr || !got.empty(), "an empty array");
  CheckEntries(got, properties.pairs());
  qvefos_freeEnvironment(&envp);
  Check(envp == nullptr, "freeEnvironment left the pointer set");
  return 0;
}
