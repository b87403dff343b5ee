// Kiv::Cuckoo::HashTable: the software model of a multi-table, multi-bin cuckoo hash table whose
// real storage (a hardware table) is written by a separate writer.
//
// The model keeps a shadow of every occupied slot, decides where each item goes (displacing
// residents by a random walk that never evicts from the same table twice in a row), and queues,
// for every successful insert or removal, the slot writes the writer must apply. The queue is
// hitless: applied in order to the real table, every item findable before the call stays findable
// after each single write. Items that find no place are parked in the status's pending set and
// retried on the activity clock.
//
// Use:
//
//   auto config = configFactory("fib", 2);
//   config->tableDescListIs(TableId(0), 8192, 4);
//   config->tableDescListIs(TableId(1), 8192, 4);
//   auto status = statusFactory("fib");
//   auto table = hashTableFactory(config, status);
//   table->handleInitialized();
//   table->insertItem(intHashItemFactory(key, h0, h1, h2));
//   // The writer applies status->cuckooCmds()->itemSeqIteratorConst() in order, then
//   // acknowledges with config->cmdReadCompletedInc(1), which empties the queue.
//
// The caller supplies the hashes (HashItem::getHash); the table never computes one. Random
// choices come from the process generator (std::rand), so a non-zero Config::randomSeed makes
// every placement and every queued write reproducible, run after run. One caveat is part of the
// contract: with this file's trace handle ("CuckooHashTable") at level 5 or more, initialisation
// with a seed draws one extra number to trace it, so traced and untraced runs place differently.
//
// Choices this model makes:
// - The shadow is one array of slots per table, because bucket probes are the hot path and
//   dense small integer keys need no hashing: 16 bytes a slot on 64-bit targets (the resident's
//   handle, its hash for the table, a mark), allocated by handleInitialized. A probe calls isEqual
//   only where the stored hash equals the item's, which is why equal items must hash equally.
//   The geometry and each table's TableStat are bound at initialisation and do not follow later
//   changes of the config's descriptors. Table ids run 0..8 (9 is the null id): at most nine
//   tables.
// - itemLocation() is the allocation-free lookup; lookupItem() allocates only its result. Once
//   warm, a walk allocates nothing: the table reuses EvictCmds and, after the writer's
//   acknowledgement, CuckooItems that nothing else holds any more.
// - Each queued write remembers the resident it replaces (CuckooItem::replacedItem), which lets
//   verifyCuckooCmdsHitless() rebuild the real table from the shadow and replay the queue.
// - The pending set keeps its items in order of arrival, so the review's "advance s places" is
//   the same run after run; membership is by handle.
// - Introspection is reachable through reflection as computed attributes of HashTable:
//   currentSnapshot, displayItems (every bucket), verifyCuckooCmdsHitless and
//   tryReduceCuckooCmds (applied to the status's queue). Their text layouts are for people.
//
// Everything here runs on one activity; handlers of notifiees must not call back into the table's
// operations while it is in the middle of one.
#pragma once

#include <Zel/Clock.h>
#include <Zel/Collections.h>
#include <Zel/Entity.h>
#include <Zel/Types.h>
#include <Zel/Value.h>

#include <array>
#include <compare>
#include <cstddef>
#include <iosfwd>
#include <optional>
#include <utility>
#include <vector>

namespace Kiv::Cuckoo {

// Orders running sequence numbers across their wrap, for logs spanning less than 2^31 entries.
struct SequenceBefore {
  bool operator()(U32 a, U32 b) const noexcept { return S32(a - b) < 0; }
};

// ---- Value types ------------------------------------------------------------------------------

// A table (way) of the model: 0..8, or the null id 9 meaning no table. The string form is the
// number; the stream form is "( n )".
class TableId : public Zel::Value<TableId> {
public:
  static constexpr U8 min = 0;
  static constexpr U8 null = 9;

  constexpr TableId() noexcept = default;
  // Throws RangeException for a value above null.
  explicit TableId(U8 value) { valueIs(value); }

  U8 value() const noexcept { return value_; }
  void valueIs(U8 value) {
    if (value > null) outOfRange();
    value_ = value;
  }
  bool isNull() const noexcept { return value_ == null; }

  friend std::strong_ordering operator<=>(TableId a, TableId b) noexcept {
    return a.value_ <=> b.value_;
  }
  friend std::ostream& operator<<(std::ostream& out, TableId id);

  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::Cuckoo::TableId",
                            Zel::field("value", &TableId::value, &TableId::valueIs));
  }

