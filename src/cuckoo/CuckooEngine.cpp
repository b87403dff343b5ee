#include <Kiv/CuckooEngine.h>

#include "CuckooCapacity.h"

#include <Zel/Activity.h>
#include <Zel/Assert.h>
#include <Zel/GenericIf.h>
#include <Zel/System.h>
#include <Zel/Trace.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace Kiv::Cuckoo {

namespace {

constexpr auto trace = Zel::traceHandle<"CuckooHashTable">;

constexpr int traceReport = 3;  // failed attempts, pending-item reports, verification failures
constexpr int traceEvent = 5;   // one line per call: seeding, present or absent items, reviews
constexpr int tracePath = 7;    // per path: cycles counted and deleted; tryReduceCuckooCmds
constexpr int traceWrite = 9;   // per slot write and per command examined

Zel::String text(Zel::Ptr<HashItem const> const& item) {
  return item ? item->toStrep() : Zel::String("None");
}

std::string describe(EvictCmd const& cmd) {
  std::ostringstream out;
  out << cmd.location() << " old: " << text(cmd.oldItem()) << " new: " << text(cmd.newItem());
  return out.str();
}

}  // namespace

// One slot of the shadow. `hash` is the resident's hash for the slot's table: a probe calls
// isEqual only where it agrees with the item's, so it rarely touches the resident objects. `mark`
// is the epoch of the latest location set that took the slot in (newMarkEpoch).
struct HashTable::Slot {
  Zel::Ptr<HashItem const> item;
  U32 hash = 0;
  U32 mark = 0;
};

// One table of the shadow: slot (bin, index) is slots[index * binSize + bin].
struct HashTable::Table {
  U32 tableSize;
  U8 binSize;
  Zel::Ptr<TableStat> stat;
  std::vector<Slot> slots;

  Slot& at(U8 binId, U32 index) noexcept { return slots[std::size_t(index) * binSize + binId]; }
  Slot const& at(U8 binId, U32 index) const noexcept {
    return slots[std::size_t(index) * binSize + binId];
  }
};

Zel::Ptr<HashTable> hashTableFactory(Zel::Ptr<Config> config, Zel::Ptr<Status> status) {
  return Zel::allocate<HashTable>(std::move(config), std::move(status));
}

HashTable::HashTable(Zel::Ptr<Config> config, Zel::Ptr<Status> status)
    : config_(std::move(config)), status_(std::move(status)), evictPath_(evictCmdPathFactory()) {
  Zel::refuseNull(config_, "Kiv::Cuckoo::HashTable", "config");
  Zel::refuseNull(status_, "Kiv::Cuckoo::HashTable", "status");
  zelConfig_.notifierIs(config_);
}

HashTable::~HashTable() = default;

void HashTable::handleInitialized() {
  ZEL_ASSERT_AS(!initialized_, "!initialized()");
  ZEL_ASSERT_AS(config_->numTables(), "config()->numTables()");
  ZEL_ASSERT_AS(config_->numTables() == config_->tableDescLists(),
                "config()->numTables() == config()->tableDescLists()");
  ZEL_ASSERT_AS(config_->maxRetry(), "config()->maxRetry()");
  ZEL_ASSERT_AS(config_->maxLoop(), "config()->maxLoop()");
  ZEL_ASSERT_AS(config_->numTables() < TableId::null, "config()->numTables() < TableId::null");

  U8 expected = 0;
  for (auto const& [key, tableDesc] : config_->tableDescListIteratorConst()) {
    TableId const tableId(expected++);
    ZEL_ASSERT_AS(tableDesc->tableId() == tableId, "tableDesc->tableId() == tableId");
    ZEL_ASSERT_AS(tableDesc->tableSize(), "tableDesc->tableSize()");
    ZEL_ASSERT_AS(tableDesc->binSize() >= 1, "tableDesc->binSize() >= 1");
    Zel::Ptr<TableStat> stat = status_->tableStatIs(tableId);
    stat->tableDescIs(tableDesc);
    stat->numOfHashItemsIs(0);
    std::size_t const capacity = std::size_t(tableDesc->tableSize()) * tableDesc->binSize();
    tables_.push_back(Table{tableDesc->tableSize(), tableDesc->binSize(), std::move(stat),
                            std::vector<Slot>(capacity)});
  }

  clockIs(Zel::activityManager()->clock());
  if (U32 const seed = config_->randomSeed()) {
    std::srand(seed);
    if (auto t = Zel::TraceHelper(trace(), traceEvent)) t << " rand() == " << std::rand();
  }
  status_->cuckooCmdsIs(cuckooCmdsFactory());
  pendingItemBeginTime_ = Zel::beginningOfTime;
  lastSyslogTime_ = Zel::beginningOfTime;
  initialized_ = true;
}

