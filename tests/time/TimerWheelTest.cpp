// Kiv::TimerWheel in virtual time: randomized runs against a reference model with an invariant
// checker, then the sharp edges of the contract.
#include <Kiv/HTimerWheel.h>

#include <Zel/Activity.h>
#include <Zel/System.h>
#include <Zel/Trace.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Kiv::TimerWheel;
using Zel::endOfTime;
using Zel::Seconds;
using Zel::U32;
using Zel::U64;
using Zel::System::currentTime;

constexpr Seconds start = 1000.0;
constexpr Seconds epsilon = 1e-9;
constexpr U32 invalid = TimerWheel::InvalidWheelIndex;

Zel::Ptr<Zel::ActivityManager> activity() { return Zel::activityManager(); }
Zel::Ptr<Zel::Clock> const& loopClock() { return Zel::activityManager()->clock(); }

Zel::Ptr<TimerWheel> makeWheel(U32 tickMsecs, U32 initialMaxTicks, U32 bucketSize,
                               bool preserveOrder = true) {
  return Kiv::timerWheelFactory(loopClock(), tickMsecs, initialMaxTicks, preserveOrder, bucketSize);
}

// A timer that records its expiries and then runs the test's action.
class Probe : public TimerWheel::NotifieeConst {
public:
  explicit Probe(Zel::Ptr<TimerWheel const> const& wheel = nullptr,
                 std::function<void(Probe&)> action = {})
      : action_(std::move(action)) {
    notifierIs(wheel);
  }
  void onTimeMin() override {
    ++fired;
    firedAt = currentTime();
    if (action_) action_(*this);
  }

  int fired = 0;
  Seconds firedAt = std::nan("");

private:
  std::function<void(Probe&)> action_;
};

class TimerWheelTest : public testing::Test {
protected:
  void SetUp() override {
    Zel::System::virtualTimeIs(start);
    ASSERT_EQ(loopClock()->armedCount(), 0u) << "an earlier test left notifiees armed";
  }
  void TearDown() override { Zel::System::virtualTimeDel(); }
};
using TimerWheelDeathTest = TimerWheelTest;

// Walks every slot: the lists are consistent, each timer knows its place, the counts match, the
// clock is armed no later than the first used level-0 slot, and an empty wheel is idle.
// Returns the filed timers.
std::set<TimerWheel::NotifieeConst const*> checkInvariants(TimerWheel const& tw) {
  std::set<TimerWheel::NotifieeConst const*> filed;
  U32 nonEmpty = 0;
  bool const idle = tw.currentWheelIndexTime() == endOfTime;
  for (U32 level = 0; level < tw.bucketCount(); ++level) {
    U32 count = 0;
    for (U32 index = 0; index < tw.bucketSize(level); ++index) {
      Kiv::HeadNTail const& slot = tw.wheelBase(level)[index];
      EXPECT_EQ(slot.h == nullptr, slot.t == nullptr);
      if (!slot.h) continue;
      EXPECT_EQ(slot.h->prev(), nullptr);
      if (level == 0) {
        EXPECT_GE(index, tw.currentWheelIndex(0));
      }
      TimerWheel::NotifieeConst const* last = nullptr;
      for (auto const* n = slot.h; n; last = n, n = n->next()) {
        EXPECT_EQ(n->prev(), last);
        EXPECT_EQ(n->bucketIndex(), level);
        EXPECT_EQ(n->wheelIndex(), index);
        EXPECT_TRUE(filed.insert(n).second);
        ++count;
      }
      EXPECT_EQ(last, slot.t);
    }
    EXPECT_EQ(count, tw.timer(level)) << "level " << level;
    nonEmpty += count != 0;
    if (idle) {
      EXPECT_EQ(tw.currentWheelIndex(level), invalid);
    } else if (level > 0) {
      EXPECT_LT(tw.currentWheelIndex(level), tw.bucketSize(level));
    }
  }
  EXPECT_EQ(nonEmpty, tw.timers());
  EXPECT_EQ(idle, tw.timers() == 0);
  if (idle) {
    EXPECT_EQ(tw.scheduledWheelIndex(), invalid);
  } else if (tw.systemClock()) {
    U32 const firstUsed = Kiv::findNextUsedIndex(&tw, tw.currentWheelIndex(0));
    EXPECT_LE(tw.scheduledWheelIndex(), firstUsed == invalid ? tw.ghostTimerIndex() : firstUsed);
  }
  return filed;
}

