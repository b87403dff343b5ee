// What a cuckoo table reports, and the queue of slot writes that its writer applies.
//
// The writer's side: CuckooCmds is the queue, oldest write first; each CuckooItem puts an item in
// a location, or clears it when the item is null. After every operation of the table the writer
// applies the queue in order and then bumps Config::cmdReadCompleted, which empties it. Applied
// in order, a queue is hitless: every item findable before the operation stays findable after
// each single write.
//
// The rest of Status: one TableStat per table, the items that found no place (kept in order of
// arrival, so that the pending review picks them run after run the same way), and counters that
// watchers follow: pendingItemVersion when the review has placed pending items,
// pendingItemSyslogVersion when items have been pending too long and when that ends.
#pragma once

#include <Kiv/CuckooConfig.h>
#include <Kiv/CuckooHashItem.h>

#include <Zel/Collections.h>
#include <Zel/Entity.h>
#include <Zel/Name.h>
#include <Zel/Types.h>

#include <utility>

namespace Kiv::Cuckoo {

// Orders running sequence numbers across their wrap, for logs spanning less than 2^31 entries.
struct SequenceBefore {
  bool operator()(U32 a, U32 b) const noexcept { return S32(a - b) < 0; }
};

// The counters of one table.
class TableStat : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<TableStat> {
  public:
    virtual void onTableDesc() {}
    virtual void onLookupSuccess() {}
    virtual void onLookupFailures() {}
    virtual void onNumOfEvicts() {}
    virtual void onNumOfHashItems() {}
  };

  TableId tableId() const noexcept { return tableId_; }
  // The table's descriptor as the table was initialised with it.
  Zel::Ptr<TableDescriptor const> const& tableDesc() const noexcept { return tableDesc_; }
  void tableDescIs(Zel::Ptr<TableDescriptor const> const& v) {
    attributeIs(tableDesc_, v, &NotifieeConst::onTableDesc);
  }
  // Kept for their owners; the table's operations leave them alone.
  U32 lookupSuccess() const noexcept { return lookupSuccess_; }
  void lookupSuccessIs(U32 v) { attributeIs(lookupSuccess_, v, &NotifieeConst::onLookupSuccess); }
  U32 lookupFailures() const noexcept { return lookupFailures_; }
  void lookupFailuresIs(U32 v) {
    attributeIs(lookupFailures_, v, &NotifieeConst::onLookupFailures);
  }
  // Queued writes of this table that replace a resident.
  U32 numOfEvicts() const noexcept { return numOfEvicts_; }
  void numOfEvictsIs(U32 v) { attributeIs(numOfEvicts_, v, &NotifieeConst::onNumOfEvicts); }
  void numOfEvictsInc(U32 d) { attributeInc(numOfEvicts_, d, &NotifieeConst::onNumOfEvicts); }
  // Occupied slots of this table in the shadow.
  U32 numOfHashItems() const noexcept { return numOfHashItems_; }
  void numOfHashItemsIs(U32 v) {
    attributeIs(numOfHashItems_, v, &NotifieeConst::onNumOfHashItems);
  }
  void numOfHashItemsInc(U32 d) {
    attributeInc(numOfHashItems_, d, &NotifieeConst::onNumOfHashItems);
  }

  // numOfHashItems / (tableSize x binSize); 0 without a descriptor.
  double occupancy() const noexcept;

  static auto zelAttributes();

protected:
  explicit TableStat(TableId tableId) noexcept : tableId_(tableId) {}

private:
  TableId tableId_;
  Zel::Ptr<TableDescriptor const> tableDesc_;
  U32 lookupSuccess_ = 0;
  U32 lookupFailures_ = 0;
  U32 numOfEvicts_ = 0;
  U32 numOfHashItems_ = 0;
};

Zel::Ptr<TableStat> tableStatFactory(TableId tableId);

// One slot write for the writer: put `item` in `location`, or clear it when item is null.
class CuckooItem : public Zel::PtrInterface {
public:
  CuckooLocation const& location() const noexcept { return location_; }
  Zel::Ptr<HashItem const> const& item() const noexcept { return item_; }
  // What the real table holds in the slot just before this write, as the model knew it when it
  // queued the write; null for a free slot and for writes made outside a HashTable. It lets
  // HashTable::verifyCuckooCmdsHitless rebuild the real table from the shadow.
  Zel::Ptr<HashItem const> const& replacedItem() const noexcept { return replacedItem_; }