bool HashTable::holdsSlot(CuckooLocation const& location) const noexcept {
  U8 const t = location.tableId().value();
  return t < tables_.size() && location.binId() < tables_[t].binSize &&
         location.index() < tables_[t].tableSize;
}

HashTable::Slot& HashTable::slot(CuckooLocation const& location) {
  return tables_[location.tableId().value()].at(location.binId(), location.index());
}

Zel::Ptr<HashItem const> HashTable::itemShadow(CuckooLocation const& location) const {
  if (!holdsSlot(location)) return nullptr;
  return tables_[location.tableId().value()].at(location.binId(), location.index()).item;
}

U32 HashTable::getTableIndexForItem(TableId tableId, Zel::Ptr<HashItem const> const& item) const {
  return item->getHash(tableId) % tables_[tableId.value()].tableSize;
}

std::optional<CuckooLocation> HashTable::itemLocation(Zel::Ptr<HashItem const> const& item) const {
  std::optional<CuckooLocation> free;
  return probe(item, free);
}

// One pass over the item's buckets, tables in id order and bins in order: where an equal item
// sits, and on the way the first free slot (left unset when the item is found).
std::optional<CuckooLocation> HashTable::probe(Zel::Ptr<HashItem const> const& item,
                                               std::optional<CuckooLocation>& free) const {
  ZEL_ASSERT_AS(item, "item");
  for (U8 t = 0; t < tables_.size(); ++t) {
    TableId const tableId(t);
    Table const& table = tables_[t];
    U32 const hash = item->getHash(tableId);
    U32 const index = hash % table.tableSize;
    Slot const* const bucket = &table.at(0, index);
    for (U8 b = 0; b < table.binSize; ++b) {
      Slot const& candidate = bucket[b];
      if (!candidate.item) {
        if (!free) free = CuckooLocation(tableId, b, index);
      } else if (candidate.hash == hash && item->isEqual(candidate.item)) {
        return CuckooLocation(tableId, b, index);
      }
    }
  }
  return std::nullopt;
}

Zel::Ptr<CuckooItem> HashTable::lookupItem(Zel::Ptr<HashItem const> const& item) const {
  std::optional<CuckooLocation> const location = itemLocation(item);
  return location ? cuckooItemFactory(*location, itemShadow(*location)) : nullptr;
}

Zel::Ptr<HashItem const> HashTable::writeSlot(Zel::Ptr<HashItem const> const& item,
                                              CuckooLocation const& location) {
  Slot& resident = slot(location);
  Zel::Ptr<HashItem const> old = std::exchange(resident.item, item);
  resident.hash = item ? item->getHash(location.tableId()) : 0;
  TableStat& stat = *tables_[location.tableId().value()].stat;
  if (!item) {
    if (old) stat.numOfHashItemsIs(stat.numOfHashItems() - 1);
    if (auto t = Zel::TraceHelper(trace(), traceWrite)) t << location << ", Delete: " << text(old);
  } else if (!old) {
    stat.numOfHashItemsInc(1);
    if (auto t = Zel::TraceHelper(trace(), traceWrite)) t << location << ", Assign: " << text(item);
  } else if (auto t = Zel::TraceHelper(trace(), traceWrite)) {
    t << location << ", Assign: " << text(item) << ", Evict: " << text(old);
  }
  return old;
}

Zel::Ptr<EvictCmd> HashTable::setItemAtLocation(Zel::Ptr<HashItem const> const& item,
                                                CuckooLocation const& location) {
  ZEL_ASSERT(holdsSlot(location));
  Zel::Ptr<HashItem const> old = writeSlot(item, location);
  return makeEvictCmd(std::move(old), item, location);
}

// Eviction commands and queued writes are short-lived and made by the thousand. Once the table
// holds the only handle to one, it keeps it (without the items it named) for the next, which
// spares an allocation per eviction step and per queued write. Nobody else can observe the reuse.
Zel::Ptr<EvictCmd> HashTable::makeEvictCmd(Zel::Ptr<HashItem const> oldItem,
                                           Zel::Ptr<HashItem const> const& newItem,
                                           CuckooLocation const& location) {
  if (spareCmds_.empty()) return evictCmdFactory(std::move(oldItem), newItem, location);
  Zel::Ptr<EvictCmd> cmd = std::move(spareCmds_.back());
  spareCmds_.pop_back();
  cmd->oldItem_ = std::move(oldItem);
  cmd->newItem_ = newItem;
  cmd->location_ = location;
  return cmd;
}

