#include <Kiv/HBitmap.h>

#include <Zel/Assert.h>
#include <Zel/Bits.h>
#include <Zel/GenericIf.h>
#include <Zel/Strep.h>
#include <Zel/Trace.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <new>
#include <ostream>

namespace Kiv {

namespace {

constexpr auto trace = Zel::traceHandle<"HBitmap">;
constexpr int traceUnknownOp = 1;  // a logical op that is neither And nor Or
constexpr int traceBuilt = 7;      // each bitmap built
constexpr int traceWholeOp = 8;    // entry to construction, range updates and logical ops
constexpr int traceStep = 9;       // entry to point updates and searches; range bounds

constexpr U64 allOnes = ~U64{0};

using BitState = HBitmap::BitState;
using IndexPreference = HBitmap::IndexPreference;
using LogicalOp = HBitmap::LogicalOp;

Zel::TypeRegistration<HBitmap> const registration;

// Words for `bits` bits, computed in 64 bits so that 2^32 - 1 bits round up without wrapping.
constexpr U32 wordsFor(U64 bits) { return static_cast<U32>((bits + 63) / 64); }

// The low `count` bits (count < 64).
constexpr U64 lowBits(U32 count) { return (U64{1} << count) - 1; }

// The bits of a word from `from` upwards (from < 64), and from 0 up to `to` included (to < 64).
constexpr U64 bitsFrom(U32 from) { return allOnes << from; }
constexpr U64 bitsUpTo(U32 to) { return allOnes >> (63 - to); }

// The shape of a bitmap of `size` bits: each level has one bit per word of the level below, until
// a level fits in one word.
struct Levels {
  U32 height = 0;
  std::array<U32, HBitmap::maxHeight> bits{};
  std::array<U32, HBitmap::maxHeight> offsets{};
};

constexpr Levels levelsFor(U32 size) {
  Levels levels;
  U64 bits = size;
  U32 offset = 0;
  U32 words;
  do {
    levels.bits[levels.height] = static_cast<U32>(bits);
    levels.offsets[levels.height] = offset;
    words = wordsFor(bits);
    bits = words;
    offset += words;
    ++levels.height;
  } while (words > 1);
  return levels;
}

static_assert(levelsFor(0xFFFFFFFF).height == HBitmap::maxHeight);

}  // namespace

// A tree read so that a 1 bit means "a bit in the wanted state is here or below": the any-set tree
// as it is for Set, the complement of the all-set tree for Clear. Padding reads as 0 either way.
template <BitState state>
class HBitmap::WantedTree {
public:
  explicit WantedTree(HBitmap const& bitmap)
      : words_(bitmap.words_.get()),
        offsets_(bitmap.arrayBaseOffsetForHeight_.data()),
        height_(bitmap.height_) {}

  U32 first(IndexPreference pref) const {
    return pref == IndexPreference::preferLo ? extreme<IndexPreference::preferLo>()
                                             : extreme<IndexPreference::preferHi>();
  }

  // Requires start <= last < size.
  U32 firstIn(U32 start, U32 last, IndexPreference pref) const {
    return pref == IndexPreference::preferLo ? lowestIn(start, last) : highestIn(start, last);
  }

private:
  // The lowest or highest wanted bit, one word per level.
  template <IndexPreference pref>
  U32 extreme() const {
    U32 const top = height_ - 1;
    U64 const val = word(top, 0);
    if (val == 0) return notFound;
    return descend<pref>(top, pick<pref>(val));
  }

  // The lowest wanted bit in start .. last: climbs from `start` until a word holds a wanted bit
  // at or after the position reached, then descends from it. A position past the end of its
  // level has its first leaf past the size, so the bound on `last` also keeps reads in the level.
  U32 lowestIn(U32 start, U32 last) const {
    U32 pos = start;
    for (U32 level = 0; level < height_; ++level) {
      if (firstLeafUnder(level, pos) > last) break;
      U64 const val = word(level, pos / 64) & bitsFrom(pos % 64);
      if (val != 0) {
        U32 const leaf =
            descend<IndexPreference::preferLo>(level, (pos & ~63u) + Zel::countrZero(val));
        return leaf <= last ? leaf : notFound;
      }
      pos = pos / 64 + 1;
    }
    return notFound;
  }

