// Randomized runs: transactions with random dependencies through silent, synchronous and
// time-sliced workers, driven by random starts and stops (also from handlers amid a step), answers
// by hand (current, stale or withdrawn), status directories leaving and returning, limit raises
// and time. Invariants are checked after every step, each start against where it must land, and
// each finish against the reasons that may justify it.
#include "XactRig.h"

#include <algorithm>
#include <memory>
#include <random>
#include <set>

namespace XactTest {
namespace {

using Kind = Rig::Kind;
using Paths = std::map<std::string, U64>;  // how often each path was taken, across runs

constexpr Seconds timeout = 3.0;
constexpr Seconds pollingInterval = 0.5;

bool finishedWith(Xact const& x, XactResult result) { return finished(x) && x.result() == result; }
bool anyFailed(std::vector<Ptr<Xact>> const& xs) {
  return std::any_of(xs.begin(), xs.end(), [](auto const& x) { return finishedWith(*x, failure); });
}

// What the registered status directories say about a transaction's current attempt.
struct Tally {
  U32 failed = 0;
  Comments unanswered;  // "Timeout" under each directory that has not answered
  Comments answered;    // the comments of those that have
};

class RandomRun {
public:
  RandomRun(U32 seed, Paths& paths) : random_(seed), paths_(paths), records_(40) {
    limit_ = std::vector<U32>{1, 3, 1000}[random_() % 3];
    a().maxAllowedInProgressXactsIs(limit_);
    a().timeoutIs(timeout);
    a().pollingIntervalIs(pollingInterval);
    U32 const silent = random_() % 3, synchronous = random_() % 3, sliced = 1 + random_() % 2;
    for (U32 i = 0; i < silent; ++i) rig_.workerIs("s" + std::to_string(i), Kind::silent);
    for (U32 i = 0; i < synchronous + sliced; ++i) {
      Kind const kind = i < synchronous ? Kind::synchronous : Kind::timeSliced;
      Worker& worker = *rig_.workerIs("w" + std::to_string(i), kind).worker;
      worker.executionTime = kind == Kind::synchronous ? 0 : 0.004 * (1 + random_() % 4);
      // About one config in nine is refused, by a fixed rule; none executes twice.
      worker.answer = [i, seen = std::set<std::pair<U32, U32>>()](XactConfig const& c) mutable {
        EXPECT_TRUE(seen.emplace(c.id(), c.configVersion()).second) << c << " executed twice";
        U32 const mix = (c.id() * 2654435761u) ^ (c.configVersion() * 40503u) ^ (i * 97u);
        return mix % 9 ? ExecResult(success, c.id() % 4 ? "" : "ok") : ExecResult(failure, "no");
      };
    }
    for (U32 id = 1; id <= records_.size(); ++id) {
      xs_.push_back(rig_.xacts->xactIs(id));
      judges_.push_back(std::make_unique<Judge>(*this, xs_.back()));
    }
  }

  void step() {
    U32 const dice = random_() % 100;
    if (dice < 35) {
      start(pick());
    } else if (dice < 45) {
      Xact const& x = *pick();
      records_[x.id() - 1].stopped = true;
      a().doStopXact(x.id());
    } else if (dice < 70) {
      answerByHand(rig_.workers[random_() % rig_.workers.size()], *pick());
    } else if (dice < 95) {
      runUntil(now() + std::uniform_real_distribution<Seconds>(0, 0.8)(random_));
    } else if (dice < 98) {  // a status directory goes away or comes back
      WorkerSide const& w = rig_.workers[random_() % rig_.workers.size()];
      Zel::Name const& name = w.statusDir->name();
      a().xactStatusDir(name) ? a().xactStatusDirDel(name) : a().xactStatusDirIs(w.statusDir);
    } else {
      a().maxAllowedInProgressXactsIs(++limit_);
    }
  }

