#include <Kiv/HBitmap.h>

#include <Zel/GenericIf.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

namespace Kiv {
namespace {

using State = HBitmap::BitState;
using Pref = HBitmap::IndexPreference;
constexpr State kSet = State::bitSet;
constexpr State kClear = State::bitClear;
constexpr Pref kLo = Pref::preferLo;
constexpr Pref kHi = Pref::preferHi;
constexpr U32 kNotFound = HBitmap::notFound;
constexpr U64 kAllOnes = ~U64{0};

// The reference bits packed 64 to a word, as level 0 holds them with its padding clear.
std::vector<U64> pack(std::vector<bool> const& ref) {
  std::vector<U64> words(std::max<std::size_t>(1, (ref.size() + 63) / 64));
  for (std::size_t i = 0; i < ref.size(); ++i) {
    if (ref[i]) words[i / 64] |= U64{1} << (i % 64);
  }
  return words;
}

// The bits of word `w` at or beyond `size`.
U64 paddingOf(U64 w, U64 size) {
  U64 const first = w * 64;
  if (first >= size) return kAllOnes;
  return size - first >= 64 ? 0 : kAllOnes << (size - first);
}

// Every invariant of the structure, rebuilt independently from the packed reference bits: the
// shape of the levels, the leaf words, both summary trees, the padding and the count.
testing::AssertionResult matches(HBitmap const& bm, std::vector<U64> const& leaves, U32 size) {
  U64 bits = size;
  U32 offset = 0;
  for (U32 level = 0; level < bm.height(); ++level) {
    U64 const words = (bits + 63) / 64;
    if (bm.numBitsAtHeight(level) != bits || bm.arrayBaseOffsetForHeight(level) != offset ||
        (level + 1 == bm.height()) != (words <= 1)) {
      return testing::AssertionFailure() << "shape of level " << level;
    }
    offset += static_cast<U32>(words);
    bits = words;
  }
  U32 count = 0;
  for (U32 w = 0; w < leaves.size(); ++w) {
    count += static_cast<U32>(std::popcount(leaves[w]));
    if (bm.setBm(w) != leaves[w] || bm.clearBm(w) != (leaves[w] | paddingOf(w, size))) {
      return testing::AssertionFailure() << "leaf word " << w;
    }
  }
  for (U32 level = 1; level < bm.height(); ++level) {
    U32 const children = bm.numBitsAtHeight(level);
    U32 const childBase = bm.arrayBaseOffsetForHeight(level - 1);
    U32 const base = bm.arrayBaseOffsetForHeight(level);
    for (U32 w = 0; w * 64 < children; ++w) {
      U64 anySet = 0;
      U64 allSet = paddingOf(w, children);
      for (U32 i = 0; i < 64 && w * 64 + i < children; ++i) {
        if (bm.setBm(childBase + w * 64 + i) != 0) anySet |= U64{1} << i;
        if (bm.clearBm(childBase + w * 64 + i) == kAllOnes) allSet |= U64{1} << i;
      }
      if (bm.setBm(base + w) != anySet || bm.clearBm(base + w) != allSet) {
        return testing::AssertionFailure() << "summary word " << w << " of level " << level;
      }
    }
  }
  if (bm.numBitsInSetState() != count) {
    return testing::AssertionFailure()
           << "numBitsInSetState " << bm.numBitsInSetState() << ", counted " << count;
  }
  return testing::AssertionSuccess();
}

// Brute force over the packed reference, bit by bit, stepping over whole words that hold no bit
// in the wanted state.
U32 referenceFind(std::vector<U64> const& leaves, U32 size, State state, Pref pref, U32 start,
                  U32 end) {
  if (start >= size) return kNotFound;
  U64 const last = std::min(end, size - 1);
  U64 const unwanted = state == kSet ? 0 : kAllOnes;
  auto isWanted = [&](U64 i) { return (leaves[i / 64] >> (i % 64) & 1) == (state == kSet); };
  if (pref == kLo) {
    for (U64 i = start; i <= last; ++i) {
      if (i % 64 == 0 && leaves[i / 64] == unwanted) {
        i += 63;
      } else if (isWanted(i)) {
        return static_cast<U32>(i);
      }
    }
  } else {
    for (U64 i = last + 1; i-- > start;) {
      if (i % 64 == 63 && leaves[i / 64] == unwanted) {
        i -= 63;
      } else if (isWanted(i)) {
        return static_cast<U32>(i);
      }
    }
  }
  return kNotFound;
}

// A bitmap and its reference, driven by random operations. Indexes favour the places where
// words and levels meet, and the mix alternates between filling and draining phases so that the
// searches see full, empty and sparse regions.
class RandomRun {
public:
  RandomRun(U32 size, State initial, U32 seed)
      : bm_(hBitmapFactory(seed, size, initial)),
        ref_(size, initial == kSet),
        rng_(seed),
        filling_(initial == kClear) {}

