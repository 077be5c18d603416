// The counting allocator: ledger accounting, the leak report and the
// allocation switch.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using qvehost::LiveBlocks;

// Growth far past the first size makes realloc move the block; the ledger
// must follow it, and charge the resizing call's module and line. From 0:
// a null block. Any module may release a block.
TEST(MemoryTest, ResizeKeepsContentsZeroesTheTailAndMovesTheLedgerEntry) {
  const std::pair<size_t, size_t> cases[] = {
      {16, 100}, {24, 1 << 20}, {4096, 7}, {32, 0}, {0, 33}};
  for (const auto& [from, to] : cases) {
    auto* block = static_cast<char*>(
        from == 0 ? nullptr : qve_alloc0(from, "test.a", 10));
    std::string want(to, '\0');
    for (size_t i = 0; i < from; ++i) {
      block[i] = static_cast<char>(i | 1);
      if (i < to) want[i] = block[i];
    }
    auto* resized = static_cast<char*>(qve_realloc0(block, to, "test.b", 20));
    ASSERT_NE(resized, nullptr);
    EXPECT_EQ(std::string(resized, to), want) << to;
    EXPECT_TRUE(LiveBlocks("test.a").empty());
    const std::vector<qvehost::LiveBlock> live = LiveBlocks("test.b");
    ASSERT_EQ(live.size(), 1u);
    EXPECT_EQ(live[0].size, to);
    EXPECT_EQ(live[0].line, 20);
    qve_free0(resized, "test.c", 30);
  }
}

// Small blocks are recycled by malloc, large ones may be fresh pages: both
// must come back zero-filled after a block of the same size was dirtied.
// Module names are looked up by address first; an address that holds
// another name later must still charge that other name.
TEST(MemoryTest, ReusedBlocksAreZeroFilledAndReusedNamesCharged) {
  for (size_t size : {1, 24, 1024, 1025, 200000}) {
    auto* dirty = static_cast<char*>(qve_alloc0(size, "test.a", 1));
    std::memset(dirty, 0x5a, size);
    qve_free0(dirty, "test.a", 2);
    auto* block = static_cast<char*>(qve_alloc0(size, "test.a", 3));
    EXPECT_EQ(std::string(block, size), std::string(size, '\0')) << size;
    qve_free0(block, "test.a", 4);
  }
  char name[16];
  std::vector<void*> blocks;
  for (const char* module : {"test.a", "test.b", "test.a", "test.bb"}) {
    std::strcpy(name, module);
    blocks.push_back(qve_alloc0(1, name, 1));
  }
  EXPECT_EQ(LiveBlocks("test.a").size(), 2u);
  EXPECT_EQ(LiveBlocks("test.b").size(), 1u);
  EXPECT_EQ(LiveBlocks("test.bb").size(), 1u);
  for (void* block : blocks) qve_free0(block, "test.a", 2);
}

// Host objects carry no ledger block, yet the leak report names each type.
TEST(MemoryTest, LeakReportNamesBlockSitesAndLiveHostObjects) {
  void* block = qve_alloc0(5, "test.a", 12);
  qvedrvr_ValueRow* rows[] = {qvedrvr_ValueRow_new(), qvedrvr_ValueRow_new()};
  qveue_Exception* exception = qveue_Exception_new_init(7, "m");
  EXPECT_EQ(LiveBlocks().size(), 4u);
  EXPECT_EQ(LiveBlocks("host").size(), 3u);
  EXPECT_EQ(qvehost::DescribeLiveBlocks("test.a"), "test.a:12 (5 bytes)\n");
  qve_free0(block, "test.a", 13);
  qveue_Exception_delete(exception);
  qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
  for (qvedrvr_ValueRow* row : rows) {
    qvedrmr_MetricResult_addValueRow(result, row);
  }
  EXPECT_EQ(qvehost::DescribeLiveBlocks(),
            "host: 1 qvedrmr_MetricResult not released\n"
            "host: 2 qvedrvr_ValueRow not released\n");
  qvedrmr_MetricResult_delete(result);
}

// Calls alternate between qve_alloc0 and qve_allocpy0, in modules test.a
// and test.b; the switch counts from the moment it is set.
TEST(MemoryTest, AllocationSwitchFailsExactlyTheCountedAllocations) {
  // clang-format off
  const struct {
    const char* module;  // "" counts every module
    uint64_t nth;
    bool persistent;
    std::string calls;  // a or b, upper case where it must fail
  } cases[] = {
      {"test.a", 2, false, "abAa"}, {"test.a", 2, true, "abAAb"},
      {"", 3, false, "abBa"}, {"", 1, true, "AB"},
      {"test.a", 0, true, "a"},  // zero disarms
  };
  // clang-format on
  for (const auto& c : cases) {
    void* warmup = qve_alloc0(1, "test.a", 1);
    qvehost::FailAllocation(c.module, c.nth, c.persistent);
    for (size_t i = 0; i < c.calls.size(); ++i) {
      const char* module =
          std::tolower(c.calls[i]) == 'a' ? "test.a" : "test.b";
      void* block = i % 2 == 0 ? qve_alloc0(4, module, 1)
                               : qve_allocpy0("abc", module, 1);
      EXPECT_EQ(block == nullptr, std::isupper(c.calls[i]) != 0)
          << c.calls << " call " << i;
      qve_free0(block, "test.a", 2);
    }
    qve_free0(warmup, "test.a", 2);
    qvehost::ResetFaults();
  }
  // A failed realloc counts too, and leaves the old block live.
  auto* block = static_cast<char*>(qve_allocpy0("kept", "test.a", 3));
  qvehost::FailAllocation("test.a", 1, false);
  EXPECT_EQ(qve_realloc0(block, 1 << 16, "test.a", 4), nullptr);
  EXPECT_STREQ(block, "kept");
  EXPECT_EQ(qvehost::DescribeLiveBlocks("test.a"), "test.a:3 (5 bytes)\n");
  EXPECT_EQ(qvehost::AllocationCount("test.a"), 2u);
  qve_free0(block, "test.a", 5);
  qvehost::ResetFaults();
  EXPECT_EQ(qvehost::AllocationCount("test.a"), 0u);
}

}  // namespace