  void checkInvariants() const {
    std::size_t inSets = 0;
    for (Ptr<Xact> const& x : xs_) {
      U32 const id = x->id();
      int const places = a().inProgressXactHas(id) + !!a().pendingXact(id) + !!a().blockedXact(id);
      ASSERT_LE(places, 1) << "xact " << id << " sits in two sets";
      inSets += places;
      if (places != 0) {
        EXPECT_EQ(x->result(), inProgress);
      } else if (!records_[id - 1].stopped) {
        EXPECT_TRUE(finished(*x) && x->result() != inProgress) << "xact " << id << " was dropped";
      }
      if (a().blockedXact(id)) {
        EXPECT_TRUE(Kiv::xactIsBlocked(x) && !Kiv::failXact(x)) << "xact " << id << " stuck";
      }
      if (!a().inProgressXactHas(id)) continue;
      Tally const t = tally(*x);
      EXPECT_TRUE(t.failed == 0 && !t.unanswered.empty()) << "xact " << id << " is decided";
      for (WorkerSide const& w : rig_.workers) {
        EXPECT_EQ(w.configDir->xactConfig(id), XactConfig(id, x->configVersion()));
      }
    }
    EXPECT_EQ(inSets, a().inProgressXactCount() + a().pendingXactCount() + a().blockedXactCount());
    EXPECT_LE(a().inProgressXactCount(), limit_);
    EXPECT_TRUE(a().pendingXactCount() == 0 || a().inProgressXactCount() == limit_)
        << "a pending transaction waits beside a free slot";
    for (WorkerSide const& w : rig_.workers) {
      if (!w.worker) continue;
      for (auto const& [id, waiting] : w.worker->backlogIteratorConst()) {
        EXPECT_TRUE(w.configDir->xactConfigHas(id)) << "a withdrawn config waits";
      }
      for (auto const& [id, s] : w.statusDir->xactStatusIteratorConst()) {
        EXPECT_TRUE(w.configDir->xactConfigHas(id)) << "an answer outlived its config";
      }
    }
  }

  // Runs time on until nothing is in progress or pending; then every worker has answered every
  // config it holds, and the time-out scan is disarmed.
  void drainAndCheck() {
    auto busy = [&] { return a().inProgressXactCount() + a().pendingXactCount() != 0; };
    for (int round = 0; round == 0 || (round < 100 && busy()); ++round) {
      runUntil(now() + timeout + 1);
    }
    EXPECT_FALSE(busy());
    EXPECT_EQ(a().nextPollTime(), Zel::endOfTime) << "the time-out scan outlived the work";
    for (WorkerSide const& w : rig_.workers) {
      if (!w.worker) continue;
      paths_["yielding slice"] += w.worker->yieldBeforeFinishingCount();
      for (auto const& [id, config] : w.configDir->xactConfigIteratorConst()) {
        EXPECT_EQ(w.statusDir->xactStatus(id).statusVersion(), config.configVersion())
            << w.worker->name() << " never executed " << config;
      }
    }
    checkInvariants();
  }

private:
  // Judges each finish when statusVersion signals it; between a finish's result and its
  // statusVersion a handler may act.
  struct Judge : Xact::NotifieeConst {
    Judge(RandomRun& run, Ptr<Xact const> const& x) : run(run) { notifierIs(x); }
    void onStatusVersion() override { run.judgeFinish(*notifier()); }
    void onResult() override {
      if (notifier()->result() != inProgress) run.actFromHandler(notifier()->id());
    }
    RandomRun& run;
  };

  struct Record {
    std::vector<Ptr<Xact>> blockers;  // as given at its latest start from idle
    bool stopped = true;              // or never started
  };

  Kiv::XactAggregatorSm& a() const { return *rig_.aggregator; }
  Ptr<Xact> const& pick() { return xs_[random_() % xs_.size()]; }
  bool held(Xact const& x) const {
    return a().inProgressXactHas(x.id()) || a().pendingXact(x.id()) || a().blockedXact(x.id());
  }

  // A transaction that is not held first gets new dependencies on transactions of lower ids.
  // Where a start lands follows from its dependencies and the free slots; a restart keeps its
  // slot.
  void start(Ptr<Xact> const& x) {
    Record& record = records_[x->id() - 1];
    if (!held(*x)) {
      x->blockingXactDelAll();
      record.blockers.clear();
      for (U32 n = random_() % 3; n > 0 && x->id() > 1; --n) {
        record.blockers.push_back(xs_[random_() % (x->id() - 1)]);
        x->blockingXactIs(record.blockers.back());
      }
      x->failIfBlockingXactFailsIs(random_() % 2);
    }
    record.stopped = false;
    bool blocked = false, failed = false;
    for (auto const& [id, b] : x->blockingXactIteratorConst()) {
      blocked = blocked || !finishedWith(*b, success);
      failed = failed || finishedWith(*b, failure);
    }
    bool const pending =
        !blocked && !a().inProgressXactHas(x->id()) && a().inProgressXactCount() >= limit_;
    U32 const before = x->configVersion();
    U64 const actsBefore = handlerActs_;
    a().doStartXact(x);
    if (handlerActs_ != actsBefore) return;  // a handler moved things on meanwhile
    if (blocked && failed && x->failIfBlockingXactFails()) {
      EXPECT_TRUE(finishedWith(*x, failure));
    } else if (blocked || pending) {
      EXPECT_EQ(blocked ? a().blockedXact(x->id()) : a().pendingXact(x->id()), x);
      EXPECT_EQ(x->configVersion(), before);
      ++paths_[blocked ? "blocked" : "pending"];
    } else {
      EXPECT_EQ(x->configVersion(), before + 1);
      EXPECT_TRUE(a().inProgressXactHas(x->id()) || finished(*x));
    }
  }

