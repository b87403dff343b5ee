// The sharp edges of the cuckoo table: bad input, configuration errors, the placement rules, the
// eviction path bookkeeping, the failure logs, the pending review on virtual time, the writer's
// hand-shake and reflection.
#include "CuckooTestSupport.h"

#include <Zel/Activity.h>
#include <Zel/GenericIf.h>
#include <Zel/System.h>

#include <gtest/gtest.h>

#include <any>
#include <sstream>
#include <string>

namespace Kiv::Cuckoo::Test {
namespace {

Zel::Ptr<HashItem const> item(U32 key, U32 hash0, U32 hash1 = 0, U32 hash2 = 0) {
  return intHashItemFactory(key, hash0, hash1, hash2);
}

template <class F>
std::string messageOf(F&& f) {
  try {
    f();
  } catch (std::exception const& e) {
    return e.what();
  }
  return "no exception";
}

CuckooLocation at(U8 table, U8 bin, U32 index) {
  return CuckooLocation(TableId(table), bin, index);
}

TEST(CuckooBadInput, TableIdsAboveNineAndBinSizesOutsideOneToEightThrow) {
  std::string const tableIdMessage = "TableId::value < TableId::min or > TableId::null not allowed";
  EXPECT_EQ(messageOf([] { TableId(10); }), tableIdMessage);
  EXPECT_EQ(messageOf([] { Zel::strepToValue<TableId>("12"); }), tableIdMessage);
  EXPECT_TRUE(TableId().isNull());
  EXPECT_TRUE(TableId(9).isNull());

  auto config = configFactory("c", 1);
  for (U8 binSize : {U8(0), U8(9)}) {
    EXPECT_EQ(messageOf([&] { config->tableDescListIs(TableId(0), 16, binSize); }),
              "TableDescriptor::binSize < 1 or > 8 not allowed");
  }
  EXPECT_EQ(config->tableDescLists(), 0u);
  auto const desc = config->tableDescListIs(TableId(0), 16, 8);
  EXPECT_EQ(config->tableDescListIs(TableId(0), 16, 8), desc);
  EXPECT_EQ(messageOf([&] { config->tableDescListIs(TableId(0), 32, 8); }),
            "Reinstantiating the pointer interface where constructor parameter attribute "
            "_tableSize has a different value of 32 than the current value of 16 not allowed");
  EXPECT_EQ(messageOf([&] { config->tableDescListIs(TableId(0), 16, 1); }),
            "Reinstantiating the pointer interface where constructor parameter attribute "
            "_binSize has a different value of 1 than the current value of 8 not allowed");
}

TEST(CuckooValues, StreamFormsAndLocationOrder) {
  std::ostringstream out;
  out << TableId(3) << " " << at(1, 2, 300);
  EXPECT_EQ(out.str(), "( 3 ) TableId/BinId/Index: ( 1, 2, 300 )");
  CuckooLocation const location = at(2, 7, 99);
  EXPECT_EQ(Zel::strepToValue<CuckooLocation>(Zel::valueToStrep(location).view()), location);
  EXPECT_LT(at(0, 1, 0), at(1, 0, 0));
  EXPECT_LT(at(0, 0, 9), at(0, 1, 0));
  EXPECT_LT(at(0, 1, 3), at(0, 1, 4));
}

void initialize(U8 numTables, std::vector<std::pair<U8, U32>> const& tables, U32 maxLoop = 200,
                U32 maxRetry = 3) {
  auto config = configFactory("c", numTables);
  for (auto [id, size] : tables) config->tableDescListIs(TableId(id), size, 2);
  config->maxLoopIs(maxLoop);
  config->maxRetryIs(maxRetry);
  hashTableFactory(config, statusFactory("s"))->handleInitialized();
}

class Opaque : public HashItem {
public:
  bool isEqual(Zel::Ptr<HashItem const> const&) const override { return false; }
};

TEST(CuckooDeathTest, ConfigurationErrorsAndMisuseAreFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(initialize(0, {}), "Assertion failed: config\\(\\)->numTables\\(\\) \\(");
  EXPECT_DEATH(initialize(2, {{0, 8}}),
               "Assertion failed: config\\(\\)->numTables\\(\\) == "
               "config\\(\\)->tableDescLists\\(\\) \\(");
  EXPECT_DEATH(initialize(1, {{0, 8}}, 200, 0),
               "Assertion failed: config\\(\\)->maxRetry\\(\\) \\(");
  EXPECT_DEATH(initialize(1, {{0, 8}}, 0, 3), "Assertion failed: config\\(\\)->maxLoop\\(\\) \\(");
  EXPECT_DEATH(initialize(2, {{0, 8}, {2, 8}}),
               "Assertion failed: tableDesc->tableId\\(\\) == tableId \\(");
  EXPECT_DEATH(initialize(1, {{0, 0}}), "Assertion failed: tableDesc->tableSize\\(\\) \\(");
  std::vector<std::pair<U8, U32>> ten;
  for (U8 id = 0; id <= TableId::null; ++id) ten.emplace_back(id, 4);
  EXPECT_DEATH(initialize(10, ten),
               "Assertion failed: config\\(\\)->numTables\\(\\) < TableId::null");
  Rig rig({8, 2, 2});
  EXPECT_DEATH(rig.table->lookupItem(nullptr), "Assertion failed: item \\(");
  EXPECT_DEATH(rig.table->handleInitialized(), "Assertion failed: !initialized\\(\\)");
  auto config = configFactory("c", 10);
  auto uninitialized = hashTableFactory(config, statusFactory("s"));
  EXPECT_DEATH(uninitialized->insertItem(item(1, 1)), "Assertion failed: initialized\\(\\)");
  EXPECT_DEATH(uninitialized->displayItems(1),
               "Assertion failed: config\\(\\)->numTables\\(\\) < 10");
  Zel::Ptr<Opaque> const opaque = Zel::allocate<Opaque>();
  char const* const notImplemented = "Assertion failed: \\(!\\(\"not implemented\"\\)\\)";
  EXPECT_DEATH(opaque->getHash(TableId(0)), notImplemented);
  EXPECT_DEATH(opaque->toStrep(), notImplemented);
}

// Counters, the queued clears of removals and the fate of pending items are the workload's.
TEST(CuckooInsert, FreeSlotsAreTakenInTableThenBinOrder) {
  Rig rig({8, 2, 2});
  std::pair<Zel::Ptr<HashItem const>, CuckooLocation> const expected[] = {
      {item(1, 3, 5), at(0, 0, 3)},
      {item(2, 11, 5), at(0, 1, 3)},  // 11 mod 8 is bucket 3 too
      {item(3, 3, 5), at(1, 0, 5)},
      {item(4, 3, 13), at(1, 1, 5)}};
  for (auto const& [next, location] : expected) {
    ASSERT_TRUE(rig.table->insertItem(next));
    auto const writes = rig.queued();
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0]->location(), location);
    EXPECT_EQ(writes[0]->item(), next);
    EXPECT_FALSE(writes[0]->replacedItem());
    rig.ack();
  }
  // Another handle with the same key finds the resident.
  auto const found = rig.table->lookupItem(item(3, 3, 5));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->location(), at(1, 0, 5));
  EXPECT_EQ(keyOf(found->item()), 3u);
  EXPECT_FALSE(rig.table->lookupItem(item(9, 3, 5)));
  EXPECT_FALSE(rig.table->itemLocation(item(9, 3, 5)));
  EXPECT_FALSE(rig.table->deleteItem(nullptr));
}

