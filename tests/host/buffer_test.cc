// String buffer and vector.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

TEST(StringBufferTest, AppendsAndHandsOverAHostCopy) {
  qveusb_StringBuffer* buffer = qveusb_StringBuffer_new();
  ASSERT_NE(buffer, nullptr);
  qveusb_StringBuffer_appendStr(buffer, "a=1");
  qveusb_StringBuffer_appendNewLine(buffer);
  qveusb_StringBuffer_appendChar(buffer, 'b');
  qveusb_StringBuffer_appendStr(buffer, nullptr);
  EXPECT_STREQ(qveusb_StringBuffer_getBuffer(buffer), "a=1\nb");
  EXPECT_EQ(qveusb_StringBuffer_size(buffer), 5);

  size_t host_blocks = qvehost::LiveBlocks("host").size();
  char* copy = qveusb_StringBuffer_toString(buffer);
  ASSERT_STREQ(copy, "a=1\nb");
  EXPECT_EQ(qvehost::LiveBlocks("host").size(), host_blocks + 1);
  qve_free0(copy, "qvefoslt", 1);
  qveusb_StringBuffer_delete(buffer);
}

TEST(StringBufferTest, CopyFollowsTheHostAllocationSwitch) {
  qveusb_StringBuffer* buffer = qveusb_StringBuffer_new();
  qvehost::FailAllocation("host", 1, false);
  EXPECT_EQ(qveusb_StringBuffer_toString(buffer), nullptr);
  qveusb_StringBuffer_delete(buffer);
}

int32_t SameText(const void* element, const void* key) {
  return std::strcmp(static_cast<const char*>(element),
                     static_cast<const char*>(key)) == 0;
}

TEST(VectorTest, FindsTheFirstMatchAndReleasesEveryElement) {
  qveuv_Vector* vector = qveuv_Vector_new();
  for (const char* text : {"x", "y", "y"}) {
    qveuv_Vector_addElement(vector, qve_allocpy0(text, "test.v", 1));
  }
  EXPECT_EQ(qveuv_Vector_size(vector), 3);
  EXPECT_EQ(qveuv_Vector_findIndex(vector, "y", SameText), 1);
  EXPECT_EQ(qveuv_Vector_findIndex(vector, "z", SameText), -1);
  EXPECT_STREQ(static_cast<char*>(qveuv_Vector_elementAt(vector, 2)), "y");
  EXPECT_EQ(qveuv_Vector_elementAt(vector, 3), nullptr);
  qveuv_Vector_deleteAll(vector, qve_freecb);
  EXPECT_TRUE(qvehost::LiveBlocks("test.v").empty());
}

TEST(VectorTest, DeleteLeavesTheElementsAlive) {
  qveuv_Vector* vector = qveuv_Vector_new();
  char* text = qve_allocpy0("kept", "test.v", 1);
  qveuv_Vector_addElement(vector, text);
  qveuv_Vector_delete(vector);
  EXPECT_STREQ(text, "kept");
  qve_free0(text, "test.v", 2);
}

}  // namespace