private:
  [[noreturn]] static void outOfRange();

  U8 value_ = null;
};

// One slot: a bin of a bucket (index) of a table. Ordered by table, bin, then index; the stream
// form is "TableId/BinId/Index: ( t, b, i )".
class CuckooLocation : public Zel::Value<CuckooLocation> {
public:
  CuckooLocation() noexcept = default;
  CuckooLocation(TableId tableId, U8 binId, U32 index) noexcept
      : tableId_(tableId), binId_(binId), index_(index) {}

  TableId tableId() const noexcept { return tableId_; }
  void tableIdIs(TableId tableId) noexcept { tableId_ = tableId; }
  U8 binId() const noexcept { return binId_; }
  void binIdIs(U8 binId) noexcept { binId_ = binId; }
  U32 index() const noexcept { return index_; }
  void indexIs(U32 index) noexcept { index_ = index; }

  friend std::strong_ordering operator<=>(CuckooLocation const& a,
                                          CuckooLocation const& b) noexcept {
    if (auto c = a.tableId_ <=> b.tableId_; c != 0) return c;
    if (auto c = a.binId_ <=> b.binId_; c != 0) return c;
    return a.index_ <=> b.index_;
  }
  friend std::ostream& operator<<(std::ostream& out, CuckooLocation const& location);

  static constexpr auto zelFields() {
    return Zel::valueFields(
        "Kiv::Cuckoo::CuckooLocation",
        Zel::field("tableId", &CuckooLocation::tableId, &CuckooLocation::tableIdIs),
        Zel::field("binId", &CuckooLocation::binId, &CuckooLocation::binIdIs),
        Zel::field("index", &CuckooLocation::index, &CuckooLocation::indexIs));
  }

private:
  TableId tableId_;
  U8 binId_ = 0;
  U32 index_ = 0;
};

// ---- Items ------------------------------------------------------------------------------------

// An item the table places. Items are immutable once handed to the table; two items that are
// isEqual must return the same hash for every table. The base versions fail an assertion: a
// derived class supplies all three.
class HashItem : public Zel::PtrInterface {
public:
  // Whether `other` (never null) is the same item as this one.
  virtual bool isEqual(Zel::Ptr<HashItem const> const& other) const;
  // The item's hash for `tableId`; the table reduces it modulo the table size.
  virtual U32 getHash(TableId tableId) const;
  // A short text naming the item, for traces and dumps.
  virtual Zel::String toStrep() const;

protected:
  HashItem() = default;
};

class IntHashItem;
Zel::Ptr<IntHashItem> intHashItemFactory(U32 key, U32 hashIndex0, U32 hashIndex1, U32 hashIndex2);

// An item named by an integer key with caller-chosen hashes: hashIndex0 for table 0, hashIndex1
// for table 1 and hashIndex2 for every other table. Equality compares the key only.
class IntHashItem : public HashItem {
public:
  U32 key() const noexcept { return key_; }
  U32 hashIndex0() const noexcept { return hashIndex0_; }
  U32 hashIndex1() const noexcept { return hashIndex1_; }
  U32 hashIndex2() const noexcept { return hashIndex2_; }

  bool isEqual(Zel::Ptr<HashItem const> const& other) const override;
  U32 getHash(TableId tableId) const override;
  // "IntHashItem(<key>)".
  Zel::String toStrep() const override;

  static auto zelAttributes() {
    return Zel::entityAttributes<IntHashItem>(
        "Kiv::Cuckoo::IntHashItem", &intHashItemFactory,
        Zel::ctorParams(Zel::ctorParam("key", &IntHashItem::key),
                        Zel::ctorParam("hashIndex0", &IntHashItem::hashIndex0),
                        Zel::ctorParam("hashIndex1", &IntHashItem::hashIndex1),
                        Zel::ctorParam("hashIndex2", &IntHashItem::hashIndex2)));
  }

protected:
  IntHashItem(U32 key, U32 hashIndex0, U32 hashIndex1, U32 hashIndex2) noexcept
      : key_(key), hashIndex0_(hashIndex0), hashIndex1_(hashIndex1), hashIndex2_(hashIndex2) {}

private:
  U32 key_;
  U32 hashIndex0_;
  U32 hashIndex1_;
  U32 hashIndex2_;
};

// ---- Configuration ----------------------------------------------------------------------------

class TableDescriptor;
Zel::Ptr<TableDescriptor> tableDescriptorFactory(TableId tableId, U32 tableSize, U8 binSize);

