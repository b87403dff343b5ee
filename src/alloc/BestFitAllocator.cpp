#include <Kiv/BestFitAllocator.h>

#include <Zel/Assert.h>
#include <Zel/Trace.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace Kiv {

namespace {

// Trace levels: lifecycle and maintenance, requests that find nothing, each block handed out or
// returned, counter changes, free-list bookkeeping, and the block listings of a compaction.
constexpr int kLifecycle = 2;
constexpr int kNothingFree = 3;
constexpr int kBlocks = 5;
constexpr int kCounters = 7;
constexpr int kFreeLists = 8;
constexpr int kListings = 9;

// Where a trace statement stands; the defaults capture the statement's own file, line and function.
struct TraceAt {
  int level;
  char const* file = __builtin_FILE();
  unsigned line = __builtin_LINE();
  char const* function = __builtin_FUNCTION();
};

Zel::TraceHandle const& traceHandle() {
  static Zel::TraceHandle const& handle = Zel::traceHandle<"BestFitAllocator">();
  return handle;
}

// One trace line made of `parts`. The level is tested first, inline, so that a disabled statement
// on the alloc and free paths costs a load and a branch rather than two calls into the runtime.
template <class... Parts>
void trace(TraceAt const& at, Parts const&... parts) {
  if (!traceHandle().enabled(at.level)) [[likely]] return;
  Zel::TraceHelper line(traceHandle(), at.level, at.file, at.line, at.function);
  (line << ... << parts);
}

// Misuse or a broken invariant whose condition cannot be written as the C++ that tests it.
[[noreturn]] void failed(char const* condition, std::string const& detail,
                         char const* file = __builtin_FILE(), int line = __builtin_LINE(),
                         char const* function = __builtin_FUNCTION()) {
  Zel::checkFailed(condition, detail, file, line, function);
}

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
  ZEL_CHECK(memSz(), "BestFitAllocator: memSz 0, the space must have entries");
  trace({kLifecycle}, "memSz = ", memSz(), ", offset = ", offset(), ", maxBlkSz = ", maxBlkSz());
  if (U64{memSz()} + offset() >= 0xFFFFFFFF) {
    failed("( memSz() + offset() ) < 0xFFFFFFFF",
           "BestFitAllocator: memSz " + std::to_string(memSz()) + " + offset " +
               std::to_string(offset()) + " leaves no caller index below 0xFFFFFFFF");
  }
  ZEL_CHECK(maxBlkSz(), "BestFitAllocator: maxBlkSz 0, no block could be allocated");
  ZEL_CHECK(maxBlkSz() < memSz(),
            "BestFitAllocator: maxBlkSz " << maxBlkSz() << " not below memSz " << memSz());
  doAddFreeBlk(memSz(), 0);
  numFreeEntries_ = memSz();
  trace({kLifecycle}, "Initialized allocator: memSz ", memSz(), " offset ", offset(),
        " maxBlkSz ", maxBlkSz());
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
  trace({kFreeLists}, "Adding free blk: sz ", blkSz, ", index ", startIndex);
  auto above = freeBlkStartIndexToSz_.lower_bound(startIndex);
  auto endAbove = freeBlkEndIndexToSz_.lower_bound(startIndex == 0 ? 0 : startIndex - 1);
  auto mergedStart = freeBlkStartIndexToSz_.end();
  auto mergedEnd = freeBlkEndIndexToSz_.end();
  if (startIndex > 0 && endAbove != freeBlkEndIndexToSz_.end() &&
      endAbove->first == startIndex - 1) {
    U32 const leftSz = endAbove->second;
    U32 const leftStart = startIndex - leftSz;
    traceRemoving(leftSz, leftStart);
    sizeEntryDel(leftSz, leftStart);
    if (above == freeBlkStartIndexToSz_.begin() || std::prev(above)->first != leftStart) {
      failed("freeBlkStartIndexToSz( startIndex ) > 0", blkText("not free", leftSz, leftStart));
    }
    mergedStart = std::prev(above);
    endAbove = freeBlkEndIndexToSz_.erase(endAbove);
    startIndex = leftStart;
    blkSz += leftSz;
  }
  if (above != freeBlkStartIndexToSz_.end() && above->first == startIndex + blkSz) {
    U32 const rightStart = above->first;
    U32 const rightSz = above->second;
    traceRemoving(rightSz, rightStart);
    sizeEntryDel(rightSz, rightStart);
    if (endAbove == freeBlkEndIndexToSz_.end() || endAbove->first != rightStart + rightSz - 1) {
      failed("freeBlkEndIndexToSz( startIndex + blkSz - 1 ) > 0",
             blkText("not free", rightSz, rightStart));
    }
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
    if (freeBlkStartIndexToSz_.size() == before) {
      failed("freeBlkStartIndexToSz( startIndex ) == 0",
             blkText("a free blk starts there already", blkSz, startIndex));
    }
  }
  if (mergedEnd != freeBlkEndIndexToSz_.end()) {
    mergedEnd->second = blkSz;
  } else {
    std::size_t const before = freeBlkEndIndexToSz_.size();
    freeBlkEndIndexToSz_.emplace_hint(endAbove, startIndex + blkSz - 1, blkSz);
    if (freeBlkEndIndexToSz_.size() == before) {
      failed("freeBlkEndIndexToSz( startIndex + blkSz - 1 ) == 0",
             blkText("a free blk ends there already", blkSz, startIndex));
    }
  }
}

