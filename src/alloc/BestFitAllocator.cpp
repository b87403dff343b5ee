#include <Kiv/BestFitAllocator.h>

#include <Zel/Assert.h>
#include <Zel/Trace.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace Kiv {

namespace {

constexpr auto trace = Zel::traceHandle<"BestFitAllocator">;
constexpr int traceLifecycle = 2;    // construction, compaction and resizing
constexpr int traceNothingFree = 3;  // requests that find no free entries
constexpr int traceBlocks = 5;       // each block handed out or returned
constexpr int traceCounters = 7;     // changes of numFreeEntries
constexpr int traceFreeLists = 8;    // free blocks recorded and forgotten
constexpr int traceListings = 9;     // size classes made and deleted; a compaction's block lists

std::string blkText(char const* what, U32 blkSz, U32 startIndex) {
  return std::string(what) + ": free blk sz " + std::to_string(blkSz) + ", index " +
         std::to_string(startIndex);
}

Zel::TypeRegistration<BestFitAllocator, BFA::FreeBlkSet, BFA::Blk, BFA::PendingCmds,
                      BFA::JumboFreeBlk, BFA::PendingCmd> const registration;

}  // namespace

// ---- Companion types ----------------------------------------------------------------------------

namespace BFA {

Zel::Ptr<Blk> blkFactory(U32 size, U32 index) { return Zel::allocate<Blk>(size, index); }

Blk::~Blk() = default;

void Blk::handleDel() const noexcept {
  if (allocator_) allocator_->handleFree(*this);
}

void Blk::handleZeroRef() const noexcept {
  handleDel();
  PtrInterface::handleZeroRef();
}

char const* sequenceToValue(char const* begin, char const* end, Zel::Ptr<Blk>* out) {
  Zel::StrepReader reader(begin, end, "Kiv::BFA::Blk");
  reader.expect("None");
  *out = nullptr;
  return reader.position();
}

Zel::Ptr<PendingCmds> pendingCmdsFactory() { return Zel::allocate<PendingCmds>(); }

PendingCmd PendingCmds::pendingCmdLog() const {
  return pendingCmdLog_.empty() ? PendingCmd() : pendingCmdLog_.head();
}

PendingCmd PendingCmds::pendingCmdLogDeq() {
  return pendingCmdLog_.empty() ? PendingCmd() : pendingCmdLog_.pop();
}

Zel::Ptr<FreeBlkSet> freeBlkSetFactory(U32 blkSz) { return Zel::allocate<FreeBlkSet>(blkSz); }

}  // namespace BFA

// ---- The allocator ------------------------------------------------------------------------------

Zel::Ptr<BestFitAllocator> bestFitAllocatorFactory(U32 memSz, U32 offset, U32 maxBlkSz) {
  return Zel::allocate<BestFitAllocator>(memSz, offset, maxBlkSz);
}

BestFitAllocator::BestFitAllocator(U32 size, U32 base, U32 largestBlk)
    : memSz_(size), offset_(base), maxBlkSz_(largestBlk) {
  ZEL_CHECK_AS(memSz_ != 0, "memSz()", "BestFitAllocator: memSz 0, the space must have entries");
  if (auto t = Zel::TraceHelper(trace(), traceLifecycle)) {
    t << "memSz = " << memSz() << ", offset = " << offset() << ", maxBlkSz = " << maxBlkSz();
  }
  ZEL_CHECK_AS(U64{memSz_} + offset_ < 0xFFFFFFFF, "( memSz() + offset() ) < 0xFFFFFFFF",
               "BestFitAllocator: memSz " << memSz_ << " + offset " << offset_
                                          << " leaves no caller index below 0xFFFFFFFF");
  ZEL_CHECK_AS(maxBlkSz_ != 0, "maxBlkSz()",
               "BestFitAllocator: maxBlkSz 0, no block could be allocated");
  ZEL_CHECK_AS(maxBlkSz_ < memSz_, "maxBlkSz() < memSz()",
               "BestFitAllocator: maxBlkSz " << maxBlkSz_ << " not below memSz " << memSz_);
  doAddFreeBlk(memSz(), 0);
  numFreeEntries_ = memSz();
  if (auto t = Zel::TraceHelper(trace(), traceLifecycle)) {
    t << "Initialized allocator: memSz " << memSz() << " offset " << offset() << " maxBlkSz "
      << maxBlkSz();
  }
}

BestFitAllocator::~BestFitAllocator() = default;

