// The counting allocator: ledger accounting, the leak report and the
// allocation switch.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using qvehost::LiveBlocks;

// Growth far past the first size makes realloc move the block; the ledger
// must follow it, and charge the resizing call's module and line.
TEST(MemoryTest, ResizeKeepsContentsZeroesTheTailAndMovesTheLedgerEntry) {
  const struct {
    const char* name;
    size_t from;  // SIZE_MAX: resize a null block
    size_t to;
  } cases[] = {{"grow", 16, 100},  {"grow and move", 24, 1 << 20},
               {"shrink", 4096, 7}, {"to zero", 32, 0},
               {"from zero", 0, 33}, {"null block", SIZE_MAX, 8}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const size_t from = c.from == SIZE_MAX ? 0 : c.from;
    auto* block = c.from == SIZE_MAX
                      ? nullptr
                      : static_cast<unsigned char*>(qve_alloc0(from, "test.a", 10));
    ASSERT_EQ(block == nullptr, c.from == SIZE_MAX);  // 0 bytes give a block too
    for (size_t i = 0; i < from; ++i) block[i] = static_cast<unsigned char>(i | 1);

    auto* resized = static_cast<unsigned char*>(qve_realloc0(block, c.to, "test.b", 20));
    ASSERT_NE(resized, nullptr);
    for (size_t i = 0; i < std::min(from, c.to); ++i) {
      ASSERT_EQ(resized[i], static_cast<unsigned char>(i | 1)) << i;
    }
    for (size_t i = from; i < c.to; ++i) ASSERT_EQ(resized[i], 0) << i;
    EXPECT_TRUE(LiveBlocks("test.a").empty());
    std::vector<qvehost::LiveBlock> live = LiveBlocks("test.b");
    ASSERT_EQ(live.size(), 1u);
    EXPECT_EQ(live[0].size, c.to);
    EXPECT_EQ(live[0].line, 20);
    // Any module may release a block.
    qve_free0(resized, "test.c", 30);
  }
}

// Small blocks are recycled by malloc, large ones may be fresh pages: both
// must come back zero-filled after a block of the same size was dirtied.
TEST(MemoryTest, ReusedBlocksAreZeroFilledAtEverySize) {
  for (size_t size : {size_t{1}, size_t{24}, size_t{1024}, size_t{1025}, size_t{200000}}) {
    auto* dirty = static_cast<char*>(qve_alloc0(size, "test.a", 1));
    std::memset(dirty, 0x5a, size);
    qve_free0(dirty, "test.a", 2);
    auto* block = static_cast<char*>(qve_alloc0(size, "test.a", 3));
    EXPECT_EQ(std::string(block, size), std::string(size, '\0')) << size;
    qve_free0(block, "test.a", 4);
  }
}

// Module names are looked up by address first; an address that holds
// another name later must still charge that other name.
TEST(MemoryTest, ReusedNameBufferChargesTheNameItHolds) {
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
  for (qvedrvr_ValueRow* row : rows) qvedrmr_MetricResult_addValueRow(result, row);
  EXPECT_EQ(qvehost::DescribeLiveBlocks(),
            "host: 1 qvedrmr_MetricResult not released\n"
            "host: 2 qvedrvr_ValueRow not released\n");
  qvedrmr_MetricResult_delete(result);
}

TEST(MemoryTest, AllocationSwitchFailsExactlyTheCountedAllocations) {
  const struct {
    const char* name;
    const char* module;  // "" counts every module
    uint64_t nth;
    bool persistent;
    std::vector<std::pair<const char*, bool>> calls;  // module, fails
  } cases[] = {
      {"once in one module", "test.a", 2, false,
       {{"test.a", false}, {"test.b", false}, {"test.a", true}, {"test.a", false}}},
      {"persistent in one module", "test.a", 2, true,
       {{"test.a", false}, {"test.b", false}, {"test.a", true}, {"test.a", true},
        {"test.b", false}}},
      {"once across modules", "", 3, false,
       {{"test.a", false}, {"test.b", false}, {"test.b", true}, {"test.a", false}}},
      {"persistent across modules", "", 1, true, {{"test.a", true}, {"test.b", true}}},
      {"zero disarms", "test.a", 0, true, {{"test.a", false}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    void* warmup = qve_alloc0(1, "test.a", 1);  // the switch counts from now on
    qvehost::FailAllocation(c.module, c.nth, c.persistent);
    for (size_t i = 0; i < c.calls.size(); ++i) {
      auto [module, fails] = c.calls[i];
      void* block = i % 2 == 0 ? qve_alloc0(4, module, 1) : qve_allocpy0("abc", module, 1);
      EXPECT_EQ(block == nullptr, fails) << "call " << i << " of " << module;
      qve_free0(block, "test.a", 2);
    }
    qve_free0(warmup, "test.a", 2);
    qvehost::ResetFaults();
  }
}

TEST(MemoryTest, FailedReallocCountsAndLeavesTheOldBlockLive) {
  auto* block = static_cast<char*>(qve_allocpy0("kept", "test.a", 3));
  qvehost::FailAllocation("test.a", 1, false);
  EXPECT_EQ(qve_realloc0(block, 1 << 16, "test.a", 4), nullptr);
  EXPECT_STREQ(block, "kept");
  EXPECT_EQ(qvehost::DescribeLiveBlocks("test.a"), "test.a:3 (5 bytes)\n");
  EXPECT_EQ(qvehost::AllocationCount("test.a"), 2u);
  qve_free0(block, "test.a", 5);
  qvehost::ResetFaults();
  EXPECT_EQ(qvehost::AllocationCount("test.a"), 0u);
  EXPECT_EQ(qvehost::AllocationCount(""), 0u);
}

}  // namespace