void HashTable::recycle(Zel::Ptr<EvictCmd> cmd) {
  if (cmd->references() != 1 || spareCmds_.size() == maxSpares) return;
  cmd->oldItem_ = nullptr;
  cmd->newItem_ = nullptr;
  spareCmds_.push_back(std::move(cmd));
}

Zel::Ptr<CuckooItem> HashTable::makeCuckooItem(CuckooLocation const& location,
                                               Zel::Ptr<HashItem const> const& item) {
  if (spareWrites_.empty()) return cuckooItemFactory(location, item);
  Zel::Ptr<CuckooItem> write = std::move(spareWrites_.back());
  spareWrites_.pop_back();
  write->location_ = location;
  write->item_ = item;
  return write;
}

void HashTable::recycle(Zel::Ptr<CuckooItem> write) {
  if (write->references() != 1 || spareWrites_.size() == maxSpares) return;
  write->item_ = nullptr;
  write->replacedItem_ = nullptr;
  spareWrites_.push_back(std::move(write));
}

std::optional<CuckooLocation> HashTable::firstFreeSlot(Zel::Ptr<HashItem const> const& item,
                                                       BucketIndexes& indexes) const {
  for (U8 t = 0; t < tables_.size(); ++t) {
    TableId const tableId(t);
    Table const& table = tables_[t];
    U32 const index = indexes[t] = getTableIndexForItem(tableId, item);
    for (U8 b = 0; b < table.binSize; ++b) {
      if (!table.at(b, index).item) return CuckooLocation(tableId, b, index);
    }
  }
  return std::nullopt;
}

Zel::Ptr<HashItem const> HashTable::tryInsertItem(Zel::Ptr<HashItem const> const& item,
                                                  Zel::Ptr<EvictCmdPath> const& evictPath) {
  BucketIndexes indexes;
  if (std::optional<CuckooLocation> const free = firstFreeSlot(item, indexes)) {
    evictPath->cmdLogIs(setItemAtLocation(item, *free));
    lastEvictedTable_ = TableId();
    return nullptr;
  }
  U8 const numTables = U8(tables_.size());
  U8 t = U8(std::rand() % numTables);
  if (TableId(t) == lastEvictedTable_) t = U8((t + 1) % numTables);
  U8 const binSize = tables_[t].binSize;
  U8 const b = binSize > 1 ? U8(std::rand() % binSize) : 0;
  lastEvictedTable_ = TableId(t);
  Zel::Ptr<EvictCmd> cmd =
      setItemAtLocation(item, CuckooLocation(lastEvictedTable_, b, indexes[t]));
  Zel::Ptr<HashItem const> displaced = cmd->oldItem();
  evictPath->cmdLogIs(std::move(cmd));
  return displaced;
}

bool HashTable::insert(Zel::Ptr<HashItem const> const& item,
                       Zel::Ptr<CuckooCmds> const& cuckooCmds) {
  ZEL_ASSERT_AS(initialized_, "initialized()");
  ZEL_ASSERT(cuckooCmds);
  std::optional<CuckooLocation> free;
  if (probe(item, free)) {
    if (auto t = Zel::TraceHelper(trace(), traceEvent)) t << "item already exists: " << text(item);
    return true;
  }
  // Most inserts find a free slot in the item's own buckets. That walk is one write, so it is
  // queued as updateCuckooCmds would queue it, without making a path for it.
  if (free) {
    writeSlot(item, *free);
    lastEvictedTable_ = TableId();
    if (config_->hitless()) countCycles(0);
    emitWrite(cuckooCmds, *free, item, nullptr);
    return true;
  }
  for (U32 attempt = 0; attempt < config_->maxRetry(); ++attempt) {
    Zel::Ptr<HashItem const> current = item;
    for (U32 step = 0; step < config_->maxLoop(); ++step) {
      current = tryInsertItem(current, evictPath_);
      if (current) continue;
      updateCuckooCmds(evictPath_, cuckooCmds);
      return true;
    }
    double const occupancy = status_->occupancy();
    if (auto t = Zel::TraceHelper(trace(), traceReport)) {
      t << "Try[" << attempt << "] maxLoop reached - item: " << text(item)
        << " occupancy: " << occupancy;
    }
    status_->retryCountInc(1);
    updateFailStats(occupancy);
    revertChanges(evictPath_);
  }
  return false;
}