Zel::Ptr<BFA::FreeBlkSet const> BestFitAllocator::freeBlkSet(U32 blkSz) const {
  auto const it = freeBlkSet_.find(blkSz);
  return it == freeBlkSet_.end() ? nullptr : it->second;
}

U32 BestFitAllocator::freeBlkStartIndexToSz(U32 startIndex) const {
  auto const it = freeBlkStartIndexToSz_.find(startIndex);
  return it == freeBlkStartIndexToSz_.end() ? 0 : it->second;
}

U32 BestFitAllocator::freeBlkEndIndexToSz(U32 endIndex) const {
  auto const it = freeBlkEndIndexToSz_.find(endIndex);
  return it == freeBlkEndIndexToSz_.end() ? 0 : it->second;
}

Zel::Ptr<BFA::Blk> BestFitAllocator::inUseBlock(U32 index) const {
  auto const it = inUseBlock_.find(index);
  return it == inUseBlock_.end() ? nullptr : Zel::Ptr<BFA::Blk>(it->second);
}

// Merging finds both neighbours with one lower bound in each index map: the free blocks are
// disjoint, so both maps list them in the same order, and the block ending just below startIndex
// and the one starting just above it are adjacent to where the new block goes. Their map nodes are
// reused for the merged block, so a merge costs the two lookups and no further search.
void BestFitAllocator::doAddFreeBlk(U32 blkSz, U32 startIndex) {
  if (auto t = Zel::TraceHelper(trace(), traceFreeLists)) {
    t << "Adding free blk: sz " << blkSz << ", index " << startIndex;
  }
  auto above = freeBlkStartIndexToSz_.lower_bound(startIndex);
  auto endAbove = freeBlkEndIndexToSz_.lower_bound(startIndex == 0 ? 0 : startIndex - 1);
  auto mergedStart = freeBlkStartIndexToSz_.end();
  auto mergedEnd = freeBlkEndIndexToSz_.end();
  if (startIndex > 0 && endAbove != freeBlkEndIndexToSz_.end() &&
      endAbove->first == startIndex - 1) {
    U32 const leftSz = endAbove->second;
    U32 const leftStart = startIndex - leftSz;
    sizeEntryDel(leftSz, leftStart);
    ZEL_CHECK_AS(above != freeBlkStartIndexToSz_.begin() && std::prev(above)->first == leftStart,
                 "freeBlkStartIndexToSz( startIndex ) > 0", blkText("not free", leftSz, leftStart));
    mergedStart = std::prev(above);
    endAbove = freeBlkEndIndexToSz_.erase(endAbove);
    startIndex = leftStart;
    blkSz += leftSz;
  }
  if (above != freeBlkStartIndexToSz_.end() && above->first == startIndex + blkSz) {
    U32 const rightStart = above->first;
    U32 const rightSz = above->second;
    sizeEntryDel(rightSz, rightStart);
    ZEL_CHECK_AS(
        endAbove != freeBlkEndIndexToSz_.end() && endAbove->first == rightStart + rightSz - 1,
        "freeBlkEndIndexToSz( startIndex + blkSz - 1 ) > 0",
        blkText("not free", rightSz, rightStart));
    mergedEnd = endAbove;
    above = freeBlkStartIndexToSz_.erase(above);
    blkSz += rightSz;
  }
  sizeEntryIs(blkSz, startIndex);
  if (mergedStart != freeBlkStartIndexToSz_.end()) {
    mergedStart->second = blkSz;
  } else {
    std::size_t const before = freeBlkStartIndexToSz_.size();
    freeBlkStartIndexToSz_.emplace_hint(above, startIndex, blkSz);
    ZEL_CHECK_AS(freeBlkStartIndexToSz_.size() > before, "freeBlkStartIndexToSz( startIndex ) == 0",
                 blkText("a free blk starts there already", blkSz, startIndex));
  }
  if (mergedEnd != freeBlkEndIndexToSz_.end()) {
    mergedEnd->second = blkSz;
  } else {
    std::size_t const before = freeBlkEndIndexToSz_.size();
    freeBlkEndIndexToSz_.emplace_hint(endAbove, startIndex + blkSz - 1, blkSz);
    ZEL_CHECK_AS(freeBlkEndIndexToSz_.size() > before,
                 "freeBlkEndIndexToSz( startIndex + blkSz - 1 ) == 0",
                 blkText("a free blk ends there already", blkSz, startIndex));
  }
}

