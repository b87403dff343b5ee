// What a cuckoo table is and how it behaves.
//
// A Config names the tables (numTables of them, ids 0..numTables-1) and holds one
// TableDescriptor per table: its geometry, tableSize buckets of binSize slots. The table reads
// the geometry once, at initialisation; every other attribute may change at any time and is read
// on each operation. The writer acknowledges the queued writes through cmdReadCompleted, the one
// attribute that the table reacts to.
#pragma once

#include <Kiv/CuckooHashItem.h>

#include <Zel/Collections.h>
#include <Zel/Entity.h>
#include <Zel/Name.h>
#include <Zel/Types.h>

namespace Kiv::Cuckoo {

// The geometry of one table. Made with a bin size outside 1..8 it throws RangeException
// "TableDescriptor::binSize < 1 or > 8 not allowed".
class TableDescriptor : public Zel::PtrInterface {
public:
  static constexpr U8 minBinSize = 1;
  static constexpr U8 maxBinSize = 8;

  TableId tableId() const noexcept { return tableId_; }
  // Buckets of the table.
  U32 tableSize() const noexcept { return tableSize_; }
  // Slots of each bucket.
  U8 binSize() const noexcept { return binSize_; }

  static auto zelAttributes();

protected:
  TableDescriptor(TableId tableId, U32 tableSize, U8 binSize);

private:
  TableId tableId_;
  U32 tableSize_;
  U8 binSize_;
};

Zel::Ptr<TableDescriptor> tableDescriptorFactory(TableId tableId, U32 tableSize, U8 binSize);

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

  static auto zelAttributes();

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

Zel::Ptr<Config> configFactory(Zel::Name name, U8 numTables);

inline auto TableDescriptor::zelAttributes() {
  return Zel::entityAttributes<TableDescriptor>(
      "Kiv::Cuckoo::TableDescriptor", &tableDescriptorFactory,
      Zel::ctorParams(Zel::ctorParam("tableId", &TableDescriptor::tableId),
                      Zel::ctorParam("tableSize", &TableDescriptor::tableSize),
                      Zel::ctorParam("binSize", &TableDescriptor::binSize)));
}

inline auto Config::zelAttributes() {
  return Zel::entityAttributes<Config>(
      "Kiv::Cuckoo::Config", &configFactory,
      Zel::ctorParams(Zel::ctorParam("name", &Config::name),
                      Zel::ctorParam("numTables", &Config::numTables)),
      Zel::collection("tableDescList", &Config::tableDescList_, nullptr, &Config::tableDescListDel,
                      &Config::tableDescListDelAll),
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
      Zel::scalar("numFailureRecords", &Config::numFailureRecords, &Config::numFailureRecordsIs));
}

}  // namespace Kiv::Cuckoo
