// Randomized runs: many transactions with random dependencies through silent, synchronous and
// time-sliced workers, driven by random starts, stops, hand-written answers (current, stale or
// withdrawn), directory changes and time. After every step the protocol's invariants are checked;
// each start is checked against a model of where it must land, and each finish against the
// reasons that may justify its outcome and comments.
#include "XactRig.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace XactTest {
namespace {

using Kind = Rig::Kind;
using Comments = std::map<std::string, std::string>;

constexpr Seconds timeout = 3.0;

// What the driver asked for at a transaction's latest start.
struct Record {
  std::vector<Ptr<Xact>> blockers;
  bool failIf = false;
  bool started = false;
  bool stopped = false;
};

// Finishes by kind, to check that the runs reach every kind.
using Outcomes = std::map<std::string, U64>;

class RandomRun {
public:
  RandomRun(U32 seed, Outcomes& outcomes);
  ~RandomRun();

  void step();
  void checkInvariants() const;
  // Runs time on until nothing is in progress or pending, then checks that everything started
  // has finished, unless it was stopped or waits for a blocker that cannot succeed.
  void drainAndCheck();

private:
  class Judge;

  Ptr<Xact> const& pick() { return xs_[random_() % xs_.size()]; }
  bool held(Xact const& x) const;
  void start(Ptr<Xact> const& x);
  void answerByHand();
  void changeADirectory();
  void judgeFinish(Xact const& x);
  void restartFromHandler(U32 finishedId);
  Comments answeredComments(Xact const& x) const;