void BestFitAllocator::doRemoveFreeBlk(U32 blkSz, U32 startIndex) {
  sizeEntryDel(blkSz, startIndex);
  bool const startRecorded = freeBlkStartIndexToSz_.erase(startIndex) != 0;
  ZEL_CHECK_AS(startRecorded, "freeBlkStartIndexToSz( startIndex ) > 0",
               blkText("not free", blkSz, startIndex));
  bool const endRecorded = freeBlkEndIndexToSz_.erase(startIndex + blkSz - 1) != 0;
  ZEL_CHECK_AS(endRecorded, "freeBlkEndIndexToSz( startIndex + blkSz - 1 ) > 0",
               blkText("not free", blkSz, startIndex));
}

void BestFitAllocator::sizeEntryIs(U32 blkSz, U32 startIndex) {
  if (blkSz > maxBlkSz()) {
    bool const added = jumboFreeBlk_.emplace(blkSz, startIndex).second;
    ZEL_CHECK_AS(added, "!jumboFreeBlk( BFA::JumboFreeBlk( blkSz, startIndex ) )",
                 blkText("already free", blkSz, startIndex));
    return;
  }
  Zel::Ptr<BFA::FreeBlkSet>& sizeClass = freeBlkSet_[blkSz];
  if (!sizeClass) {
    if (auto t = Zel::TraceHelper(trace(), traceListings)) {
      t << "Creating freeBlkSet for blkSz = " << blkSz;
    }
    sizeClass = BFA::freeBlkSetFactory(blkSz);
  }
  bool const added = sizeClass->freeBlkIs(startIndex);
  ZEL_CHECK_AS(added, "!freeBlkSet( blkSz )->freeBlk( startIndex )",
               blkText("already free", blkSz, startIndex));
}

void BestFitAllocator::sizeEntryDel(U32 blkSz, U32 startIndex) {
  if (auto t = Zel::TraceHelper(trace(), traceFreeLists)) {
    t << "Removing free blk: sz " << blkSz << ", index " << startIndex;
  }
  if (blkSz > maxBlkSz()) {
    bool const removed = jumboFreeBlk_.erase(BFA::JumboFreeBlk(blkSz, startIndex)) != 0;
    ZEL_CHECK_AS(removed, "jumboFreeBlk( BFA::JumboFreeBlk( blkSz, startIndex ) )",
                 blkText("not free", blkSz, startIndex));
    return;
  }
  auto const sizeClass = freeBlkSet_.find(blkSz);
  bool const removed = sizeClass != freeBlkSet_.end() && sizeClass->second->freeBlkDel(startIndex);
  ZEL_CHECK_AS(removed, "freeBlkSet( blkSz )->freeBlk( startIndex )",
               blkText("not free", blkSz, startIndex));
  if (sizeClass->second->freeBlks() == 0) {
    if (auto t = Zel::TraceHelper(trace(), traceListings)) {
      t << "Deleting freeBlkSet for blkSz = " << blkSz;
    }
    freeBlkSet_.erase(sizeClass);
  }
}

// doRemoveFreeBlk(size, startIndex) then doAddFreeBlk(size - blkSz, startIndex + blkSz), with
// the same traces and result, in one lookup per index map: the rest cannot merge, since the block
// below it is the one handed out and free blocks never touch, so its map nodes are those of the
// whole block, with the start moved up and the size reduced.
void BestFitAllocator::takeLowEnd(U32 size, U32 startIndex, U32 blkSz) {
  sizeEntryDel(size, startIndex);
  auto const first = freeBlkStartIndexToSz_.find(startIndex);
  ZEL_CHECK_AS(first != freeBlkStartIndexToSz_.end(), "freeBlkStartIndexToSz( startIndex ) > 0",
               blkText("not free", size, startIndex));
  auto const last = freeBlkEndIndexToSz_.find(startIndex + size - 1);
  ZEL_CHECK_AS(last != freeBlkEndIndexToSz_.end(),
               "freeBlkEndIndexToSz( startIndex + blkSz - 1 ) > 0",
               blkText("not free", size, startIndex));
  if (size == blkSz) {
    freeBlkStartIndexToSz_.erase(first);
    freeBlkEndIndexToSz_.erase(last);
    return;
  }
  U32 const restSz = size - blkSz;
  U32 const restStart = startIndex + blkSz;
  if (auto t = Zel::TraceHelper(trace(), traceFreeLists)) {
    t << "Adding free blk: sz " << restSz << ", index " << restStart;
  }
  sizeEntryIs(restSz, restStart);
  auto const next = std::next(first);
  auto node = freeBlkStartIndexToSz_.extract(first);
  node.key() = restStart;
  node.mapped() = restSz;
  freeBlkStartIndexToSz_.insert(next, std::move(node));
  last->second = restSz;
}

