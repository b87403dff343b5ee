// The property that matters: while a writer applies one call's queued writes in order, every item
// findable before the call stays findable after each single write, and the end state is the
// shadow. A randomized workload of inserts and removals on small crowded tables (so that long
// paths, cycles and failures really occur) is checked write by write against a model of the real
// table, and call by call against a reference set of the keys that must be present.
#include "CuckooTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>
#include <set>
#include <utility>

namespace Kiv::Cuckoo::Test {
namespace {

struct Workload {
  Shape shape;
  bool hitless;
  U32 keys;  // distinct items, more than the slots, so the tables stay crowded
};

// Replays the call's writes against the real table as it was before the call. Returns whether
// every resident but `removed` was findable after every write.
bool replay(Rig const& rig, Slots const& before, Zel::Ptr<HashItem const> const& removed) {
  Slots real = before;
  bool hitless = true;
  for (Zel::Ptr<CuckooItem> const& write : rig.queue()->itemSeqIteratorConst()) {
    auto const old = real.find(write->location());
    EXPECT_EQ(write->replacedItem(), old == real.end() ? nullptr : old->second);
    if (write->item())
      real[write->location()] = write->item();
    else
      real.erase(write->location());
    for (auto const& [location, resident] : before) {
      bool const gone = removed && removed->isEqual(resident);
      hitless = hitless && (gone || rig.findable(real, resident));
    }
  }
  EXPECT_EQ(real, rig.shadow()) << "the writes do not produce the shadow";
  return hitless;
}

class HitlessWorkload : public testing::TestWithParam<Workload> {};

TEST_P(HitlessWorkload, EveryWriteKeepsEveryResidentFindable) {
  Workload const& w = GetParam();
  Rig rig(w.shape, [&](Config& c) {
    c.hitlessIs(w.hitless);
    c.maxLoopIs(40);
    c.randomSeedIs(7);
    c.reviewPendingItemSupportIs(false);
  });
  std::mt19937 random(11);
  std::uniform_int_distribution<U32> hash(0, 999);  // a small range, so that buckets collide
  std::vector<Zel::Ptr<HashItem const>> items;
  for (U32 key = 0; key < w.keys; ++key) {
    items.push_back(intHashItemFactory(key, hash(random), hash(random), hash(random)));
  }
  std::set<U32> present;
  U32 lapses = 0, acknowledged = 0, longestQueue = 0;

  for (int call = 0; call < 1500 && !HasFatalFailure(); ++call) {
    Zel::Ptr<HashItem const> const& item = items[random() % items.size()];
    bool const wasPresent = present.count(keyOf(item)) != 0;
    // Insert more often than remove, so the tables hover near full.
    bool const inserting = random() % 3 != 0;
    Slots const before = rig.shadow();

    bool const done = inserting ? rig.table->insertItem(item) : rig.table->deleteItem(item);
    U32 const writes = rig.queue()->itemSeqs();
    longestQueue = std::max(longestQueue, writes);
    if (inserting && !done) {
      ASSERT_FALSE(wasPresent);
      ASSERT_EQ(rig.shadow(), before) << "a failed insert changed the table";
      ASSERT_TRUE(rig.status->pendingItemSetHas(item));
    }
    if (!inserting) {
      ASSERT_EQ(done, wasPresent);
      ASSERT_EQ(writes, done ? 1u : 0u) << "a removal moves nothing";
      ASSERT_FALSE(rig.status->pendingItemSetHas(item));
    }
    ASSERT_EQ(writes != 0, done && (!inserting || !wasPresent)) << "a present item queues nothing";
    if (done && inserting) present.insert(keyOf(item));
    if (done && !inserting) present.erase(keyOf(item));

    auto const probed = rig.slotsOf(item);
    auto const free = std::ranges::find_if(probed, [&](auto const& l) { return !before.count(l); });
    ASSERT_TRUE(!inserting || wasPresent || free == probed.end() ||
                rig.table->itemShadow(*free) == item)
        << "the first free slot is not taken";
    // Lookups go by key: another handle finds the resident exactly when it is present.
    auto const twin = intHashItemFactory(keyOf(item), item->getHash(TableId(0)),
                                         item->getHash(TableId(1)), item->getHash(TableId(2)));
    auto const found = rig.table->lookupItem(twin);
    ASSERT_EQ(found ? found->item() : nullptr, present.count(keyOf(item)) ? item : nullptr);
    ASSERT_EQ(rig.table->itemLocation(twin),
              found ? std::optional(found->location()) : std::nullopt);
    ASSERT_TRUE(!found || rig.table->itemShadow(found->location()) == item);

    bool const hitless = replay(rig, before, inserting ? nullptr : item);
    ASSERT_TRUE(hitless || !w.hitless) << "a write of call " << call << " lost a resident";
    ASSERT_EQ(rig.table->verifyCuckooCmdsHitless(), hitless) << "verify disagrees with the replay";
    lapses += !hitless;
    // Counters equal occupied slots, items sit where their hashes allow and occupy one slot
    // each, and exactly the reference keys are present.
    std::map<TableId, U32> occupied;
    std::set<U32> keys;
    for (auto const& [location, resident] : rig.shadow()) {
      ++occupied[location.tableId()];
      ASSERT_EQ(std::ranges::count(rig.slotsOf(resident), location), 1) << location;
      ASSERT_TRUE(keys.insert(keyOf(resident)).second) << resident->toStrep() << " sits twice";
    }
    for (auto const& [id, stat] : rig.status->tableStatIteratorConst()) {
      ASSERT_EQ(stat->numOfHashItems(), occupied[id]) << id;
    }
    ASSERT_EQ(keys, present);
    rig.ack();
    ASSERT_EQ(rig.queue()->itemSeqs(), 0u);
    ASSERT_EQ(rig.status->totalCmdReadCompleted(), acknowledged += writes);
  }

  // The workload must have reached the hard cases, or it proves little.
  EXPECT_GT(rig.status->retryCount(), 0u) << "no insert failed";
  EXPECT_GE(longestQueue, 4u) << "no long eviction path";
  if (w.hitless)
    EXPECT_GT(rig.status->cycleCount(), 0u) << "no cycle was removed";
  else
    EXPECT_GT(lapses, 0u) << "without cycle deletion some queue should lose an item a while";
}

INSTANTIATE_TEST_SUITE_P(
    CrowdedTables, HitlessWorkload,
    testing::Values(Workload{{8, 2, 2}, true, 48}, Workload{{5, 1, 3}, true, 24},
                    Workload{{16, 1, 2}, true, 48}, Workload{{4, 1, 4}, true, 24},
                    Workload{{8, 2, 2}, false, 48}, Workload{{5, 1, 3}, false, 24}));

}  // namespace
}  // namespace Kiv::Cuckoo::Test
