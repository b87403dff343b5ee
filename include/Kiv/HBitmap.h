// Kiv::HBitmap: a fixed-size bitmap with two summary trees above it, so that the lowest or highest
// set bit, and the lowest or highest clear bit, are found by reading one 64-bit word per level.
//
//   Zel::Ptr<Kiv::HBitmap> ids = Kiv::hBitmapFactory(1, 1 << 20, Kiv::HBitmap::BitState::bitClear);
//   U32 const id = ids->findBitInClearState(Kiv::HBitmap::IndexPreference::preferLo);
//   if (id != Kiv::HBitmap::notFound) ids->setBit(id);  // the lowest free index, now taken
//
// Layout. Level 0 holds the bits, 64 to a word; each level above has one bit per word of the level
// below, up to a single top word, and the levels follow each other in word order from level 0 up.
// Two trees share that shape: in `setBm` a summary bit is 1 when its child word has any bit set,
// in `clearBm` when its child word has every bit set; at level 0 both hold the bits themselves.
// Padding (the bits beyond the last meaningful one of each level) reads as clear in `setBm` and
// set in `clearBm`, so no search ever lands on it.
//
// Cost. A point update and a global search touch one word per level (at most six levels, for
// 2^32 - 1 bits). A range search climbs from the range's edge and descends again, at most two
// words per level. Range updates are linear in the length of the range, AND and OR with another
// bitmap are linear in the size. Memory is two bits per bit plus 1/63 of that for the summaries;
// the arrays are allocated zero-filled, so a large bitmap made clear costs little until written.
//
// Misuse (a bit at or beyond the size, an inverted range, a logical operation with a smaller
// bitmap) writes "Failed(<condition>) <detail>" to standard error and fails the assertion
// !"<condition>". A search that finds nothing returns `notFound`.
//
// Observers: `numBitsInSetState` is the one observable attribute. Each mutator notifies at most
// once, after the whole structure is consistent again, and only when the count has changed.
//
// One thread at a time, like every entity.
#pragma once

#include <Zel/Entity.h>
#include <Zel/Types.h>

#include <array>
#include <memory>
#include <ostream>
#include <string>

namespace Kiv {

class HBitmap : public Zel::Notifier {
public:
  // Printed and parsed as "Set" and "Clear".
  enum class BitState : U8 { bitSet, bitClear };
  // Printed and parsed as "preferLo" (the lowest index wins) and "preferHi" (the highest wins).
  enum class IndexPreference : U8 { preferLo, preferHi };
  // Printed and parsed as "And" and "Or".
  enum class LogicalOp : U8 { logicalAnd, logicalOr };

  friend constexpr auto zelEnumInfo(BitState) {
    return Zel::enumInfo<BitState>("Kiv::HBitmap::BitState",
                                   {{BitState::bitSet, "Set"}, {BitState::bitClear, "Clear"}});
  }
  friend constexpr auto zelEnumInfo(IndexPreference) {
    return Zel::enumInfo<IndexPreference>(
        "Kiv::HBitmap::IndexPreference",
        {{IndexPreference::preferLo, "preferLo"}, {IndexPreference::preferHi, "preferHi"}});
  }
  friend constexpr auto zelEnumInfo(LogicalOp) {
    return Zel::enumInfo<LogicalOp>("Kiv::HBitmap::LogicalOp",
                                    {{LogicalOp::logicalAnd, "And"}, {LogicalOp::logicalOr, "Or"}});
  }
  friend std::ostream& operator<<(std::ostream& out, BitState v) { return out << Zel::enumName(v); }
  friend std::ostream& operator<<(std::ostream& out, IndexPreference v) {
    return out << Zel::enumName(v);
  }
  friend std::ostream& operator<<(std::ostream& out, LogicalOp v) {
    return out << Zel::enumName(v);
  }

  class NotifieeConst : public Zel::NotifieeConstOf<HBitmap> {
  public:
    virtual void onNumBitsInSetState() {}
  };

  // What every search returns when no bit is in the wanted state.
  static constexpr U32 notFound = 0xFFFFFFFF;
  // Levels of the largest bitmap, 2^32 - 1 bits.
  static constexpr U32 maxHeight = 6;

  // The caller's identifier; it only appears in traces.
  U64 id() const noexcept { return id_; }
  // Usable bits are 0 .. size() - 1.
  U32 size() const noexcept { return size_; }
  // The state every bit had after construction.
  BitState initialBitState() const noexcept { return initialBitState_; }
  U32 numBitsInSetState() const noexcept { return numBitsInSetState_; }

