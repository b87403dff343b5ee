// What the randomized runs cannot reach or pin down exactly: edges of time-outs, dependencies, time
// slices and the sides' lives; the texts users rely on; reflection; the guards against misuse.
#include "XactRig.h"

#include <Zel/GenericIf.h>

#include <cmath>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace XactTest {
namespace {

using Kind = Rig::Kind;
using testing::ThrowsMessage;

// An age equal to the time-out is timed out. A dependant waits for every blocker, and for ever
// on one that failed unless failIfBlockingXactFails. A transaction put in progress by hand before
// any attempt (version 0) has no status weighed; with no status directory left, its time-out
// blames "unknown".
TEST(XactScenario, TimeOutsAndDependantsAtTheirEdges) {
  Rig rig;
  rig.aggregator->timeoutIs(5.0);
  WorkerSide const& w1 = rig.workerIs("w1", Kind::silent);
  Ptr<Xact> const x = rig.start(1);
  Ptr<Xact> const dependant = rig.xacts->xactIs(4);
  dependant->blockingXactIs(x);
  dependant->blockingXactIs(rig.start(5));
  rig.aggregator->doStartXact(dependant);
  w1.statusDir->xactStatusIs(XactStatus(5, success, "", 1));
  runUntil(start + 5);
  EXPECT_EQ(comments(*x), (Comments{{"w1", "Timeout"}}));
  EXPECT_EQ(rig.aggregator->blockedXact(4), dependant);
  Ptr<Xact> const armed = rig.start(2);
  Ptr<Xact> const orphan = rig.xacts->xactIs(3);
  orphan->startTimeIs(start + 5);
  rig.aggregator->inProgressXactIs(orphan);
  rig.aggregator->xactStatusDirDelAll();
  EXPECT_EQ(armed->result(), success);
  runUntil(start + 10);
  EXPECT_EQ(comments(*orphan), (Comments{{"unknown", "Timeout"}}));
}

// The executor's counters, exactly; then a slice resumes at the bookmark and wraps once, while a
// handler rewrites the config under execution (it runs again) and withdraws the next entry.
TEST(XactScenario, ATimeSlicedWorkerKeepsItsPlace) {
  Rig rig;
  Worker& w1 = *rig.workerIs("w1", Kind::timeSliced).worker;
  w1.executionTime = 0.02;
  for (U32 id = 1; id <= 5; ++id) rig.start(id);
  for (std::size_t tick = 1; tick <= 5; ++tick) {
    Zel::activityManager()->runOnce(0);
    EXPECT_EQ(w1.executed.size(), tick) << "one entry per tick when each outlasts the quantum";
  }
  EXPECT_EQ(std::tuple(w1.yieldBeforeFinishingCount(), w1.dispatchCount(), w1.updatesProcessed(),
                       w1.bookmark(), w1.backlogCount()),
            std::tuple(4u, 5u, 5u, 5u, 0u));
  EXPECT_NEAR(w1.timeUsed(), 4 * 0.02, 1e-9) << "up to the last entry's start";

  w1.executionTime = 0;
  for (U32 id : {11, 12, 14, 15}) rig.start(id);
  w1.bookmarkIs(13);
  w1.answer = [&](XactConfig const& c) {
    if (c == XactConfig(14, 1)) {
      rig.start(14);
      rig.aggregator->doStopXact(15);
    }
    return ExecResult(success, "");
  };
  runUntil(start + 1);
  EXPECT_EQ(std::vector<XactConfig>(w1.executed.begin() + 5, w1.executed.end()),
            (std::vector<XactConfig>{{14, 1}, {11, 1}, {12, 1}, {14, 2}}));
  EXPECT_EQ(w1.yieldBeforeFinishingCount(), 4u) << "a slice runs on while its quantum lasts";
}

// A worker takes up the configs present when it is made (which the base class cannot execute),
// keeps an entry whose execution threw, and withdraws its answers when it goes. A coordinator
// with no worker succeeds at once, and withdraws its configs when it goes.
TEST(XactScenario, TheSidesBeginAndEnd) {
  auto const configDir = Kiv::xactConfigDirFactory("w1");
  auto const statusDir = Kiv::xactStatusDirFactory("w1");
  configDir->xactConfigIs(XactConfig(3, 7));
  configDir->xactConfigIs(XactConfig(1, 2));
  auto const early = Kiv::xactExecutorSmFactory<Worker>("w1", configDir, statusDir, nullptr);
  EXPECT_EQ(early->executed, (std::vector<XactConfig>{{1, 2}, {3, 7}}));
  EXPECT_THAT([&] { Kiv::xactExecutorSmFactory("base", configDir, statusDir, nullptr); },
              ThrowsMessage<Zel::NoImplementationException>(
                  "doExecute must be implemented in the derived class"));

  Rig rig;
  EXPECT_EQ(rig.start(1)->result(), success) << "with no worker to ask it succeeds at once";
  WorkerSide& w2 = rig.workerIs("w2", Kind::timeSliced);
  w2.worker->answer = [](XactConfig const&) -> ExecResult { throw std::runtime_error("driver"); };
  rig.start(2);
  EXPECT_THROW(runUntil(start + 1), std::runtime_error);
  EXPECT_TRUE(w2.worker->backlogHas(2)) << "a failed execution stays queued";
  w2.statusDir->xactStatusIs(XactStatus(9, success, "", 1));
  w2.worker = nullptr;
  EXPECT_EQ(w2.statusDir->xactStatusCount(), 0u) << "a worker withdraws its answers";
  rig.aggregator = nullptr;
  EXPECT_EQ(w2.configDir->xactConfigCount(), 0u) << "a coordinator withdraws its configs";
}

TEST(XactRecords, TheirTexts) {
  EXPECT_EQ(Zel::valueToStrep(XactStatus(7, failure, "it's gone", 3)),
            "Value('Kiv::XactStatus', ** {'id': 7, 'result': xactFailure, "
            "'comment': 'it\\'s gone', 'statusVersion': 3})");
  auto const aggregator = Kiv::xactAggregatorSmFactory("a", nullptr);
  auto const dir = Kiv::xactStatusDirFactory("w1");
  auto const worker =
      Kiv::xactExecutorSmFactory<Worker>("w1", Kiv::xactConfigDirFactory("w1"), dir, nullptr);
  auto const null = [](std::string const& owner, std::string const& attribute) {
    return "null _" + attribute + " parameter to mutator for Kiv::" + owner + "::" + attribute +
           " not allowed\"";
  };
  std::vector<std::pair<std::function<void()>, std::string>> const refusals{
      {[] { Kiv::xactFactory(1)->blockingXactIs(nullptr); }, null("Xact", "blockingXact")},
      {[&] { aggregator->xactConfigDirIs(nullptr); }, null("XactAggregatorSm", "xactConfigDir")},
      {[&] { aggregator->xactStatusDirIs(nullptr); }, null("XactAggregatorSm", "xactStatusDir")},
      {[&] { aggregator->pendingXactIs(nullptr); }, null("XactAggregatorSm", "pendingXact")},
      {[&] { aggregator->blockedXactIs(nullptr); }, null("XactAggregatorSm", "blockedXact")},
      {[&] { aggregator->inProgressXactIs(nullptr); }, null("XactAggregatorSm", "inProgressXact")},
      {[&] { Kiv::xactExecutorSmFactory<Worker>("w", nullptr, dir, nullptr); },
       null("XactExecutorSm", "xactConfigDir")},
      {[] { Kiv::XactResultInstance(3); }, "XactResult::value > 2 not allowed"},
      {[&] { aggregator->pollingIntervalIs(0); },
       "XactAggregatorSm::pollingInterval <= 0 not allowed"},
      {[&] { aggregator->timeoutIs(std::nan("")); }, "XactAggregatorSm::timeout < 0 not allowed"},
      {[&] { worker->backlogQuantumIs(-1); }, "XactExecutorSm::backlogQuantum < 0 not allowed"}};
  for (auto const& [mutator, message] : refusals) {
    EXPECT_THAT(mutator, ThrowsMessage<Zel::RangeException>(message));
  }
}

TEST(XactRecords, EverythingIsFoundAndDrivenByName) {
  for (char const* name : {"Kiv::XactConfig", "Kiv::XactStatus", "Kiv::ExecResult",
                           "Kiv::XactConfigDir", "Kiv::XactStatusDir", "Kiv::XactDir"}) {
    EXPECT_NE(Zel::GenericIf::type(name), nullptr) << name;
  }
  Zel::GenericIf const& xactType = *Zel::GenericIf::type("Kiv::Xact");
  auto const x = Zel::dynamicPtrCast<Xact>(xactType.genericIfFromCtorArgs({Zel::String("12")}));
  xactType.attributeEntryIs(*x, "comment", "'w1'", "'Timeout'");
  xactType.attributeValueIs(*x, "result", "xactFailure");
  EXPECT_EQ(std::tuple(x->id(), comments(*x), x->result()),
            std::tuple(12u, Comments{{"w1", "Timeout"}}, failure));
  Zel::GenericIf const& type = *Zel::GenericIf::type("Kiv::XactAggregatorSm");
  auto const aggregator = Zel::dynamicPtrCast<Kiv::XactAggregatorSm>(
      type.genericIfFromCtorArgs({Zel::String("'coordinator'"), Ptr<Zel::Clock const>(nullptr)}));
  aggregator->xactConfigDirIs(Kiv::xactConfigDirFactory("w1"));
  EXPECT_EQ(type.attributeEntries(*aggregator, "xactConfigDir"),
            (Zel::GenericIf::Entries{{"'w1'", "<Kiv::XactConfigDir>"}}));
  auto const worker = Kiv::xactExecutorSmFactory<Worker>("w1", Kiv::xactConfigDirFactory("w1"),
                                                         Kiv::xactStatusDirFactory("w1"), nullptr);
  EXPECT_EQ(worker->fwkType(), Zel::GenericIf::type("Kiv::XactExecutorSm"));
  worker->fwkType()->attributeEntryIs(*worker, "backlog", "7", "True");
  EXPECT_TRUE(worker->backlogHas(7));
}

TEST(XactRecordsDeathTest, MisuseFailsItsAssertion) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  char const text[] = "{}";
  EXPECT_DEATH(Kiv::XactAggregatorSm::XactComments(text, text + 2),
               "Assertion failed: No String constructor for XactComments - has collection");
  EXPECT_DEATH(Kiv::xactAggregatorSmFactory("a", nullptr)->doStartXact(nullptr),
               "Assertion failed: x \\(");
}

}  // namespace
}  // namespace XactTest