void BestFitAllocator::doRemoveFreeBlk(U32 blkSz, U32 startIndex) {
  traceRemoving(blkSz, startIndex);
  sizeEntryDel(blkSz, startIndex);
  if (freeBlkStartIndexToSz_.erase(startIndex) == 0) {
    failed("freeBlkStartIndexToSz( startIndex ) > 0", blkText("not free", blkSz, startIndex));
  }
  if (freeBlkEndIndexToSz_.erase(startIndex + blkSz - 1) == 0) {
    failed("freeBlkEndIndexToSz( startIndex + blkSz - 1 ) > 0",
           blkText("not free", blkSz, startIndex));
  }
}

void BestFitAllocator::traceRemoving(U32 blkSz, U32 startIndex) const {
  trace({kFreeLists}, "Removing free blk: sz ", blkSz, ", index ", startIndex);
}

void BestFitAllocator::sizeEntryIs(U32 blkSz, U32 startIndex) {
  if (blkSz > maxBlkSz()) {
    if (!jumboFreeBlk_.emplace(blkSz, startIndex).second) {
      failed("!jumboFreeBlk( BFA::JumboFreeBlk( blkSz, startIndex ) )",
             blkText("already free", blkSz, startIndex));
    }
    return;
  }
  Zel::Ptr<BFA::FreeBlkSet>& sizeClass = freeBlkSet_[blkSz];
  if (!sizeClass) {
    trace({kListings}, "Creating freeBlkSet for blkSz = ", blkSz);
    sizeClass = BFA::freeBlkSetFactory(blkSz);
  }
  if (!sizeClass->freeBlkIs(startIndex)) {
    failed("!freeBlkSet( blkSz )->freeBlk( startIndex )",
           blkText("already free", blkSz, startIndex));
  }
}

void BestFitAllocator::sizeEntryDel(U32 blkSz, U32 startIndex) {
  if (blkSz > maxBlkSz()) {
    if (jumboFreeBlk_.erase(BFA::JumboFreeBlk(blkSz, startIndex)) == 0) {
      failed("jumboFreeBlk( BFA::JumboFreeBlk( blkSz, startIndex ) )",
             blkText("not free", blkSz, startIndex));
    }
    return;
  }
  auto const sizeClass = freeBlkSet_.find(blkSz);
  if (sizeClass == freeBlkSet_.end() || !sizeClass->second->freeBlkDel(startIndex)) {
    failed("freeBlkSet( blkSz )->freeBlk( startIndex )", blkText("not free", blkSz, startIndex));
  }
  if (sizeClass->second->freeBlks() == 0) {
    trace({kListings}, "Deleting freeBlkSet for blkSz = ", blkSz);
    freeBlkSet_.erase(sizeClass);
  }
}

// doRemoveFreeBlk(size, startIndex) then doAddFreeBlk(size - blkSz, startIndex + blkSz), with
// the same traces and result, in one lookup per index map: the rest cannot merge, since the block
// below it is the one handed out and free blocks never touch, so its map nodes are those of the
// whole block, with the start moved up and the size reduced.
void BestFitAllocator::takeLowEnd(U32 size, U32 startIndex, U32 blkSz) {
  traceRemoving(size, startIndex);
  sizeEntryDel(size, startIndex);
  auto const first = freeBlkStartIndexToSz_.find(startIndex);
  if (first == freeBlkStartIndexToSz_.end()) {
    failed("freeBlkStartIndexToSz( startIndex ) > 0", blkText("not free", size, startIndex));
  }
  auto const last = freeBlkEndIndexToSz_.find(startIndex + size - 1);
  if (last == freeBlkEndIndexToSz_.end()) {
    failed("freeBlkEndIndexToSz( startIndex + blkSz - 1 ) > 0",
           blkText("not free", size, startIndex));
  }
  if (size == blkSz) {
    freeBlkStartIndexToSz_.erase(first);
    freeBlkEndIndexToSz_.erase(last);
    return;
  }
  U32 const restSz = size - blkSz;
  U32 const restStart = startIndex + blkSz;
  trace({kFreeLists}, "Adding free blk: sz ", restSz, ", index ", restStart);
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
  trace({kCounters}, "numFreeEntries increased by ", n, ", now = ", now);
  attributeIs(numFreeEntries_, now, &NotifieeConst::onNumFreeEntries);
}