void BestFitAllocator::numFreeEntriesInc(U32 n) {
  U32 const now = numFreeEntries_ + n;
  if (auto t = Zel::TraceHelper(trace(), traceCounters)) {
    t << "numFreeEntries increased by " << n << ", now = " << now;
  }
  attributeIs(numFreeEntries_, now, &NotifieeConst::onNumFreeEntries);
}

void BestFitAllocator::numFreeEntriesDec(U32 n) {
  U32 const now = numFreeEntries_ - n;
  if (auto t = Zel::TraceHelper(trace(), traceCounters)) {
    t << "numFreeEntries decreased by " << n << ", now = " << now;
  }
  attributeIs(numFreeEntries_, now, &NotifieeConst::onNumFreeEntries);
}

void BestFitAllocator::handOut(BFA::Blk& blk) {
  inUseBlock_.emplace(blk.index(), &blk);
  blk.allocator_ = this;
  numFreeEntriesDec(blk.size());
}

Zel::Ptr<BFA::Blk> BestFitAllocator::alloc(U32 blkSz) {
  if (auto t = Zel::TraceHelper(trace(), traceBlocks)) t << "Alloc: blkSz " << blkSz;
  ZEL_CHECK_AS(blkSz != 0, "blkSz", "BestFitAllocator::alloc: blkSz 0");
  ZEL_CHECK_AS(blkSz <= maxBlkSz_, "blkSz <= maxBlkSz()",
               "BestFitAllocator::alloc: blkSz " << blkSz << " > maxBlkSz " << maxBlkSz_);
  U32 size;
  U32 start;
  if (auto const sizeClass = freeBlkSet_.lower_bound(blkSz); sizeClass != freeBlkSet_.end()) {
    size = sizeClass->first;
    start = *sizeClass->second->freeBlkIteratorConst().begin();
  } else if (!jumboFreeBlk_.empty()) {
    size = jumboFreeBlk_.begin()->blkSz();
    start = jumboFreeBlk_.begin()->startIndex();
  } else {
    if (auto t = Zel::TraceHelper(trace(), traceNothingFree)) {
      t << "Alloc: blkSz " << blkSz << ", no free blk available";
    }
    return nullptr;
  }
  Zel::Ptr<BFA::Blk> blk = BFA::blkFactory(blkSz, start + offset());
  takeLowEnd(size, start, blkSz);
  handOut(*blk);
  if (auto t = Zel::TraceHelper(trace(), traceBlocks)) t << ", startIndex " << start;
  return blk;
}

Zel::Ptr<BFA::Blk> BestFitAllocator::realloc(U32 index, U32 blkSz) {
  U32 const startIndex = index - offset();
  if (auto t = Zel::TraceHelper(trace(), traceBlocks)) {
    t << "Realloc: startIndex " << startIndex << ", blkSz " << blkSz << ", memSz " << memSz();
  }
  ZEL_CHECK_AS(blkSz != 0, "blkSz", "BestFitAllocator::realloc: blkSz 0");
  ZEL_CHECK_AS(blkSz <= maxBlkSz_, "blkSz <= maxBlkSz()",
               "BestFitAllocator::realloc: blkSz " << blkSz << " > maxBlkSz " << maxBlkSz_);
  ZEL_CHECK_AS(
      index >= offset_ && U64{startIndex} + blkSz <= memSz_, "startIndex + blkSz <= memSz()",
      "BestFitAllocator::realloc: index " << index << ", blkSz " << blkSz << " outside the entries "
                                          << offset_ << " .. " << U64{offset_} + memSz_ - 1);
  auto const covering = freeBlkEndIndexToSz_.lower_bound(startIndex);
  if (covering == freeBlkEndIndexToSz_.end()) {
    if (auto t = Zel::TraceHelper(trace(), traceNothingFree)) {
      t << "No free blocks after startIndex";
    }
    return nullptr;
  }
  U32 const freeEnd = covering->first;
  U32 const freeSz = covering->second;
  U32 const freeStart = freeEnd - freeSz + 1;
  U32 const lastIndex = startIndex + blkSz - 1;
  if (freeStart > startIndex || freeEnd < lastIndex) {
    if (auto t = Zel::TraceHelper(trace(), traceNothingFree)) {
      t << "Not all the required entries are free.";
    }
    return nullptr;
  }
  Zel::Ptr<BFA::Blk> blk = BFA::blkFactory(blkSz, index);
  doRemoveFreeBlk(freeSz, freeStart);
  if (freeStart < startIndex) {
    if (auto t = Zel::TraceHelper(trace(), traceFreeLists)) {
      t << "Adding a free block up till startIndex.";
    }
    doAddFreeBlk(startIndex - freeStart, freeStart);
  }
  if (freeEnd > lastIndex) {
    if (auto t = Zel::TraceHelper(trace(), traceFreeLists)) {
      t << "Adding a free block after new realloced block ends.";
    }
    doAddFreeBlk(freeEnd - lastIndex, lastIndex + 1);
  }
  if (auto t = Zel::TraceHelper(trace(), traceBlocks)) {
    t << "Realloc: blkSz " << blkSz << ", startIndex " << startIndex;
  }
  handOut(*blk);
  return blk;
}

