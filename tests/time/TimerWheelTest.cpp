// Kiv::TimerWheel in virtual time: randomized runs against a reference model with an invariant
// checker, then the sharp edges of the contract.
#include <Kiv/HTimerWheel.h>

#include <Zel/Activity.h>
#include <Zel/System.h>
#include <Zel/Trace.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <vector>

namespace {

using Kiv::TimerWheel;
using Timer = TimerWheel::NotifieeConst;
using Zel::endOfTime;
using Zel::Seconds;
using Zel::U32;
using Zel::System::currentTime;

constexpr Seconds start = 1000.0, epsilon = 1e-9;
constexpr U32 invalid = TimerWheel::InvalidWheelIndex;

Zel::Ptr<Zel::ActivityManager> activity() { return Zel::activityManager(); }
Zel::Ptr<Zel::Clock> const& loopClock() { return Zel::activityManager()->clock(); }

Zel::Ptr<TimerWheel> makeWheel(U32 tickMsecs = 10, U32 initialMaxTicks = 1000, U32 size = 64,
                               bool preserveOrder = true) {
  return Kiv::timerWheelFactory(loopClock(), tickMsecs, initialMaxTicks, preserveOrder, size);
}

// A timer that counts its expiries and notes the time of the last, then runs the test's action.
struct Probe : Timer {
  Probe(Zel::Ptr<TimerWheel const> const& wheel = nullptr, Seconds deadline = endOfTime) {
    notifierIs(wheel);
    timeMinIs(deadline);
  }
  void onTimeMin() override {
    ++fired;
    firedAt = currentTime();
    if (action) action();
  }
  int fired = 0;
  Seconds firedAt = NAN;
  std::function<void()> action;
};

// A wheel like makeWheel()'s that records what it asks of its clock.
struct RecordingWheel : TimerWheel {
  RecordingWheel() : TimerWheel(loopClock(), 10, 1000, true, 64) {}
  void doUpdateSystemClock(Seconds time, U32 index) override {
    calls.emplace_back(time, index);
    TimerWheel::doUpdateSystemClock(time, index);
  }
  std::vector<std::pair<Seconds, U32>> calls;
};

class TimerWheelTest : public testing::Test {
protected:
  void SetUp() override {
    Zel::System::virtualTimeIs(start);
    ASSERT_EQ(loopClock()->armedCount(), 0u) << "an earlier test left notifiees armed";
  }
  void TearDown() override { Zel::System::virtualTimeDel(); }
  Zel::Ptr<RecordingWheel> const wheel = Zel::allocate<RecordingWheel>();
};
using TimerWheelDeathTest = TimerWheelTest;

// Walks every slot: the lists are consistent, each timer knows its place, the counts match, level
// 0 holds nothing behind its current slot, the clock is armed no later than the first used level-0
// slot, and an empty wheel is idle. Returns the filed timers.
std::set<Timer const*> checkInvariants(TimerWheel const& tw) {
  std::set<Timer const*> filed;
  U32 nonEmpty = 0;
  bool const idle = tw.currentWheelIndexTime() == endOfTime;
  for (U32 level = 0; level < tw.bucketCount(); ++level) {
    U32 count = 0, current = tw.currentWheelIndex(level);
    EXPECT_TRUE(idle ? current == invalid : level == 0 || current < tw.bucketSize(level));
    for (U32 index = 0; index < tw.bucketSize(level); ++index) {
      Timer const* last = nullptr;
      for (Timer const* n = tw.wheelBase(level)[index].h; n; last = n, n = n->next(), ++count) {
        EXPECT_TRUE(n->prev() == last && n->bucketIndex() == level && n->wheelIndex() == index);
        EXPECT_TRUE(filed.insert(n).second && (level > 0 || index >= current));
      }
      EXPECT_EQ(last, tw.wheelBase(level)[index].t);
    }
    EXPECT_EQ(count, tw.timer(level)) << "level " << level;
    nonEmpty += count != 0;
  }
  EXPECT_TRUE(nonEmpty == tw.timers() && idle == (nonEmpty == 0));
  U32 const scheduled = tw.scheduledWheelIndex();
  U32 const bound = idle ? invalid : Kiv::findNextUsedIndex(&tw, tw.currentWheelIndex(0));
  EXPECT_TRUE(idle ? scheduled == invalid
                   : !tw.systemClock() || scheduled <= std::min(tw.ghostTimerIndex(), bound));
  return filed;
}

struct RunConfig {
  U32 tickMsecs, initialMaxTicks, levels, bucketSize;
  bool preserveOrder;
  Seconds processTimeLimit;
  unsigned seed;
};

// Names a run by its shape in test listings.
void PrintTo(RunConfig const& c, std::ostream* out) {
  *out << "tick " << c.tickMsecs << " ms, " << c.levels << " levels of " << c.bucketSize << " for "
       << c.initialMaxTicks << " ticks, " << (c.preserveOrder ? "" : "no ")
       << "order kept, process time limit " << c.processTimeLimit << " s, seed " << c.seed;
}

// A driver on the loop's clock attaches, arms, moves, disarms, detaches and destroys timers at
// random, and expiring timers sometimes disarm or destroy others. The reference holds each
// timer's due time and arming sequence, and the sorted multiset of armed due times.
class TimerWheelRandomTest : public TimerWheelTest,
                             public testing::WithParamInterface<RunConfig>,
                             public Zel::Clock::NotifieeConst {
protected:
  static constexpr U32 timers = 48;
  // due: the deadline, or the arming time for one already past; the end of time when unarmed.
  // fifo: filed within the capacity, so its order among equal deadlines is kept.
  struct State {
    Seconds due = endOfTime;
    U32 seq = 0;
    bool fifo = false;
  };

  U32 pick(U32 n) { return std::uniform_int_distribution<U32>(0, n - 1)(random_); }
  static Seconds now() { return currentTime(); }
  // Whole milliseconds mostly (a few of them shared by many timers), sometimes a fraction of
  // one, past, or 0; up to a third beyond the wheel's capacity.
  Seconds deadline() {
    U32 const kind = pick(10);
    if (kind == 0) return 0.0;
    if (kind == 1) return now() - 0.001 * pick(50);
    if (kind == 2) return now() + 0.001 * pick(U32(capacity_ * 1000)) + 0.0001 * (1 + pick(9));
    if (kind < 6) return std::ceil((now() + 0.05) / 0.05) * 0.05 + 0.05 * pick(4);
    return now() + 0.001 * pick(U32(capacity_ * 1333));
  }

  void arm(U32 i, Seconds when) {
    unarm(i);
    Seconds const due = std::max(when, now());
    state_[i] = {due, ++seq_, due - now() + 2 * tick_ < safeCapacity_};
    armed_.emplace(due, i);
  }
  void unarm(U32 i) {
    if (state_[i].due != endOfTime) armed_.erase(armed_.find({state_[i].due, i}));
    state_[i].due = endOfTime;
  }
  // A destroyed timer's place goes to a new one, not attached.
  void replace(U32 i) {
    probes_[i] = std::make_unique<Probe>();
    probes_[i]->action = [this, i] { expired(i); };
  }
  void destroyOrDisarm(U32 i) {
    pick(2) ? replace(i) : probes_[i]->timeMinIs(endOfTime);
    unarm(i);
  }

  void operate(U32 i) {
    Probe& p = *probes_[i];
    Seconds const when = deadline();
    U32 const op = pick(8);
    if (op == 0 && p.notifier()) {  // detach, and clear the deadline it keeps
      p.notifierIs(nullptr);
      p.timeMinIs(endOfTime);
      unarm(i);
    } else if (op == 0) {  // attaching files a deadline already set, but 0 is none
      p.timeMinIs(when);
      p.notifierIs(wheel_);
      if (when != 0.0) arm(i, when);
      EXPECT_EQ(p.timeMin(), when == 0.0 ? endOfTime : when);
    } else if (op < 3) {
      destroyOrDisarm(i);
    } else if (!p.notifier() || p.timeMin() != when) {  // arm or move
      p.notifierIs(wheel_);
      p.timeMinIs(when);
      arm(i, when);
    }
  }

  void onTime() override {
    for (U32 n = 1 + pick(4); n > 0; --n) operate(pick(timers));
    auto const filed = checkInvariants(*wheel_);
    for (U32 i = 0; i < timers; ++i) {
      EXPECT_EQ(state_[i].due != endOfTime, filed.count(probes_[i].get()) == 1) << i;
    }
    if (HasFailure() || --stepsLeft_ == 0) return activity()->stop();
    // Mostly a few ticks on; sometimes long enough for the wheel to empty or cascade far.
    U32 const ticks = pick(20) == 0 ? pick(U32(1.5 * wheel_->maxTicks())) : 1 + pick(3);
    timeMinIs(now() + (ticks * c_.tickMsecs + pick(2)) / 1000.0);
  }

  void expired(U32 i) {
    State const s = state_[i];
    ASSERT_NE(s.due, endOfTime) << "timer " << i << " fired unarmed, or twice";
    EXPECT_TRUE(probes_[i]->timeMin() == endOfTime && probes_[i]->wheelIndex() == invalid);
    // Deadlines round to the nearest millisecond, then up to the next tick.
    EXPECT_GE(now(), s.due - 0.0005 - epsilon) << "early, timer " << i;
    EXPECT_LT(now(), s.due + tick_ + 0.0005 + epsilon) << "late, timer " << i;
    unarm(i);
    // In virtual time the timers that fire at one instant share a slot.
    if (now() != lastFiredAt_) lastFifoSeq_ = 0;
    lastFiredAt_ = now();
    if (c_.preserveOrder && s.fifo) {
      EXPECT_GT(s.seq, lastFifoSeq_) << "timer " << i << " fired out of filing order";
      lastFifoSeq_ = s.seq;
    }
    // Expiring timers may disarm or destroy others (not arm them: see the death tests).
    if (U32 const other = pick(timers); other != i && pick(4) == 0) destroyOrDisarm(other);
  }

  RunConfig const c_ = GetParam();
  std::mt19937 random_{c_.seed};
  Zel::Ptr<TimerWheel> const wheel_ =
      makeWheel(c_.tickMsecs, c_.initialMaxTicks, c_.bucketSize, c_.preserveOrder);
  Seconds const tick_ = c_.tickMsecs / 1000.0, capacity_ = wheel_->maxTicks() * tick_;
  // Beyond it a deadline may be refiled from the farthest slot, behind timers armed later.
  Seconds const safeCapacity_ = capacity_ * (1 - 2.0 / c_.bucketSize);
  std::unique_ptr<Probe> probes_[timers];
  State state_[timers];
  std::multiset<std::pair<Seconds, U32>> armed_;
  U32 seq_ = 0, lastFifoSeq_ = 0;
  int stepsLeft_ = 1500;
  Seconds lastFiredAt_ = 0;
};

TEST_P(TimerWheelRandomTest, MatchesTheReference) {
  EXPECT_EQ(wheel_->bucketCount(), c_.levels) << "enough to cover initialMaxTicks, two at least";
  wheel_->processTimeLimitIs(c_.processTimeLimit);
  for (U32 i = 0; i < timers; ++i) replace(i);
  notifierIs(loopClock());
  timeMinIs(now() + 0.001);
  activity()->runUntil(start + 1e7);  // until the last step stops the loop
  activity()->runUntil(now() + 2 * capacity_ + 1);
  EXPECT_EQ(stepsLeft_, 0) << "the run stopped at a failure";
  EXPECT_TRUE(armed_.empty()) << armed_.size() << " armed timers never fired";
  EXPECT_TRUE(checkInvariants(*wheel_).empty());
  EXPECT_EQ(loopClock()->armedCount(), 0u) << "an idle wheel leaves its clock unarmed";
}

INSTANTIATE_TEST_SUITE_P(Shapes, TimerWheelRandomTest,
                         testing::Values(RunConfig{10, 500, 3, 8, true, 0.05, 1},
                                         RunConfig{1, 2, 2, 2, true, 0, 2},  // mostly over capacity
                                         RunConfig{3, 100, 5, 3, true, 0, 3},
                                         RunConfig{7, 3000, 3, 16, false, 0.05, 4}));

// Arguments are checked in declaration order, a refused change leaves the wheel as it was, and
// the ticks the levels cover saturate at 0xffffffff.
TEST_F(TimerWheelTest, ArgumentChecksAndSaturatedCapacity) {
  std::string const tick = "TimerWheel::tickMsecs < 1 or > 3600000 not allowed",
                    size = "TimerWheel::defaultBucketSize < 2 or > 0x10000 not allowed",
                    limit = "TimerWheel::processTimeLimit < 0 or > 0.5 not allowed",
                    bucket = "BucketSize::value < 2 or > 0xfffffffe not allowed";
  std::pair<std::function<void()>, std::string> const refused[] = {
      {[] { makeWheel(0, 1, 1); }, tick},
      {[] { makeWheel(3600001); }, tick},
      {[] { makeWheel(10, 1, 1); }, "TimerWheel::initialMaxTicks < 2 or > 0xffffffff not allowed"},
      {[] { makeWheel(10, 100, 1); }, size},
      {[] { makeWheel(10, 100, 65537); }, size},
      {[&] { wheel->processTimeLimitIs(-0.001); }, limit},
      {[&] { wheel->processTimeLimitIs(0.5001); }, limit},
      {[&] { wheel->processTimeLimitIs(NAN); }, limit},
      {[] { Kiv::BucketSize(1); }, bucket},
      {[] { Zel::strepToValue<Kiv::BucketSize>("4294967295"); }, bucket},
      {[&] { wheel->doAddNewBucket(1); }, bucket}};
  for (std::size_t k = 0; k < std::size(refused); ++k) {
    EXPECT_THAT(refused[k].first, testing::ThrowsMessage<Zel::RangeException>(refused[k].second))
        << k;
  }
  EXPECT_TRUE(wheel->processTimeLimit() == 0.05 && wheel->bucketCount() == 2);
  EXPECT_EQ(Zel::valueToStrep(Kiv::BucketSize(0xfffffffe)), "4294967294");
  auto const widest = makeWheel(3600000, 0xffffffff, 65536);
  auto const deepest = makeWheel(10, 0xffffffff, 16);
  EXPECT_TRUE(widest->bucketCount() == 2 && widest->maxTicks() == 0xffffffff);
  EXPECT_TRUE(deepest->bucketCount() == 8 && deepest->maxTicks() == 0xffffffff);
}

// At 10 ms ticks 10.6 ms is two ticks and 10.4 ms one; an exact half millisecond is dropped. A
// deadline beyond the capacity goes to the farthest slot of the last level and is filed again
// from there. One already past, or 0 once attached, lands in the current slot and fires next.
TEST_F(TimerWheelTest, DeadlinesRoundFarOnesAreRefiledAndPastOnesFireNext) {
  Probe rounded[] = {{wheel, start + 0.0106},
                     {wheel, start + 0.0104},
                     {wheel, start + 0.0096},
                     {wheel, start + 0.0004}};
  auto const fine = makeWheel(1);
  Probe half(fine, start + 0.0625);  // 62.5 ms, exact in binary
  activity()->runUntil(start + 1);
  U32 const ticks[] = {2, 1, 1, 0};
  for (int k = 0; k < 4; ++k) EXPECT_EQ(rounded[k].firedAt, start + 0.01 * ticks[k]) << k;
  EXPECT_EQ(half.firedAt, start + 0.062);

  auto const small = makeWheel(10, 16, 4);  // 2 levels, 160 ms
  std::ostringstream traced;
  Zel::traceSinkIs(&traced);
  Zel::traceHandle<"HTimerWheel">().levelIs(3);
  Probe late(small, start + 2), past(small), zero(small), unset;
  Zel::traceHandle<"HTimerWheel">().levelIs(Zel::TraceHandle::disabled);
  Zel::traceSinkIs(nullptr);
  EXPECT_THAT(traced.str(),
              testing::HasSubstr("Reducing timeout to fit the maximum timer capacity"));
  EXPECT_TRUE(late.bucketIndex() == 1 && late.wheelIndex() == 3) << "the farthest slot";
  activity()->runUntil(start + 1.2345);
  past.timeMinIs(start + 1);
  zero.timeMinIs(0.0);
  EXPECT_EQ(activity()->runOnce(0), 1u) << "one clock event for the slot";
  EXPECT_TRUE(zero.firedAt == start + 1.2345 && past.firedAt == start + 1.2345);
  activity()->runUntil(start + 3);
  EXPECT_EQ(late.firedAt, start + 2);
  unset.timeMinIs(Zel::beginningOfTime);
  unset.notifierIs(small);
  EXPECT_EQ(unset.timeMin(), endOfTime) << "no deadline when attaching";
}

// Without a clock the wheel files timers but fires none. With a limit of 0 each clock event expires
// one slot, and catching up must skip none. Offset time gives the clock the delay from now.
TEST_F(TimerWheelTest, ClockEventsProcessTimeLimitAndOffsetTime) {
  wheel->systemClockDel();
  Probe probes[] = {
      {wheel, start + 0.01}, {wheel, start + 0.02}, {wheel, start + 0.03}, {wheel, start + 0.04}};
  Zel::System::virtualTimeIs(start + 1);
  EXPECT_EQ(activity()->runOnce(0), 0u);
  wheel->processTimeLimitIs(0);
  wheel->systemClockIs(loopClock());
  Probe soon(wheel, start + 1.005);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(activity()->runOnce(0), 1u);
    EXPECT_TRUE(probes[i].fired == 1 && probes[i + 1].fired == 0) << "one slot per clock event";
  }
  wheel->processTimeLimitIs(0.05);  // virtual time does not pass while timers expire
  EXPECT_EQ(activity()->runOnce(0), 1u);
  EXPECT_EQ(probes[2].fired + probes[3].fired + soon.fired, 2);
  activity()->runUntil(start + 2);
  EXPECT_DOUBLE_EQ(soon.firedAt, start + 1.01);

