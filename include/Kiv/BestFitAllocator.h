// Kiv::BestFitAllocator: contiguous blocks of a linear index space, such as the entries of a
// hardware table, handed out by best fit. Freed blocks merge with their free neighbours at once;
// the space can be compacted into a list of block moves for the owner to carry out in the real
// table, and it can grow or shrink.
//
//   Zel::Ptr<Kiv::BestFitAllocator> acl = Kiv::bestFitAllocatorFactory(4096, 0x1000, 64);
//   Zel::Ptr<Kiv::BFA::Blk> rules = acl->alloc(12);  // entries rules->index() .. + 11
//   rules = nullptr;                                  // the last reference frees them
//
// Indexes. The space has memSz() entries, which callers see as offset() .. offset() + memSz() - 1
// and the allocator keeps as 0 .. memSz() - 1. Blk::index(), PendingCmd::oldIndex(), realloc's
// argument and the keys of inUseBlock are caller indexes; the free-block maps, doAddFreeBlk,
// doRemoveFreeBlk and every trace text use internal ones.
//
// Free space. Free blocks are maximal (no two touch) and each is recorded three times: by its
// first entry in freeBlkStartIndexToSz, by its last entry in freeBlkEndIndexToSz, and by its size,
// in the FreeBlkSet of that size when it is at most maxBlkSz() (a set left empty is deleted), or
// else in the ordered jumboFreeBlk set. So there are at most maxBlkSz() size classes, and a best
// fit is one lower bound over them; merging costs one lookup in each index map.
//
// Best fit. alloc(n) takes a free block of the smallest size >= n: within a size class the first
// in the class's hash order (not necessarily the lowest index), among jumbo blocks the smallest,
// lowest index first. The request takes the block's low end; the rest stays free above it.
//
// Blocks. A Blk knows its size and caller index and keeps its allocator alive; the allocator
// keeps no reference to it. When the last reference goes (the caller's, or a PendingCmd's) its
// entries return to the allocator and merge. An allocator therefore outlives its blocks.
//
// Compaction. defragment() slides the used blocks down, lowest first, until one free block is left
// at the top, and returns one PendingCmd per block moved, in increasing order of old index. Every
// block moves to a lower index, into entries that are free or its own old place, so the owner may
// copy the blocks in the real table in log order without overwriting one that has not moved yet.
// It is one pass: per block moved, one inUseBlock lookup and constant work at the low end of the
// index maps.
//
// Misuse (a zero or oversized request, a realloc outside the space, a factory or resize whose
// sizes do not fit) and broken internal invariants (the maps disagreeing, a block freed twice)
// write "Failed(<condition>) <detail>" to standard error, then fail the runtime's assertion and
// abort. alloc and realloc return null when the entries are not free; that is not misuse.
//
// Where the contract is silent:
// - realloc of an index below offset() fails "startIndex + blkSz <= memSz()" (the check does not
//   wrap around);
// - growing fails "( newMemSz + offset() ) < 0xFFFFFFFF" when the caller indexes would no longer
//   fit below 0xFFFFFFFF; shrinking may go below maxBlkSz(), or to 0 when every entry is free;
// - pendingCmdLogDeq() on an empty log returns a command whose blk is null;
// - blkFactory() makes a block that belongs to no allocator, for commands built by hand and for
//   reflection: releasing it frees nothing.
//
// Observers see memSz and numFreeEntries change at most once per operation, after the structure is
// consistent again. One thread at a time, like every entity.
#pragma once

#include <Zel/Collections.h>
#include <Zel/Entity.h>
#include <Zel/Types.h>
#include <Zel/Value.h>

#include <map>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace Kiv {

class BestFitAllocator;

namespace BFA {

// A free block larger than maxBlkSz; ordered by size, then start, so the first is the best fit.
class JumboFreeBlk : public Zel::Value<JumboFreeBlk> {
public:
  JumboFreeBlk() = default;
  JumboFreeBlk(U32 blkSz, U32 startIndex) noexcept : blkSz_(blkSz), startIndex_(startIndex) {}

  U32 blkSz() const noexcept { return blkSz_; }
  void blkSzIs(U32 blkSz) noexcept { blkSz_ = blkSz; }
  U32 startIndex() const noexcept { return startIndex_; }
  void startIndexIs(U32 startIndex) noexcept { startIndex_ = startIndex; }

