// Property lists: order, replacement in place, writable values.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

class PropsTest : public testing::Test {
 protected:
  ~PropsTest() override { qvehost::DeletePropertyList(list_); }

  std::vector<std::string> Names() {
    std::vector<std::string> names;
    qvlsl_Iterator* it = qvlslci_createIterator(list_);
    while (const char* name = qvlnvinn_iteratorNextName(it)) names.push_back(name);
    qvlsldi_destroyIterator(it);
    return names;
  }

  qvlnv_NVList* list_ = qvehost::NewPropertyList();
};

TEST_F(PropsTest, IteratesInListOrderAndReplacesInPlace) {
  qvehost::SetProperty(list_, "STDIN2", "b");
  qvehost::SetProperty(list_, "command", "ls");
  qvehost::SetProperty(list_, "STDIN1", "a");
  qvehost::SetProperty(list_, "STDIN2", "c");
  EXPECT_EQ(Names(), (std::vector<std::string>{"STDIN2", "command", "STDIN1"}));
  EXPECT_STREQ(qvlnvlgv_getValue(list_, "STDIN2"), "c");
}

TEST_F(PropsTest, ValueIsWritableInPlace) {
  qvehost::SetProperty(list_, "command", "df -P   ");
  char* value = qvlnvlgv_getValue(list_, "command");
  value[5] = '\0';
  EXPECT_STREQ(qvlnvlgv_getValue(list_, "command"), "df -P");
}

TEST_F(PropsTest, NamesAreExactByteStrings) {
  qvehost::SetProperty(list_, "Command", "\xff\xfe x");
  EXPECT_EQ(qvlnvlgv_getValue(list_, "command"), nullptr);
  EXPECT_STREQ(qvlnvlgv_getValue(list_, "Command"), "\xff\xfe x");
  EXPECT_EQ(qvlnvlgv_getValue(list_, nullptr), nullptr);
  EXPECT_EQ(qvlnvlgv_getValue(nullptr, "Command"), nullptr);
}

TEST(PropsNullTest, IteratorOfNoListEndsAtOnce) {
  qvlsl_Iterator* it = qvlslci_createIterator(nullptr);
  EXPECT_EQ(qvlnvinn_iteratorNextName(it), nullptr);
  qvlsldi_destroyIterator(it);
}

TEST_F(PropsTest, PrivilegeRuntimeIsMadeFromAListAndReleased) {
  qvehost::SetProperty(list_, "username", "u");
  qvedcpdpr_PDPRuntime* runtime = qvedcpdpr_getPDPRuntimeFromNVPairs(nullptr, list_);
  ASSERT_NE(runtime, nullptr);
  qvedcpdpr_PDPRuntime_delete(runtime);
}

}  // namespace