void HashTable::updateFailStats(double loadFactor) {
  U32 const records = config_->numFailureRecords();
  if (status_->firstFailLoadFactors() < records) {
    status_->firstFailLoadFactorIs(float(loadFactor));
    return;
  }
  // Strictly greater: the sliding log settles at records + 1 entries.
  if (status_->lastFailLoadFactors() > records) status_->lastFailLoadFactorDel();
  status_->lastFailLoadFactorIs(float(loadFactor));
}

// Each pass over a path that needs a set of locations starts an epoch; a slot is in the set when
// its mark is the epoch. The marks sit in the slots, whose cache lines the path has just touched.
U32 HashTable::newMarkEpoch() {
  if (++markEpoch_ != 0) return markEpoch_;
  // After 2^32 sets a stale mark could look current: start the epochs afresh.
  for (Table& table : tables_) {
    for (Slot& s : table.slots) s.mark = 0;
  }
  return markEpoch_ = 1;
}

bool HashTable::markSlot(CuckooLocation const& location, U32 epoch) {
  ZEL_ASSERT(holdsSlot(location));
  Slot& s = slot(location);
  if (s.mark == epoch) return false;
  s.mark = epoch;
  return true;
}

HashTable::Commands& HashTable::drainOldestFirst(EvictCmdPath& evictPath) {
  commands_.resize(evictPath.cmdLogs());
  for (std::size_t i = commands_.size(); i-- > 0;) commands_[i] = evictPath.cmdLogDel();
  return commands_;
}

void HashTable::revertChanges(Zel::Ptr<EvictCmdPath> const& evictPath) {
  Commands& commands = drainOldestFirst(*evictPath);
  U32 const epoch = newMarkEpoch();
  for (Zel::Ptr<EvictCmd> const& cmd : commands) {
    if (markSlot(cmd->location(), epoch)) writeSlot(cmd->oldItem(), cmd->location());
  }
  for (Zel::Ptr<EvictCmd>& cmd : commands) recycle(std::move(cmd));
  commands.clear();
}

U32 HashTable::maybeDeleteCycle(Zel::Ptr<EvictCmdPath> const& evictPath) {
  // A cycle writes one slot twice.
  if (evictPath->cmdLogs() < 2) return 0;
  Commands& commands = drainOldestFirst(*evictPath);
  U32 cycles = 0;
  while (deleteNewestCycle(commands)) ++cycles;
  for (Zel::Ptr<EvictCmd>& cmd : commands) evictPath->cmdLogIs(std::move(cmd));
  commands.clear();
  return cycles;
}

// Walking from the newest command, the first location seen twice closes a cycle: the older
// command E put an item down there and the newer one P picked it up again. No location repeats
// among the commands newer than E, so the run E..P writes only E's location twice and nothing
// after P touches the run's locations.
bool HashTable::deleteNewestCycle(Commands& commands) {
  U32 const epoch = newMarkEpoch();
  for (std::size_t i = commands.size(); i-- > 0;) {
    if (auto t = Zel::TraceHelper(trace(), traceWrite)) {
      t << " detectCycle: " << describe(*commands[i]);
    }
    if (markSlot(commands[i]->location(), epoch)) continue;
    auto const ecIt = commands.begin() + std::ptrdiff_t(i);
    auto const prevIter = std::find_if(
        ecIt + 1, commands.end(),
        [&](Zel::Ptr<EvictCmd> const& cmd) { return cmd->location() == (*ecIt)->location(); });
    ZEL_ASSERT_AS((*prevIter)->oldItem() == (*ecIt)->newItem(),
                  "( *prevIter )->oldItem() == ( *ecIt )->newItem()");
    restoreRun(ecIt, prevIter + 1);
    std::for_each(ecIt, prevIter + 1, [&](Zel::Ptr<EvictCmd>& cmd) { recycle(std::move(cmd)); });
    commands.erase(ecIt, prevIter + 1);
    return true;
  }
  return false;
}

// Puts every location of the run back to what it held before the run's first write there, so
// the items moved around the cycle return to their slots and E's location gets back what E
// evicted.
void HashTable::restoreRun(Commands::iterator begin, Commands::iterator end) {
  U32 const epoch = newMarkEpoch();
  for (auto it = begin; it != end; ++it) {
    EvictCmd const& cmd = **it;
    if (auto t = Zel::TraceHelper(trace(), tracePath)) t << " Deleting cycle: " << describe(cmd);
    if (markSlot(cmd.location(), epoch)) writeSlot(cmd.oldItem(), cmd.location());
  }
}