  // A silent worker's answer, to the current attempt or a stale one, or its withdrawal.
  void answerByHand(WorkerSide const& w, Xact const& x) {
    U32 const dice = random_() % 10;
    if (w.worker) return;
    if (dice == 0) {
      w.statusDir->xactStatusDel(x.id());
    } else {
      w.statusDir->xactStatusIs(XactStatus(x.id(), dice % 3 ? success : failure,
                                           dice % 2 ? "" : "hand", x.configVersion() - (dice < 4)));
    }
  }

  Tally tally(Xact const& x) const {
    Tally t;
    for (WorkerSide const& w : rig_.workers) {
      if (!a().xactStatusDir(w.statusDir->name())) continue;
      std::string const name = w.statusDir->name().str();
      XactStatus const s = w.statusDir->xactStatus(x.id());
      if (!s || s.statusVersion() != x.configVersion()) {
        t.unanswered[name] = "Timeout";
      } else {
        t.failed += s.result() == failure;
        if (!s.comment().empty()) t.answered[name] = s.comment().str();
      }
    }
    return t;
  }

  // A finish is decided by the workers' answers, by a time-out or by a failed blocker.
  void judgeFinish(Xact const& x) {
    ASSERT_TRUE(finished(x) && x.result() != inProgress && !held(x)) << "xact " << x.id();
    Tally const t = tally(x);
    Seconds const age = now() - x.startTime();
    if (x.result() == success || t.failed > 0) {
      EXPECT_TRUE(t.failed > 0 ? x.result() == failure : t.unanswered.empty()) << "xact " << x.id();
      EXPECT_EQ(comments(x), t.answered);
      ++paths_[t.failed > 0 ? "worker failure" : "success"];
    } else if (comments(x).empty()) {
      EXPECT_TRUE(x.failIfBlockingXactFails() && anyFailed(records_[x.id() - 1].blockers) &&
                  x.blockingXactIteratorConst().empty())
          << "xact " << x.id() << " failed";
      ++paths_["dependency"];
    } else {
      // The scan runs every pollingInterval; a time slice under way may hold it back a little.
      EXPECT_TRUE(age >= timeout && age < timeout + pollingInterval + 0.1)
          << "timed out at " << age;
      EXPECT_EQ(comments(x), t.unanswered);
      ++paths_["timeout"];
    }
    actFromHandler(x.id());
  }

  // Now and then a handler acts amid a step of the aggregator or an executor: a finish restarts
  // itself, or restarts or stops a transaction the aggregator holds.
  void actFromHandler(U32 finishedId) {
    if (random_() % 12 != 0) return;
    std::vector<Ptr<Xact>> held;
    for (Ptr<Xact> const& x : xs_) {
      if (this->held(*x)) held.push_back(x);
    }
    U32 const dice = held.empty() ? 0 : random_() % 3;
    Ptr<Xact> const x = dice == 0 ? xs_[finishedId - 1] : held[random_() % held.size()];
    ++handlerActs_;
    records_[x->id() - 1].stopped = dice == 2;
    dice == 2 ? a().doStopXact(x->id()) : a().doStartXact(x);
  }

  std::mt19937 random_;
  Paths& paths_;
  Rig rig_;
  U32 limit_;
  std::vector<Record> records_;
  std::vector<Ptr<Xact>> xs_;
  std::vector<std::unique_ptr<Judge>> judges_;
  U64 handlerActs_ = 0;
};

TEST(XactRandom, RunsKeepTheProtocolsInvariants) {
  Paths paths;
  for (U32 seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomRun run(seed, paths);
    for (int i = 0; i < 1500; ++i) {
      run.step();
      run.checkInvariants();
      if (HasFailure()) return;
    }
    run.drainAndCheck();
  }
  for (char const* path : {"success", "worker failure", "timeout", "dependency", "blocked",
                           "pending", "yielding slice"}) {
    EXPECT_GT(paths[path], 0u) << path;
  }
}

}  // namespace
}  // namespace XactTest