// Fills every slot through the engine's slot write, each item hashing to its own bucket.
void fill(Rig& rig, Shape shape) {
  U32 key = 1000;
  for (U8 t = 0; t < shape.numTables; ++t) {
    for (U8 b = 0; b < shape.binSize; ++b) {
      for (U32 i = 0; i < shape.tableSize; ++i) {
        rig.table->setItemAtLocation(item(key++, i, i, i), at(t, b, i));
      }
    }
  }
}

TEST(CuckooEviction, TwoTablesAlternateStrictlyAndRevertRestoresEverySlot) {
  Shape const shape{4, 2, 2};
  Rig rig(shape, [](Config& c) { c.randomSeedIs(5); });
  fill(rig, shape);
  Slots const before = rig.shadow();
  auto const path = evictCmdPathFactory();
  Zel::Ptr<HashItem const> current = item(1, 1, 2);
  TableId previous;
  for (int step = 0; step < 60; ++step) {
    current = rig.table->tryInsertItem(current, path);
    ASSERT_TRUE(current) << "a full table has no free slot";
    ASSERT_NE(rig.table->lastEvictedTable(), previous) << "step " << step;
    previous = rig.table->lastEvictedTable();
  }
  EXPECT_EQ(path->cmdLogs(), 60u);
  rig.table->revertChanges(path);
  EXPECT_EQ(path->cmdLogs(), 0u);
  EXPECT_EQ(rig.shadow(), before);
}