void BestFitAllocator::handleFree(BFA::Blk const& blk) noexcept {
  U32 const startIndex = blk.index() - offset();
  if (auto t = Zel::TraceHelper(trace(), traceBlocks)) {
    t << "Free: startIndex " << startIndex << ", blkSz " << blk.size();
  }
  auto const entry = inUseBlock_.extract(blk.index());
  ZEL_CHECK_AS(!entry.empty() && entry.mapped() == &blk, "inUseBlock( blk.index() ) == blk",
               "BestFitAllocator: freeing blk sz " << blk.size() << ", index " << blk.index()
                                                   << " that is not in use");
  doAddFreeBlk(blk.size(), startIndex);
  numFreeEntriesInc(blk.size());
}

Zel::Ptr<BFA::PendingCmds> BestFitAllocator::defragment() {
  Zel::Ptr<BFA::PendingCmds> cmds = BFA::pendingCmdsFactory();
  if (freeBlkStartIndexToSz_.empty()) {
    if (auto t = Zel::TraceHelper(trace(), traceLifecycle)) t << "No free blocks. Returning.";
    return cmds;
  }
  listBlocks("Free blocks before defragmenting", "Used blocks before defragmenting");
  for (;;) {
    auto const [freeStart, freeSz] = *freeBlkStartIndexToSz_.begin();
    auto const used = inUseBlock_.find(freeStart + freeSz + offset());
    if (used == inUseBlock_.end()) break;
    BFA::Blk& blk = *used->second;
    U32 const oldIndex = blk.index();
    slideDown(blk);
    auto entry = inUseBlock_.extract(used);
    entry.key() = blk.index();
    inUseBlock_.insert(std::move(entry));
    cmds->pendingCmdLogEnq(BFA::PendingCmd(oldIndex, Zel::Ptr<BFA::Blk>(&blk)));
  }
  listBlocks("Free blocks after defragmenting", "Used blocks after defragmenting");
  ZEL_CHECK_AS(freeBlkStartIndexToSz_.size() == 1 && freeBlkEndIndexToSz_.size() == 1 &&
                   freeBlkEndIndexToSz_.begin()->first == memSz_ - 1,
               "( freeBlkStartIndexToSzs() == 1 ) && ( freeBlkEndIndexToSzs() == 1 ) && "
               "( freeBlkEndIndexToSzIterator().key() == memSz() - 1 )",
               "BestFitAllocator::defragment: " << freeBlkStartIndexToSz_.size()
                                                << " free blocks left, not one at the top");
  return cmds;
}

