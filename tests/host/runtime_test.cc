// The small families of the host runtime: string comparison, string
// buffer, vector, exception hand-over and property lists.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

TEST(RuntimeTest, ExactAndAsciiCaseInsensitiveComparisons) {
  const struct {
    const char* first;
    const char* second;
    bool exact;
    bool ignoring_case;
  } cases[] = {
      {"TRUE", "TRUE", true, true}, {"true", "TRUE", false, true},
      {"TRUEx", "TRUE", false, false}, {"TRU", "TRUE", false, false},
      {"", "", true, true},
      {"\xc9", "\xe9", false, false},  // ASCII only, whatever the locale
      {nullptr, "TRUE", false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << (c.first ? c.first : "(null)") << " " << c.second);
    EXPECT_EQ(qve_equals(c.first, c.second) != 0, c.exact);
    EXPECT_EQ(strcaseeq(c.first, c.second) == 0, c.ignoring_case);
  }
}

// The copy is a host block, and so follows the host's allocation switch.
TEST(RuntimeTest, StringBufferAppendsAndHandsOverAHostCopy) {
  qveusb_StringBuffer* buffer = qveusb_StringBuffer_new();
  qveusb_StringBuffer_appendStr(buffer, "a=1");
  qveusb_StringBuffer_appendNewLine(buffer);
  qveusb_StringBuffer_appendChar(buffer, 'b');
  qveusb_StringBuffer_appendStr(buffer, nullptr);
  EXPECT_STREQ(qveusb_StringBuffer_getBuffer(buffer), "a=1\nb");
  EXPECT_EQ(qveusb_StringBuffer_size(buffer), 5);
  char* copy = qveusb_StringBuffer_toString(buffer);
  EXPECT_STREQ(copy, "a=1\nb");
  qve_free0(copy, "qvefoslt", 1);
  qvehost::FailAllocation("host", 1, false);
  EXPECT_EQ(qveusb_StringBuffer_toString(buffer), nullptr);
  qveusb_StringBuffer_delete(buffer);
}

// The plug-in never calls deleteAll; the ledger check proves it releases.
TEST(RuntimeTest, VectorDeleteAllReleasesEveryElement) {
  qveuv_Vector* vector = qveuv_Vector_new();
  for (const char* text : {"x", "y"}) qveuv_Vector_addElement(vector, qve_allocpy0(text, "t", 1));
  qveuv_Vector_deleteAll(vector, qve_freecb);
}

// The slot takes whatever it is given, null included; without a slot the
// exception is released (the ledger check after the test proves it).
TEST(RuntimeTest, PropagateFillsTheSlotOrReleasesTheException) {
  for (bool with_slot : {true, false}) {
    for (bool with_exception : {true, false}) {
      qveue_Exception* exception =
          with_exception ? qveue_Exception_new_init(QVE_EXC_TIMEOUT, "t") : nullptr;
      auto* stale = reinterpret_cast<qveue_Exception*>(0x1);
      qveue_Exception* slot = stale;
      qveue_propogateException(with_slot ? &slot : nullptr, exception);
      EXPECT_EQ(slot, with_slot ? exception : stale) << with_slot << with_exception;
      if (with_slot) qveue_Exception_delete(slot);
    }
  }
}

std::vector<std::string> Names(qvlnv_NVList* list) {
  std::vector<std::string> names;
  qvlsl_Iterator* it = qvlslci_createIterator(list);
  while (const char* name = qvlnvinn_iteratorNextName(it)) names.push_back(name);
  qvlsldi_destroyIterator(it);
  return names;
}

// Values are writable in place: the plug-in shortens "command" so.
TEST(RuntimeTest, PropertiesKeepOrderReplaceInPlaceAndAreWritable) {
  qvlnv_NVList* list = qvehost::NewPropertyList();
  for (const char* name : {"STDIN2", "Command", "STDIN1", "STDIN2"}) {
    qvehost::SetProperty(list, name, std::string(name) + " value   ");
  }
  EXPECT_EQ(Names(list), (std::vector<std::string>{"STDIN2", "Command", "STDIN1"}));
  EXPECT_EQ(qvlnvlgv_getValue(list, "command"), nullptr);
  qvlnvlgv_getValue(list, "Command")[13] = '\0';
  EXPECT_STREQ(qvlnvlgv_getValue(list, "Command"), "Command value");
  EXPECT_EQ(Names(nullptr), std::vector<std::string>{});
  qvehost::DeletePropertyList(list);
}

}  // namespace