// The geometry of one table: tableSize buckets of binSize slots. Throws RangeException
// "TableDescriptor::binSize < 1 or > 8 not allowed" for a bin size outside 1..8.
class TableDescriptor : public Zel::PtrInterface {
public:
  static constexpr U8 minBinSize = 1;
  static constexpr U8 maxBinSize = 8;

  TableId tableId() const noexcept { return tableId_; }
  U32 tableSize() const noexcept { return tableSize_; }
  U8 binSize() const noexcept { return binSize_; }

  static auto zelAttributes() {
    return Zel::entityAttributes<TableDescriptor>(
        "Kiv::Cuckoo::TableDescriptor", &tableDescriptorFactory,
        Zel::ctorParams(Zel::ctorParam("tableId", &TableDescriptor::tableId),
                        Zel::ctorParam("tableSize", &TableDescriptor::tableSize),
                        Zel::ctorParam("binSize", &TableDescriptor::binSize)));
  }

protected:
  TableDescriptor(TableId tableId, U32 tableSize, U8 binSize);

private:
  TableId tableId_;
  U32 tableSize_;
  U8 binSize_;
};

class Config;
Zel::Ptr<Config> configFactory(Zel::Name name, U8 numTables);

// What the table is and how it behaves. Every attribute may change at any time; the table reads
// the knobs on each operation, but the geometry only at initialisation.
class Config : public Zel::Notifier {
public:
  using TableDescList = Zel::RbTreeMap<TableId, Zel::Ptr<TableDescriptor>>;

  class NotifieeConst : public Zel::NotifieeConstOf<Config> {
  public:
    virtual void onTableDescList(TableId) {}
    virtual void onCmdReadCompleted() {}
    virtual void onTryReduceCmdsOnInsert() {}
    virtual void onHitless() {}
    virtual void onMaxLoop() {}
    virtual void onMaxRetry() {}
    virtual void onReviewPendingItemSupport() {}
    virtual void onPendingItemReviewQuantum() {}
    virtual void onMaxPendingItemsToReview() {}
    virtual void onSyslogIntervalForPendingItems() {}
    virtual void onRandomSeed() {}
    virtual void onNumFailureRecords() {}
  };

  Zel::Name name() const noexcept { return name_; }
  // The number of tables (ways); their ids are 0..numTables-1.
  U8 numTables() const noexcept { return numTables_; }

  // The descriptor of one table, or null.
  Zel::Ptr<TableDescriptor> tableDescList(TableId tableId) const {
    return tableDescList_.value(tableId);
  }
  // Makes the descriptor of `tableId`, or returns the present one; asking again with another
  // size throws NameInUseException naming _tableSize or _binSize.
  Zel::Ptr<TableDescriptor> tableDescListIs(TableId tableId, U32 tableSize, U8 binSize) {
    return instantiateChild(tableDescList_, tableId, &NotifieeConst::onTableDescList,
                   tableDescriptorFactory, tableId, tableSize, binSize);
  }
  void tableDescListDel(TableId tableId) {
    entryDel(tableDescList_, tableId, &NotifieeConst::onTableDescList);
  }
  void tableDescListDelAll() { entryDelAll(tableDescList_, &NotifieeConst::onTableDescList); }
  // The number of descriptors.
  U32 tableDescLists() const noexcept { return U32(tableDescList_.size()); }
  // The descriptors in table-id order.
  TableDescList const& tableDescListIteratorConst() const noexcept { return tableDescList_; }

  // Bumped by the writer once it has applied the queued writes; the table then empties the queue.
  U32 cmdReadCompleted() const noexcept { return cmdReadCompleted_; }
  void cmdReadCompletedIs(U32 v) {
    attributeIs(cmdReadCompleted_, v, &NotifieeConst::onCmdReadCompleted);
  }
  void cmdReadCompletedInc(U32 d) {
    attributeInc(cmdReadCompleted_, d, &NotifieeConst::onCmdReadCompleted);
  }

