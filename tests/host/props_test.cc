// Property lists: order, replacement in place, values writable in place, and
// lookup that finds every name among many.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using ListPtr = std::unique_ptr<qvlnv_NVList, void (*)(qvlnv_NVList*)>;

std::vector<std::string> Names(qvlnv_NVList* list) {
  std::vector<std::string> names;
  qvlsl_Iterator* it = qvlslci_createIterator(list);
  while (const char* name = qvlnvinn_iteratorNextName(it)) names.push_back(name);
  qvlsldi_destroyIterator(it);
  return names;
}

TEST(PropsTest, ReplacementKeepsThePlaceAndValuesAreWritable) {
  ListPtr list(qvehost::NewPropertyList(), qvehost::DeletePropertyList);
  const std::pair<const char*, const char*> sets[] = {
      {"command", "ls -l"}, {"b", "1"}, {"a", "2"}, {"command", "df -P"},
      {"", "empty name"},   {"B", "3"},
  };
  for (const auto& [name, value] : sets) {
    qvehost::SetProperty(list.get(), name, value);
  }
  EXPECT_EQ(Names(list.get()),
            (std::vector<std::string>{"command", "b", "a", "", "B"}));
  const std::pair<const char*, const char*> lookups[] = {
      {"command", "df -P"}, {"b", "1"}, {"B", "3"}, {"", "empty name"},
      {"c", nullptr},       {"comman", nullptr},
  };
  for (const auto& [name, value] : lookups) {
    const char* found = qvlnvlgv_getValue(list.get(), name);
    if (value == nullptr) {
      EXPECT_EQ(found, nullptr) << name;
    } else {
      EXPECT_STREQ(found, value) << name;
    }
  }
  // The plug-in shortens a value through the pointer it was given.
  char* command = qvlnvlgv_getValue(list.get(), "command");
  command[2] = '\0';
  EXPECT_STREQ(qvlnvlgv_getValue(list.get(), "command"), "df");
  EXPECT_EQ(qvlnvlgv_getValue(nullptr, "command"), nullptr);
}

// Names stay findable while the list grows far past any small-buffer size.
TEST(PropsTest, EveryNameOfALargeListIsFound) {
  ListPtr list(qvehost::NewPropertyList(), qvehost::DeletePropertyList);
  constexpr int kCount = 20000;
  for (int i = 0; i < kCount; ++i) {
    qvehost::SetProperty(list.get(), "p" + std::to_string(i),
                         std::to_string(i * 7));
  }
  for (int i = 0; i < kCount; i += 997) {
    EXPECT_STREQ(qvlnvlgv_getValue(list.get(), ("p" + std::to_string(i)).c_str()),
                 std::to_string(i * 7).c_str());
  }
  EXPECT_EQ(Names(list.get()).size(), static_cast<size_t>(kCount));
}

}  // namespace
