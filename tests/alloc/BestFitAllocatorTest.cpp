#include <Kiv/BestFitAllocator.h>

#include <Zel/Trace.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
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
  for (U32 i = 0; i < table.size(); ++i) {
    if (table[i] != -1) continue;
    if (i > 0 && table[i - 1] == -1) {
      ++std::prev(runs.end())->second;
    } else {
      runs.emplace(i, 1);
    }
  }
  return runs;
}

Runs freeMap(BestFitAllocator const& a) {
  return {a.freeBlkStartIndexToSzIteratorConst().begin(),
          a.freeBlkStartIndexToSzIteratorConst().end()};
}

// The allocator against the blocks the test holds: used and free blocks tile the space, the free
// blocks are the maximal free runs, each in both index maps and in exactly one size set, and the
// counters agree.
testing::AssertionResult consistent(BestFitAllocator const& a, std::vector<BlkPtr> const& held) {
  Table const table = owners(a, held);
  if (table.size() != a.memSz()) return testing::AssertionFailure() << "held blocks overlap";
  for (BlkPtr const& blk : held) {
    if (a.inUseBlock(blk->index()) != blk) {
      return testing::AssertionFailure() << "block at " << blk->index() << " not in inUseBlock";
    }
  }
  Runs const runs = freeRuns(table);
  if (a.inUseBlocks() != held.size() || freeMap(a) != runs ||
      a.freeBlkEndIndexToSzs() != runs.size()) {
    return testing::AssertionFailure() << "free blocks are not the free runs";
  }
  U64 free = 0;
  U32 regular = 0;
  for (auto const& [start, size] : runs) {
    free += size;
    bool const inClass = a.freeBlkSet(size) && a.freeBlkSet(size)->freeBlk(start);
    bool const inJumbo = a.jumboFreeBlk(BFA::JumboFreeBlk(size, start));
    if (a.freeBlkEndIndexToSz(start + size - 1) != size || inClass == inJumbo ||
        inJumbo != (size > a.maxBlkSz())) {
      return testing::AssertionFailure() << "free blk at " << start << " misrecorded";
    }
    regular += inClass;
  }
  U32 members = 0;
  for (auto const& [size, sizeClass] : a.freeBlkSetIteratorConst()) {
    if (sizeClass->blkSz() != size || sizeClass->freeBlks() == 0) {
      return testing::AssertionFailure() << "size set " << size;
    }
    members += sizeClass->freeBlks();
  }
  if (members != regular || a.jumboFreeBlks() + regular != runs.size() ||
      a.numFreeEntries() != free) {
    return testing::AssertionFailure() << "size sets or numFreeEntries disagree";
  }
  return testing::AssertionSuccess();
}

// Copies the blocks in `table` as the moves say, in log order: each block moves once, down, in
// order of old index, onto entries that are free or its own; the table then holds what the
// allocator says, and is compact.
testing::AssertionResult replays(Table table, PendingCmds const& cmds, BestFitAllocator const& a,
                                 std::vector<BlkPtr> const& held) {
  std::vector<bool> moved(held.size(), false);
  U32 lastOld = 0;
  for (BFA::PendingCmd const& cmd : cmds.pendingCmdLogIteratorConst()) {
    int const b = int(std::find(held.begin(), held.end(), cmd.blk()) - held.begin());
    U32 const from = cmd.oldIndex() - a.offset();
    U32 const to = cmd.blk()->index() - a.offset();
    if (moved[b] || to >= from || cmd.oldIndex() <= lastOld) {
      return testing::AssertionFailure() << "block " << b << " moved twice, up or out of order";
    }
    moved[b] = true;
    lastOld = cmd.oldIndex();
    for (U32 i = 0; i < cmd.blk()->size(); ++i) {
      if (table[from + i] != b || (table[to + i] != -1 && table[to + i] != b)) {
        return testing::AssertionFailure() << "moving block " << b << " overwrites " << to + i;
      }
    }
    std::fill_n(table.begin() + from, cmd.blk()->size(), -1);
    std::fill_n(table.begin() + to, cmd.blk()->size(), b);
  }
  Table now = owners(a, held);
  now.resize(table.size(), -1);
  auto const firstFree = std::find(table.begin(), table.end(), -1);
  if (table != now || std::count(firstFree, table.end(), -1) != table.end() - firstFree) {
    return testing::AssertionFailure() << "the replayed table differs or is not compact";
  }
  return testing::AssertionSuccess();
}

// Checks that every notification finds the counters and the free blocks agreeing.
class Watcher : public BestFitAllocator::NotifieeConst {
public:
  void onMemSz() override { check(); }
  void onNumFreeEntries() override { check(); }
  void check() {
    U64 free = 0;
    U64 top = 0;
    for (auto const& [start, size] : freeMap(*notifier())) {
      free += size;
      top = U64{start} + size;
    }
    consistent = consistent && free == notifier()->numFreeEntries() && top <= notifier()->memSz();
  }
  bool consistent = true;
};

