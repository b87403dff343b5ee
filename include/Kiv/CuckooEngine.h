// Kiv::Cuckoo::HashTable: the engine of the cuckoo model. It keeps a shadow of every occupied
// slot, places each item (displacing residents by a random walk that never evicts from the same
// table twice in a row), queues the writes of every successful insert or removal in the status's
// CuckooCmds, parks the items that find no place in the status's pending set and retries them on
// the activity clock.
//
// Choices this engine makes:
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
// - The steps of an insert (the eviction step, the slot write, queueing a path with its cycles
//   removed, the undo of a failed attempt, the failure logs) are private: between them the shadow
//   and the queue disagree, which only the operation that runs them may allow.
// - Introspection is reachable through reflection as computed attributes: currentSnapshot,
//   displayItems (every bucket), verifyCuckooCmdsHitless and tryReduceCuckooCmds (applied to the
//   status's queue). Their text layouts are for people.
//
// Handlers of notifiees must not call back into the table's operations while it is in the middle
// of one.
#pragma once

#include <Kiv/CuckooConfig.h>
#include <Kiv/CuckooEvictPath.h>
#include <Kiv/CuckooHashItem.h>
#include <Kiv/CuckooStatus.h>

#include <Zel/Clock.h>
#include <Zel/Entity.h>
#include <Zel/String.h>
#include <Zel/Types.h>

#include <array>
#include <cstddef>
#include <optional>
#include <vector>

namespace Kiv::Cuckoo {

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

  // item.getHash(tableId) mod the table's size.
  U32 getTableIndexForItem(TableId tableId, Zel::Ptr<HashItem const> const& item) const;

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

  static auto zelAttributes();

protected:
  HashTable(Zel::Ptr<Config> config, Zel::Ptr<Status> status);

private:
  // Reaches the steps below, for the tests of the eviction walk and of path queueing.
  friend struct HashTableTestPeer;

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

  // The steps of an insert. They keep the shadow and the counters consistent but queue nothing
  // themselves.
  //
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

Zel::Ptr<HashTable> hashTableFactory(Zel::Ptr<Config> config, Zel::Ptr<Status> status);

inline auto HashTable::zelAttributes() {
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

}  // namespace Kiv::Cuckoo