  wheel->calls.clear();
  soon.timeMinIs(start + 2.25);
  soon.timeMinIs(endOfTime);
  wheel->systemClockTakesOffsetTimeIs(true);
  activity()->runUntil(start + 2.1);
  soon.timeMinIs(start + 2.35);
  activity()->runUntil(start + 3);
  EXPECT_NEAR(soon.firedAt, start + 2.35, epsilon);
  using Call = std::pair<Seconds, U32>;
  Call const disarm(endOfTime, invalid);  // the wheel emptied
  EXPECT_THAT(wheel->calls,
              testing::ElementsAre(Call(start + 2.25, 25), disarm,
                                   testing::Pair(testing::DoubleNear(0.25, epsilon), 25), disarm));
}

// The log keeps the last entries, oldest first. An owner's exception leaves the rest of its slot to
// the next clock event.
TEST_F(TimerWheelTest, OperationLogAndAnOwnersException) {
  Probe p(wheel), a(wheel), b(wheel);
  for (int i = 0; i < 81; ++i) p.timeMinIs(i % 2 ? endOfTime : start + 1);
  activity()->runUntil(start + 2);
  std::ostringstream out, self;
  Kiv::printLogEntries(wheel.ptr(), out);
  self << static_cast<void const*>(&p) << " op is ";
  std::string const log = out.str();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), long(TimerWheel::logCapacity));
  EXPECT_TRUE(log.ends_with(self.str() + "1\n" + self.str() + "2\n" + self.str() + "3\n"))
      << "filed, unfiled, expired";

  p.action = [] { throw 7; };
  for (Probe* q : {&p, &a, &b}) q->timeMinIs(start + 2.1);
  EXPECT_THROW(activity()->runUntil(start + 3), int);
  EXPECT_EQ(a.fired + b.fired, 0);
  activity()->runUntil(start + 3);
  EXPECT_EQ(a.fired + b.fired, 2);
}

TEST_F(TimerWheelDeathTest, MisuseIsRefused) {
  Probe rearming(wheel);
  rearming.action = [&] { rearming.timeMinIs(currentTime() + 1); };
  rearming.timeMinIs(start + 0.1);
  EXPECT_DEATH(activity()->runUntil(start + 1),
               "Assertion failed: !tw->systemClockHandlerActive\\(\\)");
  rearming.timeMinIs(endOfTime);
  EXPECT_DEATH(rearming.timeMinIs(NAN), "Assertion failed: !isnan\\( n->timeMin\\(\\) \\)");
  rearming.timeMinIs(start + 0.1);
  EXPECT_DEATH(wheel->doAddNewBucket(64), "Assertion failed: timers\\(\\) == 0");
}

}  // namespace