void BestFitAllocator::numFreeEntriesDec(U32 n) {
  U32 const now = numFreeEntries_ - n;
  trace({kCounters}, "numFreeEntries decreased by ", n, ", now = ", now);
  attributeIs(numFreeEntries_, now, &NotifieeConst::onNumFreeEntries);
}

void BestFitAllocator::handOut(BFA::Blk& blk) {
  inUseBlock_.emplace(blk.index(), &blk);
  blk.allocator_ = this;
  numFreeEntriesDec(blk.size());
}

Zel::Ptr<BFA::Blk> BestFitAllocator::alloc(U32 blkSz) {
  trace({kBlocks}, "Alloc: blkSz ", blkSz);
  ZEL_CHECK(blkSz, "BestFitAllocator::alloc: blkSz 0");
  ZEL_CHECK(blkSz <= maxBlkSz(),
            "BestFitAllocator::alloc: blkSz " << blkSz << " > maxBlkSz " << maxBlkSz());
  U32 size;
  U32 start;
  if (auto const sizeClass = freeBlkSet_.lower_bound(blkSz); sizeClass != freeBlkSet_.end()) {
    size = sizeClass->first;
    start = *sizeClass->second->freeBlkIteratorConst().begin();
  } else if (!jumboFreeBlk_.empty()) {
    size = jumboFreeBlk_.begin()->blkSz();
    start = jumboFreeBlk_.begin()->startIndex();
  } else {
    trace({kNothingFree}, "Alloc: blkSz ", blkSz, ", no free blk available");
    return nullptr;
  }
  Zel::Ptr<BFA::Blk> blk = BFA::blkFactory(blkSz, start + offset());
  takeLowEnd(size, start, blkSz);
  handOut(*blk);
  trace({kBlocks}, ", startIndex ", start);
  return blk;
}

Zel::Ptr<BFA::Blk> BestFitAllocator::realloc(U32 index, U32 blkSz) {
  U32 const startIndex = index - offset();
  trace({kBlocks}, "Realloc: startIndex ", startIndex, ", blkSz ", blkSz, ", memSz ", memSz());
  ZEL_CHECK(blkSz, "BestFitAllocator::realloc: blkSz 0");
  ZEL_CHECK(blkSz <= maxBlkSz(),
            "BestFitAllocator::realloc: blkSz " << blkSz << " > maxBlkSz " << maxBlkSz());
  if (index < offset() || U64{startIndex} + blkSz > memSz()) {
    failed("startIndex + blkSz <= memSz()",
           "BestFitAllocator::realloc: index " + std::to_string(index) + ", blkSz " +
               std::to_string(blkSz) + " outside the entries " + std::to_string(offset()) +
               " .. " + std::to_string(U64{offset()} + memSz() - 1));
  }
  auto const covering = freeBlkEndIndexToSz_.lower_bound(startIndex);
  if (covering == freeBlkEndIndexToSz_.end()) {
    trace({kNothingFree}, "No free blocks after startIndex");
    return nullptr;
  }
  U32 const freeEnd = covering->first;
  U32 const freeSz = covering->second;
  U32 const freeStart = freeEnd - freeSz + 1;
  U32 const lastIndex = startIndex + blkSz - 1;
  if (freeStart > startIndex || freeEnd < lastIndex) {
    trace({kNothingFree}, "Not all the required entries are free.");
    return nullptr;
  }
  Zel::Ptr<BFA::Blk> blk = BFA::blkFactory(blkSz, index);
  doRemoveFreeBlk(freeSz, freeStart);
  if (freeStart < startIndex) {
    trace({kFreeLists}, "Adding a free block up till startIndex.");
    doAddFreeBlk(startIndex - freeStart, freeStart);
  }
  if (freeEnd > lastIndex) {
    trace({kFreeLists}, "Adding a free block after new realloced block ends.");
    doAddFreeBlk(freeEnd - lastIndex, lastIndex + 1);
  }
  trace({kBlocks}, "Realloc: blkSz ", blkSz, ", startIndex ", startIndex);
  handOut(*blk);
  return blk;
}