  static auto zelAttributes();

protected:
  CuckooItem(CuckooLocation location, Zel::Ptr<HashItem const> item) noexcept
      : location_(location), item_(std::move(item)) {}

private:
  // The table fills in replacedItem, and reuses the writes that nobody holds any more.
  friend class HashTable;

  CuckooLocation location_;
  Zel::Ptr<HashItem const> item_;
  Zel::Ptr<HashItem const> replacedItem_;
};

Zel::Ptr<CuckooItem> cuckooItemFactory(CuckooLocation location, Zel::Ptr<HashItem const> item);

// The queue of slot writes, oldest first. Each write gets the next running sequence number,
// which is what onItemSeq reports when it is queued and when it leaves.
class CuckooCmds : public Zel::Notifier {
public:
  using ItemSeq = Zel::LinkQueue<Zel::Ptr<CuckooItem>>;

  class NotifieeConst : public Zel::NotifieeConstOf<CuckooCmds> {
  public:
    virtual void onItemSeq(U32 /*seq*/) {}
  };

  // The queued writes, the oldest (to apply first) first.
  ItemSeq const& itemSeqIteratorConst() const noexcept { return itemSeq_; }
  U32 itemSeqs() const noexcept { return U32(itemSeq_.size()); }
  // The oldest write, or null.
  Zel::Ptr<CuckooItem> itemSeq() const { return itemSeq_.empty() ? nullptr : itemSeq_.head(); }
  // Appends a write.
  void itemSeqIs(Zel::Ptr<CuckooItem> write);
  // Removes and returns the oldest write, or null when the queue is empty.
  Zel::Ptr<CuckooItem> itemSeqDel();
  void itemSeqDelAll();

  static auto zelAttributes();

protected:
  CuckooCmds() = default;

private:
  ItemSeq itemSeq_;
  U32 nextSeq_ = 0;
};

Zel::Ptr<CuckooCmds> cuckooCmdsFactory();

class Status : public Zel::Notifier {
public:
  using TableStatMap = Zel::RbTreeMap<TableId, Zel::Ptr<TableStat>>;
  using FailLog = Zel::RbTreeMap<U32, float, SequenceBefore>;
  using PendingItems = Zel::RbTreeMap<U64, Zel::Ptr<HashItem const>>;

  class NotifieeConst : public Zel::NotifieeConstOf<Status> {
  public:
    virtual void onTableStat(TableId) {}
    virtual void onCuckooCmds() {}
    virtual void onPendingItemSet(Zel::Ptr<HashItem const> const&) {}
    virtual void onPendingItemVersion() {}
    virtual void onPendingItemSyslogVersion() {}
    virtual void onTotalCmdReadCompleted() {}
    virtual void onRetryCount() {}
    virtual void onLongestCycle() {}
    virtual void onCycleCount() {}
    virtual void onFirstFailLoadFactor(U32 /*seq*/) {}
    virtual void onLastFailLoadFactor(U32 /*seq*/) {}
  };

  Zel::Name name() const noexcept { return name_; }

  Zel::Ptr<TableStat> tableStat(TableId tableId) const { return tableStat_.value(tableId); }
  Zel::Ptr<TableStat> tableStatIs(TableId tableId) {
    return instantiateChild(tableStat_, tableId, &NotifieeConst::onTableStat, tableStatFactory,
                            tableId);
  }
  void tableStatDel(TableId tableId) { entryDel(tableStat_, tableId, &NotifieeConst::onTableStat); }
  void tableStatDelAll() { entryDelAll(tableStat_, &NotifieeConst::onTableStat); }
  U32 tableStats() const noexcept { return U32(tableStat_.size()); }
  TableStatMap const& tableStatIteratorConst() const noexcept { return tableStat_; }

  // The queue the writer drains.
  Zel::Ptr<CuckooCmds> const& cuckooCmds() const noexcept { return cuckooCmds_; }
  void cuckooCmdsIs(Zel::Ptr<CuckooCmds> const& v) {
    attributeIs(cuckooCmds_, v, &NotifieeConst::onCuckooCmds);
  }