  friend bool operator<(JumboFreeBlk const& a, JumboFreeBlk const& b) noexcept {
    return a.blkSz_ != b.blkSz_ ? a.blkSz_ < b.blkSz_ : a.startIndex_ < b.startIndex_;
  }

  static constexpr auto zelFields() {
    return Zel::valueFields(
        "Kiv::BFA::JumboFreeBlk", Zel::field("blkSz", &JumboFreeBlk::blkSz, &JumboFreeBlk::blkSzIs),
        Zel::field("startIndex", &JumboFreeBlk::startIndex, &JumboFreeBlk::startIndexIs));
  }

private:
  U32 blkSz_ = 0;
  U32 startIndex_ = 0;
};

class Blk;
// A block of no allocator: releasing it frees nothing (see the header comment).
Zel::Ptr<Blk> blkFactory(U32 size, U32 index);

// Entries index() .. index() + size() - 1, in caller indexes, held while referenced.
class Blk : public Zel::PtrInterface {
public:
  U32 size() const noexcept { return size_; }
  // Lowered when defragment moves the block.
  U32 index() const noexcept { return index_; }

  static auto zelAttributes() {
    return Zel::entityAttributes<Blk>(
        "Kiv::BFA::Blk", &blkFactory,
        Zel::ctorParams(Zel::ctorParam("size", &Blk::size), Zel::ctorParam("index", &Blk::index)));
  }

protected:
  Blk(U32 size, U32 index) noexcept : size_(size), index_(index) {}
  ~Blk() override;

  // The last reference went: return the entries to the allocator, then destroy the block.
  void handleZeroRef() const noexcept override;

private:
  friend class Kiv::BestFitAllocator;

  void handleDel() const noexcept;

  U32 size_;
  U32 index_;
  // Null until the allocator hands the block out, so a block abandoned half-made frees nothing.
  Zel::Ptr<BestFitAllocator> allocator_;
};

// One move for the owner: copy blk->size() entries from oldIndex to blk->index().
class PendingCmd : public Zel::Value<PendingCmd> {
public:
  PendingCmd() = default;
  PendingCmd(U32 oldIndex, Zel::Ptr<Blk> blk) noexcept
      : oldIndex_(oldIndex), blk_(std::move(blk)) {}

  U32 oldIndex() const noexcept { return oldIndex_; }
  void oldIndexIs(U32 oldIndex) noexcept { oldIndex_ = oldIndex; }
  Zel::Ptr<Blk> const& blk() const noexcept { return blk_; }
  void blkIs(Zel::Ptr<Blk> const& blk) noexcept { blk_ = blk; }

  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::BFA::PendingCmd",
                            Zel::field("oldIndex", &PendingCmd::oldIndex, &PendingCmd::oldIndexIs),
                            Zel::field("blk", &PendingCmd::blk, &PendingCmd::blkIs));
  }

private:
  U32 oldIndex_ = 0;
  Zel::Ptr<Blk> blk_;
};

// A block handle prints as "<Kiv::BFA::Blk>" or "None" and names no particular block, so only
// "None" parses back (as null); any other text throws RangeException.
char const* sequenceToValue(char const* begin, char const* end, Zel::Ptr<Blk>* out);

class PendingCmds;
Zel::Ptr<PendingCmds> pendingCmdsFactory();

// The moves of one compaction, the first to carry out first.
class PendingCmds : public Zel::PtrInterface {
public:
  using PendingCmdLog = Zel::LinkQueue<PendingCmd>;

  PendingCmdLog const& pendingCmdLogIteratorConst() const noexcept { return pendingCmdLog_; }
  U32 pendingCmdLogs() const noexcept { return U32(pendingCmdLog_.size()); }
  // The first command, or one with a null blk when the log is empty.
  PendingCmd pendingCmdLog() const;
  void pendingCmdLogEnq(PendingCmd const& cmd) { pendingCmdLog_.push(cmd); }
  // Removes and returns the first command, or returns one with a null blk when the log is empty.
  PendingCmd pendingCmdLogDeq();

  static auto zelAttributes() {
    return Zel::entityAttributes<PendingCmds>(
        "Kiv::BFA::PendingCmds", &pendingCmdsFactory, Zel::ctorParams(),
        Zel::computed("pendingCmdLogs", &PendingCmds::pendingCmdLogs));
  }

protected:
  PendingCmds() = default;

private:
  PendingCmdLog pendingCmdLog_;
};