  // Carried for writers that reduce queues themselves; the table does not consult it.
  bool tryReduceCmdsOnInsert() const noexcept { return tryReduceCmdsOnInsert_; }
  void tryReduceCmdsOnInsertIs(bool v) {
    attributeIs(tryReduceCmdsOnInsert_, v, &NotifieeConst::onTryReduceCmdsOnInsert);
  }
  // Remove cycles from every eviction path before queueing it, which makes the queue hitless.
  bool hitless() const noexcept { return hitless_; }
  void hitlessIs(bool v) { attributeIs(hitless_, v, &NotifieeConst::onHitless); }
  // Eviction steps per attempt, and attempts per insert.
  U32 maxLoop() const noexcept { return maxLoop_; }
  void maxLoopIs(U32 v) { attributeIs(maxLoop_, v, &NotifieeConst::onMaxLoop); }
  U32 maxRetry() const noexcept { return maxRetry_; }
  void maxRetryIs(U32 v) { attributeIs(maxRetry_, v, &NotifieeConst::onMaxRetry); }
  // Retry pending items every pendingItemReviewQuantum seconds, at most
  // maxPendingItemsToReview per review.
  bool reviewPendingItemSupport() const noexcept { return reviewPendingItemSupport_; }
  void reviewPendingItemSupportIs(bool v) {
    attributeIs(reviewPendingItemSupport_, v, &NotifieeConst::onReviewPendingItemSupport);
  }
  Seconds pendingItemReviewQuantum() const noexcept { return pendingItemReviewQuantum_; }
  void pendingItemReviewQuantumIs(Seconds v) {
    attributeIs(pendingItemReviewQuantum_, v, &NotifieeConst::onPendingItemReviewQuantum);
  }
  U32 maxPendingItemsToReview() const noexcept { return maxPendingItemsToReview_; }
  void maxPendingItemsToReviewIs(U32 v) {
    attributeIs(maxPendingItemsToReview_, v, &NotifieeConst::onMaxPendingItemsToReview);
  }
  // How long items may stay pending before Status::pendingItemSyslogVersion reports it; an
  // infinite interval never reports.
  Seconds syslogIntervalForPendingItems() const noexcept { return syslogIntervalForPendingItems_; }
  void syslogIntervalForPendingItemsIs(Seconds v) {
    attributeIs(syslogIntervalForPendingItems_, v, &NotifieeConst::onSyslogIntervalForPendingItems);
  }
  // Seeds the process random generator at initialisation; 0 leaves it as it is.
  U32 randomSeed() const noexcept { return randomSeed_; }
  void randomSeedIs(U32 v) { attributeIs(randomSeed_, v, &NotifieeConst::onRandomSeed); }
  // Capacity of the failure load-factor logs of Status.
  U32 numFailureRecords() const noexcept { return numFailureRecords_; }
  void numFailureRecordsIs(U32 v) {
    attributeIs(numFailureRecords_, v, &NotifieeConst::onNumFailureRecords);
  }

  static auto zelAttributes() {
    return Zel::entityAttributes<Config>(
        "Kiv::Cuckoo::Config", &configFactory,
        Zel::ctorParams(Zel::ctorParam("name", &Config::name),
                        Zel::ctorParam("numTables", &Config::numTables)),
        Zel::collection("tableDescList", &Config::tableDescList_, nullptr,
                        &Config::tableDescListDel, &Config::tableDescListDelAll),
        Zel::scalar("cmdReadCompleted", &Config::cmdReadCompleted, &Config::cmdReadCompletedIs),
        Zel::scalar("tryReduceCmdsOnInsert", &Config::tryReduceCmdsOnInsert,
                    &Config::tryReduceCmdsOnInsertIs),
        Zel::scalar("hitless", &Config::hitless, &Config::hitlessIs),
        Zel::scalar("maxLoop", &Config::maxLoop, &Config::maxLoopIs),
        Zel::scalar("maxRetry", &Config::maxRetry, &Config::maxRetryIs),
        Zel::scalar("reviewPendingItemSupport", &Config::reviewPendingItemSupport,
                    &Config::reviewPendingItemSupportIs),
        Zel::scalar("pendingItemReviewQuantum", &Config::pendingItemReviewQuantum,
                    &Config::pendingItemReviewQuantumIs),
        Zel::scalar("maxPendingItemsToReview", &Config::maxPendingItemsToReview,
                    &Config::maxPendingItemsToReviewIs),
        Zel::scalar("syslogIntervalForPendingItems", &Config::syslogIntervalForPendingItems,
                    &Config::syslogIntervalForPendingItemsIs),
        Zel::scalar("randomSeed", &Config::randomSeed, &Config::randomSeedIs),
        Zel::scalar("numFailureRecords", &Config::numFailureRecords,
                    &Config::numFailureRecordsIs));
  }

protected:
  Config(Zel::Name name, U8 numTables) noexcept : name_(name), numTables_(numTables) {}

private:
  Zel::Name name_;
  U8 numTables_;
  TableDescList tableDescList_;
  U32 cmdReadCompleted_ = 0;
  bool tryReduceCmdsOnInsert_ = true;
  bool hitless_ = true;
  U32 maxLoop_ = 200;
  U32 maxRetry_ = 3;
  bool reviewPendingItemSupport_ = true;
  Seconds pendingItemReviewQuantum_ = 5.0;
  U32 maxPendingItemsToReview_ = 25;
  Seconds syslogIntervalForPendingItems_ = 60.0;
  U32 randomSeed_ = 0;
  U32 numFailureRecords_ = 100;
};

