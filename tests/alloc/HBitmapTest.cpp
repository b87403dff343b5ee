#include <Kiv/HBitmap.h>

#include <Zel/GenericIf.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <new>
#include <random>
#include <utility>
#include <vector>

namespace Kiv {
namespace {

using State = HBitmap::BitState;
using Pref = HBitmap::IndexPreference;
constexpr State kSet = State::bitSet, kClear = State::bitClear;
constexpr Pref kLo = Pref::preferLo, kHi = Pref::preferHi;
constexpr U32 kNotFound = HBitmap::notFound;
constexpr U64 kAllOnes = ~U64{0};
using Words = std::vector<U64>;  // the reference bits, 64 to a word as level 0 holds them

// The bits of word `w` of a level of `size` bits that lie at or beyond the size.
U64 paddingOf(U64 w, U64 size) {
  if (w * 64 >= size) return kAllOnes;
  return size - w * 64 >= 64 ? 0 : kAllOnes << (size - w * 64);
}

// Every invariant of the structure, rebuilt independently from the reference words: the shape of
// the levels, both trees at every level with their padding, and the count.
void matches(HBitmap const& bm, Words const& leaves, U32 size) {
  Words anySet = leaves, allSet;
  U32 count = 0;
  for (U32 w = 0; w < leaves.size(); ++w) {
    count += U32(std::popcount(leaves[w]));
    allSet.push_back(leaves[w] | paddingOf(w, size));
  }
  ASSERT_EQ(bm.numBitsInSetState(), count);
  U64 bits = size;
  for (U32 level = 0, offset = 0; level < bm.height(); ++level) {
    ASSERT_EQ(bm.numBitsAtHeight(level), bits);
    ASSERT_EQ(bm.arrayBaseOffsetForHeight(level), offset);
    ASSERT_EQ(level + 1 == bm.height(), anySet.size() == 1) << "the top level, at " << level;
    for (U32 w = 0; w < anySet.size(); ++w) {
      ASSERT_EQ(bm.setBm(offset + w), anySet[w]) << "word " << w << " of level " << level;
      ASSERT_EQ(bm.clearBm(offset + w), allSet[w]) << "word " << w << " of level " << level;
    }
    bits = anySet.size();
    offset += U32(bits);
    Words upAny((bits + 63) / 64), upAll;
    for (U32 w = 0; w < upAny.size(); ++w) upAll.push_back(paddingOf(w, bits));
    for (U32 i = 0; i < bits; ++i) {
      upAny[i / 64] |= U64{anySet[i] != 0} << (i % 64);
      upAll[i / 64] |= U64{allSet[i] == kAllOnes} << (i % 64);
    }
    anySet = std::move(upAny);
    allSet = std::move(upAll);
  }
}

// Brute force over the reference, bit by bit, skipping the rest of any word that holds no bit in
// the wanted state (a plain bit loop makes the largest run too slow).
U32 referenceFind(Words const& leaves, U32 size, State state, Pref pref, U32 start, U32 end) {
  S64 const last = std::min<S64>(end, S64{size} - 1);
  U64 const unwanted = state == kSet ? 0 : kAllOnes;
  for (S64 i = pref == kLo ? start : last; i >= start && i <= last; i += pref == kLo ? 1 : -1) {
    if (leaves[i / 64] == unwanted) {
      i = pref == kLo ? i | 63 : i & ~S64{63};
    } else if ((leaves[i / 64] >> (i % 64) & 1) == (state == kSet)) {
      return U32(i);
    }
  }
  return kNotFound;
}

struct CountWatcher : HBitmap::NotifieeConst {
  void onNumBitsInSetState() override { seen.push_back(notifier()->numBitsInSetState()); }
  std::vector<U32> seen;
};

class HBitmapRandomRun : public testing::TestWithParam<U32> {};

// Updates in phases that fill and drain, so searches see full, empty and sparse regions, at indexes
// near word and level edges; one notification exactly when the count changes.
TEST_P(HBitmapRandomRun, MatchesReferenceAndKeepsInvariants) {
  U32 const n = GetParam();
  int const steps = n > 10000 ? 30 : 400;
  for (State initial : {kClear, kSet}) {
    SCOPED_TRACE(testing::Message() << "initial state " << initial);
    std::mt19937 rng(n * 2 + (initial == kSet));
    auto uniform = [&](U32 lo, U32 hi) { return std::uniform_int_distribution<U32>(lo, hi)(rng); };
    auto chance = [&](U32 percent) { return uniform(0, 99) < percent; };
    auto index = [&] {
      U32 const edges[] = {0, n - 1, 63, 64, 4095, 4096, n / 2};
      if (chance(50)) return uniform(0, n - 1);
      return std::min(edges[uniform(0, 6)] + uniform(0, 2) - 1, n - 1);
    };
    Words ref(std::max<U32>(1, (n + 63) / 64));
    auto fill = [&](U64 start, U64 end, bool set) {
      for (U64 i = start; i <= end; ++i) {
        U64 const bit = U64{1} << (i % 64);
        ref[i / 64] = set ? ref[i / 64] | bit : ref[i / 64] & ~bit;
      }
    };
    if (initial == kSet && n > 0) fill(0, n - 1, true);
    auto bm = hBitmapFactory(n, n, initial);
    CountWatcher watcher;
    watcher.notifierIs(bm);
    // Mostly point updates, some range updates, a few logical operations.
    auto mutate = [&](bool set) {
      State const state = set ? kSet : kClear;
      U32 const kind = uniform(0, 99);
      if (kind < 80) {
        U32 const bit = index();
        chance(50) ? bm->updateBit(bit, state) : set ? bm->setBit(bit) : bm->clearBit(bit);
        fill(bit, bit, set);
      } else if (kind < 95) {
        U32 start = index();
        U32 end = chance(70) ? std::min(n - 1, start + uniform(0, 200)) : index();
        if (start > end) std::swap(start, end);
        chance(50) ? bm->updateBitsInRange(start, end, state)
        : set      ? bm->setBitsInRange(start, end)
                   : bm->clearBitsInRange(start, end);
        fill(start, end, set);
      } else {
        // AND with a mostly set bitmap, OR with a mostly clear one; a larger one holds the
        // opposite state beyond this size, where it would spoil the padding if it leaked in.
        bool const isAnd = chance(50);
        U32 const otherSize = n + (chance(50) ? 0 : uniform(1, 100));
        auto other = hBitmapFactory(0, otherSize, isAnd ? kSet : kClear);
        State const holes = isAnd ? kClear : kSet;
        if (otherSize > n) other->updateBitsInRange(n, otherSize - 1, holes);
        for (int i = 0; i < 8; ++i) {
          U32 const start = uniform(0, n - 1);
          other->updateBitsInRange(start, std::min(n - 1, start + uniform(0, 100)), holes);
        }
        using Op = HBitmap::LogicalOp;
        chance(50) ? bm->doLogicalOp(other, isAnd ? Op::logicalAnd : Op::logicalOr)
        : isAnd    ? bm->doAnd(other)
                   : bm->doOr(other);
        for (U32 i = 0; i < n; ++i) {
          if (other->isBitSet(i) != isAnd) fill(i, i, !isAnd);
        }
      }
    };
    for (int step = 0; step <= steps && !HasFailure(); ++step) {
      bool const filling = (step * 4 / (steps + 1)) % 2 == (initial == kSet);
      U32 const count = bm->numBitsInSetState();
      watcher.seen.clear();
      if (step > 0 && n > 0) mutate(chance(85) == filling);
      ASSERT_NO_FATAL_FAILURE(matches(*bm, ref, n)) << "after step " << step;
      U32 const now = bm->numBitsInSetState();
      ASSERT_EQ(watcher.seen, now == count ? std::vector<U32>{} : std::vector<U32>{now});
      for (State wanted : {kSet, kClear}) {
        for (Pref pref : {kLo, kHi}) {
          U32 const global = referenceFind(ref, n, wanted, pref, 0, n);
          ASSERT_EQ(bm->findBitInState(pref, wanted), global);
          ASSERT_EQ(wanted == kSet ? bm->findBitInSetState(pref) : bm->findBitInClearState(pref),
                    global);
          // Empty at the size, short across word edges, to the end (given as the size), arbitrary.
          U32 const how = uniform(0, 9);
          U32 start = n, end = n;
          if (n > 0 && how > 0) {
            start = index();
            end = how < 5 ? std::min(n - 1, start + uniform(0, 130)) : how < 7 ? n : index();
            if (start > end) std::swap(start, end);
          }
          U32 const found = referenceFind(ref, n, wanted, pref, start, end);
          ASSERT_EQ(bm->findBitInRange(start, end, wanted, pref), found)
              << wanted << ' ' << pref << " in " << start << " .. " << end;
          ASSERT_EQ(wanted == kSet ? bm->findSetBitInRange(start, end, pref)
                                   : bm->findClearBitInRange(start, end, pref),
                    found);
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(LevelBoundaries, HBitmapRandomRun,
                         testing::Values(0, 1, 63, 64, 65, 4095, 4096, 4097, 262145));

// The rounding helper at both ends of its domain, the printed forms, reflection, and the largest
// size (six levels, a 63-bit last leaf word; cheap, as clear pages are never touched) near its end.
TEST(HBitmap, EdgesFormsAndReflection) {
  EXPECT_EQ((std::array{roundup64(0), roundup64(65), roundup64(0xFFFFFFBF), roundup64(0xFFFFFFC0)}),
            (std::array<U32, 4>{0, 128, 0xFFFFFFC0, 0xFFFFFFC0}));
  EXPECT_EQ(Zel::valueToStrep(kClear), "Clear");
  EXPECT_EQ(Zel::valueToStrep(kHi), "preferHi");
  EXPECT_EQ(Zel::strepToValue<HBitmap::LogicalOp>("Or"), HBitmap::LogicalOp::logicalOr);
  EXPECT_THROW(Zel::strepToValue<State>("Setx"), Zel::RangeException);
  Zel::GenericIf const& type = Zel::registerType<HBitmap>();
  auto const made =
      type.genericIfFromCtorArgs({Zel::String("9"), Zel::String("100"), Zel::String("Set")});
  EXPECT_EQ(type.attributeValue(*made, "initialBitState"), "Set");
  EXPECT_EQ(type.attributeValue(*made, "numBitsInSetState"), "100");

  // One block of 1 GiB, which a 32-bit process has only while its address space is not cut up.
  Zel::Ptr<HBitmap> bm;
  try {
    bm = hBitmapFactory(5, 0xFFFFFFFF, kClear);
  } catch (std::bad_alloc const&) {
    GTEST_SKIP() << "no free block of 1 GiB of address space in this process";
  }
  EXPECT_EQ(bm->height(), HBitmap::maxHeight);
  bm->setBit(0xFFFFFFFE);
  bm->setBit(7);
  EXPECT_EQ(bm->findBitInSetState(kHi), 0xFFFFFFFEu);
  EXPECT_EQ(bm->findBitInClearState(kHi), 0xFFFFFFFDu);
  EXPECT_FALSE(bm->isBitSet(0xFFFFFFFF));
  bm->setBitsInRange(0xFFFFFF00, 0xFFFFFFFE);
  EXPECT_EQ(bm->numBitsInSetState(), 256u);
  EXPECT_EQ(bm->findBitInClearState(kHi), 0xFFFFFEFFu);
  EXPECT_EQ(bm->findClearBitInRange(0xFFFFFF00, 0xFFFFFFFF, kLo), kNotFound);
  EXPECT_EQ(bm->findSetBitInRange(8, 0xFFFFFF00, kLo), 0xFFFFFF00u);
  EXPECT_EQ(bm->findSetBitInRange(8, 0xFFFFFEFF, kHi), kNotFound);
}

TEST(HBitmapDeathTest, MisuseAborts) {
  auto const bm = hBitmapFactory(10, 64, kClear);
  EXPECT_DEATH(bm->setBit(64), R"re(Failed\(bit < size\(\)\) bit 64 sz 64
Assertion failed: !"bit < size\(\)" \()re");
  EXPECT_DEATH(bm->clearBitsInRange(5, 3), R"re(Failed\(start <= end\) start5 end 3)re");
  EXPECT_DEATH(bm->setBitsInRange(0, 64), R"re(Failed\(end < size\(\)\) end64 sz 64)re");
  EXPECT_DEATH(bm->doAnd(hBitmapFactory(12, 63, kSet)), "sz 64 hsz 63");
  EXPECT_DEATH(bm->findSetBitInRange(5, 3, kLo), "Assertion failed: start <= end \\(");
  EXPECT_DEATH(bm->findClearBitInRange(0, 65, kHi), "Assertion failed: end <= size\\(\\) \\(");
  EXPECT_DEATH(roundup64(0xFFFFFFC1), "Assertion failed: i \\(");
}

}  // namespace
}  // namespace Kiv