// A path that puts N down in L1, moves A and B, picks N up again from L1 and ends in a free slot:
//   (L1: A -> N), (L2: B -> A), (L1: N -> B), (L3: C -> N), (L4: free -> C).
struct CyclePath {
  Zel::Ptr<HashItem const> n = item(1, 0), a = item(2, 0), b = item(3, 0), c = item(4, 0);
  CuckooLocation l1 = at(0, 0, 1), l2 = at(1, 0, 2), l3 = at(1, 0, 3), l4 = at(0, 0, 0);
  Zel::Ptr<EvictCmdPath> path = evictCmdPathFactory();

  explicit CyclePath(Rig& rig) {
    rig.table->setItemAtLocation(a, l1);
    rig.table->setItemAtLocation(b, l2);
    rig.table->setItemAtLocation(c, l3);
    path->cmdLogIs(rig.table->setItemAtLocation(n, l1));
    path->cmdLogIs(rig.table->setItemAtLocation(a, l2));
    path->cmdLogIs(rig.table->setItemAtLocation(b, l1));
    path->cmdLogIs(rig.table->setItemAtLocation(n, l3));
    path->cmdLogIs(rig.table->setItemAtLocation(c, l4));
  }
};

TEST(CuckooEviction, HitlessDropsTheCycleAndQueuesTheRestNewestFirst) {
  Rig rig({4, 1, 2});
  CyclePath p(rig);
  rig.table->updateCuckooCmds(p.path, rig.queue());
  EXPECT_EQ(rig.status->cycleCount(), 1u);
  EXPECT_EQ(rig.status->longestCycle(), 1u);
  EXPECT_EQ(p.path->cmdLogs(), 0u);
  EXPECT_EQ(rig.shadow(), (Slots{{p.l4, p.c}, {p.l1, p.a}, {p.l2, p.b}, {p.l3, p.n}}));
  auto const writes = rig.queued();
  ASSERT_EQ(writes.size(), 2u);
  EXPECT_EQ(writes[0]->location(), p.l4);
  EXPECT_EQ(writes[0]->item(), p.c);
  EXPECT_EQ(writes[1]->location(), p.l3);
  EXPECT_EQ(writes[1]->item(), p.n);
  EXPECT_EQ(rig.status->tableStat(TableId(1))->numOfEvicts(), 1u);
  EXPECT_TRUE(rig.table->verifyCuckooCmdsHitless());
}

TEST(CuckooEviction, WithoutHitlessEachSlotIsWrittenOnceWithItsFinalItem) {
  Rig rig({4, 1, 2}, [](Config& c) { c.hitlessIs(false); });
  CyclePath p(rig);
  rig.table->updateCuckooCmds(p.path, rig.queue());
  EXPECT_EQ(rig.status->cycleCount(), 0u);
  auto const writes = rig.queued();
  ASSERT_EQ(writes.size(), 4u);
  EXPECT_EQ(writes[0]->location(), p.l4);
  EXPECT_EQ(writes[1]->location(), p.l3);
  EXPECT_EQ(writes[2]->location(), p.l1);
  EXPECT_EQ(writes[2]->item(), p.b);
  EXPECT_EQ(writes[2]->replacedItem(), p.a) << "the real table held A before the path";
  EXPECT_EQ(writes[3]->location(), p.l2);
  EXPECT_EQ(writes[3]->item(), p.a);
  // Writing B over A before A reaches L2 loses A for one write.
  EXPECT_FALSE(rig.table->verifyCuckooCmdsHitless());
}

TEST(CuckooFailure, OneSlotTableFailsUnchangedAndTheLogsKeepNAndNPlusOne) {
  U32 const records = 3;
  Rig rig({1, 1, 1}, [&](Config& c) {
    c.maxRetryIs(2);
    c.maxLoopIs(5);
    c.numFailureRecordsIs(records);
    c.reviewPendingItemSupportIs(false);
  });
  ASSERT_TRUE(rig.table->insertItem(item(1, 0)));
  rig.ack();
  Slots const before = rig.shadow();
  for (U32 key = 2; key <= 6; ++key) {
    EXPECT_FALSE(rig.table->insertItem(item(key, 0)));
    EXPECT_EQ(rig.queue()->itemSeqs(), 0u);
    EXPECT_EQ(rig.shadow(), before);
    EXPECT_EQ(rig.status->retryCount(), 2 * (key - 1)) << "one count per failed attempt";
  }
  // Ten failed attempts: the first three stay, the last log slid to four entries.
  EXPECT_EQ(rig.status->firstFailLoadFactors(), records);
  EXPECT_EQ(rig.status->lastFailLoadFactors(), records + 1);
  EXPECT_EQ(rig.status->firstFailLoadFactorIteratorConst().begin()->first, 0u);
  EXPECT_EQ(rig.status->lastFailLoadFactorIteratorConst().begin()->first, 3u);
  EXPECT_FLOAT_EQ(rig.status->lastFailLoadFactor(6), 1.0f);
}