void BestFitAllocator::handleFree(BFA::Blk const& blk) noexcept {
  U32 const startIndex = blk.index() - offset();
  trace({kBlocks}, "Free: startIndex ", startIndex, ", blkSz ", blk.size());
  auto const entry = inUseBlock_.extract(blk.index());
  if (entry.empty() || entry.mapped() != &blk) {
    failed("inUseBlock( blk.index() ) == blk",
           "BestFitAllocator: freeing blk sz " + std::to_string(blk.size()) + ", index " +
               std::to_string(blk.index()) + " that is not in use");
  }
  doAddFreeBlk(blk.size(), startIndex);
  numFreeEntriesInc(blk.size());
}

Zel::Ptr<BFA::PendingCmds> BestFitAllocator::defragment() {
  Zel::Ptr<BFA::PendingCmds> cmds = BFA::pendingCmdsFactory();
  if (freeBlkStartIndexToSz_.empty()) {
    trace({kLifecycle}, "No free blocks. Returning.");
    return cmds;
  }
  traceBlocks("Free blocks before defragmenting", "Used blocks before defragmenting");
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
  traceBlocks("Free blocks after defragmenting", "Used blocks after defragmenting");
  if (freeBlkStartIndexToSz_.size() != 1 || freeBlkEndIndexToSz_.size() != 1 ||
      freeBlkEndIndexToSz_.begin()->first != memSz() - 1) {
    failed("( freeBlkStartIndexToSzs() == 1 ) && ( freeBlkEndIndexToSzs() == 1 ) && "
           "( freeBlkEndIndexToSzIterator().key() == memSz() - 1 )",
           "BestFitAllocator::defragment: " + std::to_string(freeBlkStartIndexToSz_.size()) +
               " free blocks left, not one at the top");
  }
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
  traceRemoving(freeSz, freeStart);
  sizeEntryDel(freeSz, freeStart);
  freeBlkStartIndexToSz_.erase(lowest);
  if (freeBlkEndIndexToSz_.begin()->first != freeStart + freeSz - 1) {
    failed("freeBlkEndIndexToSz( startIndex + blkSz - 1 ) > 0",
           blkText("not free", freeSz, freeStart));
  }
  freeBlkEndIndexToSz_.erase(freeBlkEndIndexToSz_.begin());
  U32 mergedSz = freeSz;
  auto const above = freeBlkStartIndexToSz_.begin();
  if (above != freeBlkStartIndexToSz_.end() && above->first == oldEnd + 1) {
    traceRemoving(above->second, above->first);
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
  trace({kFreeLists}, "Adding free blk: sz ", mergedSz, ", index ", newStart);
  sizeEntryIs(mergedSz, newStart);
  blk.index_ = freeStart + offset();
}

Zel::Ptr<BFA::PendingCmds> BestFitAllocator::resizeMemory(U32 newMemSz) {
  U32 const oldMemSz = memSz();
  trace({kLifecycle}, "Resize memory: old size = ", oldMemSz, ", new size = ", newMemSz);
  if (newMemSz == oldMemSz) return nullptr;
  if (newMemSz > oldMemSz) {
    if (U64{newMemSz} + offset() >= 0xFFFFFFFF) {
      failed("( newMemSz + offset() ) < 0xFFFFFFFF",
             "BestFitAllocator::resizeMemory: newMemSz " + std::to_string(newMemSz) +
                 " + offset " + std::to_string(offset()) +
                 " leaves no caller index below 0xFFFFFFFF");
    }
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

void BestFitAllocator::traceBlocks(char const* freeHeading, char const* usedHeading) const {
  if (!traceHandle().enabled(kListings)) return;
  auto line = [](U32 startIndex, U32 size) {
    trace({kListings}, "start index = ", startIndex, ", Size = ", size);
  };
  trace({kListings}, freeHeading);
  for (auto const& [startIndex, size] : freeBlkStartIndexToSz_) line(startIndex, size);
  trace({kListings}, usedHeading);
  std::vector<std::pair<U32, U32>> used;
  used.reserve(inUseBlock_.size());
  for (auto const& [index, blk] : inUseBlock_) used.emplace_back(index - offset(), blk->size());
  std::sort(used.begin(), used.end());
  for (auto const& [startIndex, size] : used) line(startIndex, size);
}

}  // namespace Kiv