  std::mt19937 random_;
  Outcomes& outcomes_;
  Rig rig_;
  U32 limit_;
  std::vector<Ptr<Xact>> xs_;
  std::vector<Record> records_;
  std::vector<std::unique_ptr<Judge>> judges_;
  U64 handlerRestarts_ = 0;
  std::map<std::size_t, bool> configDirMoved_;
};

// Judges each finish of one transaction at the moment statusVersion signals it.
class RandomRun::Judge : public Xact::NotifieeConst {
public:
  Judge(RandomRun& run, Ptr<Xact const> const& x) : run_(run) { notifierIs(x); }
  void onStatusVersion() override { run_.judgeFinish(*notifier()); }
  // Between a finish's result and its statusVersion a handler may restart the transaction.
  void onResult() override {
    if (notifier()->result() != inProgress) run_.restartFromHandler(notifier()->id());
  }

private:
  RandomRun& run_;
};

RandomRun::RandomRun(U32 seed, Outcomes& outcomes) : random_(seed), outcomes_(outcomes) {
  limit_ = std::vector<U32>{1, 3, 1000}[random_() % 3];
  rig_.aggregator->maxAllowedInProgressXactsIs(limit_);
  rig_.aggregator->timeoutIs(timeout);
  rig_.aggregator->pollingIntervalIs(0.5);
  U32 const silent = random_() % 3, synchronous = random_() % 3, sliced = 1 + random_() % 2;
  for (U32 i = 0; i < silent; ++i) rig_.workerIs("s" + std::to_string(i), Kind::silent);
  for (U32 i = 0; i < synchronous + sliced; ++i) {
    Kind const kind = i < synchronous ? Kind::synchronous : Kind::timeSliced;
    Ptr<Worker> const& worker = rig_.workerIs("w" + std::to_string(i), kind).worker;
    worker->executionTime = kind == Kind::synchronous ? 0 : 0.004 * (1 + random_() % 4);
    // About one config in nine is refused, by a fixed rule of id, version and worker.
    worker->answer = [i](XactConfig const& c) {
      U32 const mix = (c.id() * 2654435761u) ^ (c.configVersion() * 40503u) ^ (i * 97u);
      if (mix % 9 == 0) return ExecResult(failure, "refused");
      return ExecResult(success, c.id() % 4 ? "" : "ok");
    };
  }
  for (U32 id = 1; id <= 40; ++id) {
    xs_.push_back(rig_.xacts->xactIs(id));
    records_.emplace_back();
    judges_.push_back(std::make_unique<Judge>(*this, xs_.back()));
  }
}

RandomRun::~RandomRun() = default;

bool RandomRun::held(Xact const& x) const {
  auto const& a = *rig_.aggregator;
  return a.inProgressXactHas(x.id()) || a.pendingXact(x.id()) || a.blockedXact(x.id());
}

void RandomRun::step() {
  U32 const dice = random_() % 100;
  if (dice < 35) {
    start(pick());
  } else if (dice < 45) {
    Ptr<Xact> const& x = pick();
    rig_.aggregator->doStopXact(x->id());
    records_[x->id() - 1].stopped = true;
  } else if (dice < 70) {
    answerByHand();
  } else if (dice < 95) {
    runUntil(now() + std::uniform_real_distribution<Seconds>(0, 0.8)(random_));
  } else if (dice < 98) {
    changeADirectory();
  } else {
    limit_ += 1;
    rig_.aggregator->maxAllowedInProgressXactsIs(limit_);
  }
}

// A transaction held by the aggregator is restarted as it is; any other gets new dependencies on
// transactions of lower ids first, and its landing place is predicted.
void RandomRun::start(Ptr<Xact> const& x) {
  Record& record = records_[x->id() - 1];
  record.started = true;
  record.stopped = false;
  if (held(*x)) {
    rig_.aggregator->doStartXact(x);
    return;
  }
  x->blockingXactDelAll();
  record.blockers.clear();
  for (U32 n = random_() % 3; n > 0 && x->id() > 1; --n) {
    Ptr<Xact> const& blocker = xs_[random_() % (x->id() - 1)];
    x->blockingXactIs(blocker);
    record.blockers.push_back(blocker);
  }
  record.failIf = random_() % 2;
  x->failIfBlockingXactFailsIs(record.failIf);

  bool blocked = false, failed = false;
  for (auto const& b : record.blockers) {
    blocked = blocked || !finished(*b) || b->result() != success;
    failed = failed || (finished(*b) && b->result() == failure);
  }
  auto const& a = *rig_.aggregator;
  bool const pending = !blocked && a.inProgressXactCount() >= limit_;
  U32 const before = x->configVersion();
  U64 const restartsBefore = handlerRestarts_;
  rig_.aggregator->doStartXact(x);
  if (handlerRestarts_ != restartsBefore) return;  // a handler moved things on meanwhile
  if (blocked && record.failIf && failed) {
    EXPECT_TRUE(finished(*x));
    EXPECT_EQ(x->result(), failure);
  } else if (blocked) {
    EXPECT_EQ(a.blockedXact(x->id()), x);
    EXPECT_EQ(x->configVersion(), before);
  } else if (pending) {
    EXPECT_EQ(a.pendingXact(x->id()), x);
    EXPECT_EQ(x->configVersion(), before);
  } else {
    EXPECT_EQ(x->configVersion(), before + 1);
    EXPECT_TRUE(a.inProgressXactHas(x->id()) || finished(*x));
  }
}

void RandomRun::answerByHand() {
  std::vector<WorkerSide const*> silent;
  for (WorkerSide const& w : rig_.workers) {
    if (!w.worker) silent.push_back(&w);
  }
  if (silent.empty()) return;
  WorkerSide const& w = *silent[random_() % silent.size()];
  Xact const& x = *pick();
  U32 const dice = random_() % 10;
  if (dice == 0) {
    w.statusDir->xactStatusDel(x.id());
  } else if (dice < 3) {
    w.answerIs(x.id(), random_() % 2 ? success : failure, x.configVersion() - 1, "stale");
  } else {
    w.answerIs(x.id(), dice < 5 ? failure : success, x.configVersion(), dice % 2 ? "" : "hand");
  }
}

// Takes a worker's config or status directory away, or gives it back. A config directory that
// was away misses the configs written meanwhile, so the per-directory config check skips it.
void RandomRun::changeADirectory() {
  std::size_t const i = random_() % rig_.workers.size();
  WorkerSide const& w = rig_.workers[i];
  auto& a = *rig_.aggregator;
  Zel::Name const& name = w.statusDir->name();
  if (random_() % 2) {
    if (a.xactStatusDir(name)) {
      a.xactStatusDirDel(name);
    } else {
      a.xactStatusDirIs(w.statusDir);
    }
  } else if (a.xactConfigDir(name)) {
    a.xactConfigDirDel(name);
    configDirMoved_[i] = true;
  } else {
    a.xactConfigDirIs(w.configDir);
  }
}

// The comments a finish must carry when it was decided by the workers' answers.
Comments RandomRun::answeredComments(Xact const& x) const {
  Comments expected;
  for (WorkerSide const& w : rig_.workers) {
    if (!rig_.aggregator->xactStatusDir(w.statusDir->name())) continue;
    XactStatus const s = w.statusDir->xactStatus(x.id());
    if (!!s && s.statusVersion() == x.configVersion() && !s.comment().empty()) {
      expected[w.statusDir->name().str()] = s.comment().str();
    }
  }
  return expected;
}

void RandomRun::judgeFinish(Xact const& x) {
  ASSERT_TRUE(finished(x));
  ASSERT_NE(x.result(), inProgress);
  EXPECT_FALSE(held(x));
  U32 failed = 0;
  Comments timeouts;
  for (WorkerSide const& w : rig_.workers) {
    if (!rig_.aggregator->xactStatusDir(w.statusDir->name())) continue;
    XactStatus const s = w.statusDir->xactStatus(x.id());
    if (!s || s.statusVersion() != x.configVersion()) {
      timeouts[w.statusDir->name().str()] = "Timeout";
      continue;
    }
    failed += s.result() == failure;
  }
  Record const& record = records_[x.id() - 1];
  if (x.result() == success) {
    EXPECT_EQ(failed, 0u);
    bool const answered = timeouts.empty() && comments(x) == answeredComments(x);
    bool const nobodyToAsk = rig_.aggregator->xactConfigDirCount() == 0 && comments(x).empty();
    EXPECT_TRUE(answered || nobodyToAsk) << "xact " << x.id() << " succeeded without answers";
    ++outcomes_["success"];
  } else if (failed > 0) {
    EXPECT_EQ(comments(x), answeredComments(x));
    ++outcomes_["worker failure"];
  } else if (!comments(x).empty()) {
    EXPECT_GE(now() - x.startTime(), timeout);
    EXPECT_FALSE(timeouts.empty()) << "all answered, yet xact " << x.id() << " timed out";
    EXPECT_EQ(comments(x), timeouts);
    ++outcomes_["timeout"];
  } else {
    bool const blockerFailed = std::any_of(record.blockers.begin(), record.blockers.end(),
                                           [](auto const& b) {
                                             return finished(*b) && b->result() == failure;
                                           });
    EXPECT_TRUE(record.failIf && blockerFailed) << "a failure with no reason, xact " << x.id();
    EXPECT_TRUE(x.blockingXactIteratorConst().empty());
    ++outcomes_["dependency"];
  }
  restartFromHandler(x.id());
}

// A handler on the coordinator's loop may start a transaction while the aggregator is in the
// middle of a step: now and then a finish restarts itself, a transaction the aggregator holds, or
// one that is neither held nor finished (stopped, or being finished right now).
void RandomRun::restartFromHandler(U32 finishedId) {
  if (random_() % 12 != 0) return;
  std::vector<Ptr<Xact>> held, unfinished;
  for (Ptr<Xact> const& x : xs_) {
    if (this->held(*x)) {
      held.push_back(x);
    } else if (!finished(*x)) {
      unfinished.push_back(x);
    }
  }
  U32 const dice = random_() % 3;
  std::vector<Ptr<Xact>> const& from = dice == 1 ? held : unfinished;
  Ptr<Xact> const x =
      dice == 0 || from.empty() ? xs_[finishedId - 1] : from[random_() % from.size()];
  records_[x->id() - 1].started = true;
  records_[x->id() - 1].stopped = false;
  ++handlerRestarts_;
  rig_.aggregator->doStartXact(x);
}


void RandomRun::checkInvariants() const {
  auto const& a = *rig_.aggregator;
  std::size_t inSets = 0;
  for (Ptr<Xact> const& x : xs_) {
    U32 const id = x->id();
    int const places = a.inProgressXactHas(id) + bool(a.pendingXact(id)) + bool(a.blockedXact(id));
    ASSERT_LE(places, 1) << "xact " << id << " sits in two sets";
    inSets += places;
    if (a.inProgressXactHas(id)) {
      EXPECT_EQ(a.inProgressXact(id), x);
      EXPECT_NE(x->configVersion(), x->statusVersion());
      U32 unanswered = 0;
      for (std::size_t i = 0; i < rig_.workers.size(); ++i) {
        WorkerSide const& w = rig_.workers[i];
        if (!configDirMoved_.count(i)) {
          EXPECT_EQ(w.configDir->xactConfig(id), XactConfig(id, x->configVersion()));
        }
        if (!a.xactStatusDir(w.statusDir->name())) continue;
        XactStatus const s = w.statusDir->xactStatus(id);
        if (!s || s.statusVersion() != x->configVersion()) {
          ++unanswered;
        } else {
          EXPECT_NE(s.result(), failure) << "xact " << id << " failed, yet it is in progress";
        }
      }
      EXPECT_NE(unanswered, 0u) << "xact " << id << " is answered, yet it is in progress";
    }
    if (places != 0) {
      EXPECT_EQ(x->result(), inProgress);
    } else if (records_[id - 1].started && !records_[id - 1].stopped) {
      EXPECT_TRUE(finished(*x)) << "xact " << id << " was dropped";
      EXPECT_NE(x->result(), inProgress);
    }
    if (a.blockedXact(id)) {
      EXPECT_TRUE(Kiv::xactIsBlocked(x)) << "xact " << id << " missed its wake-up";
      EXPECT_FALSE(Kiv::failXact(x)) << "xact " << id << " missed its failure";
    }
  }
  EXPECT_EQ(inSets, a.inProgressXactCount() + a.pendingXactCount() + a.blockedXactCount());
  EXPECT_LE(a.inProgressXactCount(), limit_);
  if (a.inProgressXactCount() != 0) {
    EXPECT_LT(a.nextPollTime(), Zel::endOfTime) << "nothing would ever time out";
  }
  for (WorkerSide const& w : rig_.workers) {
    if (!w.worker) continue;
    for (auto const& [id, waiting] : w.worker->backlogIteratorConst()) {
      EXPECT_TRUE(w.configDir->xactConfigHas(id));
    }
    if (w.worker->backlogCount() != 0) {
      EXPECT_LT(w.worker->nextSliceTime(), Zel::endOfTime) << "a backlog nobody will run";
    }
  }
}

void RandomRun::drainAndCheck() {
  auto const& a = *rig_.aggregator;
  for (int round = 0; round < 100 && a.inProgressXactCount() + a.pendingXactCount() != 0; ++round) {
    runUntil(now() + timeout + 1);
  }
  EXPECT_EQ(a.inProgressXactCount(), 0u);
  EXPECT_EQ(a.pendingXactCount(), 0u);
  checkInvariants();
}

TEST_F(XactFixture, RandomRunsKeepTheProtocolsInvariants) {
  Outcomes outcomes;
  for (U32 seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomRun run(seed, outcomes);
    for (int i = 0; i < 1500; ++i) {
      run.step();
      run.checkInvariants();
      if (HasFailure()) return;
    }
    run.drainAndCheck();
  }
  EXPECT_EQ(outcomes.size(), 4u);
}

}  // namespace
}  // namespace XactTest