void HashTable::queueWrite(Zel::Ptr<CuckooCmds> const& cuckooCmds, CuckooLocation const& location,
                           Zel::Ptr<HashItem const> const& item,
                           Zel::Ptr<HashItem const> const& replaced) {
  Zel::Ptr<CuckooItem> write = makeCuckooItem(location, item);
  write->replacedItem_ = replaced;
  cuckooCmds->itemSeqIs(std::move(write));
}

void HashTable::emitWrite(Zel::Ptr<CuckooCmds> const& cuckooCmds, CuckooLocation const& location,
                          Zel::Ptr<HashItem const> const& newItem,
                          Zel::Ptr<HashItem const> const& oldItem) {
  if (oldItem) {
    tables_[location.tableId().value()].stat->numOfEvictsInc(1);
    if (auto t = Zel::TraceHelper(trace(), traceWrite)) {
      t << " Assign: " << text(newItem) << " Evict: " << text(oldItem);
    }
  } else if (auto t = Zel::TraceHelper(trace(), traceWrite)) {
    t << " Assign: " << text(newItem);
  }
  queueWrite(cuckooCmds, location, newItem, oldItem);
}

void HashTable::countCycles(U32 cycles) {
  if (auto t = Zel::TraceHelper(trace(), tracePath)) t << "Number of cycles detected: " << cycles;
  status_->longestCycleIs(std::max(status_->longestCycle(), cycles));
  status_->cycleCountInc(cycles);
}

void HashTable::updateCuckooCmds(Zel::Ptr<EvictCmdPath> const& evictPath,
                                 Zel::Ptr<CuckooCmds> const& cuckooCmds) {
  if (config_->hitless()) countCycles(maybeDeleteCycle(evictPath));
  // Newest first: the first write fills the slot that was free, each later one overwrites a slot
  // whose resident has already been written to its new place, and the new item comes last.
  U32 const epoch = newMarkEpoch();
  U32 emitted = 0;
  while (Zel::Ptr<EvictCmd> cmd = evictPath->cmdLogDel()) {
    CuckooLocation const& location = cmd->location();
    if (markSlot(location, epoch)) {
      emitWrite(cuckooCmds, location, cmd->newItem(), cmd->oldItem());
      ++emitted;
    } else {
      replacedByOlderWrite(*cuckooCmds, emitted, location, cmd->oldItem());
    }
    recycle(std::move(cmd));
  }
}

// An older write of a slot that this call has queued already: the real table still holds what
// preceded the older write. A writer that has taken the queued write meanwhile no longer asks.
void HashTable::replacedByOlderWrite(CuckooCmds const& cuckooCmds, U32 emitted,
                                     CuckooLocation const& location,
                                     Zel::Ptr<HashItem const> const& replaced) {
  CuckooCmds::ItemSeq const& queue = cuckooCmds.itemSeqIteratorConst();
  auto it = queue.end();
  for (U32 newer = 0; newer < emitted && it != queue.begin(); ++newer) {
    if ((*--it)->location() != location) continue;
    (*it)->replacedItem_ = replaced;
    return;
  }
}

bool HashTable::remove(Zel::Ptr<HashItem const> const& item,
                       Zel::Ptr<CuckooCmds> const& cuckooCmds) {
  ZEL_ASSERT_AS(initialized_, "initialized()");
  ZEL_ASSERT(cuckooCmds);
  if (!item) {
    if (auto t = Zel::TraceHelper(trace(), traceEvent)) t << " Invalid item.";
    return false;
  }
  Zel::Ptr<CuckooItem> const cuckooItem = lookupItem(item);
  if (!cuckooItem) {
    if (auto t = Zel::TraceHelper(trace(), traceEvent)) t << " Item does not exist.";
    return false;
  }
  ZEL_ASSERT_AS(item->isEqual(itemShadow(cuckooItem->location())),
                "item->isEqual( itemShadow( cuckooItem->location() ) )");
  Zel::Ptr<HashItem const> const removed = writeSlot(nullptr, cuckooItem->location());
  queueWrite(cuckooCmds, cuckooItem->location(), nullptr, removed);
  return true;
}