struct RunConfig {
  U32 tickMsecs;
  U32 initialMaxTicks;
  U32 bucketSize;
  bool preserveOrder;
  Seconds processTimeLimit;
  unsigned seed;
};

// Timers are attached, armed, moved, disarmed, detached and destroyed at random by a driver on
// the loop's clock, and sometimes by expiring timers, against the reference: each timer's
// deadline and arming sequence, and the multiset of armed deadlines.
class RandomRun {
public:
  static constexpr int timers = 48;

  explicit RandomRun(RunConfig const& config)
      : config_(config),
        random_(config.seed),
        wheel_(makeWheel(config.tickMsecs, config.initialMaxTicks, config.bucketSize,
                         config.preserveOrder)),
        tick_(config.tickMsecs / 1000.0),
        capacity_(Seconds(wheel_->maxTicks()) * tick_),
        safeCapacity_(capacity_ - 2 * capacity_ / wheel_->bucketSize(wheel_->bucketCount() - 1)),
        probes_(timers),
        state_(timers) {
    wheel_->processTimeLimitIs(config.processTimeLimit);
    driver_.notifierIs(loopClock());
  }

  void run(int steps) {
    stepsLeft_ = steps;
    driver_.timeMinIs(currentTime() + 0.001);
    activity()->runUntil(start + 1e7);  // until the driver's last step stops the loop
    activity()->runUntil(currentTime() + 2 * capacity_ + 1);
    EXPECT_EQ(stepsLeft_, 0) << "the run stopped at a failure";
    EXPECT_TRUE(armed_.empty()) << armed_.size() << " armed timers never fired";
    EXPECT_EQ(wheel_->timers(), 0u);
    EXPECT_EQ(wheel_->currentWheelIndexTime(), endOfTime);
    EXPECT_EQ(loopClock()->armedCount(), 0u) << "an idle wheel leaves its clock unarmed";
    checkInvariants(*wheel_);
    EXPECT_GT(fired_, steps / 2);
  }

private:
  struct State {
    bool armed = false;
    Seconds deadline = 0;
    Seconds key = 0;  // in the reference: when it is due, a past deadline being due now
    Seconds armedAt = 0;
    U64 seq = 0;
    bool fifo = false;  // filed within capacity, so its order among equal deadlines is kept
  };

  class Driver : public Zel::Clock::NotifieeConst {
  public:
    explicit Driver(RandomRun& run) : run_(run) {}
    void onTime() override { run_.step(); }

  private:
    RandomRun& run_;
  };

  U32 pick(U32 n) { return std::uniform_int_distribution<U32>(0, n - 1)(random_); }
  Seconds now() const { return currentTime(); }

  // Whole milliseconds mostly (a few of them shared by many timers), sometimes a fraction of
  // one, past, or 0; up to a third beyond the wheel's capacity.
  Seconds deadline() {
    Seconds const ms = 0.001;
    switch (pick(10)) {
      case 0: return 0.0;
      case 1: return now() - ms * pick(50);
      case 2: return now() + ms * pick(U32(capacity_ * 1000)) + 0.0001 * (1 + pick(9));
      case 3:
      case 4:
      case 5: return std::ceil((now() + 0.05) / 0.05) * 0.05 + 0.05 * pick(4);
      default: return now() + ms * pick(U32(capacity_ * 1333));
    }
  }

  Probe& probe(U32 i) {
    if (!probes_[i]) {
      probes_[i] = std::make_unique<Probe>(nullptr, [this, i](Probe&) { expired(i); });
    }
    return *probes_[i];
  }

  void arm(U32 i, Seconds when) {
    unarm(i);
    Seconds const due = when == 0.0 ? now() : when;
    Seconds const key = std::max(due, now());
    state_[i] = State{true, due, key, now(), ++seq_, key - now() + 2 * tick_ < safeCapacity_};
    armed_.emplace(key, i);
  }
  void unarm(U32 i) {
    if (state_[i].armed) armed_.erase(armed_.find({state_[i].key, i}));
    state_[i].armed = false;
  }