// Random alloc, free, realloc, resize and defragment, checked after every step against the
// blocks the test holds.
class RandomRun {
public:
  RandomRun(U32 memSz, U32 offset, U32 maxBlkSz, U32 seed)
      : a_(bestFitAllocatorFactory(memSz, offset, maxBlkSz)), maxMemSz_(2 * memSz), rng_(seed) {
    watcher_.notifierIs(a_);
  }

  void run(int steps) {
    for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
      runs_ = freeRuns(owners(*a_, held_));
      U32 const dice = pick(100);
      if (dice < 40) {
        alloc();
      } else if (dice < 75) {
        if (!held_.empty()) {
          std::swap(held_[pick(U32(held_.size()))], held_.back());
          held_.pop_back();
        }
      } else if (dice < 88) {
        realloc();
      } else {
        compact(dice < 95);
      }
      ASSERT_TRUE(consistent(*a_, held_) && watcher_.consistent) << "after step " << step;
    }
  }

  // What the run went through: a kind it never saw it did not test.
  U32 moves = 0;
  U32 refused = 0;
  U32 jumboFits = 0;

private:
  U32 pick(U32 n) { return U32(rng_() % n); }
  // Mostly small blocks, so that the space fragments; now and then the largest.
  U32 size() { return pick(8) == 0 ? a_->maxBlkSz() : 1 + pick(std::min<U32>(a_->maxBlkSz(), 6)); }

  void alloc() {
    U32 const n = size();
    auto fit = runs_.end();
    for (auto run = runs_.begin(); run != runs_.end(); ++run) {
      if (run->second >= n && (fit == runs_.end() || run->second < fit->second)) fit = run;
    }
    BlkPtr blk = a_->alloc(n);
    ASSERT_EQ(bool(blk), fit != runs_.end()) << "alloc(" << n << ")";
    if (!blk) {
      ++refused;
      return;
    }
    // Any free block of the best size will do, but among jumbo blocks the lowest index wins.
    auto const taken = runs_.find(blk->index() - a_->offset());
    ASSERT_TRUE(taken != runs_.end() && taken->second == fit->second) << "not a best fit for " << n;
    if (fit->second > a_->maxBlkSz()) {
      ASSERT_EQ(taken, fit) << "not the first jumbo block";
      ++jumboFits;
    }
    ASSERT_EQ(blk->size(), n);
    held_.push_back(blk);
  }

  void realloc() {
    U32 const n = std::min(size(), a_->memSz());
    U32 const start = pick(a_->memSz() - n + 1);
    auto const run = runs_.upper_bound(start);
    bool const allFree =
        run != runs_.begin() && std::prev(run)->first + std::prev(run)->second >= start + n;
    BlkPtr blk = a_->realloc(start + a_->offset(), n);
    ASSERT_EQ(bool(blk), allFree) << "realloc(" << start << ", " << n << ")";
    if (blk) held_.push_back(blk);
  }

  void compact(bool resize) {
    Table const before = owners(*a_, held_);
    U32 const oldSz = a_->memSz();
    U32 const newSz = std::clamp<U32>(oldSz / 2 + pick(oldSz), 1, maxMemSz_);
    U32 const freeEntries = a_->numFreeEntries();
    auto const top = runs_.rbegin();
    U32 const topFree = top != runs_.rend() && top->first + top->second == oldSz ? top->second : 0;
    Zel::Ptr<PendingCmds> const cmds = resize ? a_->resizeMemory(newSz) : a_->defragment();
    if (resize) {
      U32 const expected = newSz >= oldSz ? newSz : oldSz - std::min(oldSz - newSz, freeEntries);
      ASSERT_EQ(a_->memSz(), expected) << "resize " << oldSz << " to " << newSz;
      ASSERT_EQ(bool(cmds), newSz < oldSz && freeEntries > 0 && topFree < oldSz - newSz);
    }
    ASSERT_TRUE(cmds || resize);
    if (!cmds) return;
    moves += cmds->pendingCmdLogs();
    ASSERT_TRUE(replays(before, *cmds, *a_, held_));
  }

  Zel::Ptr<BestFitAllocator> a_;
  Watcher watcher_;
  U32 maxMemSz_;
  std::mt19937 rng_;
  std::vector<BlkPtr> held_;
  Runs runs_;
};

TEST(BestFitRandom, TilesMergesFitsAndCompactsUnderChurn) {
  struct Shape {
    U32 memSz, offset, maxBlkSz, seed;
  };
  for (Shape const s : {Shape{300, 1000, 16, 1}, Shape{40, 0, 3, 2}, Shape{700, 0x7FFFFFFF, 64, 3},
                        Shape{8, 5, 1, 4}}) {
    SCOPED_TRACE(testing::Message() << "memSz " << s.memSz << " maxBlkSz " << s.maxBlkSz);
    RandomRun run(s.memSz, s.offset, s.maxBlkSz, s.seed);
    run.run(3000);
    EXPECT_GT(run.moves, 0u);
    EXPECT_GT(run.refused, 0u);
    EXPECT_GT(run.jumboFits, 0u);
  }
}