  // The highest wanted bit in start .. last, climbing from `last` downwards.
  U32 highestIn(U32 start, U32 last) const {
    U32 pos = last;
    for (U32 level = 0; level < height_; ++level) {
      if (firstLeafUnder(level, U64{pos} + 1) <= start) break;
      U64 const val = word(level, pos / 64) & bitsUpTo(pos % 64);
      if (val != 0) {
        U32 const leaf =
            descend<IndexPreference::preferHi>(level, (pos & ~63u) + 63 - std::countl_zero(val));
        return leaf >= start ? leaf : notFound;
      }
      if (pos < 64) break;
      pos = pos / 64 - 1;
    }
    return notFound;
  }

  U64 word(U32 level, U32 index) const {
    WordPair const& pair = words_[offsets_[level] + index];
    return state == BitState::bitSet ? pair.set : ~pair.clear;
  }

  template <IndexPreference pref>
  static U32 pick(U64 val) {
    return pref == IndexPreference::preferLo ? Zel::countrZero(val) : 63 - std::countl_zero(val);
  }

  // From bit `pos` of `level`, known to be 1, down to the leaf it leads to. The summary invariant
  // guarantees a wanted bit in every word on the way, so there is no backtracking.
  template <IndexPreference pref>
  U32 descend(U32 level, U32 pos) const {
    while (level-- > 0) {
      U64 const val = word(level, pos);
      ZEL_ASSERT_AS(val != 0, "val");
      pos = pos * 64 + pick<pref>(val);
    }
    return pos;
  }

  // The first leaf below position `pos` of `level`; 64 bits wide, since pos may be one past a U32.
  static U64 firstLeafUnder(U32 level, U64 pos) { return pos << (6 * level); }