bool HashTable::insertItem(Zel::Ptr<HashItem const> const& item) {
  bool const inserted = insert(item, status_->cuckooCmds());
  if (!inserted) status_->pendingItemSetIs(item);
  armReviewIfPending();
  return inserted;
}

bool HashTable::deleteItem(Zel::Ptr<HashItem const> const& item) {
  bool const removed = remove(item, status_->cuckooCmds());
  if (item) status_->pendingItemSetDel(item);
  armReviewIfPending();
  return removed;
}

void HashTable::armReviewIfPending() {
  if (status_->pendingItemSets() == 0 || zelClock_.timeMin() != Zel::endOfTime) return;
  zelClock_.timeMinIs(Zel::System::currentTime() + config_->pendingItemReviewQuantum());
}

void HashTable::handleCmdReadCompleted() {
  Zel::Ptr<CuckooCmds> const& cuckooCmds = status_->cuckooCmds();
  if (!cuckooCmds) return;
  status_->totalCmdReadCompletedInc(cuckooCmds->itemSeqs());
  while (Zel::Ptr<CuckooItem> write = cuckooCmds->itemSeqDel()) recycle(std::move(write));
}

void HashTable::reviewPendingItems() {
  zelClock_.timeMinIs(Zel::endOfTime);
  U32 const pending = status_->pendingItemSets();
  if (!initialized_ || !config_->reviewPendingItemSupport() || pending == 0) {
    if (auto t = Zel::TraceHelper(trace(), traceEvent)) {
      t << "Skip processing pending items, check reviewPendingItemSupport.";
    }
    return;
  }
  // Start at a random member and go round the set once at most. Members are tried in that order
  // whether or not earlier ones leave the set, so they are listed before any insert.
  Status::PendingItems const& members = status_->pendingItemSetIteratorConst();
  auto member = std::next(members.begin(), std::rand() % pending);
  std::vector<Zel::Ptr<HashItem const>> candidates;
  candidates.reserve(std::min(config_->maxPendingItemsToReview(), pending));
  while (candidates.size() < candidates.capacity()) {
    candidates.push_back(member->second);
    if (++member == members.end()) member = members.begin();
  }
  U32 inserted = 0;
  for (Zel::Ptr<HashItem const> const& candidate : candidates) {
    if (!insert(candidate, status_->cuckooCmds())) continue;
    ++inserted;
    status_->pendingItemSetDel(candidate);
  }
  if (inserted != 0) {
    if (auto t = Zel::TraceHelper(trace(), traceReport)) {
      t << "Number of pending items inserted: " << inserted;
    }
    status_->pendingItemVersionInc(1);
  }
  if (auto t = Zel::TraceHelper(trace(), traceEvent)) {
    t << "Number of pending items: " << status_->pendingItemSets()
      << " lastSyslogTime: " << lastSyslogTime_
      << " pendingItemBeginTime: " << pendingItemBeginTime_;
  }
  reportPendingTime(Zel::System::currentTime());
}

void HashTable::reportPendingTime(Seconds now) {
  Seconds const interval = config_->syslogIntervalForPendingItems();
  if (status_->pendingItemSets() == 0) {
    pendingItemBeginTime_ = Zel::beginningOfTime;
    if (!std::isfinite(interval) || lastSyslogTime_ == Zel::beginningOfTime) return;
    if (auto t = Zel::TraceHelper(trace(), traceReport)) t << "Syslog - Pending items are empty";
    status_->pendingItemSyslogVersionInc(1);
    lastSyslogTime_ = Zel::beginningOfTime;
    return;
  }
  if (pendingItemBeginTime_ == Zel::beginningOfTime) pendingItemBeginTime_ = now;
  Seconds const since =
      lastSyslogTime_ == Zel::beginningOfTime ? pendingItemBeginTime_ : lastSyslogTime_;
  if (std::isfinite(interval) && now > since + interval) {
    if (auto t = Zel::TraceHelper(trace(), traceReport)) {
      t << "Syslog - Pending items existed for more than " << interval << " secs.";
    }
    status_->pendingItemSyslogVersionInc(1);
    lastSyslogTime_ = now;
  }
  zelClock_.timeMinIs(now + config_->pendingItemReviewQuantum());
}

// ---- Introspection ----------------------------------------------------------------------------

