// The counting allocator: ledger accounting and the allocation switch.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using qvehost::LiveBlocks;

struct ResizeCase {
  const char* name;
  size_t from;
  size_t to;
};

class ResizeTest : public testing::TestWithParam<ResizeCase> {};

// Growth far past the first size makes realloc move the block; the ledger
// must follow it, and charge the resizing call's module and line.
TEST_P(ResizeTest, KeepsContentsZeroesTailAndMovesTheLedgerEntry) {
  const ResizeCase& c = GetParam();
  auto* block = static_cast<unsigned char*>(qve_alloc0(c.from, "test.a", 10));
  ASSERT_NE(block, nullptr);
  for (size_t i = 0; i < c.from; ++i) block[i] = static_cast<unsigned char>(i | 1);

  auto* resized =
      static_cast<unsigned char*>(qve_realloc0(block, c.to, "test.b", 20));
  ASSERT_NE(resized, nullptr);
  for (size_t i = 0; i < std::min(c.from, c.to); ++i) {
    ASSERT_EQ(resized[i], static_cast<unsigned char>(i | 1)) << i;
  }
  for (size_t i = c.from; i < c.to; ++i) ASSERT_EQ(resized[i], 0) << i;

  EXPECT_TRUE(LiveBlocks("test.a").empty());
  std::vector<qvehost::LiveBlock> live = LiveBlocks("test.b");
  ASSERT_EQ(live.size(), 1u);
  EXPECT_EQ(live[0].size, c.to);
  EXPECT_EQ(live[0].line, 20);
  qve_free0(resized, "test.b", 30);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, ResizeTest,
    testing::Values(ResizeCase{"Grow", 16, 100}, ResizeCase{"GrowAndMove", 24, 1 << 20},
                    ResizeCase{"Shrink", 4096, 7}, ResizeCase{"ToZero", 32, 0},
                    ResizeCase{"FromZero", 0, 33}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(MemoryTest, NullBlockReallocAllocatesZeroed) {
  auto* block = static_cast<char*>(qve_realloc0(nullptr, 8, "test.a", 1));
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(std::string(block, 8), std::string(8, '\0'));
  qve_free0(block, "test.a", 2);
}

TEST(MemoryTest, ZeroBytesGiveALiveBlockAndNullTextGivesNull) {
  void* empty = qve_alloc0(0, "test.a", 5);
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(LiveBlocks("test.a").size(), 1u);
  qve_free0(empty, "test.a", 6);
  EXPECT_EQ(qve_allocpy0(nullptr, "test.a", 7), nullptr);
  EXPECT_EQ(qvehost::AllocationCount("test.a"), 1u);  // a null text allocates nothing
}

TEST(MemoryTest, BlockMayBeReleasedUnderAnotherModule) {
  char* copy = qve_allocpy0("text", "qvefos", 40);
  ASSERT_STREQ(copy, "text");
  qve_free0(copy, "qvefosl", 50);
  EXPECT_TRUE(LiveBlocks().empty());
}

// Small blocks are recycled by malloc, large ones may be fresh pages: both
// must come back zero-filled after a block of the same size was dirtied.
TEST(MemoryTest, ReusedBlocksAreZeroFilledAtEverySize) {
  for (size_t size : {size_t{1}, size_t{24}, size_t{1024}, size_t{1025},
                      size_t{200000}}) {
    auto* dirty = static_cast<char*>(qve_alloc0(size, "test.a", 1));
    ASSERT_NE(dirty, nullptr);
    std::memset(dirty, 0x5a, size);
    qve_free0(dirty, "test.a", 2);
    auto* block = static_cast<char*>(qve_alloc0(size, "test.a", 3));
    ASSERT_NE(block, nullptr);
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

// Host objects carry no ledger block, yet a leak check sees each of them.
TEST(MemoryTest, LiveHostObjectsAreReportedByType) {
  qvedrvr_ValueRow* rows[] = {qvedrvr_ValueRow_new(), qvedrvr_ValueRow_new()};
  qveue_Exception* exception = qveue_Exception_new_init(7, "m");
  EXPECT_EQ(LiveBlocks().size(), 3u);
  EXPECT_EQ(LiveBlocks("host").size(), 3u);
  EXPECT_TRUE(LiveBlocks("test.a").empty());
  std::string report = qvehost::DescribeLiveBlocks();
  EXPECT_NE(report.find("host: 2 qvedrvr_ValueRow not released\n"),
            std::string::npos) << report;
  EXPECT_NE(report.find("host: 1 qveue_Exception not released\n"),
            std::string::npos) << report;
  qveue_Exception_delete(exception);
  qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
  for (qvedrvr_ValueRow* row : rows) {
    qvedrmr_MetricResult_addValueRow(result, row);
  }
  EXPECT_EQ(qvehost::DescribeLiveBlocks(),
            "host: 1 qvedrmr_MetricResult not released\n"
            "host: 2 qvedrvr_ValueRow not released\n");
  qvedrmr_MetricResult_delete(result);
  EXPECT_TRUE(LiveBlocks().empty());
}

TEST(MemoryTest, DescribesLiveBlocksWithTheirSites) {
  void* block = qve_alloc0(5, "test.a", 12);
  EXPECT_EQ(qvehost::DescribeLiveBlocks("test.a"), "test.a:12 (5 bytes)\n");
  qve_freecb(block);
}

// Each call: the module asked for, and whether it must fail.
struct SwitchCase {
  const char* name;
  const char* module;  // "" counts every module
  uint64_t nth;
  bool persistent;
  std::vector<std::pair<const char*, bool>> calls;
};

class AllocationSwitchTest : public testing::TestWithParam<SwitchCase> {};

TEST_P(AllocationSwitchTest, FailsExactlyTheCountedAllocations) {
  const SwitchCase& c = GetParam();
  void* warmup = qve_alloc0(1, "test.a", 1);  // the switch counts from now on
  qvehost::FailAllocation(c.module, c.nth, c.persistent);
  std::vector<void*> blocks;
  for (size_t i = 0; i < c.calls.size(); ++i) {
    auto [module, fails] = c.calls[i];
    void* block = i % 2 == 0 ? qve_alloc0(4, module, 1)
                             : qve_allocpy0("abc", module, 1);
    EXPECT_EQ(block == nullptr, fails) << "call " << i << " of " << module;
    if (block != nullptr) blocks.push_back(block);
  }
  for (void* block : blocks) qve_free0(block, "test.a", 2);
  qve_free0(warmup, "test.a", 2);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, AllocationSwitchTest,
    testing::Values(
        SwitchCase{"OnceInOneModule", "test.a", 2, false,
                   {{"test.a", false}, {"test.b", false}, {"test.a", true},
                    {"test.a", false}}},
        SwitchCase{"PersistentInOneModule", "test.a", 2, true,
                   {{"test.a", false}, {"test.b", false}, {"test.a", true},
                    {"test.a", true}, {"test.b", false}}},
        SwitchCase{"OnceAcrossModules", "", 3, false,
                   {{"test.a", false}, {"test.b", false}, {"test.b", true},
                    {"test.a", false}}},
        SwitchCase{"PersistentAcrossModules", "", 1, true,
                   {{"test.a", true}, {"test.b", true}}},
        SwitchCase{"ZeroDisarms", "test.a", 0, true, {{"test.a", false}}}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(MemoryTest, FailedReallocCountsAndLeavesTheOldBlockLive) {
  auto* block = static_cast<char*>(qve_allocpy0("kept", "test.a", 3));
  qvehost::FailAllocation("test.a", 1, false);
  EXPECT_EQ(qve_realloc0(block, 1 << 16, "test.a", 4), nullptr);
  EXPECT_STREQ(block, "kept");
  std::vector<qvehost::LiveBlock> live = LiveBlocks("test.a");
  ASSERT_EQ(live.size(), 1u);
  EXPECT_EQ(live[0].size, 5u);
  EXPECT_EQ(live[0].line, 3);
  EXPECT_EQ(qvehost::AllocationCount("test.a"), 2u);
  qve_free0(block, "test.a", 5);
}

TEST(MemoryTest, ResetFaultsZeroesTheCounters) {
  qve_free0(qve_alloc0(1, "test.a", 1), "test.a", 1);
  qve_free0(qve_alloc0(1, "test.b", 1), "test.b", 1);
  EXPECT_EQ(qvehost::AllocationCount("test.a"), 1u);
  EXPECT_GE(qvehost::AllocationCount(""), 2u);
  qvehost::ResetFaults();
  EXPECT_EQ(qvehost::AllocationCount("test.a"), 0u);
  EXPECT_EQ(qvehost::AllocationCount(""), 0u);
  EXPECT_EQ(qvehost::AllocationCount("never.seen"), 0u);
}

void ChurnBlocks() {
  std::vector<void*> blocks;
  for (int i = 0; i < 2000; ++i) {
    blocks.push_back(qve_alloc0(static_cast<size_t>(i % 64), "test.t", i));
    if (i % 3 == 0) blocks.back() = qve_realloc0(blocks.back(), 128, "test.t", i);
  }
  for (void* block : blocks) qve_free0(block, "test.t", 0);
}

TEST(MemoryTest, ConcurrentAllocationKeepsTheLedgerConsistent) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) threads.emplace_back(ChurnBlocks);
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(LiveBlocks("test.t").empty());
}

}  // namespace