class CuckooReview : public testing::Test {
protected:
  static constexpr Seconds start = 1000.0;
  void SetUp() override { Zel::System::virtualTimeIs(start); }
  void TearDown() override { Zel::System::virtualTimeDel(); }
  static void runUntil(Seconds t) { Zel::activityManager()->runUntil(t); }
};

TEST_F(CuckooReview, PlacesPendingItemsAfterRemovals) {
  Rig rig({2, 1, 1}, [](Config& c) {
    c.maxRetryIs(1);
    c.maxLoopIs(4);
  });
  auto const a = item(1, 0), b = item(2, 1), c = item(3, 0);
  ASSERT_TRUE(rig.table->insertItem(a));
  ASSERT_TRUE(rig.table->insertItem(b));
  rig.ack();
  EXPECT_EQ(rig.table->pendingItemReviewTime(), Zel::endOfTime);
  EXPECT_FALSE(rig.table->insertItem(c));
  EXPECT_EQ(rig.table->pendingItemReviewTime(), start + 5.0);
  ASSERT_TRUE(rig.table->deleteItem(a));
  rig.ack();

  runUntil(start + 4.9);
  EXPECT_EQ(rig.status->pendingItemVersion(), 0u);
  runUntil(start + 5.0);
  EXPECT_EQ(rig.status->pendingItemVersion(), 1u);
  EXPECT_EQ(rig.status->pendingItemSets(), 0u);
  EXPECT_EQ(rig.table->itemLocation(c), at(0, 0, 0));
  EXPECT_EQ(rig.queue()->itemSeqs(), 1u);
  EXPECT_EQ(rig.table->pendingItemReviewTime(), Zel::endOfTime) << "nothing left to review";
  EXPECT_EQ(rig.table->pendingItemBeginTime(), Zel::beginningOfTime);
}

TEST_F(CuckooReview, SyslogVersionRisesAfterTheIntervalAndAgainWhenTheSetEmpties) {
  Rig rig({1, 1, 1}, [](Config& c) {
    c.maxRetryIs(1);
    c.maxLoopIs(2);
  });
  auto const resident = item(1, 0);
  ASSERT_TRUE(rig.table->insertItem(resident));
  EXPECT_FALSE(rig.table->insertItem(item(2, 0)));

  runUntil(start + 5.0);
  EXPECT_EQ(rig.table->pendingItemBeginTime(), start + 5.0) << "set by the first review";
  runUntil(start + 69.9);
  EXPECT_EQ(rig.status->pendingItemSyslogVersion(), 0u);
  runUntil(start + 70.0);  // the first review later than begin + 60
  EXPECT_EQ(rig.status->pendingItemSyslogVersion(), 1u);
  EXPECT_EQ(rig.table->lastSyslogTime(), start + 70.0);
  runUntil(start + 130.0);
  EXPECT_EQ(rig.status->pendingItemSyslogVersion(), 1u) << "next report one interval later";
  runUntil(start + 135.0);
  EXPECT_EQ(rig.status->pendingItemSyslogVersion(), 2u);

  ASSERT_TRUE(rig.table->deleteItem(resident));
  runUntil(start + 140.0);
  EXPECT_EQ(rig.status->pendingItemVersion(), 1u);
  EXPECT_EQ(rig.status->pendingItemSyslogVersion(), 3u) << "cleared";
  EXPECT_EQ(rig.table->lastSyslogTime(), Zel::beginningOfTime);
  EXPECT_EQ(rig.table->pendingItemReviewTime(), Zel::endOfTime);
}