namespace {

// The real table as the writer sees it: every slot of every table, null when free.
class RealTable {
public:
  void tableIs(U32 tableSize, U8 binSize, std::vector<Zel::Ptr<HashItem const>> slots) {
    tables_.push_back(Geometry{tableSize, binSize, std::move(slots)});
  }
  bool holds(CuckooLocation const& location) const noexcept {
    U8 const t = location.tableId().value();
    return t < tables_.size() && location.binId() < tables_[t].binSize &&
           location.index() < tables_[t].tableSize;
  }
  Zel::Ptr<HashItem const>& operator[](CuckooLocation const& location) {
    Geometry& table = tables_[location.tableId().value()];
    return table.slots[std::size_t(location.index()) * table.binSize + location.binId()];
  }
  // Calls visit(location, item) for every slot in location order.
  template <class Visit>
  void forEachSlot(Visit&& visit) const {
    for (U8 t = 0; t < tables_.size(); ++t) {
      Geometry const& table = tables_[t];
      for (U8 b = 0; b < table.binSize; ++b) {
        for (U32 i = 0; i < table.tableSize; ++i) {
          visit(CuckooLocation(TableId(t), b, i), table.slots[std::size_t(i) * table.binSize + b]);
        }
      }
    }
  }

private:
  struct Geometry {
    U32 tableSize;
    U8 binSize;
    std::vector<Zel::Ptr<HashItem const>> slots;
  };
  std::vector<Geometry> tables_;
};

// One column of displayItems, printed as "%-15s" and a space.
void appendColumn(std::string& out, std::string_view cell) {
  out += cell;
  out.append(cell.size() < 15 ? 15 - cell.size() : 0, ' ');
  out += ' ';
}

void endLine(std::string& out) {
  while (!out.empty() && out.back() == ' ') out.pop_back();
  out += '\n';
}

}  // namespace

Zel::String HashTable::currentSnapshot() const {
  std::ostringstream out;
  out << "HashTable " << status_->name() << ": " << tables_.size() << " tables, occupancy "
      << status_->occupancy() << "\n";
  for (auto const& [tableId, stat] : status_->tableStatIteratorConst()) {
    U64 const capacity = stat->tableDesc() ? capacityOf(*stat->tableDesc()) : 0;
    out << "Table[" << unsigned(tableId.value()) << "] numOfHashItems: " << stat->numOfHashItems()
        << " / " << capacity << ", numOfEvicts: " << stat->numOfEvicts() << "\n";
  }
  out << "retryCount: " << status_->retryCount() << ", cycleCount: " << status_->cycleCount()
      << ", longestCycle: " << status_->longestCycle()
      << ", queued writes: " << (status_->cuckooCmds() ? status_->cuckooCmds()->itemSeqs() : 0)
      << "\n";
  out << "Pending items: " << status_->pendingItemSets();
  for (auto const& entry : status_->pendingItemSetIteratorConst()) out << " " << text(entry.second);
  out << "\n";
  for (U8 t = 0; t < tables_.size(); ++t) {
    Table const& table = tables_[t];
    for (U8 b = 0; b < table.binSize; ++b) {
      for (U32 i = 0; i < table.tableSize; ++i) {
        if (auto const& item = table.at(b, i).item) {
          out << CuckooLocation(TableId(t), b, i) << " " << text(item) << "\n";
        }
      }
    }
  }
  return out.str();
}

Zel::String HashTable::displayItems(U32 rows) const {
  ZEL_ASSERT_AS(config_->numTables() < 10, "config()->numTables() < 10");
  std::string out;
  U32 buckets = 0;
  U8 bins = 0;
  for (std::size_t t = 0; t < tables_.size(); ++t) {
    Table const& table = tables_[t];
    Table const& first = tables_[0];
    if (table.binSize != first.binSize) {
      out += "Tables are different in bins per bucket: table " + std::to_string(t) + " has " +
             std::to_string(table.binSize) + ", table 0 has " + std::to_string(first.binSize) +
             "\n";
    }
    if (table.tableSize != first.tableSize) {
      out += "Table sizes are different: table " + std::to_string(t) + " has " +
             std::to_string(table.tableSize) + " buckets, table 0 has " +
             std::to_string(first.tableSize) + "\n";
    }
    buckets = std::max(buckets, table.tableSize);
    bins = std::max(bins, table.binSize);
  }
  appendColumn(out, "Index/Bin");
  for (std::size_t t = 0; t < tables_.size(); ++t) appendColumn(out, "Table " + std::to_string(t));
  endLine(out);
  for (U32 index = 0; index < std::min(rows, buckets); ++index) {
    for (U8 b = 0; b < bins; ++b) {
      appendColumn(out, std::to_string(index) + "/" + std::to_string(b));
      for (Table const& table : tables_) {
        if (index >= table.tableSize || b >= table.binSize) {
          appendColumn(out, "");
        } else if (Zel::Ptr<HashItem const> const& item = table.at(b, index).item) {
          appendColumn(out, item->toStrep().view());
        } else {
          appendColumn(out, "-");
        }
      }
      endLine(out);
    }
  }
  return out;
}