  void operate() {
    U32 const i = pick(timers);
    switch (pick(8)) {
      case 0:  // detach, or attach a timer whose deadline is already set
        if (probe(i).notifier()) {
          probe(i).notifierIs(nullptr);
          unarm(i);
        } else {
          Seconds const when = deadline();
          probe(i).timeMinIs(when);
          probe(i).notifierIs(wheel_);
          if (when == 0.0) {
            EXPECT_EQ(probe(i).timeMin(), endOfTime) << "0 reads as no deadline when attaching";
          } else {
            arm(i, when);
          }
        }
        break;
      case 1:
        probes_[i].reset();
        unarm(i);
        break;
      case 2:
        probe(i).timeMinIs(endOfTime);
        unarm(i);
        break;
      default: {  // arm or move
        Seconds const when = deadline();
        if (!probe(i).notifier()) {
          probe(i).timeMinIs(endOfTime);  // not the deadline it kept when it was detached
          probe(i).notifierIs(wheel_);
        }
        if (probe(i).timeMin() == when) break;
        probe(i).timeMinIs(when);
        arm(i, when);
      }
    }
  }

  void step() {
    for (U32 n = 1 + pick(4); n > 0; --n) operate();
    auto const filed = checkInvariants(*wheel_);
    for (U32 i = 0; i < timers; ++i) {
      EXPECT_EQ(state_[i].armed, probes_[i] && filed.count(probes_[i].get()) == 1) << i;
    }
    if (testing::Test::HasFailure() || --stepsLeft_ == 0) {
      activity()->stop();
      return;
    }
    // Mostly a few ticks on; sometimes long enough for the wheel to empty or cascade far.
    U32 const ticks = pick(20) == 0 ? pick(U32(1.5 * wheel_->maxTicks())) : 1 + pick(3);
    driver_.timeMinIs(now() + (ticks * config_.tickMsecs + pick(2)) / 1000.0);
  }

  void expired(U32 i) {
    ++fired_;
    State& s = state_[i];
    Probe const& p = *probes_[i];
    ASSERT_TRUE(s.armed) << "timer " << i << " fired unarmed, or twice";
    EXPECT_EQ(p.timeMin(), endOfTime);
    EXPECT_EQ(p.wheelIndex(), invalid);
    // Deadlines round to the nearest millisecond, then up to the next tick.
    EXPECT_GE(now(), s.deadline - 0.0005 - epsilon) << "early, timer " << i;
    EXPECT_LT(now(), std::max(s.deadline, s.armedAt) + tick_ + 0.0005 + epsilon)
        << "late, timer " << i;
    unarm(i);
    if (!armed_.empty()) {
      EXPECT_GT(armed_.begin()->first, now() - tick_ - 0.0005 - epsilon) << "overdue timer";
    }
    // In virtual time the timers that fire at one instant share a slot.
    if (now() != lastFiredAt_) lastFifoSeq_ = 0;
    lastFiredAt_ = now();
    if (config_.preserveOrder && s.fifo) {
      EXPECT_GT(s.seq, lastFifoSeq_) << "timer " << i << " fired out of filing order";
      lastFifoSeq_ = s.seq;
    }
    // Expiring timers may disarm or destroy others (not arm them: see the death tests).
    U32 const other = pick(timers);
    if (other == i || pick(4) != 0) return;
    if (pick(2) == 0) {
      probes_[other].reset();
    } else if (probes_[other]) {
      probes_[other]->timeMinIs(endOfTime);
    }
    unarm(other);
  }

  RunConfig config_;
  std::mt19937 random_;
  Zel::Ptr<TimerWheel> wheel_;
  Seconds tick_;
  Seconds capacity_;
  Seconds safeCapacity_;
  std::vector<std::unique_ptr<Probe>> probes_;
  std::vector<State> state_;
  std::multiset<std::pair<Seconds, U32>> armed_;
  U64 seq_ = 0;
  int stepsLeft_ = 0;
  int fired_ = 0;
  Seconds lastFiredAt_ = 0;
  U64 lastFifoSeq_ = 0;
  Driver driver_{*this};
};