  // Items that could not be placed, by handle, kept in order of arrival.
  bool pendingItemSetHas(Zel::Ptr<HashItem const> const& item) const {
    return pendingIndex_.has(item);
  }
  // Adds `item` (not null) at the end of the order, unless it is already pending.
  void pendingItemSetIs(Zel::Ptr<HashItem const> const& item);
  void pendingItemSetDel(Zel::Ptr<HashItem const> const& item);
  void pendingItemSetDelAll();
  U32 pendingItemSets() const noexcept { return U32(pendingIndex_.size()); }
  // The pending items, oldest first, under their arrival numbers.
  PendingItems const& pendingItemSetIteratorConst() const noexcept { return pendingItems_; }

  // Bumped when the review has placed pending items.
  U32 pendingItemVersion() const noexcept { return pendingItemVersion_; }
  void pendingItemVersionIs(U32 v) {
    attributeIs(pendingItemVersion_, v, &NotifieeConst::onPendingItemVersion);
  }
  void pendingItemVersionInc(U32 d) {
    attributeInc(pendingItemVersion_, d, &NotifieeConst::onPendingItemVersion);
  }
  // Bumped when items have been pending longer than the config's interval (again each interval
  // they stay), and once more when the set empties after such a report.
  U32 pendingItemSyslogVersion() const noexcept { return pendingItemSyslogVersion_; }
  void pendingItemSyslogVersionIs(U32 v) {
    attributeIs(pendingItemSyslogVersion_, v, &NotifieeConst::onPendingItemSyslogVersion);
  }
  void pendingItemSyslogVersionInc(U32 d) {
    attributeInc(pendingItemSyslogVersion_, d, &NotifieeConst::onPendingItemSyslogVersion);
  }
  // Writes acknowledged by the writer, over the table's life.
  U32 totalCmdReadCompleted() const noexcept { return totalCmdReadCompleted_; }
  void totalCmdReadCompletedIs(U32 v) {
    attributeIs(totalCmdReadCompleted_, v, &NotifieeConst::onTotalCmdReadCompleted);
  }
  void totalCmdReadCompletedInc(U32 d) {
    attributeInc(totalCmdReadCompleted_, d, &NotifieeConst::onTotalCmdReadCompleted);
  }
  // Failed insert attempts (maxLoop steps without a free slot).
  U32 retryCount() const noexcept { return retryCount_; }
  void retryCountIs(U32 v) { attributeIs(retryCount_, v, &NotifieeConst::onRetryCount); }
  void retryCountInc(U32 d) { attributeInc(retryCount_, d, &NotifieeConst::onRetryCount); }
  // The most cycles removed from one eviction path, and the cycles removed in all.
  U32 longestCycle() const noexcept { return longestCycle_; }
  void longestCycleIs(U32 v) { attributeIs(longestCycle_, v, &NotifieeConst::onLongestCycle); }
  U32 cycleCount() const noexcept { return cycleCount_; }
  void cycleCountIs(U32 v) { attributeIs(cycleCount_, v, &NotifieeConst::onCycleCount); }
  void cycleCountInc(U32 d) { attributeInc(cycleCount_, d, &NotifieeConst::onCycleCount); }

  // The load factor at the first numFailureRecords failed attempts, under running sequence
  // numbers. xIs(v) appends; xDel() drops the oldest entry.
  float firstFailLoadFactor(U32 seq) const { return firstFailLoadFactor_.value(seq); }
  void firstFailLoadFactorIs(float loadFactor);
  void firstFailLoadFactorDel();
  void firstFailLoadFactorDel(U32 seq);
  void firstFailLoadFactorDelAll();
  U32 firstFailLoadFactors() const noexcept { return U32(firstFailLoadFactor_.size()); }
  FailLog const& firstFailLoadFactorIteratorConst() const noexcept { return firstFailLoadFactor_; }
  // The load factor at the latest failed attempts, a sliding log.
  float lastFailLoadFactor(U32 seq) const { return lastFailLoadFactor_.value(seq); }
  void lastFailLoadFactorIs(float loadFactor);
  void lastFailLoadFactorDel();
  void lastFailLoadFactorDel(U32 seq);
  void lastFailLoadFactorDelAll();
  U32 lastFailLoadFactors() const noexcept { return U32(lastFailLoadFactor_.size()); }
  FailLog const& lastFailLoadFactorIteratorConst() const noexcept { return lastFailLoadFactor_; }

  // Occupied slots over all slots of every table with a descriptor; 0 when there are none.
  double occupancy() const;