Zel::String HashTable::displayAllItems() const {
  U32 buckets = 0;
  for (Table const& table : tables_) buckets = std::max(buckets, table.tableSize);
  return displayItems(buckets);
}

bool HashTable::verifyCuckooCmdsHitless() const {
  Zel::Ptr<CuckooCmds> const& cuckooCmds = status_->cuckooCmds();
  if (!cuckooCmds) return true;
  CuckooCmds::ItemSeq const& queue = cuckooCmds->itemSeqIteratorConst();
  bool hitless = true;
  auto failed = [&](char const* condition, std::size_t write, CuckooItem const& cuckooItem) {
    hitless = false;
    if (auto t = Zel::TraceHelper(trace(), traceReport)) {
      t << "Failed(" << condition << ") write " << write << ": " << cuckooItem.location() << " <- "
        << text(cuckooItem.item());
    }
  };

  // The real table before the queue: the shadow with the queued writes undone, newest first.
  RealTable hwTable;
  for (Table const& table : tables_) {
    std::vector<Zel::Ptr<HashItem const>> items;
    items.reserve(table.slots.size());
    for (Slot const& s : table.slots) items.push_back(s.item);
    hwTable.tableIs(table.tableSize, table.binSize, std::move(items));
  }
  for (auto it = queue.end(); it != queue.begin();) {
    CuckooItem const& cuckooItem = **--it;
    if (hwTable.holds(cuckooItem.location())) {
      hwTable[cuckooItem.location()] = cuckooItem.replacedItem();
    }
  }
  std::unordered_multimap<Zel::Ptr<HashItem const>, CuckooLocation> itemToLoc;
  hwTable.forEachSlot([&](CuckooLocation const& location, Zel::Ptr<HashItem const> const& item) {
    if (item) itemToLoc.emplace(item, location);
  });

  // Replay: a write may drop its slot's resident only if the resident has another place already,
  // or if the write clears the slot (a removal).
  std::size_t write = 0;
  for (Zel::Ptr<CuckooItem> const& cuckooItem : queue) {
    ++write;
    if (!hwTable.holds(cuckooItem->location())) {
      failed("hwTable.count( cuckooItem->location() )", write, *cuckooItem);
      continue;
    }
    Zel::Ptr<HashItem const>& resident = hwTable[cuckooItem->location()];
    Zel::Ptr<HashItem const> const prevItem = resident;
    if (prevItem == cuckooItem->item()) continue;
    if (prevItem) {
      auto [first, last] = itemToLoc.equal_range(prevItem);
      auto const place = std::find_if(
          first, last, [&](auto const& entry) { return entry.second == cuckooItem->location(); });
      if (place != last) itemToLoc.erase(place);
      if (cuckooItem->item() && !itemToLoc.count(prevItem)) {
        failed("itemToLoc.count( prevItem )", write, *cuckooItem);
      }
    }
    resident = cuckooItem->item();
    if (resident) itemToLoc.emplace(resident, cuckooItem->location());
  }

  hwTable.forEachSlot([&](CuckooLocation const& location, Zel::Ptr<HashItem const> const& got) {
    Zel::Ptr<HashItem const> const expected = itemShadow(location);
    if (expected == got) return;
    hitless = false;
    if (!got) {
      if (auto t = Zel::TraceHelper(trace(), traceReport)) {
        t << "Missing item " << text(expected) << " loc " << location;
      }
    } else if (auto t = Zel::TraceHelper(trace(), traceReport)) {
      t << "Item mismatch! expected item " << text(expected) << " got " << text(got) << " loc "
        << location;
    }
  });
  return hitless;
}

Zel::Ptr<CuckooCmds> HashTable::tryReduceCuckooCmds(Zel::Ptr<CuckooCmds> const&) const {
  if (auto t = Zel::TraceHelper(trace(), tracePath)) t << "tryReduceCuckooCmds";
  return nullptr;
}

Zel::Ptr<CuckooCmds> HashTable::tryReduceQueuedCmds() const {
  return tryReduceCuckooCmds(status_->cuckooCmds());
}

Zel::TypeRegistration<HashTable> const registration;

}  // namespace Kiv::Cuckoo