  // Levels, the leaf level included: 1 up to 64 bits, then one more per factor of 64.
  U32 height() const noexcept { return height_; }
  // Meaningful bits at `level` (< height()): size() at level 0, above it the number of words of
  // the level below.
  U32 numBitsAtHeight(U32 level) const;
  // Index of the first word of `level` (< height()) in both trees; level 0 starts at 0.
  U32 arrayBaseOffsetForHeight(U32 level) const;
  // Word `index` of the any-set tree and of the all-set tree; index < the top level's offset + 1.
  U64 setBm(U32 index) const;
  U64 clearBm(U32 index) const;

  // Set by the constructor once the structure is built; a plain flag, setting it runs nothing.
  bool initialized() const noexcept { return initialized_; }
  void initializedIs(bool initialized) noexcept { initialized_ = initialized; }

  // Whether `bit` is set; bits at or beyond size() read as clear.
  bool isBitSet(U32 bit) const;

  // Point updates: `bit` must be below size().
  void setBit(U32 bit);
  void clearBit(U32 bit);
  void updateBit(U32 bit, BitState state);

  // Range updates of bits start .. end, both included: start <= end < size().
  void setBitsInRange(U32 start, U32 end);
  void clearBitsInRange(U32 start, U32 end);
  void updateBitsInRange(U32 start, U32 end, BitState state);

  // The lowest (preferLo) or highest (preferHi) bit in the wanted state, or notFound.
  U32 findBitInSetState(IndexPreference pref) const;
  U32 findBitInClearState(IndexPreference pref) const;
  U32 findBitInState(IndexPreference pref, BitState state) const;

  // The same among bits start .. end, both included: start <= end <= size(). An end of size()
  // is accepted and means "to the last bit", so start = end = size() finds nothing.
  U32 findSetBitInRange(U32 start, U32 end, IndexPreference pref) const;
  U32 findClearBitInRange(U32 start, U32 end, IndexPreference pref) const;
  U32 findBitInRange(U32 start, U32 end, BitState state, IndexPreference pref) const;

  // Bitwise AND or OR of `other` into this bitmap, bit i with bit i. `other` must not be smaller;
  // its bits beyond this size are ignored. An op outside the enumeration changes nothing.
  void doAnd(Zel::Ptr<HBitmap const> const& other);
  void doOr(Zel::Ptr<HBitmap const> const& other);
  void doLogicalOp(Zel::Ptr<HBitmap const> const& other, LogicalOp op);

  // The reflection table. The level arrays and the trees are not in it: reflection describes keyed
  // collections only.
  static auto zelAttributes();

protected:
  HBitmap(U64 id, U32 size, BitState initialBitState);
  ~HBitmap() override = default;

  // Builds the levels and fills them with initialBitState; run once by the constructor.
  void handleInitialized();

private:
  // Word i of both trees. They are stored side by side so that a point update touches one cache
  // line per level rather than two; setBm() and clearBm() read them as the two arrays they are.
  struct WordPair {
    U64 set;
    U64 clear;
  };
  // One tree, read for a search.
  template <BitState state>
  class WantedTree;
  struct FreeWords {
    void operator()(WordPair* words) const noexcept;
  };

  U32 numWords() const noexcept { return arrayBaseOffsetForHeight_[height_ - 1] + 1; }
  void update(U32 bit, BitState state);
  void updateRange(U32 start, U32 end, BitState state);
  U32 searchRange(U32 start, U32 end, BitState state, IndexPreference pref) const;
  void logicalOp(HBitmap const& other, LogicalOp op);
  // Recomputes the summary words above leaf words firstLeaf .. lastLeaf at every level.
  void rebuildSummaries(U32 firstLeaf, U32 lastLeaf);

  U64 id_;
  U32 size_;
  BitState initialBitState_;
  bool initialized_ = false;
  U32 numBitsInSetState_ = 0;
  U32 height_ = 0;
  std::array<U32, maxHeight> numBitsAtHeight_{};
  std::array<U32, maxHeight> arrayBaseOffsetForHeight_{};
  std::unique_ptr<WordPair[], FreeWords> words_;
};

// Makes a bitmap of `size` bits, every one in `initialBitState`.
Zel::Ptr<HBitmap> hBitmapFactory(U64 id, U32 size, HBitmap::BitState initialBitState);

inline auto HBitmap::zelAttributes() {
  return Zel::entityAttributes<HBitmap>(
      "Kiv::HBitmap", &hBitmapFactory,
      Zel::ctorParams(Zel::ctorParam("id", &HBitmap::id), Zel::ctorParam("size", &HBitmap::size),
                      Zel::ctorParam("initialBitState", &HBitmap::initialBitState)),
      Zel::computed("numBitsInSetState", &HBitmap::numBitsInSetState),
      Zel::computed("height", &HBitmap::height),
      Zel::scalar("initialized", &HBitmap::initialized, &HBitmap::initializedIs));
}

// `v` rounded up to a multiple of 64; a result that would not fit in a U32 (any v above
// 0xFFFFFFC0) fails the assertion "i" instead of wrapping.
U32 roundup64(U32 v);

}  // namespace Kiv