// ---- The contract's sharp edges -----------------------------------------------------------------

TEST(BestFitEdges, LowEndsMergingBestFitAndTheMoveLog) {
  auto a = bestFitAllocatorFactory(100, 1000, 10);
  BlkPtr first = a->alloc(10), second = a->alloc(10);
  EXPECT_EQ(first->index(), 1000u);
  EXPECT_EQ(second->index(), 1010u);
  first = second = nullptr;
  EXPECT_EQ(freeMap(*a), (Runs{{0, 100}}));

  // The middle of three adjacent blocks, then the first: one free block of both sizes.
  BlkPtr x = a->alloc(3), y = a->alloc(4), z = a->alloc(5);
  y = x = nullptr;
  EXPECT_EQ(freeMap(*a), (Runs{{0, 7}, {12, 88}}));
  // Best fit, not first fit: the exact size higher up wins over the larger block at 0.
  BlkPtr pin = a->realloc(1014, 1);
  EXPECT_EQ(a->alloc(2)->index(), 1012u);
  EXPECT_EQ(a->alloc(10)->index(), 1015u);  // no size class of 10 or more: the smallest jumbo

  auto b = bestFitAllocatorFactory(100, 1000, 10);
  BlkPtr low = b->alloc(10), hole = b->alloc(10), high = b->alloc(10);
  hole = nullptr;
  Zel::Ptr<PendingCmds> cmds = b->defragment();
  ASSERT_EQ(cmds->pendingCmdLogs(), 1u);
  EXPECT_EQ(cmds->pendingCmdLog().blk(), high);
  EXPECT_EQ(high->index(), 1010u);
  EXPECT_EQ(Zel::valueToStrep(cmds->pendingCmdLogDeq()).view(),
            "Value('Kiv::BFA::PendingCmd', ** {'oldIndex': 1020, 'blk': <Kiv::BFA::Blk>})");
  EXPECT_FALSE(cmds->pendingCmdLogDeq().blk());
  // A command holds its block, and a block its allocator.
  auto const& tracked = Zel::AllocTrackTypeInfo::of<BestFitAllocator>();
  U64 const live = tracked.live();
  cmds->pendingCmdLogEnq(BFA::PendingCmd(1020, high));
  high = nullptr;
  EXPECT_EQ(b->inUseBlocks(), 2u);
  cmds = nullptr;
  EXPECT_EQ(freeMap(*b), (Runs{{10, 90}}));
  b = nullptr;
  EXPECT_EQ(tracked.live(), live);
  low = nullptr;
  EXPECT_EQ(tracked.live(), live - 1);
}

TEST(BestFitEdges, TraceTextsAndTheHandleForm) {
  // A handle names no block, so a command parses back only without one.
  EXPECT_EQ(Zel::strepToValue<BFA::PendingCmd>(
                "Value('Kiv::BFA::PendingCmd', ** {'oldIndex': 7, 'blk': None})"),
            BFA::PendingCmd(7, nullptr));

  auto& handle = Zel::traceHandle<"BestFitAllocator">();
  int const level = handle.level();
  std::ostringstream sink;
  Zel::traceSinkIs(&sink);
  handle.levelIs(Zel::TraceHandle::maxLevel);
  bestFitAllocatorFactory(100, 1000, 10)->alloc(4);
  handle.levelIs(level);
  Zel::traceSinkIs(nullptr);
  std::string texts;
  std::istringstream lines(sink.str());
  for (std::string line; std::getline(lines, line);) {
    std::size_t const from = line.find("] ") + 2;
    texts += line.substr(from, line.rfind(" (") - from) + '\n';
  }
  EXPECT_EQ(texts,
            "memSz = 100, offset = 1000, maxBlkSz = 10\n"
            "Adding free blk: sz 100, index 0\n"
            "Initialized allocator: memSz 100 offset 1000 maxBlkSz 10\n"
            "Alloc: blkSz 4\n"
            "Removing free blk: sz 100, index 0\n"
            "Adding free blk: sz 96, index 4\n"
            "numFreeEntries decreased by 4, now = 96\n"
            ", startIndex 0\n"
            "Free: startIndex 0, blkSz 4\n"
            "Adding free blk: sz 4, index 0\n"
            "Removing free blk: sz 96, index 4\n"
            "numFreeEntries increased by 4, now = 100\n");
}

// ---- Misuse -------------------------------------------------------------------------------------

// The Failed line for `condition`, then the assertion.
std::string failure(std::string const& condition) {
  std::string quoted;
  for (char c : condition) {
    if (std::string_view("()[]{}.*+?^$|\\").find(c) != std::string_view::npos) quoted += '\\';
    quoted += c;
  }
  return "Failed\\(" + quoted + "\\) [^\n]*\nAssertion failed: [^\n]*" + quoted;
}

// Reaches the internal free-list operations, to break their invariants on purpose.
class Probe : public BestFitAllocator {
public:
  using BestFitAllocator::doAddFreeBlk;
  using BestFitAllocator::doRemoveFreeBlk;

protected:
  using BestFitAllocator::BestFitAllocator;
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
