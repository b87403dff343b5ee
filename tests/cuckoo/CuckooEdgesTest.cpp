// What the randomized workload does not reach: bad input and misuse, the eviction walk and path
// bookkeeping, failure logs, the pending review on virtual time, introspection and reflection.
#include "CuckooTestSupport.h"

#include <Zel/Activity.h>
#include <Zel/Exception.h>
#include <Zel/GenericIf.h>
#include <Zel/System.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <tuple>

namespace Kiv::Cuckoo::Test {
namespace {

using testing::ThrowsMessage;

Zel::Ptr<HashItem const> item(U32 key, U32 hash0, U32 hash1 = 0) {
  return intHashItemFactory(key, hash0, hash1, 0);
}

CuckooLocation at(U8 table, U8 bin, U32 index) {
  return CuckooLocation(TableId(table), bin, index);
}

TEST(CuckooValues, RangeErrorsStreamFormsAndLocationOrder) {
  auto const badId = ThrowsMessage<Zel::RangeException>(
      "TableId::value < TableId::min or > TableId::null not allowed");
  EXPECT_THAT([] { TableId(10); }, badId);
  EXPECT_THAT([] { Zel::strepToValue<TableId>("12"); }, badId);
  EXPECT_TRUE(TableId(9).isNull());

  auto config = configFactory("c", 1);
  for (U8 binSize : {U8(0), U8(9)}) {
    EXPECT_THAT(
        [&] { config->tableDescListIs(TableId(0), 16, binSize); },
        ThrowsMessage<Zel::RangeException>("TableDescriptor::binSize < 1 or > 8 not allowed"));
  }
  config->tableDescListIs(TableId(0), 16, 8);
  auto const again = [](std::string const& what) {
    return ThrowsMessage<Zel::NameInUseException>(
        "Reinstantiating the pointer interface where constructor parameter attribute _" + what +
        " not allowed");
  };
  EXPECT_THAT([&] { config->tableDescListIs(TableId(0), 32, 8); },
              again("tableSize has a different value of 32 than the current value of 16"));
  EXPECT_THAT([&] { config->tableDescListIs(TableId(0), 16, 1); },
              again("binSize has a different value of 1 than the current value of 8"));

  std::ostringstream out;
  out << TableId(3) << " " << at(1, 2, 300);
  EXPECT_EQ(out.str(), "( 3 ) TableId/BinId/Index: ( 1, 2, 300 )");
  EXPECT_TRUE(at(0, 1, 0) < at(1, 0, 0) && at(0, 0, 9) < at(0, 1, 0) && at(0, 1, 3) < at(0, 1, 4));
}

class Opaque : public HashItem {
public:
  bool isEqual(Zel::Ptr<HashItem const> const&) const override { return false; }
};

TEST(CuckooDeathTest, ConfigurationErrorsAndMisuseAreFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::vector<std::pair<U8, U32>> ten;
  for (U8 id = 0; id <= TableId::null; ++id) ten.emplace_back(id, 4);
  std::tuple<U8, std::vector<std::pair<U8, U32>>, U32, U32, char const*> const configs[] = {
      {0, {}, 200, 3, "config\\(\\)->numTables\\(\\) \\("},
      {2,
       {{0, 8}},
       200,
       3,
       "config\\(\\)->numTables\\(\\) == config\\(\\)->tableDescLists\\(\\) \\("},
      {1, {{0, 8}}, 200, 0, "config\\(\\)->maxRetry\\(\\) \\("},
      {1, {{0, 8}}, 0, 3, "config\\(\\)->maxLoop\\(\\) \\("},
      {2, {{0, 8}, {2, 8}}, 200, 3, "tableDesc->tableId\\(\\) == tableId \\("},
      {1, {{0, 0}}, 200, 3, "tableDesc->tableSize\\(\\) \\("},
      {10, ten, 200, 3, "config\\(\\)->numTables\\(\\) < TableId::null"}};
  for (auto const& [numTables, tables, maxLoop, maxRetry, failed] : configs) {
    auto config = configFactory("c", numTables);
    for (auto [id, size] : tables) config->tableDescListIs(TableId(id), size, 2);
    config->maxLoopIs(maxLoop);
    config->maxRetryIs(maxRetry);
    EXPECT_DEATH(hashTableFactory(config, statusFactory("s"))->handleInitialized(),
                 std::string("Assertion failed: ") + failed);
  }
  Rig rig({8, 2, 2});
  EXPECT_DEATH(rig.table->lookupItem(nullptr), "Assertion failed: item \\(");
  EXPECT_DEATH(rig.table->handleInitialized(), "Assertion failed: !initialized\\(\\)");
  auto uninitialized = hashTableFactory(configFactory("c", 10), statusFactory("s"));
  EXPECT_DEATH(uninitialized->insertItem(item(1, 1)), "Assertion failed: initialized\\(\\)");
  EXPECT_DEATH(uninitialized->displayItems(1),
               "Assertion failed: config\\(\\)->numTables\\(\\) < 10");
  Zel::Ptr<Opaque> const opaque = Zel::allocate<Opaque>();
  char const* const notImplemented = "Assertion failed: \\(!\\(\"not implemented\"\\)\\)";
  EXPECT_DEATH(opaque->getHash(TableId(0)), notImplemented);
  EXPECT_DEATH(opaque->toStrep(), notImplemented);
}

// A walk on a full table never evicts from the same table twice in a row, and a seed makes it
// the same walk run after run.
TEST(CuckooEviction, TwoTablesAlternateStrictlyAndTheSeedReproducesTheWalk) {
  auto const walk = [](U32 seed) {
    Rig rig({4, 2, 2}, [&](Config& c) { c.randomSeedIs(seed); });
    for (U32 s = 0; s < 16; ++s) {
      Peer::setItemAtLocation(*rig.table, item(1000 + s, s % 4, s % 4),
                              at(s / 8, s / 4 % 2, s % 4));
    }
    auto const path = evictCmdPathFactory();
    std::vector<CuckooLocation> walked;
    for (Zel::Ptr<HashItem const> next = item(1, 1, 2); next && walked.size() < 60;) {
      next = Peer::tryInsertItem(*rig.table, next, path);
      EXPECT_TRUE(walked.empty() || walked.back().tableId() != rig.table->lastEvictedTable());
      walked.push_back(path->cmdLog()->location());
      EXPECT_EQ(walked.back().tableId(), rig.table->lastEvictedTable());
    }
    return walked;
  };
  auto const first = walk(5);
  EXPECT_EQ(first.size(), 60u) << "a full table has no free slot";
  EXPECT_EQ(walk(5), first);
  EXPECT_NE(walk(6), first);
}

// A path that puts N down in L1, moves A and B, picks N up again from L1 and ends in a free slot:
//   (L1: A -> N), (L2: B -> A), (L1: N -> B), (L3: C -> N), (L4: free -> C).
// Hitless drops the cycle through L1; either way each slot is queued once, newest first.
TEST(CuckooEviction, PathsAreQueuedNewestFirstOnceASlotAndHitlessDropsCycles) {
  using Writes = std::vector<std::pair<CuckooLocation, Zel::Ptr<HashItem const>>>;
  auto const n = item(1, 0), a = item(2, 0), b = item(3, 0), c = item(4, 0);
  auto const l1 = at(0, 0, 1), l2 = at(1, 0, 2), l3 = at(1, 0, 3), l4 = at(0, 0, 0);
  for (bool hitless : {true, false}) {
    SCOPED_TRACE(hitless ? "hitless" : "plain");
    Rig rig({4, 1, 2}, [&](Config& config) { config.hitlessIs(hitless); });
    for (auto const& [location, resident] : Writes{{l1, a}, {l2, b}, {l3, c}}) {
      Peer::setItemAtLocation(*rig.table, resident, location);
    }
    auto const path = evictCmdPathFactory();
    for (auto const& [location, next] : Writes{{l1, n}, {l2, a}, {l1, b}, {l3, n}, {l4, c}}) {
      path->cmdLogIs(Peer::setItemAtLocation(*rig.table, next, location));
    }
    Peer::updateCuckooCmds(*rig.table, path, rig.queue());
    EXPECT_EQ(path->cmdLogs(), 0u);
    Writes queued;
    for (auto const& write : rig.queue()->itemSeqIteratorConst()) {
      queued.emplace_back(write->location(), write->item());
    }
    EXPECT_EQ(queued,
              (hitless ? Writes{{l4, c}, {l3, n}} : Writes{{l4, c}, {l3, n}, {l1, b}, {l2, a}}));
    EXPECT_EQ(rig.status->cycleCount(), hitless ? 1u : 0u);
    EXPECT_EQ(rig.status->longestCycle(), hitless ? 1u : 0u);
    EXPECT_EQ(rig.status->tableStat(TableId(1))->numOfEvicts(), hitless ? 1u : 2u);
    // Without cycle deletion, B overwrites A in L1 before A reaches L2.
    EXPECT_EQ(rig.table->verifyCuckooCmdsHitless(), hitless);
  }
}

class CuckooReview : public testing::Test {
protected:
  static constexpr Seconds start = 1000.0;
  void SetUp() override { Zel::System::virtualTimeIs(start); }
  void TearDown() override { Zel::System::virtualTimeDel(); }
  static void runUntil(Seconds t) { Zel::activityManager()->runUntil(t); }
};

// One timeline on a one-slot table: failed attempts are counted and logged, pending items are
// tried on the review clock, reported once they wait too long, placed after a removal, and left
// alone when the review is switched off.
TEST_F(CuckooReview, FailsRetriesReportsPlacesAndStops) {
  Rig rig({1, 1, 1}, [](Config& c) {
    c.maxRetryIs(2);
    c.maxLoopIs(1);
    c.numFailureRecordsIs(3);
  });
  auto const resident = item(1, 0), first = item(2, 0), second = item(3, 0), third = item(4, 0);
  ASSERT_TRUE(rig.table->insertItem(resident));
  EXPECT_FALSE(rig.table->insertItem(first));
  EXPECT_EQ(rig.table->pendingItemReviewTime(), start + 5.0);
  EXPECT_FALSE(rig.table->insertItem(second) || rig.table->insertItem(third));
  EXPECT_FALSE(rig.table->deleteItem(nullptr));
  runUntil(start + 4.9);
  EXPECT_EQ(rig.status->retryCount(), 6u) << "one count per failed attempt";
  runUntil(start + 5.0);
  EXPECT_EQ(rig.status->retryCount(), 12u) << "three pending items, 25 allowed: each tried once";
  // Twelve failed attempts: the first three stay, the last log slid to four entries.
  EXPECT_EQ(rig.status->firstFailLoadFactors(), 3u);
  EXPECT_EQ(rig.status->lastFailLoadFactors(), 4u);
  EXPECT_EQ(rig.status->firstFailLoadFactorIteratorConst().begin()->first, 0u);
  EXPECT_EQ(rig.status->lastFailLoadFactorIteratorConst().begin()->first, 5u);
  EXPECT_FLOAT_EQ(rig.status->lastFailLoadFactor(8), 1.0f);
  EXPECT_EQ(rig.table->pendingItemBeginTime(), start + 5.0) << "set by the first review";
  rig.config->maxPendingItemsToReviewIs(2);
  runUntil(start + 10.0);
  EXPECT_EQ(rig.status->retryCount(), 16u);

  // Reported by the first review later than begin + 60, then again one interval later.
  for (auto [time, version] : {std::pair{69.9, 0u}, {70.0, 1u}, {130.0, 1u}, {135.0, 2u}}) {
    runUntil(start + time);
    EXPECT_EQ(rig.status->pendingItemSyslogVersion(), version) << "at " << time;
  }
  EXPECT_EQ(rig.table->lastSyslogTime(), start + 135.0);

  EXPECT_FALSE(rig.table->deleteItem(second) || rig.table->deleteItem(third))
      << "pending items leave the set all the same";
  ASSERT_TRUE(rig.table->deleteItem(resident));
  rig.ack();
  runUntil(start + 140.0);
  EXPECT_EQ(rig.status->pendingItemVersion(), 1u);
  EXPECT_EQ(rig.status->pendingItemSets(), 0u);
  EXPECT_EQ(rig.table->itemShadow(at(0, 0, 0)), first);
  EXPECT_EQ(rig.queue()->itemSeqs(), 1u);
  EXPECT_EQ(rig.status->pendingItemSyslogVersion(), 3u) << "cleared";
  EXPECT_EQ(rig.table->lastSyslogTime(), Zel::beginningOfTime);
  EXPECT_EQ(rig.table->pendingItemBeginTime(), Zel::beginningOfTime);
  EXPECT_EQ(rig.table->pendingItemReviewTime(), Zel::endOfTime) << "nothing left to review";

  EXPECT_FALSE(rig.table->insertItem(resident));
  U32 const retries = rig.status->retryCount();
  rig.config->reviewPendingItemSupportIs(false);
  runUntil(start + 150.0);
  EXPECT_EQ(rig.status->retryCount(), retries);
  EXPECT_EQ(rig.table->pendingItemReviewTime(), Zel::endOfTime) << "a skipped review stays off";
  EXPECT_EQ(rig.status->pendingItemSets(), 1u);
}

TEST(CuckooIntrospection, TextsAndReflection) {
  Rig rig({4, 2, 2});
  ASSERT_TRUE(rig.table->insertItem(item(1, 3, 1)));
  ASSERT_TRUE(rig.table->insertItem(item(2, 3, 1)));
  auto const* type = Zel::GenericIf::type("Kiv::Cuckoo::HashTable");
  ASSERT_TRUE(type);
  EXPECT_EQ(type->attributeValue(*rig.table, "verifyCuckooCmdsHitless"), "True");
  // Texts come back in their string form: quoted, with line ends escaped.
  std::string const snapshot(type->attributeValue(*rig.table, "currentSnapshot").view());
  std::string const grid(type->attributeValue(*rig.table, "displayItems").view());
  EXPECT_EQ(snapshot, Zel::valueToStrep(rig.table->currentSnapshot()).view());
  EXPECT_THAT(snapshot, testing::HasSubstr("TableId/BinId/Index: ( 0, 1, 3 ) IntHashItem(2)\\n"));
  EXPECT_THAT(snapshot, testing::HasSubstr("queued writes: 2"));
  // Reflection shows every bucket; tables of one geometry need no remark above the grid.
  EXPECT_THAT(grid, testing::StartsWith("'Index/Bin       Table 0         Table 1\\n"));
  EXPECT_THAT(grid, testing::HasSubstr("\\n3/1             IntHashItem(2)  -\\n"));

  // The writer may acknowledge through reflection too.
  Zel::GenericIf::type("Kiv::Cuckoo::Config")
      ->attributeValueIs(*rig.config, "cmdReadCompleted", "1");
  EXPECT_EQ(rig.queue()->itemSeqs(), 0u);
  auto const made =
      Zel::GenericIf::type("Kiv::Cuckoo::IntHashItem")->genericIfFromCtorArgs({"7", "3", "1", "0"});
  EXPECT_TRUE(rig.table->insertItem(Zel::dynamicPtrCast<HashItem const>(made)));
  EXPECT_EQ(rig.table->itemShadow(at(1, 0, 1)), made) << "bucket 3 of table 0 is full";

  // Remarks on differing geometry come first; rows beyond a table's geometry stay blank.
  Rig odd({2, 1, 2}, [](Config& c) {
    c.tableDescListDel(TableId(1));
    c.tableDescListIs(TableId(1), 4, 2);
  });
  ASSERT_TRUE(odd.table->insertItem(item(5, 1, 1)));
  EXPECT_EQ(odd.table->displayItems(3),
            "Tables are different in bins per bucket: table 1 has 2, table 0 has 1\n"
            "Table sizes are different: table 1 has 4 buckets, table 0 has 2\n"
            "Index/Bin       Table 0         Table 1\n"
            "0/0             -               -\n"
            "0/1                             -\n"
            "1/0             IntHashItem(5)  -\n"
            "1/1                             -\n"
            "2/0                             -\n"
            "2/1                             -\n");
}

}  // namespace
}  // namespace Kiv::Cuckoo::Test