class TimerWheelRandomTest : public TimerWheelTest,
                             public testing::WithParamInterface<RunConfig> {};

TEST_P(TimerWheelRandomTest, MatchesTheReference) { RandomRun(GetParam()).run(1500); }

INSTANTIATE_TEST_SUITE_P(
    Shapes, TimerWheelRandomTest,
    testing::Values(RunConfig{10, 500, 8, true, 0.05, 1},   // 3 levels: 8, 64, 512
                    RunConfig{1, 2, 2, true, 0.0, 2},       // 2 levels of 2: mostly over capacity
                    RunConfig{3, 100, 3, true, 0.0, 3},     // 5 levels of 3
                    RunConfig{7, 3000, 16, false, 0.05, 4}  // order not preserved
                    ));

std::string rangeMessage(std::function<void()> const& f) {
  try {
    f();
  } catch (Zel::RangeException const& e) {
    return e.what();
  }
  return "no exception";
}

TEST_F(TimerWheelTest, ConstructorAndMutatorChecks) {
  auto make = [](U32 tick, U32 maxTicks, U32 size) {
    return [=] { Kiv::timerWheelFactory(nullptr, tick, maxTicks, true, size); };
  };
  std::string const tick = "TimerWheel::tickMsecs < 1 or > 3600000 not allowed";
  std::string const maxTicks = "TimerWheel::initialMaxTicks < 2 or > 0xffffffff not allowed";
  std::string const size = "TimerWheel::defaultBucketSize < 2 or > 0x10000 not allowed";
  EXPECT_EQ(rangeMessage(make(0, 100, 256)), tick);
  EXPECT_EQ(rangeMessage(make(3600001, 100, 256)), tick);
  EXPECT_EQ(rangeMessage(make(10, 1, 256)), maxTicks);
  EXPECT_EQ(rangeMessage(make(10, 100, 1)), size);
  EXPECT_EQ(rangeMessage(make(10, 100, 65537)), size);
  EXPECT_EQ(rangeMessage(make(0, 1, 1)), tick) << "checks run in declaration order";
  EXPECT_EQ(rangeMessage(make(10, 1, 1)), maxTicks);
  EXPECT_EQ(rangeMessage(make(1, 2, 2)), "no exception");
  EXPECT_EQ(rangeMessage(make(3600000, 0xffffffff, 65536)), "no exception");

  auto const wheel = makeWheel(10, 100, 16);
  for (Seconds bad : {-0.001, 0.5001, std::nan("")}) {
    EXPECT_EQ(rangeMessage([&] { wheel->processTimeLimitIs(bad); }),
              "TimerWheel::processTimeLimit < 0 or > 0.5 not allowed");
  }
  EXPECT_EQ(wheel->processTimeLimit(), 0.05);
  std::string const bucket = "BucketSize::value < 2 or > 0xfffffffe not allowed";
  EXPECT_EQ(rangeMessage([] { Kiv::BucketSize(1); }), bucket);
  EXPECT_EQ(rangeMessage([] { Kiv::BucketSize(0xffffffff); }), bucket);
  EXPECT_EQ(rangeMessage([] { Zel::strepToValue<Kiv::BucketSize>("1"); }), bucket);
  EXPECT_EQ(rangeMessage([&] { wheel->doAddNewBucket(1); }), bucket);
  EXPECT_EQ(Zel::valueToStrep(Kiv::BucketSize(0xfffffffe)), "4294967294");
}

TEST_F(TimerWheelTest, LevelsCoverInitialMaxTicksWithTwoAtLeast) {
  struct Shape {
    U32 bucketSize, initialMaxTicks, levels, maxTicks;
  };
  for (Shape s : {Shape{256, 100000, 3, 16777216}, Shape{2, 2, 2, 4}, Shape{3, 10, 3, 27},
                  Shape{65536, 2, 2, 0xffffffff}, Shape{16, 0xffffffff, 8, 0xffffffff}}) {
    auto const wheel = makeWheel(10, s.initialMaxTicks, s.bucketSize);
    EXPECT_EQ(wheel->bucketCount(), s.levels) << s.bucketSize << " " << s.initialMaxTicks;
    EXPECT_EQ(wheel->maxTicks(), s.maxTicks);
    EXPECT_EQ(wheel->bucketSize(s.levels), 2u) << "a missing level reads as 2";
    checkInvariants(*wheel);
  }
}

