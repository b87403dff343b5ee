// Coordinator and workers together, in virtual time: each test follows one path of the
// transaction's states from start to finish.
#include "XactRig.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace XactTest {
namespace {

using Kind = Rig::Kind;
using Comments = std::map<std::string, std::string>;

// Records the order in which a transaction's attributes change.
class Changes : public Xact::NotifieeConst {
public:
  explicit Changes(Ptr<Xact const> const& x) { notifierIs(x); }
  void onResult() override { seen.push_back("result"); }
  void onComment(Zel::String const&) override { seen.push_back("comment"); }
  void onStatusVersion() override { seen.push_back("statusVersion"); }

  std::vector<std::string> seen;
};

// A handler on the coordinator's loop that acts at the first finish it sees.
class OnFinish : public Xact::NotifieeConst {
public:
  OnFinish(Ptr<Xact const> const& x, std::function<void()> action) : action_(std::move(action)) {
    notifierIs(x);
  }
  void onStatusVersion() override {
    if (auto action = std::exchange(action_, nullptr)) action();
  }

private:
  std::function<void()> action_;
};

using XactScenario = XactFixture;

TEST_F(XactScenario, PendingThenStartedWhenASlotFrees) {
  Rig rig;
  WorkerSide& w1 = rig.workerIs("w1", Kind::silent);
  rig.aggregator->maxAllowedInProgressXactsIs(1);
  Ptr<Xact> const a = rig.start(1);
  Ptr<Xact> const b = rig.start(2);
  EXPECT_EQ(rig.aggregator->pendingXact(2), b);
  EXPECT_EQ(b->configVersion(), 0u) << "a pending transaction keeps its version";
  EXPECT_FALSE(w1.configDir->xactConfigHas(2));
  EXPECT_EQ(rig.aggregator->nextPollTime(), start + 1.0);

  Changes changes(a);
  w1.answerIs(1, success, 1, "applied");
  EXPECT_EQ(changes.seen, (std::vector<std::string>{"comment", "result", "statusVersion"}))
      << "comments and result are in place before statusVersion signals the finish";
  EXPECT_EQ(a->result(), success);
  EXPECT_EQ(comments(*a), (Comments{{"w1", "applied"}}));
  EXPECT_TRUE(rig.aggregator->inProgressXactHas(2));
  EXPECT_EQ(w1.configDir->xactConfig(2), XactConfig(2, 1));

  w1.answerIs(2, success, 1);
  EXPECT_TRUE(finished(*b));
  EXPECT_EQ(rig.aggregator->nextPollTime(), Zel::endOfTime) << "nothing left to time out";

  rig.aggregator->maxAllowedInProgressXactsIs(0);
  for (U32 id = 3; id <= 5; ++id) rig.start(id);
  rig.aggregator->maxAllowedInProgressXactsIs(2);
  EXPECT_EQ(rig.aggregator->inProgressXactCount(), 2u) << "raising the limit starts them";
  EXPECT_EQ(rig.aggregator->pendingXactCount(), 1u);
}

TEST_F(XactScenario, BlockedThenStartedWhenEveryBlockerSucceeds) {
  Rig rig;
  WorkerSide& w1 = rig.workerIs("w1", Kind::silent);
  Ptr<Xact> const a = rig.start(1);
  Ptr<Xact> const b = rig.start(2);
  Ptr<Xact> const c = rig.xacts->xactIs(3);
  c->blockingXactIs(a);
  c->blockingXactIs(b);
  rig.aggregator->doStartXact(c);
  EXPECT_EQ(rig.aggregator->blockedXact(3), c);
  w1.answerIs(1, success, 1);
  EXPECT_EQ(rig.aggregator->blockedXact(3), c) << "still waiting for b";
  w1.answerIs(2, success, 1);
  EXPECT_TRUE(rig.aggregator->inProgressXactHas(3));
  EXPECT_EQ(c->configVersion(), 1u);
  EXPECT_TRUE(c->blockingXactIteratorConst().empty()) << "dependencies are used once";
}

TEST_F(XactScenario, BlockedThenFailedThroughFailIfBlockingXactFails) {
  Rig rig;
  WorkerSide& w1 = rig.workerIs("w1", Kind::silent);
  Ptr<Xact> const a = rig.start(1);
  std::vector<Ptr<Xact>> xs;  // 2 waits, 3 fails with a, 4 is given the flag later
  for (U32 id = 2; id <= 4; ++id) {
    xs.push_back(rig.xacts->xactIs(id));
    xs.back()->blockingXactIs(a);
    xs.back()->commentIs("earlier", "remark");
    rig.aggregator->doStartXact(xs.back());
  }
  xs[1]->failIfBlockingXactFailsIs(true);
  EXPECT_EQ(rig.aggregator->blockedXactCount(), 3u) << "an unfinished blocker fails no one";

  w1.answerIs(1, failure, 1, "no such port");
  EXPECT_TRUE(finished(*xs[1]));
  EXPECT_EQ(xs[1]->result(), failure);
  EXPECT_EQ(xs[1]->configVersion(), 1u);
  EXPECT_TRUE(comments(*xs[1]).empty());
  EXPECT_TRUE(xs[1]->blockingXactIteratorConst().empty());
  runUntil(start + 3600);
  EXPECT_EQ(rig.aggregator->blockedXact(2), xs[0]) << "without the flag it waits for ever";

  xs[2]->failIfBlockingXactFailsIs(true);
  rig.aggregator->doStartXact(xs[2]);
  EXPECT_EQ(xs[2]->result(), failure) << "a blocker that has already failed fails it at once";
  EXPECT_EQ(rig.aggregator->blockedXact(4), nullptr);
  rig.aggregator->doStopXact(2);
  EXPECT_EQ(rig.aggregator->blockedXactCount(), 0u);
  EXPECT_EQ(xs[0]->configVersion(), 0u) << "stopping leaves the transaction as it is";
}

TEST_F(XactScenario, TheFirstFailedAnswerDecidesWhileOthersAreSilent) {
  Rig rig;
  WorkerSide& w1 = rig.workerIs("w1", Kind::synchronous);
  WorkerSide& w2 = rig.workerIs("w2", Kind::silent);
  WorkerSide& w3 = rig.workerIs("w3", Kind::silent);
  w1.worker->answer = [](XactConfig const& c) {
    return ExecResult(c.id() == 5 ? failure : success, c.id() == 5 ? "bad vlan" : "slow path");
  };
  Ptr<Xact> const x = rig.start(5);
  EXPECT_TRUE(finished(*x)) << "decided inside the start, by the synchronous worker";
  EXPECT_EQ(x->result(), failure);
  EXPECT_EQ(comments(*x), (Comments{{"w1", "bad vlan"}}));
  EXPECT_EQ(rig.aggregator->nextPollTime(), Zel::endOfTime);
  Changes changes(x);
  w2.answerIs(5, success, 1);
  EXPECT_TRUE(changes.seen.empty()) << "a late answer changes nothing";

  Ptr<Xact> const y = rig.start(6);
  w2.answerIs(6, failure, 1);
  EXPECT_EQ(y->result(), failure);
  EXPECT_EQ(comments(*y), (Comments{{"w1", "slow path"}})) << "every answer's comment is kept";
  EXPECT_FALSE(w3.statusDir->xactStatusHas(6));
}

TEST_F(XactScenario, StaleAnswersAreIgnoredAcrossRestarts) {
  Rig rig;
  WorkerSide& w1 = rig.workerIs("w1", Kind::silent);
  WorkerSide& w2 = rig.workerIs("w2", Kind::synchronous);
  rig.aggregator->maxAllowedInProgressXactsIs(1);
  Ptr<Xact> const x = rig.start(1);
  w1.answerIs(1, success, 1);
  EXPECT_EQ(x->result(), success);

  rig.aggregator->doStartXact(x);
  rig.aggregator->doStartXact(x);
  EXPECT_TRUE(rig.aggregator->inProgressXactHas(1)) << "a restart keeps its slot";
  EXPECT_EQ(rig.aggregator->pendingXactCount(), 0u);
  EXPECT_EQ(w1.configDir->xactConfig(1), XactConfig(1, 3));
  EXPECT_EQ(w2.worker->executed, (std::vector<XactConfig>{{1, 1}, {1, 2}, {1, 3}}));
  w1.answerIs(1, failure, 2, "old news");
  EXPECT_TRUE(rig.aggregator->inProgressXactHas(1)) << "an answer to attempt 2 is stale";
  w1.answerIs(1, success, 3);
  EXPECT_EQ(x->statusVersion(), 3u);
  EXPECT_EQ(x->result(), success);
}

TEST_F(XactScenario, TimeOutsBlameTheSilentWorkers) {
  Rig rig;
  rig.aggregator->timeoutIs(5.0);
  WorkerSide& w1 = rig.workerIs("w1", Kind::silent);
  rig.workerIs("w2", Kind::silent);
  Ptr<Xact> const x = rig.start(1);
  runUntil(start + 1);
  w1.answerIs(1, success, 1, "done");
  runUntil(start + 4.5);
  EXPECT_TRUE(rig.aggregator->inProgressXactHas(1));
  runUntil(start + 5);
  EXPECT_EQ(x->result(), failure) << "equal to the time-out is timed out";
  EXPECT_EQ(comments(*x), (Comments{{"w2", "Timeout"}}));
  EXPECT_EQ(rig.aggregator->nextPollTime(), Zel::endOfTime);

  // Put in progress by hand, before any attempt: with version 0 no status is ever weighed, and
  // once the directories are gone no worker can be blamed.
  Ptr<Xact> const armed = rig.start(2);
  Ptr<Xact> const orphan = rig.xacts->xactIs(3);
  orphan->startTimeIs(start + 5);
  rig.aggregator->inProgressXactIs(orphan);
  rig.aggregator->xactStatusDirDelAll();
  EXPECT_EQ(armed->result(), success);
  runUntil(start + 10);
  EXPECT_EQ(comments(*orphan), (Comments{{"unknown", "Timeout"}}));
}

TEST_F(XactScenario, RemovingTheLastStatusDirectoryCompletesEverything) {
  Rig rig;
  WorkerSide& w1 = rig.workerIs("w1", Kind::silent);
  WorkerSide& w2 = rig.workerIs("w2", Kind::silent);
  std::vector<Ptr<Xact>> xs;
  for (U32 id = 1; id <= 3; ++id) xs.push_back(rig.start(id));
  w1.answerIs(1, success, 1);
  rig.aggregator->xactStatusDirDel(w2.statusDir->name());
  EXPECT_EQ(xs[0]->result(), success) << "it waited only for w2";
  EXPECT_EQ(rig.aggregator->inProgressXactCount(), 2u);
  rig.aggregator->xactStatusDirDel(w1.statusDir->name());
  for (auto const& x : xs) EXPECT_EQ(x->result(), success);
  EXPECT_EQ(rig.aggregator->nextPollTime(), Zel::endOfTime);

  rig.aggregator->xactStatusDirIs(w1.statusDir);
  rig.aggregator->xactStatusDirIs(w2.statusDir);
  Ptr<Xact> const next = rig.start(4);
  w1.answerIs(4, success, 1);
  w1.statusDir->xactStatusDel(4);
  w1.answerIs(4, success, 1);
  EXPECT_FALSE(finished(*next)) << "repeated answers from one worker do not stand for another's";
  auto const w3 = Kiv::xactStatusDirFactory("w3");
  w3->xactStatusIs(XactStatus(4, failure, "", 1));
  rig.aggregator->xactStatusDirIs(w3);
  EXPECT_EQ(next->result(), failure) << "a directory's statuses are weighed when it joins";
}

TEST_F(XactScenario, ATimeSlicedWorkerRunsOneEntryPerTickWhenEachOutlastsTheQuantum) {
  Rig rig;
  WorkerSide& w1 = rig.workerIs("w1", Kind::timeSliced);
  w1.worker->executionTime = 0.02;
  for (U32 id = 1; id <= 5; ++id) rig.start(id);
  EXPECT_TRUE(w1.worker->executed.empty()) << "the work waits for the clock";
  EXPECT_EQ(w1.worker->nextSliceTime(), 0.0);

  std::vector<std::size_t> perTick;
  while (w1.worker->backlogCount() != 0) {
    std::size_t const before = w1.worker->executed.size();
    Zel::activityManager()->runOnce(0);
    perTick.push_back(w1.worker->executed.size() - before);
  }
  EXPECT_EQ(perTick, (std::vector<std::size_t>(5, 1)));
  EXPECT_EQ(w1.worker->yieldBeforeFinishingCount(), 4u);
  EXPECT_EQ(w1.worker->dispatchCount(), 5u);
  EXPECT_EQ(w1.worker->updatesProcessed(), 5u);
  EXPECT_EQ(w1.worker->bookmark(), 5u);
  EXPECT_NEAR(w1.worker->timeUsed(), 4 * 0.02, 1e-9) << "up to the last entry's start";
  EXPECT_EQ(rig.xacts->xact(5)->result(), success);

  w1.worker->executionTime = 0;
  for (U32 id : {11, 12, 14, 15}) rig.start(id);
  w1.worker->bookmarkIs(13);
  runUntil(start + 1);
  std::vector<U32> order;
  for (std::size_t i = 5; i < w1.worker->executed.size(); ++i) {
    order.push_back(w1.worker->executed[i].id());
  }
  EXPECT_EQ(order, (std::vector<U32>{14, 15, 11, 12})) << "from the bookmark, then wrapped";
}

TEST_F(XactScenario, AQueuedConfigExecutesOnceWithItsLatestVersionOrIsWithdrawn) {
  Rig rig;
  WorkerSide& w1 = rig.workerIs("w1", Kind::timeSliced);
  Ptr<Xact> const kept = rig.start(1);
  Ptr<Xact> const withdrawn = rig.start(2);
  runUntil(start + 1);
  rig.aggregator->doStartXact(kept);
  rig.aggregator->doStartXact(kept);
  rig.aggregator->doStartXact(withdrawn);
  rig.aggregator->doStopXact(2);
  EXPECT_FALSE(w1.worker->backlogHas(2));
  EXPECT_FALSE(w1.statusDir->xactStatusHas(2)) << "the earlier answer goes at once";
  runUntil(start + 2);
  EXPECT_EQ(w1.worker->executed, (std::vector<XactConfig>{{1, 1}, {2, 1}, {1, 3}}));
  EXPECT_EQ(kept->statusVersion(), 3u);
}

// Handlers run on the coordinator's loop and may start or stop transactions while the aggregator
// or an executor is busy.
TEST_F(XactScenario, HandlersMayChangeTheWorkUnderway) {
  Rig rig;
  WorkerSide& w1 = rig.workerIs("w1", Kind::timeSliced);
  for (U32 id = 1; id <= 4; ++id) rig.start(id);
  Ptr<Xact> const first = rig.xacts->xact(1);
  w1.worker->answer = [&](XactConfig const& c) {
    if (c.id() == 1 && c.configVersion() == 1) {
      rig.aggregator->doStartXact(first);  // rewrites the config being executed
      rig.aggregator->doStopXact(2);       // withdraws the entries after it
      rig.aggregator->doStopXact(3);
    }
    return ExecResult(success, "");
  };
  runUntil(start + 1);
  EXPECT_EQ(w1.worker->executed, (std::vector<XactConfig>{{1, 1}, {4, 1}, {1, 2}}));
  EXPECT_EQ(first->statusVersion(), 2u);
}

TEST_F(XactScenario, APendingTransactionStartedByAHandlerLeavesPendingXact) {
  Rig rig;
  WorkerSide& s1 = rig.workerIs("s1", Kind::silent);
  WorkerSide& w1 = rig.workerIs("w1", Kind::synchronous);
  w1.worker->answer = [](XactConfig const& c) {
    return ExecResult(c.id() == 1 ? success : failure, "");
  };
  rig.aggregator->maxAllowedInProgressXactsIs(1);
  rig.start(1);
  Ptr<Xact> const b = rig.start(2);
  Ptr<Xact> const c = rig.start(3);
  // Whichever of b and c the pending walk starts first fails at once and starts the other.
  OnFinish const bStartsC(b, [&] { rig.aggregator->doStartXact(c); });
  OnFinish const cStartsB(c, [&] { rig.aggregator->doStartXact(b); });
  s1.answerIs(1, success, 1);
  EXPECT_EQ(rig.aggregator->pendingXactCount(), 0u);
  EXPECT_EQ(b->configVersion() + c->configVersion(), 3u) << "one started twice, the other once";
}

TEST_F(XactScenario, EdgesOfTheSidesLives) {
  Rig rig;
  Ptr<Xact> const alone = rig.start(1);
  EXPECT_EQ(alone->result(), success) << "with no worker to ask it succeeds at once";

  WorkerSide& w1 = rig.workerIs("w1", Kind::timeSliced);
  w1.worker->answer = [](XactConfig const&) -> ExecResult { throw std::runtime_error("driver"); };
  rig.start(2);
  EXPECT_THROW(runUntil(start + 1), std::runtime_error);
  EXPECT_TRUE(w1.worker->backlogHas(2)) << "a failed execution stays queued";
  rig.aggregator->xactConfigDirDel(w1.configDir->name());
  rig.aggregator->doStartXact(rig.xacts->xact(2));
  EXPECT_EQ(rig.aggregator->inProgressXactCount(), 0u) << "a restart with no worker left ends";

  w1.statusDir->xactStatusIs(XactStatus(9, success, "", 1));
  w1.worker = nullptr;
  EXPECT_EQ(w1.statusDir->xactStatusCount(), 0u) << "a worker withdraws its answers";
  rig.aggregator->xactConfigDirIs(w1.configDir);
  rig.aggregator = nullptr;
  EXPECT_EQ(w1.configDir->xactConfigCount(), 0u) << "a coordinator withdraws its configs";
}

TEST_F(XactScenario, AWorkerTakesUpTheConfigsPresentWhenItIsMade) {
  auto configDir = Kiv::xactConfigDirFactory("w1");
  auto statusDir = Kiv::xactStatusDirFactory("w1");
  configDir->xactConfigIs(XactConfig(3, 7));
  configDir->xactConfigIs(XactConfig(1, 2));
  auto worker = Kiv::xactExecutorSmFactory<Worker>("w1", configDir, statusDir, nullptr);
  EXPECT_EQ(worker->executed, (std::vector<XactConfig>{{1, 2}, {3, 7}}));
  EXPECT_EQ(statusDir->xactStatus(3), XactStatus(3, success, "", 7));
  try {
    Kiv::xactExecutorSmFactory("base", configDir, statusDir, nullptr);
    ADD_FAILURE() << "the base class has no doExecute of its own";
  } catch (Zel::NoImplementationException const& e) {
    EXPECT_STREQ(e.what(), "doExecute must be implemented in the derived class");
  }
}

}  // namespace
}  // namespace XactTest