  static auto zelAttributes();

protected:
  explicit Status(Zel::Name name) noexcept : name_(name) {}

private:
  Zel::Name name_;
  TableStatMap tableStat_;
  Zel::Ptr<CuckooCmds> cuckooCmds_;
  PendingItems pendingItems_;
  Zel::HashMap2018<Zel::Ptr<HashItem const>, U64> pendingIndex_;
  U64 nextPendingArrival_ = 0;
  U32 pendingItemVersion_ = 0;
  U32 pendingItemSyslogVersion_ = 0;
  U32 totalCmdReadCompleted_ = 0;
  U32 retryCount_ = 0;
  U32 longestCycle_ = 0;
  U32 cycleCount_ = 0;
  FailLog firstFailLoadFactor_;
  U32 nextFirstFailSeq_ = 0;
  FailLog lastFailLoadFactor_;
  U32 nextLastFailSeq_ = 0;
};

Zel::Ptr<Status> statusFactory(Zel::Name name);

inline auto TableStat::zelAttributes() {
  return Zel::entityAttributes<TableStat>(
      "Kiv::Cuckoo::TableStat", &tableStatFactory,
      Zel::ctorParams(Zel::ctorParam("tableId", &TableStat::tableId)),
      Zel::scalar("tableDesc", &TableStat::tableDesc, &TableStat::tableDescIs),
      Zel::scalar("lookupSuccess", &TableStat::lookupSuccess, &TableStat::lookupSuccessIs),
      Zel::scalar("lookupFailures", &TableStat::lookupFailures, &TableStat::lookupFailuresIs),
      Zel::scalar("numOfEvicts", &TableStat::numOfEvicts, &TableStat::numOfEvictsIs),
      Zel::scalar("numOfHashItems", &TableStat::numOfHashItems, &TableStat::numOfHashItemsIs),
      Zel::computed("occupancy", &TableStat::occupancy));
}

inline auto CuckooItem::zelAttributes() {
  return Zel::entityAttributes<CuckooItem>(
      "Kiv::Cuckoo::CuckooItem", &cuckooItemFactory,
      Zel::ctorParams(Zel::ctorParam("location", &CuckooItem::location),
                      Zel::ctorParam("item", &CuckooItem::item)),
      Zel::computed("replacedItem", &CuckooItem::replacedItem));
}

inline auto CuckooCmds::zelAttributes() {
  return Zel::entityAttributes<CuckooCmds>("Kiv::Cuckoo::CuckooCmds", &cuckooCmdsFactory,
                                           Zel::ctorParams(),
                                           Zel::computed("itemSeqs", &CuckooCmds::itemSeqs));
}

inline auto Status::zelAttributes() {
  using DelSeq = void (Status::*)(U32);
  return Zel::entityAttributes<Status>(
      "Kiv::Cuckoo::Status", &statusFactory, Zel::ctorParams(Zel::ctorParam("name", &Status::name)),
      Zel::collection("tableStat", &Status::tableStat_, nullptr, &Status::tableStatDel,
                      &Status::tableStatDelAll),
      Zel::scalar("cuckooCmds", &Status::cuckooCmds, &Status::cuckooCmdsIs),
      Zel::computed("pendingItemSets", &Status::pendingItemSets),
      Zel::scalar("pendingItemVersion", &Status::pendingItemVersion, &Status::pendingItemVersionIs),
      Zel::scalar("pendingItemSyslogVersion", &Status::pendingItemSyslogVersion,
                  &Status::pendingItemSyslogVersionIs),
      Zel::scalar("totalCmdReadCompleted", &Status::totalCmdReadCompleted,
                  &Status::totalCmdReadCompletedIs),
      Zel::scalar("retryCount", &Status::retryCount, &Status::retryCountIs),
      Zel::scalar("longestCycle", &Status::longestCycle, &Status::longestCycleIs),
      Zel::scalar("cycleCount", &Status::cycleCount, &Status::cycleCountIs),
      Zel::collection("firstFailLoadFactor", &Status::firstFailLoadFactor_, nullptr,
                      static_cast<DelSeq>(&Status::firstFailLoadFactorDel),
                      &Status::firstFailLoadFactorDelAll),
      Zel::collection("lastFailLoadFactor", &Status::lastFailLoadFactor_, nullptr,
                      static_cast<DelSeq>(&Status::lastFailLoadFactorDel),
                      &Status::lastFailLoadFactorDelAll),
      Zel::computed("occupancy", &Status::occupancy));
}

}  // namespace Kiv::Cuckoo