// ---- Status -----------------------------------------------------------------------------------

class TableStat;
Zel::Ptr<TableStat> tableStatFactory(TableId tableId);

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

  static auto zelAttributes() {
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

class CuckooItem;
Zel::Ptr<CuckooItem> cuckooItemFactory(CuckooLocation location, Zel::Ptr<HashItem const> item);

// One slot write for the writer: put `item` in `location`, or clear it when item is null.
class CuckooItem : public Zel::PtrInterface {
public:
  CuckooLocation const& location() const noexcept { return location_; }
  Zel::Ptr<HashItem const> const& item() const noexcept { return item_; }
  // What the real table holds in the slot just before this write, as the model knew it when it
  // queued the write; null for a free slot and for writes made outside a HashTable.
  Zel::Ptr<HashItem const> const& replacedItem() const noexcept { return replacedItem_; }

  static auto zelAttributes() {
    return Zel::entityAttributes<CuckooItem>(
        "Kiv::Cuckoo::CuckooItem", &cuckooItemFactory,
        Zel::ctorParams(Zel::ctorParam("location", &CuckooItem::location),
                        Zel::ctorParam("item", &CuckooItem::item)),
        Zel::computed("replacedItem", &CuckooItem::replacedItem));
  }

protected:
  CuckooItem(CuckooLocation location, Zel::Ptr<HashItem const> item) noexcept
      : location_(location), item_(std::move(item)) {}

private:
  friend class HashTable;

  CuckooLocation location_;
  Zel::Ptr<HashItem const> item_;
  Zel::Ptr<HashItem const> replacedItem_;
};

class CuckooCmds;
Zel::Ptr<CuckooCmds> cuckooCmdsFactory();

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

  static auto zelAttributes() {
    return Zel::entityAttributes<CuckooCmds>("Kiv::Cuckoo::CuckooCmds", &cuckooCmdsFactory,
                                             Zel::ctorParams(),
                                             Zel::computed("itemSeqs", &CuckooCmds::itemSeqs));
  }

protected:
  CuckooCmds() = default;

private:
  ItemSeq itemSeq_;
  U32 nextSeq_ = 0;
};

class Status;
Zel::Ptr<Status> statusFactory(Zel::Name name);