  // Four phases that alternate between filling and draining, the first one away from the
  // initial state.
  void run(int steps) {
    int const phase = std::max(1, steps / 4);
    for (int step = 0; step <= steps; ++step) {
      if (step > 0 && step % phase == 0) filling_ = !filling_;
      if (step > 0) mutate();
      std::vector<U64> const leaves = pack(ref_);
      ASSERT_TRUE(matches(*bm_, leaves, size())) << "after step " << step;
      checkSearches(leaves);
      if (testing::Test::HasFailure()) return;
    }
  }

private:
  U32 size() const { return static_cast<U32>(ref_.size()); }
  U32 uniform(U32 lo, U32 hi) { return std::uniform_int_distribution<U32>(lo, hi)(rng_); }
  bool chance(int percent) { return uniform(0, 99) < U32(percent); }

  U32 index() {
    U32 const n = size();
    if (chance(50)) return uniform(0, n - 1);
    U32 const edges[] = {0, n - 1, 63, 64, 4095, 4096, n / 2};
    U32 const near = edges[uniform(0, 6)] + uniform(0, 2) - 1;
    return std::min(near, n - 1);
  }

  void pointUpdate(U32 bit, State state) {
    if (chance(50)) {
      bm_->updateBit(bit, state);
    } else {
      state == kSet ? bm_->setBit(bit) : bm_->clearBit(bit);
    }
    ref_[bit] = state == kSet;
  }

  void rangeUpdate(State state) {
    U32 start = index();
    U32 end = chance(70) ? std::min(size() - 1, start + uniform(0, 200)) : index();
    if (start > end) std::swap(start, end);
    if (chance(50)) {
      bm_->updateBitsInRange(start, end, state);
    } else {
      state == kSet ? bm_->setBitsInRange(start, end) : bm_->clearBitsInRange(start, end);
    }
    std::fill(ref_.begin() + start, ref_.begin() + end + 1, state == kSet);
  }

  // AND with a mostly set bitmap, OR with a mostly clear one. A larger one holds the opposite
  // state beyond this size, where it would spoil the padding if it leaked in.
  void logicalOp() {
    bool const isAnd = chance(50);
    State const mostly = isAnd ? kSet : kClear;
    State const holes = isAnd ? kClear : kSet;
    U32 const otherSize = size() + (chance(50) ? 0 : uniform(1, 100));
    auto other = hBitmapFactory(0, otherSize, mostly);
    if (otherSize > size()) other->updateBitsInRange(size(), otherSize - 1, holes);
    for (int i = 0; i < 8; ++i) {
      U32 const start = uniform(0, size() - 1);
      other->updateBitsInRange(start, std::min(size() - 1, start + uniform(0, 100)), holes);
    }
    using Op = HBitmap::LogicalOp;
    if (chance(50)) {
      isAnd ? bm_->doAnd(other) : bm_->doOr(other);
    } else {
      bm_->doLogicalOp(other, isAnd ? Op::logicalAnd : Op::logicalOr);
    }
    for (U32 i = 0; i < size(); ++i) {
      ref_[i] = isAnd ? ref_[i] && other->isBitSet(i) : ref_[i] || other->isBitSet(i);
    }
  }