TEST_F(TimerWheelTest, DeadlinesRoundToTheMillisecondThenUpToTheTick) {
  auto const wheel = makeWheel(10, 1000, 64);
  std::vector<std::pair<std::unique_ptr<Probe>, U32>> probes;
  for (auto [ahead, ticks] : {std::pair{0.0106, 2u}, {0.0104, 1u}, {0.0096, 1u}, {0.0004, 0u}}) {
    auto& [probe, expected] = probes.emplace_back(std::make_unique<Probe>(wheel), ticks);
    probe->timeMinIs(start + ahead);
    EXPECT_EQ(Kiv::forwardTicks(wheel.ptr(), probe.get()), ticks) << ahead;
    EXPECT_EQ(probe->wheelIndex(), ticks);
  }
  activity()->runUntil(start + 1);
  for (auto const& [probe, ticks] : probes) {
    EXPECT_NEAR(probe->firedAt, start + 0.01 * ticks, epsilon);
  }
}

TEST_F(TimerWheelTest, PastDeadlinesAndZeroFireOnTheNextClockEvent) {
  auto const wheel = makeWheel(10, 1000, 64);
  Probe far(wheel), past(wheel), zero(wheel), unset;
  far.timeMinIs(start + 100);
  activity()->runUntil(start + 1.2345);
  past.timeMinIs(start + 1);
  zero.timeMinIs(0.0);
  EXPECT_EQ(past.wheelIndex(), wheel->currentWheelIndex(0));
  EXPECT_EQ(zero.wheelIndex(), wheel->currentWheelIndex(0));
  EXPECT_EQ(activity()->runOnce(0), 1u) << "one clock event for the slot";
  EXPECT_EQ(zero.firedAt, start + 1.2345);
  EXPECT_EQ(past.firedAt, start + 1.2345);

  unset.timeMinIs(Zel::beginningOfTime);
  unset.notifierIs(wheel);
  EXPECT_EQ(unset.timeMin(), endOfTime) << "no deadline when attaching";
}

TEST_F(TimerWheelTest, DeadlinesBeyondCapacityAreRefiledAndFireOnTime) {
  auto const wheel = makeWheel(10, 16, 4);  // 2 levels, 160 ms
  std::ostringstream traced;
  Zel::traceSinkIs(&traced);
  Zel::traceHandle<"HTimerWheel">().levelIs(3);
  Probe late(wheel);
  late.timeMinIs(start + 1.0);
  Zel::traceHandle<"HTimerWheel">().levelIs(Zel::TraceHandle::disabled);
  Zel::traceSinkIs(nullptr);
  EXPECT_NE(traced.str().find("Reducing timeout to fit the maximum timer capacity"),
            std::string::npos);
  EXPECT_EQ(late.bucketIndex(), 1u);
  EXPECT_EQ(late.wheelIndex(), 3u) << "the farthest slot of the last level";
  activity()->runUntil(start + 2);
  EXPECT_EQ(late.firedAt, start + 1.0);
}

TEST_F(TimerWheelTest, EachClockEventStopsAfterTheProcessTimeLimit) {
  auto const wheel = Kiv::timerWheelFactory(nullptr, 10, 1000, true, 64);
  std::vector<std::unique_ptr<Probe>> probes;
  for (int i = 1; i <= 4; ++i) {
    probes.push_back(std::make_unique<Probe>(wheel));
    probes.back()->timeMinIs(start + 0.01 * i);
  }
  Zel::System::virtualTimeIs(start + 1);
  EXPECT_EQ(activity()->runOnce(0), 0u) << "no clock, nothing fires";
  wheel->processTimeLimitIs(0);
  wheel->systemClockIs(loopClock());
  // Catching up with the time while slots are due must not skip them.
  Probe soon(wheel);
  soon.timeMinIs(start + 1.005);
  checkInvariants(*wheel);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(activity()->runOnce(0), 1u);
    EXPECT_EQ(probes[i]->fired, 1);
    EXPECT_EQ(probes[i + 1]->fired, 0) << "one slot per clock event";
  }
  wheel->processTimeLimitIs(0.05);  // virtual time does not pass while timers expire
  EXPECT_EQ(activity()->runOnce(0), 1u);
  EXPECT_EQ(probes[2]->fired + probes[3]->fired + soon.fired, 2);
  activity()->runUntil(start + 2);
  EXPECT_DOUBLE_EQ(soon.firedAt, start + 1.01);
}

