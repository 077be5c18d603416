// The environment builder and its ENV_ARRAY block on fuzzed property lists.
//
// Header: byte 0 flags: 1 an "ENV_ARRAY" property first, 2 one last (the
// same name, so the last value wins in the first one's place).
// Fields: the ENV_ARRAY block, then NAME, VALUE pairs.
//
// What must hold: the array is exactly the entries of the "ENV..." and
// "KTAgentConditionContext..." properties in list order, then the block's
// pairs whose names no entry holds yet, in block order; null when there is
// none. A block is read one "{NAME=VALUE}" group at a time: the name runs to
// the first "=", the value to the next "}" (or the end), no more pairs than
// "{" bytes, and a group without "=" ends the block. Allocation faults are
// the fault sweep's.
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

struct Pair {
  std::string name, value;
};

std::vector<Pair> BlockPairs(std::string_view block) {
  std::vector<Pair> pairs;
  const auto slots =
      static_cast<size_t>(std::count(block.begin(), block.end(), '{'));
  size_t position = 0;
  while (position < block.size() && pairs.size() < slots) {
    const size_t open = block.find('{', position);
    if (open == std::string_view::npos) break;
    const size_t equals = block.find('=', open + 1);
    if (equals == std::string_view::npos) break;
    const size_t close = block.find('}', equals + 1);
    const size_t end = close == std::string_view::npos ? block.size() : close;
    pairs.push_back({std::string(block.substr(open + 1, equals - open - 1)),
                     std::string(block.substr(equals + 1, end - equals - 1))});
    position = close == std::string_view::npos ? block.size() : close + 1;
  }
  return pairs;
}

bool Holds(const std::vector<std::string>& entries, const std::string& name) {
  return std::any_of(entries.begin(), entries.end(), [&](const auto& entry) {
    return std::string_view(entry).starts_with(name + "=");
  });
}

std::vector<std::string> ExpectedEntries(const qvefuzz::Pairs& properties) {
  std::vector<std::string> entries;
  std::string block;
  for (const auto& [name, value] : properties) {
    const std::string_view view(name);
    if (view == kEnvArray) {
      block = value;
    } else if (view.starts_with(kConditionPrefix)) {
      entries.push_back(name + "=" + value);
    } else if (view.starts_with(kEnvPrefix)) {
      entries.push_back(name.substr(kEnvPrefix.size()) + "=" + value);
    }
  }
  for (const Pair& pair : BlockPairs(block)) {
    if (!Holds(entries, pair.name))
      entries.push_back(pair.name + "=" + pair.value);
  }
  return entries;
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

  const std::vector<std::string> expected = ExpectedEntries(properties.pairs());
  char** envp = qvefos_buildEnvironment(properties.list());
  if (envp == nullptr) {
    Check(expected.empty(), "no environment for entries");
  } else {
    Check(Collect(envp) == expected, "environment differs");
  }
  qvefos_freeEnvironment(&envp);
  Check(envp == nullptr, "freeEnvironment left the pointer set");
  return 0;
}