  // Mostly point updates, some range updates, a few logical operations.
  void mutate() {
    if (size() == 0) return;
    State const toward = filling_ ? kSet : kClear;
    State const state = chance(85) ? toward : (toward == kSet ? kClear : kSet);
    U32 const kind = uniform(0, 99);
    if (kind < 80) {
      pointUpdate(index(), state);
    } else if (kind < 95) {
      rangeUpdate(state);
    } else {
      logicalOp();
    }
  }

  // Short ranges across word edges, ranges to the end (given as size()) and arbitrary ones.
  std::pair<U32, U32> searchRange() {
    if (size() == 0) return {0, 0};
    U32 const start = index();
    U32 const kind = uniform(0, 9);
    if (kind < 5) return {start, std::min(size() - 1, start + uniform(0, 130))};
    if (kind < 7) return {start, size()};
    U32 const other = index();
    return {std::min(start, other), std::max(start, other)};
  }

  void checkSearches(std::vector<U64> const& leaves) {
    for (State state : {kSet, kClear}) {
      for (Pref pref : {kLo, kHi}) {
        U32 const global = referenceFind(leaves, size(), state, pref, 0, size());
        ASSERT_EQ(bm_->findBitInState(pref, state), global);
        ASSERT_EQ(state == kSet ? bm_->findBitInSetState(pref) : bm_->findBitInClearState(pref),
                  global);
        auto [start, end] = searchRange();
        U32 const found = referenceFind(leaves, size(), state, pref, start, end);
        ASSERT_EQ(bm_->findBitInRange(start, end, state, pref), found)
            << state << ' ' << pref << " in " << start << " .. " << end;
        ASSERT_EQ(state == kSet ? bm_->findSetBitInRange(start, end, pref)
                                : bm_->findClearBitInRange(start, end, pref),
                  found);
      }
    }
  }