  WordPair const* words_;
  U32 const* offsets_;
  U32 height_;
};

void HBitmap::FreeWords::operator()(WordPair* words) const noexcept { std::free(words); }

HBitmap::HBitmap(U64 id, U32 size, BitState initialBitState)
    : id_(id), size_(size), initialBitState_(initialBitState) {
  initializedIs(true);
  handleInitialized();
}

void HBitmap::handleInitialized() {
  if (auto t = Zel::TraceHelper(trace(), traceWholeOp)) t << "HBitmap::handleInitialized";
  Levels const levels = levelsFor(size_);
  height_ = levels.height;
  numBitsAtHeight_ = levels.bits;
  arrayBaseOffsetForHeight_ = levels.offsets;

  // Zero-filled by the allocator: a bitmap made Clear then writes only the last word of each level.
  words_.reset(static_cast<WordPair*>(std::calloc(numWords(), sizeof(WordPair))));
  if (!words_) throw std::bad_alloc();

  U64 const fill = initialBitState_ == BitState::bitSet ? allOnes : 0;
  for (U32 level = 0; level < height_; ++level) {
    U32 const n = numBitsAtHeight_[level];
    U32 const base = arrayBaseOffsetForHeight_[level];
    U32 const full = n / 64;
    if (fill != 0) std::fill_n(words_.get() + base, full, WordPair{fill, fill});
    // The last, partly used word; for an empty bitmap its only word is all padding.
    if (n % 64 != 0 || n == 0) {
      U64 const used = lowBits(n % 64);
      words_[base + full] = WordPair{fill & used, fill | ~used};
    }
  }
  numBitsInSetState_ = initialBitState_ == BitState::bitSet ? size_ : 0;
  if (auto t = Zel::TraceHelper(trace(), traceBuilt)) {
    t << "Initialized HBitmap " << id_ << " sz " << size_ << " height " << height_;
  }
}

U32 HBitmap::numBitsAtHeight(U32 level) const {
  ZEL_ASSERT(level < height_);
  return numBitsAtHeight_[level];
}

U32 HBitmap::arrayBaseOffsetForHeight(U32 level) const {
  ZEL_ASSERT(level < height_);
  return arrayBaseOffsetForHeight_[level];
}

U64 HBitmap::setBm(U32 index) const {
  ZEL_ASSERT(index < numWords());
  return words_[index].set;
}

U64 HBitmap::clearBm(U32 index) const {
  ZEL_ASSERT(index < numWords());
  return words_[index].clear;
}

bool HBitmap::isBitSet(U32 bit) const {
  if (auto t = Zel::TraceHelper(trace(), traceStep)) t << "HBitmap::isBitSet";
  return bit < size_ && (words_[bit / 64].set >> (bit % 64) & 1) != 0;
}

// ---- Point updates ------------------------------------------------------------------------------

// Inline, so that the three entry points run it without a call through the library's symbol table.
inline void HBitmap::update(U32 bit, BitState state) {
  ZEL_CHECK_AS(bit < size_, "bit < size()", "bit " << bit << " sz " << size_);
  WordPair& leaf = words_[bit / 64];
  U64 const mask = U64{1} << (bit % 64);
  bool const wasSet = (leaf.set & mask) != 0;
  U32 count = numBitsInSetState_;
  if (state == BitState::bitSet) {
    count += !wasSet;
    leaf.set |= mask;
    leaf.clear |= mask;
  } else {
    count -= wasSet;
    leaf.set &= ~mask;
    leaf.clear &= ~mask;
  }
  // Always to the top: a branch-free walk costs less than deciding where to stop.
  U32 pos = bit;
  for (U32 level = 1; level < height_; ++level) {
    WordPair const& child = words_[arrayBaseOffsetForHeight_[level - 1] + pos / 64];
    WordPair& parent = words_[arrayBaseOffsetForHeight_[level] + pos / 4096];
    U64 const summaryBit = U64{1} << (pos / 64 % 64);
    U64 const anySet = child.set != 0 ? summaryBit : 0;
    U64 const allSet = child.clear == allOnes ? summaryBit : 0;
    parent.set = (parent.set & ~summaryBit) | anySet;
    parent.clear = (parent.clear & ~summaryBit) | allSet;
    pos /= 64;
  }
  attributeIs(numBitsInSetState_, count, &NotifieeConst::onNumBitsInSetState);
}

void HBitmap::setBit(U32 bit) {
  if (auto t = Zel::TraceHelper(trace(), traceStep)) t << "HBitmap::setBit";
  update(bit, BitState::bitSet);
}

void HBitmap::clearBit(U32 bit) {
  if (auto t = Zel::TraceHelper(trace(), traceStep)) t << "HBitmap::clearBit";
  update(bit, BitState::bitClear);
}

void HBitmap::updateBit(U32 bit, BitState state) {
  if (auto t = Zel::TraceHelper(trace(), traceStep)) t << "HBitmap::updateBit";
  update(bit, state);
}

// ---- Range updates ------------------------------------------------------------------------------

void HBitmap::setBitsInRange(U32 start, U32 end) {
  if (auto t = Zel::TraceHelper(trace(), traceWholeOp)) t << "HBitmap::setBitsInRange";
  updateRange(start, end, BitState::bitSet);
}

void HBitmap::clearBitsInRange(U32 start, U32 end) {
  if (auto t = Zel::TraceHelper(trace(), traceWholeOp)) t << "HBitmap::clearBitsInRange";
  updateRange(start, end, BitState::bitClear);
}

void HBitmap::updateBitsInRange(U32 start, U32 end, BitState state) {
  if (auto t = Zel::TraceHelper(trace(), traceWholeOp)) t << "HBitmap::updateBitsInRange";
  updateRange(start, end, state);
}

void HBitmap::updateRange(U32 start, U32 end, BitState state) {
  ZEL_CHECK_AS(start <= end, "start <= end", "start" << start << " end " << end);
  ZEL_CHECK_AS(end < size_, "end < size()", "end" << end << " sz " << size_);
  U32 const startWord = start / 64;
  U32 const endWord = end / 64;
  if (auto t = Zel::TraceHelper(trace(), traceStep)) {
    t << "startWord = " << startWord << ", endWord = " << endWord;
  }
  U32 count = numBitsInSetState_;
  for (U32 w = startWord; w <= endWord; ++w) {
    WordPair& leaf = words_[w];
    U64 mask = allOnes;
    if (w == startWord) mask &= bitsFrom(start % 64);
    if (w == endWord) mask &= bitsUpTo(end % 64);
    auto const alreadySet = static_cast<U32>(std::popcount(leaf.set & mask));
    if (state == BitState::bitSet) {
      count += static_cast<U32>(std::popcount(mask)) - alreadySet;
      leaf.set |= mask;
      leaf.clear |= mask;
    } else {
      count -= alreadySet;
      leaf.set &= ~mask;
      leaf.clear &= ~mask;
    }
  }
  rebuildSummaries(startWord, endWord);
  attributeIs(numBitsInSetState_, count, &NotifieeConst::onNumBitsInSetState);
}

void HBitmap::rebuildSummaries(U32 firstLeaf, U32 lastLeaf) {
  U32 first = firstLeaf;
  U32 last = lastLeaf;
  for (U32 level = 1; level < height_; ++level) {
    U32 const childBase = arrayBaseOffsetForHeight_[level - 1];
    U32 const parentBase = arrayBaseOffsetForHeight_[level];
    U32 const children = numBitsAtHeight_[level];
    for (U32 parent = first / 64; parent <= last / 64; ++parent) {
      U64 anySet = 0;
      U64 allSet = allOnes;  // bits beyond the last child stay 1: padding
      U32 const begin = parent * 64;
      U32 const stop = std::min(begin + 64, children);
      for (U32 child = begin; child < stop; ++child) {
        WordPair const& pair = words_[childBase + child];
        U64 const summaryBit = U64{1} << (child % 64);
        if (pair.set != 0) anySet |= summaryBit;
        if (pair.clear != allOnes) allSet &= ~summaryBit;
      }
      words_[parentBase + parent] = WordPair{anySet, allSet};
    }
    first /= 64;
    last /= 64;
  }
}

// ---- Searches -----------------------------------------------------------------------------------

U32 HBitmap::findBitInSetState(IndexPreference pref) const {
  if (auto t = Zel::TraceHelper(trace(), traceStep)) t << "HBitmap::findBitInSetState";
  return WantedTree<BitState::bitSet>(*this).first(pref);
}

U32 HBitmap::findBitInClearState(IndexPreference pref) const {
  if (auto t = Zel::TraceHelper(trace(), traceStep)) t << "HBitmap::findBitInClearState";
  return WantedTree<BitState::bitClear>(*this).first(pref);
}

U32 HBitmap::findBitInState(IndexPreference pref, BitState state) const {
  if (auto t = Zel::TraceHelper(trace(), traceStep)) t << "HBitmap::findBitInState";
  return state == BitState::bitSet ? WantedTree<BitState::bitSet>(*this).first(pref)
                                   : WantedTree<BitState::bitClear>(*this).first(pref);
}

U32 HBitmap::findSetBitInRange(U32 start, U32 end, IndexPreference pref) const {
  if (auto t = Zel::TraceHelper(trace(), traceStep)) t << "HBitmap::findSetBitInRange";
  return searchRange(start, end, BitState::bitSet, pref);
}

U32 HBitmap::findClearBitInRange(U32 start, U32 end, IndexPreference pref) const {
  if (auto t = Zel::TraceHelper(trace(), traceStep)) t << "HBitmap::findClearBitInRange";
  return searchRange(start, end, BitState::bitClear, pref);
}

U32 HBitmap::findBitInRange(U32 start, U32 end, BitState state, IndexPreference pref) const {
  if (auto t = Zel::TraceHelper(trace(), traceStep)) t << "HBitmap::findBitInRange";
  return searchRange(start, end, state, pref);
}

U32 HBitmap::searchRange(U32 start, U32 end, BitState state, IndexPreference pref) const {
  ZEL_ASSERT_AS(start <= end, "start <= end");
  ZEL_ASSERT_AS(end <= size_, "end <= size()");
  if (auto t = Zel::TraceHelper(trace(), traceStep)) {
    t << "start = " << start << ", end = " << end << ", state = " << state;
  }
  if (start >= size_) return notFound;
  U32 const last = std::min(end, size_ - 1);
  return state == BitState::bitSet
             ? WantedTree<BitState::bitSet>(*this).firstIn(start, last, pref)
             : WantedTree<BitState::bitClear>(*this).firstIn(start, last, pref);
}

// ---- Logical operations -------------------------------------------------------------------------

void HBitmap::doAnd(Zel::Ptr<HBitmap const> const& other) {
  if (auto t = Zel::TraceHelper(trace(), traceWholeOp)) t << "HBitmap::doAnd";
  ZEL_ASSERT(other);
  logicalOp(*other, LogicalOp::logicalAnd);
}

void HBitmap::doOr(Zel::Ptr<HBitmap const> const& other) {
  if (auto t = Zel::TraceHelper(trace(), traceWholeOp)) t << "HBitmap::doOr";
  ZEL_ASSERT(other);
  logicalOp(*other, LogicalOp::logicalOr);
}

void HBitmap::doLogicalOp(Zel::Ptr<HBitmap const> const& other, LogicalOp op) {
  if (auto t = Zel::TraceHelper(trace(), traceWholeOp)) t << "HBitmap::doLogicalOp";
  ZEL_ASSERT(other);
  logicalOp(*other, op);
}

void HBitmap::logicalOp(HBitmap const& other, LogicalOp op) {
  ZEL_CHECK_AS(size_ <= other.size_, "size() <= hbmp->size()",
               "sz " << size_ << " hsz " << other.size_);
  if (op != LogicalOp::logicalAnd && op != LogicalOp::logicalOr) {
    if (auto t = Zel::TraceHelper(trace(), traceUnknownOp)) t << "Unknown logical op: " << op;
    return;
  }
  U32 const leafWords = wordsFor(size_);
  if (leafWords == 0) return;
  // The last word's padding keeps its meaning whatever the other bitmap holds there.
  U64 const lastPad = size_ % 64 != 0 ? bitsFrom(size_ % 64) : 0;
  U32 count = 0;
  for (U32 w = 0; w < leafWords; ++w) {
    WordPair& mine = words_[w];
    WordPair const& theirs = other.words_[w];
    U64 const pad = w + 1 == leafWords ? lastPad : 0;
    if (op == LogicalOp::logicalAnd) {
      mine.set &= theirs.set;
      mine.clear = (mine.clear & theirs.clear) | pad;
    } else {
      mine.set = (mine.set | theirs.set) & ~pad;
      mine.clear |= theirs.clear;
    }
    count += static_cast<U32>(std::popcount(mine.set));
  }
  rebuildSummaries(0, leafWords - 1);
  attributeIs(numBitsInSetState_, count, &NotifieeConst::onNumBitsInSetState);
}

// ---- Free functions -----------------------------------------------------------------------------

Zel::Ptr<HBitmap> hBitmapFactory(U64 id, U32 size, HBitmap::BitState initialBitState) {
  return Zel::allocate<HBitmap>(id, size, initialBitState);
}

U32 roundup64(U32 v) {
  U32 const i = v & ~U32{63};
  if (i == v) return v;
  // Rounding up would wrap past the largest U32.
  ZEL_ASSERT_AS(i < 0xFFFFFFC0u, "i");
  return i + 64;
}

}  // namespace Kiv