// One step of the compaction: blk sits right above the lowest free block F and moves down to F's
// start. Removing F, freeing blk's old place (which merges with the free block G right above it,
// if any) and taking back what blk covers again leave one free block of F's and G's entries right
// above blk's new end; that net change is made directly. F is the first block of both index maps,
// and G, or else the new block, becomes the first, so the step costs no search in them.
void BestFitAllocator::slideDown(BFA::Blk& blk) {
  auto const lowest = freeBlkStartIndexToSz_.begin();
  U32 const freeStart = lowest->first;
  U32 const freeSz = lowest->second;
  U32 const oldEnd = freeStart + freeSz + blk.size() - 1;
  U32 const newStart = freeStart + blk.size();
  sizeEntryDel(freeSz, freeStart);
  freeBlkStartIndexToSz_.erase(lowest);
  ZEL_CHECK_AS(freeBlkEndIndexToSz_.begin()->first == freeStart + freeSz - 1,
               "freeBlkEndIndexToSz( startIndex + blkSz - 1 ) > 0",
               blkText("not free", freeSz, freeStart));
  freeBlkEndIndexToSz_.erase(freeBlkEndIndexToSz_.begin());
  U32 mergedSz = freeSz;
  auto const above = freeBlkStartIndexToSz_.begin();
  if (above != freeBlkStartIndexToSz_.end() && above->first == oldEnd + 1) {
    sizeEntryDel(above->second, above->first);
    mergedSz += above->second;
    auto node = freeBlkStartIndexToSz_.extract(above);
    node.key() = newStart;
    node.mapped() = mergedSz;
    freeBlkStartIndexToSz_.insert(freeBlkStartIndexToSz_.begin(), std::move(node));
    freeBlkEndIndexToSz_.begin()->second = mergedSz;
  } else {
    freeBlkStartIndexToSz_.emplace_hint(freeBlkStartIndexToSz_.begin(), newStart, mergedSz);
    freeBlkEndIndexToSz_.emplace_hint(freeBlkEndIndexToSz_.begin(), oldEnd, mergedSz);
  }
  if (auto t = Zel::TraceHelper(trace(), traceFreeLists)) {
    t << "Adding free blk: sz " << mergedSz << ", index " << newStart;
  }
  sizeEntryIs(mergedSz, newStart);
  blk.index_ = freeStart + offset();
}

Zel::Ptr<BFA::PendingCmds> BestFitAllocator::resizeMemory(U32 newMemSz) {
  U32 const oldMemSz = memSz();
  if (auto t = Zel::TraceHelper(trace(), traceLifecycle)) {
    t << "Resize memory: old size = " << oldMemSz << ", new size = " << newMemSz;
  }
  if (newMemSz == oldMemSz) return nullptr;
  if (newMemSz > oldMemSz) {
    ZEL_CHECK_AS(U64{newMemSz} + offset_ < 0xFFFFFFFF, "( newMemSz + offset() ) < 0xFFFFFFFF",
                 "BestFitAllocator::resizeMemory: newMemSz "
                     << newMemSz << " + offset " << offset_
                     << " leaves no caller index below 0xFFFFFFFF");
    doAddFreeBlk(newMemSz - oldMemSz, oldMemSz);
    memSzIs(newMemSz, newMemSz - oldMemSz);
    return nullptr;
  }
  if (freeBlkStartIndexToSz_.empty()) return nullptr;
  U32 const shortfall = oldMemSz - newMemSz;
  Zel::Ptr<BFA::PendingCmds> cmds;
  if (freeBlkEndIndexToSz(oldMemSz - 1) < shortfall) cmds = defragment();
  U32 const topSz = freeBlkEndIndexToSz(oldMemSz - 1);
  U32 const topStart = oldMemSz - topSz;
  doRemoveFreeBlk(topSz, topStart);
  if (shortfall < topSz) doAddFreeBlk(topSz - shortfall, topStart);
  U32 const shrink = std::min(shortfall, topSz);
  memSzIs(oldMemSz - shrink, shrink);
  return cmds;
}

// Both counters change before either notification, so that each observer finds memSz,
// numFreeEntries and the free blocks in agreement.
void BestFitAllocator::memSzIs(U32 memSz, U32 change) {
  bool const grows = memSz > memSz_;
  memSz_ = memSz;
  if (grows) {
    numFreeEntriesInc(change);
  } else {
    numFreeEntriesDec(change);
  }
  notify(&NotifieeConst::onMemSz);
}

void BestFitAllocator::listBlocks(char const* freeHeading, char const* usedHeading) const {
  if (!trace().enabled(traceListings)) return;
  if (auto t = Zel::TraceHelper(trace(), traceListings)) t << freeHeading;
  for (auto const& [startIndex, size] : freeBlkStartIndexToSz_) {
    if (auto t = Zel::TraceHelper(trace(), traceListings)) {
      t << "start index = " << startIndex << ", Size = " << size;
    }
  }
  if (auto t = Zel::TraceHelper(trace(), traceListings)) t << usedHeading;
  std::vector<std::pair<U32, U32>> used;
  used.reserve(inUseBlock_.size());
  for (auto const& [index, blk] : inUseBlock_) used.emplace_back(index - offset(), blk->size());
  std::sort(used.begin(), used.end());
  for (auto const& [startIndex, size] : used) {
    if (auto t = Zel::TraceHelper(trace(), traceListings)) {
      t << "start index = " << startIndex << ", Size = " << size;
    }
  }
}

}  // namespace Kiv
