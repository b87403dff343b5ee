#include <Kiv/BestFitAllocator.h>

#include <Zel/Trace.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace Kiv {
namespace {

using BFA::PendingCmds;
using BlkPtr = Zel::Ptr<BFA::Blk>;
using Runs = std::map<U32, U32>;  // free stretches, start to size, internal indexes
using Table = std::vector<int>;   // the block (its position in `held`) in each entry, or -1

// The real table as the owner of `held` sees it; empty when two blocks overlap or one sticks out.
Table owners(BestFitAllocator const& a, std::vector<BlkPtr> const& held) {
  Table table(a.memSz(), -1);
  for (std::size_t b = 0; b < held.size(); ++b) {
    for (U32 entry = held[b]->index() - a.offset(), i = 0; i < held[b]->size(); ++i) {
      if (entry + i >= table.size() || table[entry + i] != -1) return {};
      table[entry + i] = int(b);
    }
  }
  return table;
}

Runs freeRuns(Table const& table) {
  Runs runs;
  for (U32 i = 0, start = 0; i <= table.size(); ++i) {
    if (i < table.size() && table[i] == -1) continue;
    if (i > start) runs.emplace(start, i - start);
    start = i + 1;
  }
  return runs;
}

// Used and free blocks tile the space; the free blocks are the maximal free runs, each in both
// index maps and in one size set (never empty) or the jumbo set; the counters agree.
void consistent(BestFitAllocator const& a, std::vector<BlkPtr> const& held) {
  Table const table = owners(a, held);
  ASSERT_EQ(table.size(), a.memSz()) << "held blocks overlap";
  for (BlkPtr const& blk : held) ASSERT_EQ(a.inUseBlock(blk->index()), blk);
  ASSERT_EQ(a.inUseBlocks(), held.size());
  Runs const runs = freeRuns(table);
  Runs ends;
  std::set<std::pair<U32, U32>> bySize, recorded;  // (size, start) of every free block
  for (auto const& [start, size] : runs) {
    ends.emplace(start + size - 1, size);
    bySize.emplace(size, start);
  }
  for (auto const& [size, sizeClass] : a.freeBlkSetIteratorConst()) {
    ASSERT_TRUE(size <= a.maxBlkSz() && sizeClass->blkSz() == size && sizeClass->freeBlks() > 0);
    for (U32 start : sizeClass->freeBlkIteratorConst()) recorded.emplace(size, start);
  }
  for (BFA::JumboFreeBlk const& jumbo : a.jumboFreeBlkIteratorConst()) {
    ASSERT_GT(jumbo.blkSz(), a.maxBlkSz());
    recorded.emplace(jumbo.blkSz(), jumbo.startIndex());
  }
  ASSERT_EQ(a.freeBlkStartIndexToSzIteratorConst(), runs);
  ASSERT_EQ(a.freeBlkEndIndexToSzIteratorConst(), ends);
  ASSERT_EQ(recorded, bySize);
  ASSERT_EQ(a.numFreeEntries(), std::ranges::count(table, -1));
}

// Copies the blocks in `table` as the log says: each moves once, down, in order of old index, onto
// entries free or its own; the table ends as the allocator says, and compact.
void replays(Table table, PendingCmds const& cmds, BestFitAllocator const& a,
             std::vector<BlkPtr> const& held) {
  std::vector<bool> moved(held.size(), false);
  U32 lastOld = 0;
  for (BFA::PendingCmd const& cmd : cmds.pendingCmdLogIteratorConst()) {
    int const b = int(std::ranges::find(held, cmd.blk()) - held.begin());
    U32 const from = cmd.oldIndex() - a.offset(), to = cmd.blk()->index() - a.offset();
    ASSERT_TRUE(b < int(held.size()) && !moved[b] && to < from && cmd.oldIndex() > lastOld)
        << "moving block " << b;
    moved[b] = true;
    lastOld = cmd.oldIndex();
    for (U32 i = 0; i < cmd.blk()->size(); ++i) {
      ASSERT_EQ(table[from + i], b);
      ASSERT_TRUE(table[to + i] == -1 || table[to + i] == b) << "overwrites " << to + i;
    }
    std::fill_n(table.begin() + from, cmd.blk()->size(), -1);
    std::fill_n(table.begin() + to, cmd.blk()->size(), b);
  }
  Table now = owners(a, held);
  now.resize(table.size(), -1);
  ASSERT_EQ(table, now);
  ASSERT_TRUE(std::ranges::is_partitioned(table, [](int b) { return b != -1; })) << "not compact";
}

// Checks that every notification finds the counters and the free blocks agreeing.
struct Watcher : BestFitAllocator::NotifieeConst {
  void onMemSz() override { onNumFreeEntries(); }
  void onNumFreeEntries() override {
    U64 free = 0;
    for (auto const& [start, size] : notifier()->freeBlkStartIndexToSzIteratorConst()) free += size;
    auto const& ends = notifier()->freeBlkEndIndexToSzIteratorConst();
    agreed = agreed && free == notifier()->numFreeEntries() &&
             (ends.empty() || ends.rbegin()->first < notifier()->memSz());
  }
  bool agreed = true;
};

// Random alloc, free, realloc, resize and defragment, checked after every step against the
// blocks the test holds. Each shape must see moves, refusals and jumbo fits, or it tested less.
TEST(BestFitRandom, TilesMergesFitsAndCompactsUnderChurn) {
  for (auto const& shape :
       {std::array<U32, 3>{300, 1000, 16}, {40, 0, 3}, {700, 0x7FFFFFFF, 64}, {8, 5, 1}}) {
    U32 const memSz = shape[0], offset = shape[1], maxBlkSz = shape[2];
    SCOPED_TRACE(testing::Message() << "memSz " << memSz << " maxBlkSz " << maxBlkSz);
    auto a = bestFitAllocatorFactory(memSz, offset, maxBlkSz);
    Watcher watcher;
    watcher.notifierIs(a);
    std::mt19937 rng(memSz);
    auto pick = [&](U32 n) { return U32(rng() % n); };
    // Mostly small blocks, so that the space fragments; now and then the largest.
    auto size = [&] { return pick(8) == 0 ? maxBlkSz : 1 + pick(std::min<U32>(maxBlkSz, 6)); };
    std::vector<BlkPtr> held;
    U32 moves = 0, refused = 0, jumboFits = 0;
    for (int step = 0; step < 3000 && !HasFailure(); ++step) {
      Table const table = owners(*a, held);
      Runs const runs = freeRuns(table);
      U32 const dice = pick(100);
      if (dice < 40) {
        U32 const n = size();
        // The smallest free run that is large enough, the lowest of equals.
        auto const fit = std::ranges::min_element(
            runs, {}, [&](auto const& run) { return run.second >= n ? run.second : ~0u; });
        BlkPtr blk = a->alloc(n);
        ASSERT_EQ(bool(blk), fit != runs.end() && fit->second >= n) << "alloc(" << n << ")";
        refused += !blk;
        if (blk) {
          // Any free block of the best size will do, but among jumbo blocks the lowest index wins.
          auto const taken = runs.find(blk->index() - a->offset());
          ASSERT_TRUE(taken != runs.end() && taken->second == fit->second) << "best fit for " << n;
          ASSERT_TRUE(fit->second <= maxBlkSz || taken == fit) << "not the first jumbo block";
          jumboFits += fit->second > maxBlkSz;
          held.push_back(blk);
        }
      } else if (dice < 75 && !held.empty()) {
        std::swap(held[pick(U32(held.size()))], held.back());
        held.pop_back();
      } else if (dice >= 75 && dice < 88) {
        U32 const n = std::min(size(), a->memSz());
        U32 const start = pick(a->memSz() - n + 1);
        bool const allFree =
            std::count(table.begin() + start, table.begin() + start + n, -1) == std::ptrdiff_t(n);
        BlkPtr blk = a->realloc(start + a->offset(), n);
        ASSERT_EQ(bool(blk), allFree) << "realloc(" << start << ", " << n << ")";
        if (blk) held.push_back(blk);
      } else if (dice >= 88) {
        bool const resize = dice < 95;
        U32 const oldSz = a->memSz();
        U32 const newSz = std::clamp<U32>(oldSz / 2 + pick(oldSz), 1, 2 * memSz);
        U32 const freeEntries = a->numFreeEntries();
        U32 const topFree = a->freeBlkEndIndexToSz(oldSz - 1);
        Zel::Ptr<PendingCmds> const cmds = resize ? a->resizeMemory(newSz) : a->defragment();
        ASSERT_EQ(a->memSz(), !resize          ? oldSz
                              : newSz >= oldSz ? newSz
                                               : oldSz - std::min(oldSz - newSz, freeEntries));
        ASSERT_EQ(bool(cmds),
                  !resize || (newSz < oldSz && freeEntries > 0 && topFree < oldSz - newSz));
        if (cmds) {
          moves += cmds->pendingCmdLogs();
          ASSERT_NO_FATAL_FAILURE(replays(table, *cmds, *a, held));
        }
      }
      ASSERT_NO_FATAL_FAILURE(consistent(*a, held)) << "after step " << step;
      ASSERT_TRUE(watcher.agreed) << "a notification saw counters and free blocks disagree";
    }
    EXPECT_TRUE(moves > 0 && refused > 0 && jumboFits > 0) << "a kind of step never ran";
  }
}

// The move log's printed form and its empty end; who keeps whom alive (a command holds its block,
// a block its allocator); the trace texts.
TEST(BestFitEdges, MoveLogLifetimesAndTraces) {
  auto b = bestFitAllocatorFactory(100, 1000, 10);
  BlkPtr low = b->alloc(10), hole = b->alloc(10), high = b->alloc(10);
  hole = nullptr;
  Zel::Ptr<PendingCmds> cmds = b->defragment();
  EXPECT_EQ(Zel::valueToStrep(cmds->pendingCmdLogDeq()).view(),
            "Value('Kiv::BFA::PendingCmd', ** {'oldIndex': 1020, 'blk': <Kiv::BFA::Blk>})");
  EXPECT_FALSE(cmds->pendingCmdLogDeq().blk());
  // A handle names no block, so a command parses back only without one.
  EXPECT_EQ(Zel::strepToValue<BFA::PendingCmd>(
                "Value('Kiv::BFA::PendingCmd', ** {'oldIndex': 7, 'blk': None})"),
            BFA::PendingCmd(7, nullptr));

  auto const& tracked = Zel::AllocTrackTypeInfo::of<BestFitAllocator>();
  U64 const live = tracked.live();
  cmds->pendingCmdLogEnq(BFA::PendingCmd(1020, high));
  high = nullptr;
  EXPECT_EQ(b->inUseBlocks(), 2u);
  cmds = nullptr;
  b = nullptr;
  EXPECT_EQ(tracked.live(), live);
  low = nullptr;
  EXPECT_EQ(tracked.live(), live - 1);

  auto& handle = Zel::traceHandle<"BestFitAllocator">();
  int const level = handle.level();
  std::ostringstream sink;
  Zel::traceSinkIs(&sink);
  handle.levelIs(Zel::TraceHandle::maxLevel);
  bestFitAllocatorFactory(100, 1000, 10)->alloc(4);
  handle.levelIs(level);
  Zel::traceSinkIs(nullptr);
  std::size_t at = 0;
  for (char const* text :
       {"memSz = 100, offset = 1000, maxBlkSz = 10", "Adding free blk: sz 100, index 0",
        "Initialized allocator: memSz 100 offset 1000 maxBlkSz 10", "Alloc: blkSz 4",
        "Removing free blk: sz 100, index 0", "Adding free blk: sz 96, index 4",
        "numFreeEntries decreased by 4, now = 96", ", startIndex 0", "Free: startIndex 0, blkSz 4",
        "Adding free blk: sz 4, index 0", "Removing free blk: sz 96, index 4",
        "numFreeEntries increased by 4, now = 100"}) {
    at = sink.str().find("] " + std::string(text) + " (", at);
    ASSERT_NE(at, std::string::npos) << "no \"" << text << "\" in its place in\n" << sink.str();
  }
}

// The Failed line for `condition`, then the assertion.
testing::Matcher<std::string const&> failure(std::string const& condition) {
  return testing::AllOf(testing::HasSubstr("Failed(" + condition + ") "),
                        testing::HasSubstr("Assertion failed: !\"" + condition + "\""));
}

// Reaches the internal free-list operations, to break their invariants on purpose.
struct Probe : BestFitAllocator {
  using BestFitAllocator::BestFitAllocator;
  using BestFitAllocator::doAddFreeBlk;
  using BestFitAllocator::doRemoveFreeBlk;
};

TEST(BestFitDeathTest, MisuseAndBrokenInvariantsAbortWithTheirCondition) {
  EXPECT_DEATH(bestFitAllocatorFactory(0, 0, 1), failure("memSz()"));
  EXPECT_DEATH(bestFitAllocatorFactory(10, 0xFFFFFFF5, 1),
               failure("( memSz() + offset() ) < 0xFFFFFFFF"));
  EXPECT_DEATH(bestFitAllocatorFactory(10, 0, 0), failure("maxBlkSz()"));
  EXPECT_DEATH(bestFitAllocatorFactory(10, 0, 10), failure("maxBlkSz() < memSz()"));

  auto a = bestFitAllocatorFactory(100, 1000, 10);
  EXPECT_DEATH(a->alloc(0), failure("blkSz"));
  EXPECT_DEATH(a->alloc(11), failure("blkSz <= maxBlkSz()"));
  EXPECT_DEATH(a->realloc(1000, 0), failure("blkSz"));
  EXPECT_DEATH(a->realloc(1000, 11), failure("blkSz <= maxBlkSz()"));
  EXPECT_DEATH(a->realloc(1095, 6), failure("startIndex + blkSz <= memSz()"));
  EXPECT_DEATH(a->realloc(999, 1), failure("startIndex + blkSz <= memSz()"));
  EXPECT_DEATH(bestFitAllocatorFactory(100, 0xFFFFFF00, 10)->resizeMemory(0xFF),
               failure("( newMemSz + offset() ) < 0xFFFFFFFF"));

  // Freeing free entries again, and forgetting entries that are not free.
  auto probe = Zel::allocate<Probe>(100u, 0u, 10u);
  BlkPtr used = probe->alloc(5), more = probe->alloc(5);
  used = nullptr;  // free: 0 .. 4 and 10 .. 99
  EXPECT_DEATH(probe->doAddFreeBlk(5, 0), failure("!freeBlkSet( blkSz )->freeBlk( startIndex )"));
  EXPECT_DEATH(probe->doAddFreeBlk(90, 10),
               failure("!jumboFreeBlk( BFA::JumboFreeBlk( blkSz, startIndex ) )"));
  EXPECT_DEATH(probe->doRemoveFreeBlk(5, 5), failure("freeBlkSet( blkSz )->freeBlk( startIndex )"));
}

}  // namespace
}  // namespace Kiv