// Records what the wheel asks of its clock.
class RecordingWheel : public TimerWheel {
public:
  RecordingWheel() : TimerWheel(loopClock(), 10, 1000, true, 64) {}
  std::vector<std::pair<Seconds, U32>> calls;

protected:
  void doUpdateSystemClock(Seconds time, U32 index) override {
    calls.emplace_back(time, index);
    TimerWheel::doUpdateSystemClock(time, index);
  }
};

TEST_F(TimerWheelTest, OffsetTimeGivesTheClockTheDelayFromNow) {
  auto const wheel = Zel::allocate<RecordingWheel>();
  Probe p(wheel);
  p.timeMinIs(start + 0.25);
  p.timeMinIs(endOfTime);
  wheel->systemClockTakesOffsetTimeIs(true);
  activity()->runUntil(start + 0.1);
  p.timeMinIs(start + 0.35);
  using Call = std::pair<Seconds, U32>;
  ASSERT_EQ(wheel->calls.size(), 3u);
  EXPECT_EQ(wheel->calls[0], Call(start + 0.25, 25));
  EXPECT_EQ(wheel->calls[1], Call(endOfTime, invalid)) << "disarmed when the wheel empties";
  EXPECT_NEAR(wheel->calls[2].first, 0.25, epsilon);
  activity()->runUntil(start + 1);
  EXPECT_NEAR(p.firedAt, start + 0.35, epsilon);
}

TEST_F(TimerWheelTest, OperationLogKeepsTheLastEntries) {
  auto const wheel = makeWheel(10, 1000, 64);
  Probe p(wheel);
  for (int i = 0; i < 40; ++i) {
    p.timeMinIs(start + 1);
    p.timeMinIs(endOfTime);
  }
  p.timeMinIs(start + 1);
  activity()->runUntil(start + 2);
  std::ostringstream out, self;
  Kiv::printLogEntries(wheel.ptr(), out);
  self << static_cast<void const*>(&p) << " op is ";
  std::string const log = out.str();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), long(TimerWheel::logCapacity));
  EXPECT_TRUE(log.ends_with(self.str() + "1\n" + self.str() + "2\n" + self.str() + "3\n"))
      << "filed, unfiled, expired";
}

TEST_F(TimerWheelTest, AnOwnerExceptionLeavesTheRestOfTheSlotForTheNextEvent) {
  auto const wheel = makeWheel(10, 1000, 64);
  Probe thrower(wheel, [](Probe&) { throw std::runtime_error("owner failed"); });
  Probe a(wheel), b(wheel);
  for (Probe* p : {&thrower, &a, &b}) p->timeMinIs(start + 0.1);
  EXPECT_THROW(activity()->runUntil(start + 1), std::runtime_error);
  EXPECT_EQ(a.fired + b.fired, 0);
  activity()->runUntil(start + 1);
  EXPECT_EQ(a.fired + b.fired, 2);
}

TEST_F(TimerWheelDeathTest, MisuseIsRefused) {
  auto const wheel = makeWheel(10, 1000, 64);
  Probe rearming(wheel, [](Probe& p) { p.timeMinIs(currentTime() + 1); });
  rearming.timeMinIs(start + 0.1);
  EXPECT_DEATH(activity()->runUntil(start + 1),
               "Assertion failed: !tw->systemClockHandlerActive\\(\\)");
  rearming.timeMinIs(endOfTime);
  EXPECT_DEATH(rearming.timeMinIs(std::nan("")),
               "Assertion failed: !isnan\\( n->timeMin\\(\\) \\)");
  rearming.timeMinIs(start + 0.1);
  EXPECT_DEATH(wheel->doAddNewBucket(64), "Assertion failed: timers\\(\\) == 0");
}

}  // namespace