class FreeBlkSet;
Zel::Ptr<FreeBlkSet> freeBlkSetFactory(U32 blkSz);

// The start indexes of the free blocks of one size.
class FreeBlkSet : public Zel::PtrInterface {
public:
  using FreeBlk = std::unordered_set<U32>;

  U32 blkSz() const noexcept { return blkSz_; }
  bool freeBlk(U32 startIndex) const { return freeBlk_.contains(startIndex); }
  U32 freeBlks() const noexcept { return U32(freeBlk_.size()); }
  FreeBlk const& freeBlkIteratorConst() const noexcept { return freeBlk_; }
  // Adds a start index; false when it was there already.
  bool freeBlkIs(U32 startIndex) { return freeBlk_.insert(startIndex).second; }
  // Removes a start index; false when it was not there.
  bool freeBlkDel(U32 startIndex) { return freeBlk_.erase(startIndex) != 0; }

  static auto zelAttributes() {
    return Zel::entityAttributes<FreeBlkSet>(
        "Kiv::BFA::FreeBlkSet", &freeBlkSetFactory,
        Zel::ctorParams(Zel::ctorParam("blkSz", &FreeBlkSet::blkSz)),
        Zel::computed("freeBlks", &FreeBlkSet::freeBlks));
  }

protected:
  explicit FreeBlkSet(U32 blkSz) noexcept : blkSz_(blkSz) {}

private:
  U32 blkSz_;
  FreeBlk freeBlk_;
};

}  // namespace BFA

// Makes an allocator of `memSz` entries seen as offset .. offset + memSz - 1, handing out blocks of
// 1 .. maxBlkSz entries. Requires 0 < maxBlkSz < memSz and memSz + offset < 0xFFFFFFFF.
Zel::Ptr<BestFitAllocator> bestFitAllocatorFactory(U32 memSz, U32 offset, U32 maxBlkSz);

class BestFitAllocator : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<BestFitAllocator> {
  public:
    virtual void onMemSz() {}
    virtual void onNumFreeEntries() {}
  };

  using FreeBlkSetMap = std::map<U32, Zel::Ptr<BFA::FreeBlkSet>>;
  using JumboFreeBlkSet = std::set<BFA::JumboFreeBlk>;
  using IndexToSz = std::map<U32, U32>;

  U32 memSz() const noexcept { return memSz_; }
  U32 offset() const noexcept { return offset_; }
  U32 maxBlkSz() const noexcept { return maxBlkSz_; }
  U32 numFreeEntries() const noexcept { return numFreeEntries_; }

  // The free blocks of size blkSz (at most maxBlkSz), or null when there are none.
  Zel::Ptr<BFA::FreeBlkSet const> freeBlkSet(U32 blkSz) const;
  U32 freeBlkSets() const noexcept { return U32(freeBlkSet_.size()); }
  FreeBlkSetMap const& freeBlkSetIteratorConst() const noexcept { return freeBlkSet_; }

  bool jumboFreeBlk(BFA::JumboFreeBlk const& blk) const { return jumboFreeBlk_.contains(blk); }
  U32 jumboFreeBlks() const noexcept { return U32(jumboFreeBlk_.size()); }
  JumboFreeBlkSet const& jumboFreeBlkIteratorConst() const noexcept { return jumboFreeBlk_; }

  // The size of the free block that starts (ends) at internal index i, or 0 when none does.
  U32 freeBlkStartIndexToSz(U32 startIndex) const;
  U32 freeBlkStartIndexToSzs() const noexcept { return U32(freeBlkStartIndexToSz_.size()); }
  IndexToSz const& freeBlkStartIndexToSzIteratorConst() const noexcept {
    return freeBlkStartIndexToSz_;
  }
  U32 freeBlkEndIndexToSz(U32 endIndex) const;
  U32 freeBlkEndIndexToSzs() const noexcept { return U32(freeBlkEndIndexToSz_.size()); }
  IndexToSz const& freeBlkEndIndexToSzIteratorConst() const noexcept {
    return freeBlkEndIndexToSz_;
  }

  // The block handed out at caller index `index`, or null.
  Zel::Ptr<BFA::Blk> inUseBlock(U32 index) const;
  U32 inUseBlocks() const noexcept { return U32(inUseBlock_.size()); }

  // A block of blkSz (1 .. maxBlkSz) entries by best fit, or null when no free block is as large.
  Zel::Ptr<BFA::Blk> alloc(U32 blkSz);
  // Claims the blkSz entries from caller index `index` on, or returns null when any of them is in
  // use: rebuilds the allocator's view of a table that already holds blocks.
  Zel::Ptr<BFA::Blk> realloc(U32 index, U32 blkSz);
  // Compacts the used blocks to the bottom (see the header comment) and returns the moves made;
  // the log is empty when nothing moved.
  Zel::Ptr<BFA::PendingCmds> defragment();
  // Grows the space by free entries at the top, or shrinks it by taking free entries off the top,
  // compacting first when the top free block is too short. Shrinking never takes used entries, so
  // when less is free than asked the space stays larger than newMemSz. Returns the moves of that
  // compaction, or null when there was none.
  Zel::Ptr<BFA::PendingCmds> resizeMemory(U32 newMemSz);

  static auto zelAttributes();