// What the table reports: per-table counters, the queue of writes, the pending items, and the
// signals of the pending review and of failed inserts.
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
    return instantiateChild(tableStat_, tableId, &NotifieeConst::onTableStat, tableStatFactory, tableId);
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

  static auto zelAttributes() {
    using DelSeq = void (Status::*)(U32);
    return Zel::entityAttributes<Status>(
        "Kiv::Cuckoo::Status", &statusFactory,
        Zel::ctorParams(Zel::ctorParam("name", &Status::name)),
        Zel::collection("tableStat", &Status::tableStat_, nullptr, &Status::tableStatDel,
                        &Status::tableStatDelAll),
        Zel::scalar("cuckooCmds", &Status::cuckooCmds, &Status::cuckooCmdsIs),
        Zel::computed("pendingItemSets", &Status::pendingItemSets),
        Zel::scalar("pendingItemVersion", &Status::pendingItemVersion,
                    &Status::pendingItemVersionIs),
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

// ---- Eviction paths ---------------------------------------------------------------------------

class EvictCmd;
Zel::Ptr<EvictCmd> evictCmdFactory(Zel::Ptr<HashItem const> oldItem,
                                   Zel::Ptr<HashItem const> newItem, CuckooLocation location);

// One slot write of the model: newItem replaced oldItem (null: the slot was free) in location.
class EvictCmd : public Zel::PtrInterface {
public:
  Zel::Ptr<HashItem const> const& oldItem() const noexcept { return oldItem_; }
  Zel::Ptr<HashItem const> const& newItem() const noexcept { return newItem_; }
  CuckooLocation const& location() const noexcept { return location_; }

  static auto zelAttributes() {
    return Zel::entityAttributes<EvictCmd>(
        "Kiv::Cuckoo::EvictCmd", &evictCmdFactory,
        Zel::ctorParams(Zel::ctorParam("oldItem", &EvictCmd::oldItem),
                        Zel::ctorParam("newItem", &EvictCmd::newItem),
                        Zel::ctorParam("location", &EvictCmd::location)));
  }

protected:
  EvictCmd(Zel::Ptr<HashItem const> oldItem, Zel::Ptr<HashItem const> newItem,
           CuckooLocation location) noexcept
      : oldItem_(std::move(oldItem)), newItem_(std::move(newItem)), location_(location) {}

private:
  friend class HashTable;

  Zel::Ptr<HashItem const> oldItem_;
  Zel::Ptr<HashItem const> newItem_;
  CuckooLocation location_;
};

class EvictCmdPath;
Zel::Ptr<EvictCmdPath> evictCmdPathFactory();

// The slot writes of one insert attempt, as a stack: the latest write is on top.
class EvictCmdPath : public Zel::PtrInterface {
public:
  U32 cmdLogs() const noexcept { return U32(cmdLog_.size()); }
  // The latest write, or null.
  Zel::Ptr<EvictCmd> cmdLog() const { return cmdLog_.empty() ? nullptr : cmdLog_.head(); }
  // Pushes a write on top.
  void cmdLogIs(Zel::Ptr<EvictCmd> cmd) { cmdLog_.push(std::move(cmd)); }
  // Pops and returns the latest write, or null when the path is empty.
  Zel::Ptr<EvictCmd> cmdLogDel() { return cmdLog_.empty() ? nullptr : cmdLog_.pop(); }
  void cmdLogDelAll() noexcept { cmdLog_.delAll(); }

  static auto zelAttributes() {
    return Zel::entityAttributes<EvictCmdPath>("Kiv::Cuckoo::EvictCmdPath", &evictCmdPathFactory,
                                               Zel::ctorParams(),
                                               Zel::computed("cmdLogs", &EvictCmdPath::cmdLogs));
  }

protected:
  EvictCmdPath() = default;

private:
  Zel::LinkStack<Zel::Ptr<EvictCmd>> cmdLog_;
};

// ---- The engine -------------------------------------------------------------------------------

class HashTable;
Zel::Ptr<HashTable> hashTableFactory(Zel::Ptr<Config> config, Zel::Ptr<Status> status);

class HashTable : public Zel::PtrInterface {
public:
  ~HashTable() override;

  Zel::Ptr<Config> const& config() const noexcept { return config_; }
  Zel::Ptr<Status> const& status() const noexcept { return status_; }
  // The resident of `location` in the shadow; null for a free slot or a location outside the
  // tables.
  Zel::Ptr<HashItem const> itemShadow(CuckooLocation const& location) const;
  // The table of the latest eviction step, or null after a step that found a free slot.
  TableId lastEvictedTable() const noexcept { return lastEvictedTable_; }
  // When the pending set was first seen non-empty by the review, and when the review last
  // reported; beginningOfTime (negative infinity) when unset.
  Seconds pendingItemBeginTime() const noexcept { return pendingItemBeginTime_; }
  Seconds lastSyslogTime() const noexcept { return lastSyslogTime_; }
  bool initialized() const noexcept { return initialized_; }
  // The clock of the pending review: the activity's clock from initialisation on. Null detaches
  // the review; its wake-up time is kept.
  Zel::Ptr<Zel::Clock const> const& clock() const noexcept { return zelClock_.notifier(); }
  void clockIs(Zel::Ptr<Zel::Clock const> const& clock) { zelClock_.notifierIs(clock); }
  // When the pending review runs next; endOfTime when it is not armed.
  Seconds pendingItemReviewTime() const noexcept { return zelClock_.timeMin(); }

  // Checks the configuration (fatal assertions), builds the shadow, binds each table's TableStat,
  // attaches the clock, seeds the random generator and makes an empty queue. Call once, before
  // any other operation.
  void handleInitialized();

  // The slot holding an item equal to `item` (not null), probing tables in id order and bins in
  // order. Allocates nothing.
  std::optional<CuckooLocation> itemLocation(Zel::Ptr<HashItem const> const& item) const;
  // The same as a CuckooItem (location and resident), or null when absent.
  Zel::Ptr<CuckooItem> lookupItem(Zel::Ptr<HashItem const> const& item) const;

  // Places `item`, queueing its writes in the status's queue. When it finds no place the table
  // is as it was, the item joins the pending set and false is returned. Arms the review while
  // items are pending. A present item returns true and queues nothing.
  bool insertItem(Zel::Ptr<HashItem const> const& item);
  // The placement engine: up to maxRetry attempts of up to maxLoop eviction steps; on success the
  // path's writes go to `cuckooCmds` in hitless order, on failure every touched slot is restored.
  bool insert(Zel::Ptr<HashItem const> const& item, Zel::Ptr<CuckooCmds> const& cuckooCmds);
  // Removes the item equal to `item` (queueing the clear), and drops `item` from the pending set
  // whether or not it was in the table. False for a null or absent item.
  bool deleteItem(Zel::Ptr<HashItem const> const& item);
  // The removal engine; never moves other items.
  bool remove(Zel::Ptr<HashItem const> const& item, Zel::Ptr<CuckooCmds> const& cuckooCmds);

  // The engine's steps, public for tools and tests. They keep the shadow and the counters
  // consistent but queue nothing themselves.
  //
  // item.getHash(tableId) mod the table's size.
  U32 getTableIndexForItem(TableId tableId, Zel::Ptr<HashItem const> const& item) const;
  // One eviction step: the first free slot of the item's buckets (tables in id order, bins in
  // order), else a random bin of a random table other than lastEvictedTable. Pushes the write on
  // `evictPath` and returns the displaced item, or null when a free slot was taken.
  Zel::Ptr<HashItem const> tryInsertItem(Zel::Ptr<HashItem const> const& item,
                                         Zel::Ptr<EvictCmdPath> const& evictPath);
  // Writes `item` (null: clear) into `location` of the shadow, keeping numOfHashItems.
  Zel::Ptr<EvictCmd> setItemAtLocation(Zel::Ptr<HashItem const> const& item,
                                       CuckooLocation const& location);
  // Queues the writes of a successful path, newest first and each slot once, after removing its
  // cycles when the config is hitless; empties the path.
  void updateCuckooCmds(Zel::Ptr<EvictCmdPath> const& evictPath,
                        Zel::Ptr<CuckooCmds> const& cuckooCmds);
  // Removes every run of the path that puts an item down and later picks it up from the same
  // slot, restoring the slots of the run; returns the number of runs removed.
  U32 maybeDeleteCycle(Zel::Ptr<EvictCmdPath> const& evictPath);
  // Restores every slot the path touched to its content before the path; empties the path.
  void revertChanges(Zel::Ptr<EvictCmdPath> const& evictPath);
  // Logs a failed attempt's load factor in the status's first and last failure logs.
  void updateFailStats(double loadFactor);

  // Reaction to Config::cmdReadCompleted: counts the queued writes as read and empties the queue.
  void handleCmdReadCompleted();
  // Reaction to the clock: retries some pending items and raises or clears the reports.
  void reviewPendingItems();

  // Introspection. The snapshot lists the counters, the pending items and every occupied slot.
  Zel::String currentSnapshot() const;
  // The first `rows` buckets, one column per table and one line per bin; "-" is a free slot.
  // Tables whose geometry differs from table 0's are reported first.
  Zel::String displayItems(U32 rows) const;
  // Rebuilds the real table from the shadow and the queue, replays the queue write by write and
  // checks that no displaced item is lost and that the end state is the shadow. Failures are
  // traced; returns whether all checks held.
  bool verifyCuckooCmdsHitless() const;
  // Offers a shorter equivalent of `cuckooCmds`; the queue is already one write per slot and
  // call, so there is none: returns null.
  Zel::Ptr<CuckooCmds> tryReduceCuckooCmds(Zel::Ptr<CuckooCmds> const& cuckooCmds) const;

  static auto zelAttributes() {
    return Zel::entityAttributes<HashTable>(
        "Kiv::Cuckoo::HashTable", &hashTableFactory,
        Zel::ctorParams(Zel::ctorParam("config", &HashTable::config),
                        Zel::ctorParam("status", &HashTable::status)),
        Zel::computed("lastEvictedTable", &HashTable::lastEvictedTable),
        Zel::computed("pendingItemBeginTime", &HashTable::pendingItemBeginTime),
        Zel::computed("lastSyslogTime", &HashTable::lastSyslogTime),
        Zel::computed("initialized", &HashTable::initialized),
        Zel::computed("clock", &HashTable::clock),
        Zel::computed("pendingItemReviewTime", &HashTable::pendingItemReviewTime),
        Zel::computed("currentSnapshot", &HashTable::currentSnapshot),
        Zel::computed("displayItems", &HashTable::displayAllItems),
        Zel::computed("verifyCuckooCmdsHitless", &HashTable::verifyCuckooCmdsHitless),
        Zel::computed("tryReduceCuckooCmds", &HashTable::tryReduceQueuedCmds));
  }

protected:
  HashTable(Zel::Ptr<Config> config, Zel::Ptr<Status> status);

private:
  class ZelConfig : public Config::NotifieeConst {
  public:
    explicit ZelConfig(HashTable& owner) noexcept : owner_(owner) {}
    void onCmdReadCompleted() override { owner_.handleCmdReadCompleted(); }

  private:
    HashTable& owner_;
  };

  class ZelClock : public Zel::Clock::NotifieeConst {
  public:
    explicit ZelClock(HashTable& owner) noexcept : owner_(owner) {}
    void onTime() override { owner_.reviewPendingItems(); }

  private:
    HashTable& owner_;
  };

  struct Slot;
  struct Table;
  using Commands = std::vector<Zel::Ptr<EvictCmd>>;
  using BucketIndexes = std::array<U32, TableId::null>;

  bool holdsSlot(CuckooLocation const& location) const noexcept;
  Slot& slot(CuckooLocation const& location);
  Zel::Ptr<HashItem const> writeSlot(Zel::Ptr<HashItem const> const& item,
                                     CuckooLocation const& location);
  U32 newMarkEpoch();
  // Adds `location` to the set of `epoch`; false when it is in it already.
  bool markSlot(CuckooLocation const& location, U32 epoch);
  Commands& drainOldestFirst(EvictCmdPath& evictPath);
  bool deleteNewestCycle(Commands& commands);
  void restoreRun(Commands::iterator begin, Commands::iterator end);
  std::optional<CuckooLocation> probe(Zel::Ptr<HashItem const> const& item,
                                      std::optional<CuckooLocation>& free) const;
  // The first free slot of the item's buckets; fills `indexes` for the tables it probed.
  std::optional<CuckooLocation> firstFreeSlot(Zel::Ptr<HashItem const> const& item,
                                              BucketIndexes& indexes) const;
  void countCycles(U32 cycles);
  void queueWrite(Zel::Ptr<CuckooCmds> const& cuckooCmds, CuckooLocation const& location,
                  Zel::Ptr<HashItem const> const& item, Zel::Ptr<HashItem const> const& replaced);
  void emitWrite(Zel::Ptr<CuckooCmds> const& cuckooCmds, CuckooLocation const& location,
                 Zel::Ptr<HashItem const> const& newItem, Zel::Ptr<HashItem const> const& oldItem);
  void replacedByOlderWrite(CuckooCmds const& cuckooCmds, U32 emitted,
                            CuckooLocation const& location,
                            Zel::Ptr<HashItem const> const& replaced);
  Zel::Ptr<EvictCmd> makeEvictCmd(Zel::Ptr<HashItem const> oldItem,
                                  Zel::Ptr<HashItem const> const& newItem,
                                  CuckooLocation const& location);
  Zel::Ptr<CuckooItem> makeCuckooItem(CuckooLocation const& location,
                                      Zel::Ptr<HashItem const> const& item);
  // Keep an entity nothing else holds for the make functions above.
  void recycle(Zel::Ptr<EvictCmd> cmd);
  void recycle(Zel::Ptr<CuckooItem> write);
  void armReviewIfPending();
  void reportPendingTime(Seconds now);
  Zel::String displayAllItems() const;
  Zel::Ptr<CuckooCmds> tryReduceQueuedCmds() const;

  Zel::Ptr<Config> config_;
  Zel::Ptr<Status> status_;
  std::vector<Table> tables_;
  TableId lastEvictedTable_;
  Seconds pendingItemBeginTime_ = Zel::beginningOfTime;
  Seconds lastSyslogTime_ = Zel::beginningOfTime;
  bool initialized_ = false;
  ZelConfig zelConfig_{*this};
  ZelClock zelClock_{*this};

  // Scratch reused by every operation, so that a walk allocates nothing once it has warmed up.
  static constexpr std::size_t maxSpares = 1024;
  Zel::Ptr<EvictCmdPath> evictPath_;
  Commands commands_;
  Commands spareCmds_;
  std::vector<Zel::Ptr<CuckooItem>> spareWrites_;
  U32 markEpoch_ = 0;
};

}  // namespace Kiv::Cuckoo