TEST_F(CuckooReview, TriesEachPendingItemOnceAndSkipsWhenSwitchedOff) {
  Rig rig({1, 1, 1}, [](Config& c) {
    c.maxRetryIs(1);
    c.maxLoopIs(1);
  });
  ASSERT_TRUE(rig.table->insertItem(item(1, 0)));
  for (U32 key = 2; key <= 4; ++key) EXPECT_FALSE(rig.table->insertItem(item(key, 0)));
  EXPECT_EQ(rig.status->retryCount(), 3u);
  runUntil(start + 5.0);
  EXPECT_EQ(rig.status->retryCount(), 6u) << "three pending items, 25 allowed: each tried once";
  rig.config->maxPendingItemsToReviewIs(2);
  runUntil(start + 10.0);
  EXPECT_EQ(rig.status->retryCount(), 8u);

  rig.config->reviewPendingItemSupportIs(false);
  runUntil(start + 15.0);
  EXPECT_EQ(rig.status->retryCount(), 8u);
  EXPECT_EQ(rig.table->pendingItemReviewTime(), Zel::endOfTime) << "a skipped review stays off";
  EXPECT_EQ(rig.status->pendingItemSets(), 3u);
}

TEST(CuckooIntrospection, ReachableThroughReflection) {
  Rig rig({4, 2, 2});
  ASSERT_TRUE(rig.table->insertItem(item(1, 3, 1)));
  ASSERT_TRUE(rig.table->insertItem(item(2, 3, 1)));
  auto const* type = Zel::GenericIf::type("Kiv::Cuckoo::HashTable");
  ASSERT_TRUE(type);
  EXPECT_EQ(type->attributeValue(*rig.table, "verifyCuckooCmdsHitless"), "True");
  EXPECT_EQ(type->attributeValue(*rig.table, "tryReduceCuckooCmds"), "None");
  // Texts come back in their string form: quoted, with line ends escaped.
  Zel::String const snapshot = type->attributeValue(*rig.table, "currentSnapshot");
  EXPECT_EQ(snapshot, Zel::valueToStrep(rig.table->currentSnapshot()));
  EXPECT_NE(snapshot.find("TableId/BinId/Index: ( 0, 1, 3 ) IntHashItem(2)\\n"), Zel::String::npos)
      << snapshot;
  EXPECT_NE(snapshot.find("queued writes: 2"), Zel::String::npos) << snapshot;
  EXPECT_EQ(rig.table->displayItems(1),
            "Index/Bin       Table 0         Table 1\n"
            "0/0             -               -\n"
            "0/1             -               -\n");
  Zel::String const grid = type->attributeValue(*rig.table, "displayItems");
  EXPECT_NE(grid.find("3/1             IntHashItem(2)  -\\n"), Zel::String::npos) << grid;

  // The writer may acknowledge through reflection too.
  Zel::GenericIf::type("Kiv::Cuckoo::Config")
      ->attributeValueIs(*rig.config, "cmdReadCompleted", "1");
  EXPECT_EQ(rig.queue()->itemSeqs(), 0u);

  auto const made = Zel::GenericIf::type("Kiv::Cuckoo::IntHashItem")
                        ->genericIfFromCtorArgs({"7", "3", "1", "0"});
  EXPECT_TRUE(rig.table->insertItem(Zel::dynamicPtrCast<HashItem const>(made)));
  auto const* tableType = Zel::GenericIf::type("Kiv::Cuckoo::HashTable");
  auto const second = tableType->genericIfFromCtorArgs(
      {std::any(configFactory("r", 1)), std::any(statusFactory("r"))});
  EXPECT_EQ(tableType->attributeValue(*second, "initialized"), "False");
  // Handles have no string form.
  EXPECT_THROW(tableType->genericIfFromCtorArgs({"x", "y"}), Zel::RangeException);
}

TEST(CuckooIntrospection, DisplayReportsTablesOfAnotherGeometry) {
  auto config = configFactory("c", 2);
  config->tableDescListIs(TableId(0), 2, 1);
  config->tableDescListIs(TableId(1), 3, 2);
  auto table = hashTableFactory(config, statusFactory("s"));
  table->handleInitialized();
  EXPECT_EQ(table->displayItems(5),
            "Tables are different in bins per bucket: table 1 has 2, table 0 has 1\n"
            "Table sizes are different: table 1 has 3 buckets, table 0 has 2\n"
            "Index/Bin       Table 0         Table 1\n"
            "0/0             -               -\n"
            "0/1                             -\n"
            "1/0             -               -\n"
            "1/1                             -\n"
            "2/0                             -\n"
            "2/1                             -\n");
}

}  // namespace
}  // namespace Kiv::Cuckoo::Test