  Zel::Ptr<HBitmap> bm_;
  std::vector<bool> ref_;
  std::mt19937 rng_;
  bool filling_;
};

class HBitmapRandomRun : public testing::TestWithParam<U32> {};

TEST_P(HBitmapRandomRun, MatchesReferenceAndKeepsInvariants) {
  U32 const size = GetParam();
  int const steps = size > 10000 ? 30 : 400;
  for (State initial : {kClear, kSet}) {
    SCOPED_TRACE(testing::Message() << "initial state " << initial);
    RandomRun(size, initial, size * 2 + (initial == kSet)).run(steps);
  }
}

INSTANTIATE_TEST_SUITE_P(LevelBoundaries, HBitmapRandomRun,
                         testing::Values(0, 1, 63, 64, 65, 4095, 4096, 4097, 262145));

// The shape and searches of a three-level bitmap, a range search that starts at the size, and
// the rounding helper at both ends of its domain.
TEST(HBitmap, ContractExamples) {
  auto const bm = hBitmapFactory(1, 5000, kClear);
  EXPECT_EQ(bm->height(), 3u);
  EXPECT_EQ(bm->arrayBaseOffsetForHeight(2), 81u);
  bm->setBit(3);
  bm->setBit(4097);
  EXPECT_EQ(bm->findBitInSetState(kHi), 4097u);
  EXPECT_EQ(bm->findBitInSetState(kLo), 3u);
  EXPECT_EQ(bm->findSetBitInRange(5000, 5000, kLo), kNotFound);
  EXPECT_EQ(roundup64(0), 0u);
  EXPECT_EQ(roundup64(65), 128u);
  EXPECT_EQ(roundup64(0xFFFFFFBF), 0xFFFFFFC0u);
  EXPECT_EQ(roundup64(0xFFFFFFC0), 0xFFFFFFC0u);
}

// The largest size: six levels, a 63-bit last leaf word, and updates and searches near the end.
// A bitmap made clear stays cheap here: its zero-filled pages are never touched.
TEST(HBitmap, LargestSize) {
  if (sizeof(void*) < 8) GTEST_SKIP() << "needs more than 1 GiB of address space";
  auto const bm = hBitmapFactory(5, 0xFFFFFFFF, kClear);
  EXPECT_EQ(bm->height(), HBitmap::maxHeight);
  bm->setBit(0xFFFFFFFE);
  bm->setBit(7);
  EXPECT_EQ(bm->findBitInSetState(kHi), 0xFFFFFFFEu);
  EXPECT_EQ(bm->findBitInSetState(kLo), 7u);
  EXPECT_EQ(bm->findBitInClearState(kHi), 0xFFFFFFFDu);
  EXPECT_FALSE(bm->isBitSet(0xFFFFFFFF));
  bm->setBitsInRange(0xFFFFFF00, 0xFFFFFFFE);
  EXPECT_EQ(bm->numBitsInSetState(), 256u);
  EXPECT_EQ(bm->findBitInClearState(kHi), 0xFFFFFEFFu);
  EXPECT_EQ(bm->findClearBitInRange(0xFFFFFF00, 0xFFFFFFFF, kLo), kNotFound);
  EXPECT_EQ(bm->findSetBitInRange(8, 0xFFFFFF00, kLo), 0xFFFFFF00u);
  EXPECT_EQ(bm->findSetBitInRange(8, 0xFFFFFEFF, kHi), kNotFound);
}

class CountWatcher : public HBitmap::NotifieeConst {
public:
  void onNumBitsInSetState() override { seen.push_back(notifier()->numBitsInSetState()); }
  std::vector<U32> seen;
};

TEST(HBitmap, NotifiesOnlyWhenTheCountChanges) {
  auto const bm = hBitmapFactory(6, 300, kClear);
  CountWatcher watcher;
  watcher.notifierIs(bm);
  bm->setBit(10);
  bm->setBit(10);
  bm->setBitsInRange(0, 99);
  bm->setBitsInRange(5, 20);
  bm->doOr(hBitmapFactory(7, 300, kClear));
  bm->doAnd(hBitmapFactory(8, 300, kClear));
  bm->clearBit(3);
  EXPECT_EQ(watcher.seen, (std::vector<U32>{1, 100, 0}));
}

TEST(HBitmap, StringFormsAndReflection) {
  EXPECT_EQ(Zel::valueToStrep(kClear), "Clear");
  EXPECT_EQ(Zel::valueToStrep(kHi), "preferHi");
  EXPECT_EQ(Zel::strepToValue<HBitmap::LogicalOp>("Or"), HBitmap::LogicalOp::logicalOr);
  EXPECT_THROW(Zel::strepToValue<State>("Setx"), Zel::RangeException);

  Zel::GenericIf const& type = Zel::registerType<HBitmap>();
  auto const made =
      type.genericIfFromCtorArgs({Zel::String("9"), Zel::String("100"), Zel::String("Set")});
  EXPECT_EQ(type.attributeValue(*made, "initialBitState"), "Set");
  EXPECT_EQ(type.attributeValue(*made, "numBitsInSetState"), "100");
}

TEST(HBitmapDeathTest, MisuseAborts) {
  auto const bm = hBitmapFactory(10, 64, kClear);
  EXPECT_DEATH(bm->setBit(64), R"re(Failed\(bit < size\(\)\) bit 64 sz 64
Assertion failed: !"bit < size\(\)" \()re");
  EXPECT_DEATH(hBitmapFactory(11, 0, kClear)->clearBit(0),
               R"re(Failed\(bit < size\(\)\) bit 0 sz 0)re");
  EXPECT_DEATH(bm->clearBitsInRange(5, 3), R"re(Failed\(start <= end\) start5 end 3
Assertion failed: !"start <= end" \()re");
  EXPECT_DEATH(bm->setBitsInRange(0, 64), R"re(Failed\(end < size\(\)\) end64 sz 64
Assertion failed: !"end < size\(\)" \()re");
  EXPECT_DEATH(bm->doAnd(hBitmapFactory(12, 63, kSet)),
               R"re(Failed\(size\(\) <= hbmp->size\(\)\) sz 64 hsz 63
Assertion failed: !"size\(\) <= hbmp->size\(\)" \()re");
  EXPECT_DEATH(bm->findSetBitInRange(5, 3, kLo), "Assertion failed: start <= end \\(");
  EXPECT_DEATH(bm->findClearBitInRange(0, 65, kHi), "Assertion failed: end <= size\\(\\) \\(");
  EXPECT_DEATH(roundup64(0xFFFFFFC1), "Assertion failed: i \\(");
}

}  // namespace
}  // namespace Kiv
