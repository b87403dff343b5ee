#include <Kiv/CuckooStatus.h>

#include "CuckooCapacity.h"

#include <Zel/GenericIf.h>
#include <Zel/Trace.h>

#include <utility>

namespace Kiv::Cuckoo {

namespace {

constexpr auto trace = Zel::traceHandle<"CuckooHashTable">;
constexpr int traceOccupancy = 7;  // the load of each table, when a failed attempt asks for it

}  // namespace

Zel::Ptr<TableStat> tableStatFactory(TableId tableId) { return Zel::allocate<TableStat>(tableId); }

double TableStat::occupancy() const noexcept {
  if (!tableDesc_) return 0.0;
  U64 const capacity = capacityOf(*tableDesc_);
  return capacity ? double(numOfHashItems_) / double(capacity) : 0.0;
}

Zel::Ptr<CuckooItem> cuckooItemFactory(CuckooLocation location, Zel::Ptr<HashItem const> item) {
  return Zel::allocate<CuckooItem>(location, std::move(item));
}

Zel::Ptr<CuckooCmds> cuckooCmdsFactory() { return Zel::allocate<CuckooCmds>(); }

void CuckooCmds::itemSeqIs(Zel::Ptr<CuckooItem> write) {
  itemSeq_.push(std::move(write));
  notify(&NotifieeConst::onItemSeq, nextSeq_++);
}

Zel::Ptr<CuckooItem> CuckooCmds::itemSeqDel() {
  if (itemSeq_.empty()) return nullptr;
  U32 const seq = nextSeq_ - U32(itemSeq_.size());
  Zel::Ptr<CuckooItem> oldest = itemSeq_.pop();
  notify(&NotifieeConst::onItemSeq, seq);
  return oldest;
}

void CuckooCmds::itemSeqDelAll() {
  U32 seq = nextSeq_ - U32(itemSeq_.size());
  itemSeq_.delAll();
  if (zelNotifiees().empty()) return;
  for (; seq != nextSeq_; ++seq) notify(&NotifieeConst::onItemSeq, seq);
}

Zel::Ptr<Status> statusFactory(Zel::Name name) { return Zel::allocate<Status>(name); }

void Status::pendingItemSetIs(Zel::Ptr<HashItem const> const& item) {
  Zel::refuseNull(item, "Kiv::Cuckoo::Status", "pendingItemSet");
  if (pendingIndex_.has(item)) return;
  U64 const arrival = nextPendingArrival_++;
  pendingIndex_.valueIs(item, arrival);
  pendingItems_.valueIs(arrival, item);
  notify(&NotifieeConst::onPendingItemSet, item);
}

void Status::pendingItemSetDel(Zel::Ptr<HashItem const> const& item) {
  U64 const* const arrival = pendingIndex_.find(item);
  if (!arrival) return;
  pendingItems_.del(*arrival);
  pendingIndex_.del(item);
  notify(&NotifieeConst::onPendingItemSet, item);
}

void Status::pendingItemSetDelAll() {
  PendingItems removed;
  std::swap(removed, pendingItems_);
  pendingIndex_.delAll();
  for (auto const& entry : removed) notify(&NotifieeConst::onPendingItemSet, entry.second);
}

void Status::firstFailLoadFactorIs(float loadFactor) {
  U32 const seq = nextFirstFailSeq_++;
  entryIs(firstFailLoadFactor_, seq, loadFactor, &NotifieeConst::onFirstFailLoadFactor);
}

void Status::firstFailLoadFactorDel() {
  if (firstFailLoadFactor_.empty()) return;
  firstFailLoadFactorDel(firstFailLoadFactor_.begin()->first);
}

void Status::firstFailLoadFactorDel(U32 seq) {
  entryDel(firstFailLoadFactor_, seq, &NotifieeConst::onFirstFailLoadFactor);
}

void Status::firstFailLoadFactorDelAll() {
  entryDelAll(firstFailLoadFactor_, &NotifieeConst::onFirstFailLoadFactor);
}

void Status::lastFailLoadFactorIs(float loadFactor) {
  U32 const seq = nextLastFailSeq_++;
  entryIs(lastFailLoadFactor_, seq, loadFactor, &NotifieeConst::onLastFailLoadFactor);
}

void Status::lastFailLoadFactorDel() {
  if (lastFailLoadFactor_.empty()) return;
  lastFailLoadFactorDel(lastFailLoadFactor_.begin()->first);
}

void Status::lastFailLoadFactorDel(U32 seq) {
  entryDel(lastFailLoadFactor_, seq, &NotifieeConst::onLastFailLoadFactor);
}

void Status::lastFailLoadFactorDelAll() {
  entryDelAll(lastFailLoadFactor_, &NotifieeConst::onLastFailLoadFactor);
}

double Status::occupancy() const {
  U64 occupied = 0;
  U64 available = 0;
  for (auto const& [tableId, stat] : tableStat_) {
    U64 const capacity = stat->tableDesc() ? capacityOf(*stat->tableDesc()) : 0;
    if (auto t = Zel::TraceHelper(trace(), traceOccupancy)) {
      t << "Table[" << unsigned(tableId.value()) << "] numOfHashItems: " << stat->numOfHashItems()
        << " / " << capacity << ", numOfEvicts: " << stat->numOfEvicts();
    }
    occupied += stat->numOfHashItems();
    available += capacity;
  }
  double const loadFactor = available ? double(occupied) / double(available) : 0.0;
  if (auto t = Zel::TraceHelper(trace(), traceOccupancy)) {
    t << "Total available: " << available << " occupied: " << occupied
      << " loadFactor: " << loadFactor;
  }
  return loadFactor;
}

Zel::TypeRegistration<TableStat, CuckooItem, CuckooCmds, Status> const registration;

}  // namespace Kiv::Cuckoo