protected:
  BestFitAllocator(U32 size, U32 base, U32 largestBlk);
  ~BestFitAllocator() override;

  // Records the free entries startIndex .. startIndex + blkSz - 1 (internal), merged with the free
  // blocks on either side.
  void doAddFreeBlk(U32 blkSz, U32 startIndex);
  // Forgets the free block of exactly blkSz entries at startIndex (internal).
  void doRemoveFreeBlk(U32 blkSz, U32 startIndex);
  // Takes back the entries of a block whose last reference went.
  void handleFree(BFA::Blk const& blk) noexcept;

  void numFreeEntriesInc(U32 n);
  void numFreeEntriesDec(U32 n);

private:
  friend class BFA::Blk;

  // Enters a block made for the entries just taken from the free space and links it to this
  // allocator, so that its release returns them.
  void handOut(BFA::Blk& blk);
  // Takes blkSz entries from the low end of the free block of `size` at startIndex.
  void takeLowEnd(U32 size, U32 startIndex, U32 blkSz);
  // Moves blk down onto the lowest free block, which lies right below it, and fixes the free space.
  void slideDown(BFA::Blk& blk);
  // The size-class record of a free block: its FreeBlkSet, or the jumbo set. Every free block
  // forgotten loses its record, so sizeEntryDel is where the removal is traced.
  void sizeEntryIs(U32 blkSz, U32 startIndex);
  void sizeEntryDel(U32 blkSz, U32 startIndex);
  // Sets memSz, changed by `change` entries at the top, all of them free.
  void memSzIs(U32 memSz, U32 change);
  // Traces the free and the used blocks, each list under its heading, in index order.
  void listBlocks(char const* freeHeading, char const* usedHeading) const;

  U32 memSz_;
  U32 offset_;
  U32 maxBlkSz_;
  U32 numFreeEntries_ = 0;
  FreeBlkSetMap freeBlkSet_;
  JumboFreeBlkSet jumboFreeBlk_;
  IndexToSz freeBlkStartIndexToSz_;
  IndexToSz freeBlkEndIndexToSz_;
  // Caller index to block. Blocks are not held here: a block lives while callers reference it,
  // and its release removes its entry.
  std::unordered_map<U32, BFA::Blk*> inUseBlock_;
};

inline auto BestFitAllocator::zelAttributes() {
  return Zel::entityAttributes<BestFitAllocator>(
      "Kiv::BestFitAllocator", &bestFitAllocatorFactory,
      Zel::ctorParams(Zel::ctorParam("memSz", &BestFitAllocator::memSz),
                      Zel::ctorParam("offset", &BestFitAllocator::offset),
                      Zel::ctorParam("maxBlkSz", &BestFitAllocator::maxBlkSz)),
      Zel::computed("numFreeEntries", &BestFitAllocator::numFreeEntries),
      Zel::computed("freeBlkSets", &BestFitAllocator::freeBlkSets),
      Zel::computed("jumboFreeBlks", &BestFitAllocator::jumboFreeBlks),
      Zel::computed("freeBlkStartIndexToSzs", &BestFitAllocator::freeBlkStartIndexToSzs),
      Zel::computed("freeBlkEndIndexToSzs", &BestFitAllocator::freeBlkEndIndexToSzs),
      Zel::computed("inUseBlocks", &BestFitAllocator::inUseBlocks));
}

}  // namespace Kiv
