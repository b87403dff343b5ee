#include <Kiv/HTimerWheel.h>

#include <Zel/Assert.h>
#include <Zel/Exception.h>
#include <Zel/GenericIf.h>
#include <Zel/System.h>
#include <Zel/Trace.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <ostream>

namespace Kiv {

namespace {

using Notifiee = TimerWheel::NotifieeConst;

Zel::TypeRegistration<BucketSize> const registration;

// Traces name a timer by its address.
constexpr auto trace = Zel::traceHandle<"HTimerWheel">;
constexpr int traceCapacity = 3;  // deadlines beyond the wheel's capacity
constexpr int traceLevels = 5;    // levels added
constexpr int traceFiling = 7;    // each timer filed
constexpr int traceClock = 8;     // timers attached, the clock armed, expiry rounds, going idle
constexpr int traceStep = 9;      // each step of arming, unfiling, catching up and expiry

constexpr U32 InvalidWheelIndex = TimerWheel::InvalidWheelIndex;
constexpr U32 InvalidBucketIndex = TimerWheel::InvalidBucketIndex;

// Operation codes of the log.
constexpr U8 opFiled = 1;
constexpr U8 opUnfiled = 2;
constexpr U8 opExpired = 3;

// Milliseconds in `seconds` (not negative), rounded to the nearest whole one with a remainder of
// exactly one half dropped, saturating at the largest U64.
U64 roundedMsecs(Seconds seconds) {
  Seconds const ms = seconds * 1000;
  // Deadlines within 24 days convert through 32 bits, one SSE2 instruction each way on every
  // target; on 32-bit x86 a conversion to or from 64 bits goes through the x87 unit and switches
  // its rounding mode twice, which made arming a timer there four times as costly.
  if (ms < 2147483648.0) {
    S32 const whole = static_cast<S32>(ms);
    return U64(U32(whole) + (ms - static_cast<Seconds>(whole) > 0.5 ? 1u : 0u));
  }
  if (!(ms < 18446744073709551616.0)) return ~U64(0);
  U64 whole = static_cast<U64>(ms);
  if (ms - static_cast<Seconds>(whole) > 0.5) ++whole;
  return whole;
}

// Whole ticks in `ms`, the last one counted if partly covered when `roundUp`. A 32-bit division
// where the operands allow it: several times cheaper on x86-64, and on 32-bit x86 the 64-bit one
// is a library call.
U64 msecsToTicks(U64 ms, U32 tick, bool roundUp) {
  if (ms <= 0xFFFFFFFF) return U32(ms) / tick + (roundUp && U32(ms) % tick != 0 ? 1 : 0);
  return ms / tick + (roundUp && ms % tick != 0 ? 1 : 0);
}

// forwardTicks() and wheelAt() for the wheel's own steps: file-local, so that they inline.
U32 ticksUntil(TimerWheel const* tw, Notifiee const* n) {
  Seconds const now = tw->currentWheelIndexTime();
  ZEL_ASSERT_AS(now != Zel::endOfTime, "now != Zel::endOfTime");
  Seconds const when = n->timeMin();
  if (now >= when || when == 0) return 0;
  U64 const ticks = msecsToTicks(roundedMsecs(when - now), tw->tickMsecs(), true);
  return ticks > 0xFFFFFFFF ? 0xFFFFFFFF : static_cast<U32>(ticks);
}

HeadNTail const* usedSlot(TimerWheel const* tw, U32 level, U32 index) {
  HeadNTail const* const slot = tw->wheelBase(level) + index;
  return slot->h ? slot : nullptr;
}

// Files every timer of a slot again from the wheel's new position, which brings it down to a
// lower level (or, past the capacity, back to the farthest slot).
void refileSlot(TimerWheel* tw, U32 level, U32 index) {
  while (HeadNTail const* hnt = usedSlot(tw, level, index)) {
    Notifiee* const n = tw->preserveOrder() ? hnt->h : hnt->t;
    removeNotifiee(tw, n);
    insertNotifiee(tw, n, ticksUntil(tw, n));
  }
}

}  // namespace

// ---- BucketSize -------------------------------------------------------------------------------

void BucketSize::throwOutOfRange() {
  throw Zel::RangeException("BucketSize::value < 2 or > 0xfffffffe not allowed");
}

// ---- Timers -----------------------------------------------------------------------------------

TimerWheel::NotifieeConst::~NotifieeConst() {
  if (wheel_) wheel()->deleteNotifiee(this);
}

void TimerWheel::NotifieeConst::notifierIs(Zel::Ptr<TimerWheel const> const& other) {
  if (other == wheel_) return;
  if (wheel_) wheel()->deleteNotifiee(this);
  wheel_ = other;
  isRegisteredNotifieeIs(static_cast<bool>(wheel_));
  if (wheel_) wheel()->newNotifiee(this);
}

void TimerWheel::NotifieeConst::timeMinIs(Seconds t) {
  if (t == timeMin_) return;
  timeMin_ = t;
  if (wheel_) wheel()->timeUpdateIs(this);
}

// ---- The wheel --------------------------------------------------------------------------------

Zel::Ptr<TimerWheel> timerWheelFactory(Zel::Ptr<Zel::Clock const> const& systemClock, U32 tickMsecs,
                                       U32 initialMaxTicks, bool preserveOrder,
                                       U32 defaultBucketSize) {
  return Zel::allocate<TimerWheel>(systemClock, tickMsecs, initialMaxTicks, preserveOrder,
                                   defaultBucketSize);
}

TimerWheel::TimerWheel(Zel::Ptr<Zel::Clock const> const& systemClock, U32 tickMsecs,
                       U32 initialMaxTicks, bool preserveOrder, U32 defaultBucketSize)
    : systemClock_(systemClock),
      tickMsecs_(tickMsecs),
      initialMaxTicks_(initialMaxTicks),
      preserveOrder_(preserveOrder),
      defaultBucketSize_(defaultBucketSize) {
  if (tickMsecs_ < 1 || tickMsecs_ > 3600000) {
    throw Zel::RangeException("TimerWheel::tickMsecs < 1 or > 3600000 not allowed");
  }
  if (initialMaxTicks_ < 2) {
    throw Zel::RangeException("TimerWheel::initialMaxTicks < 2 or > 0xffffffff not allowed");
  }
  if (defaultBucketSize_ < 2 || defaultBucketSize_ > 0x10000) {
    throw Zel::RangeException("TimerWheel::defaultBucketSize < 2 or > 0x10000 not allowed");
  }
  zelSystemClock_.notifierIs(systemClock_);
  handleInitialized();
}

// Attached timers hold the wheel, so none is filed any more; the clock reactor unarms itself.
TimerWheel::~TimerWheel() = default;

void TimerWheel::handleInitialized() {
  ZEL_ASSERT_AS(!initialized_, "!initialized()");
  maxTicks_ = 1;
  initialized_ = true;
  do {
    doAddNewBucket(defaultBucketSize_);
  } while (maxTicks_ < initialMaxTicks_);
  if (bucketCount() == 1) doAddNewBucket(defaultBucketSize_);
  if (auto t = Zel::TraceHelper(trace(), traceLevels)) {
    t << "TimerWheel::handleInitialized: Total buckets created " << bucketCount() << " of "
      << defaultBucketSize_ << " each.";
  }
  shutdownWheel(this);
}

void TimerWheel::doAddNewBucket(U32 size) {
  if (auto t = Zel::TraceHelper(trace(), traceLevels)) {
    t << "TimerWheel::doAddNewBucket"
      << " ## Add a new bucket to index " << bucketCount() << " of size " << size;
  }
  ZEL_ASSERT_AS(timers() == 0, "timers() == 0");
  BucketSize const checked(size);
  U8 const shift =
      std::has_single_bit(size) ? static_cast<U8>(std::countr_zero(size)) : notPowerOfTwo;
  levels_.push_back(Level{std::make_unique<HeadNTail[]>(checked), checked, 0, 0, shift});
  U64 const product = U64(maxTicks_) * checked;
  maxTicks_ = product > 0xFFFFFFFF ? 0xFFFFFFFF : static_cast<U32>(product);
  if (auto t = Zel::TraceHelper(trace(), traceLevels)) {
    t << "Total number of buckets now is " << bucketCount();
  }
}

void TimerWheel::systemClockIs(Zel::Ptr<Zel::Clock const> const& clock) {
  if (clock == systemClock_) return;
  ZEL_ASSERT(!systemClockHandlerActive());
  systemClock_ = clock;
  if (!clock) {
    zelSystemClock_.notifierIs(nullptr);
    zelSystemClock_.timeMinIs(Zel::endOfTime);
    scheduledWheelIndex_ = InvalidWheelIndex;
    return;
  }
  // The reactor keeps its timeMin, so a schedule moves to the new clock as it is.
  zelSystemClock_.notifierIs(clock);
  if (timers() != 0 && scheduledWheelIndex_ == InvalidWheelIndex) {
    U32 const next = findNextUsedIndex(this, currentWheelIndex(0));
    scheduleClock(next == InvalidWheelIndex ? ghostTimerIndex() : next);
  }
}

void TimerWheel::processTimeLimitIs(Seconds limit) {
  if (!(limit >= 0 && limit <= 0.5)) {
    throw Zel::RangeException("TimerWheel::processTimeLimit < 0 or > 0.5 not allowed");
  }
  processTimeLimit_ = limit;
}

Seconds TimerWheel::time() const noexcept { return Zel::System::currentTime(); }

[[gnu::always_inline]] inline void TimerWheel::timeUpdateIs(NotifieeConst* n) {
  ZEL_ASSERT_AS(bucketCount() >= 2, "bucketCount() >= 2");
  if (auto t = Zel::TraceHelper(trace(), traceStep)) {
    t << "timeUpdateIs: Updating notifiee timeMin of " << n << " to " << n->timeMin();
  }
  ZEL_ASSERT_AS(!std::isnan(n->timeMin()), "!isnan( n->timeMin() )");
  if (n->wheelIndex_ != InvalidWheelIndex) {
    ZEL_ASSERT_AS(n->bucketIndex_ != InvalidBucketIndex,
                  "Kiv::bucketIndex( n ) != InvalidBucketIndex");
    deleteTimer(this, n);
  }
  if (n->timeMin() == 0.0) {
    newTimer(this, n);
  } else {
    newNotifiee(n);
  }
}

[[gnu::always_inline]] inline void TimerWheel::newNotifiee(NotifieeConst* n) {
  Seconds const when = n->timeMin();
  if (when == Zel::endOfTime) return;
  if (when != 0.0 && when != Zel::beginningOfTime) {
    if (auto t = Zel::TraceHelper(trace(), traceClock)) {
      t << "newNotfiee: Adding notifiee " << n << " with timeMin " << when;
    }
    ZEL_ASSERT_AS(!std::isnan(when), "!isnan( when )");
    newTimer(this, n);
    return;
  }
  if (auto t = Zel::TraceHelper(trace(), traceClock)) {
    t << "Setting notifiee " << n << " to endOfTime";
  }
  n->timeMin_ = Zel::endOfTime;
}

void TimerWheel::deleteNotifiee(NotifieeConst* n) {
  if (n->wheelIndex_ != InvalidWheelIndex) deleteTimer(this, n);
}

void TimerWheel::scheduleClock(U32 index) {
  Seconds at = index == InvalidWheelIndex ? Zel::endOfTime : slotTime(index);
  if (systemClockTakesOffsetTime_ && at != Zel::endOfTime) at = std::max(0.0, at - time());
  doUpdateSystemClock(at, index);
}

void TimerWheel::doUpdateSystemClock(Seconds time, U32 index) {
  if (!systemClock_) return;
  if (auto t = Zel::TraceHelper(trace(), traceClock)) {
    t << " doUpdateSystemClock to time " << time << ", index " << index << " time now is "
      << this->time();
  }
  ZEL_ASSERT_AS(!systemClockHandlerActive_, "!systemClockHandlerActive()");
  if (systemClockTakesOffsetTime_ && time != Zel::endOfTime) time += this->time();
  zelSystemClock_.timeMinIs(time);
  scheduledWheelIndex_ = index;
  if (auto t = Zel::TraceHelper(trace(), traceClock)) {
    t << "Returning from doUpdateSystemClock at " << this->time();
  }
}

void TimerWheel::handleSystemClock() {
  // An owner may drop the last reference to the wheel while its timer expires.
  Zel::Ptr<TimerWheel> const keepAlive(this);
  Seconds const start = Zel::System::currentTime();
  for (;;) {
    U32 schedIndex = scheduledWheelIndex_;
    ZEL_ASSERT_AS(schedIndex != InvalidWheelIndex, "schedIndex != InvalidWheelIndex");
    if (auto t = Zel::TraceHelper(trace(), traceClock)) {
      t << "In handleSystemClock at " << time() << " schedIndex " << schedIndex;
    }
    ZEL_ASSERT_AS(!systemClockHandlerActive_, "!systemClockHandlerActive()");
    systemClockHandlerActive_ = true;
    // The scheduled slot is the first used one, so the current index moves up to it.
    currentWheelIndexIs(0, schedIndex);
    if (schedIndex == ghostTimerIndex()) {
      rearrangeTimers(this);
      schedIndex = currentWheelIndex(0);
    }
    expireSlot(schedIndex);
    systemClockHandlerActive_ = false;
    if (timers() == 0) {
      shutdownWheel(this);
      break;
    }
    U32 const next = findNextUsedIndex(this, schedIndex);
    scheduledWheelIndex_ = next == InvalidWheelIndex ? ghostTimerIndex() : next;
    if (Zel::System::currentTime() - start >= processTimeLimit_ ||
        slotTime(scheduledWheelIndex_) > time()) {
      scheduleClock(scheduledWheelIndex_);
      break;
    }
  }
  if (auto t = Zel::TraceHelper(trace(), traceClock)) {
    t << "Completed handleSystemClock at " << time();
  }
}

void TimerWheel::expireSlot(U32 index) {
  try {
    while (HeadNTail const* hnt = usedSlot(this, 0, index)) {
      NotifieeConst* const n = hnt->h;
      removeNotifiee(this, n);
      logEntry(this, n, opExpired);
      n->timeMinIs(Zel::endOfTime);
      if (auto t = Zel::TraceHelper(trace(), traceStep)) t << "call onTime of " << n;
      n->onTimeMin();
      if (auto t = Zel::TraceHelper(trace(), traceStep)) t << "call onTime completed";
    }
  } catch (...) {
    // An owner's exception leaves the rest of the slot to the next clock event.
    systemClockHandlerActive_ = false;
    if (timers() == 0) {
      shutdownWheel(this);
    } else {
      scheduleClock(index);
    }
    throw;
  }
}

// ---- The wheel's steps ------------------------------------------------------------------------
//
// Hidden: internal to the library, so that calls among them are direct and may be inlined.

U32 forwardTicks(TimerWheel const* tw, Notifiee const* n) { return ticksUntil(tw, n); }

[[gnu::always_inline]] inline void insertNotifiee(TimerWheel* tw, Notifiee* n, U32 ticks) {
  U32 const last = tw->bucketCount() - 1;
  U32 bucketIndex = 0;
  U32 index;
  for (;; ++bucketIndex) {
    TimerWheel::Level const& level = tw->levels_[bucketIndex];
    if (ticks < level.size - level.current) {
      index = level.current + ticks;
      break;
    }
    if (bucketIndex == last) {
      // Both terms are below the size, so one subtraction wraps their sum: no 64-bit division,
      // which is a library call on 32-bit x86.
      if (ticks < level.size) {
        U64 const sum = U64(level.current) + ticks;
        index = static_cast<U32>(sum < level.size ? sum : sum - level.size);
      } else {
        if (auto t = Zel::TraceHelper(trace(), traceCapacity)) {
          t << "Reducing timeout to fit the maximum timer capacity";
        }
        index = level.current != 0 ? level.current - 1 : level.size - 1;
      }
      break;
    }
    U64 const carried = U64(ticks) + level.current;
    ticks = level.shift != TimerWheel::notPowerOfTwo ? static_cast<U32>(carried >> level.shift)
            : carried <= 0xFFFFFFFF                  ? U32(carried) / level.size
                                                     : static_cast<U32>(carried / level.size);
    if (auto t = Zel::TraceHelper(trace(), traceStep)) {
      t << "bucket size " << level.size << " ticks " << ticks;
    }
  }
  ZEL_ASSERT_AS(bucketIndex < tw->bucketCount(), "bucketIndex < tw->bucketCount()");
  ZEL_ASSERT_AS(index < tw->bucketSize(bucketIndex), "index < tw->bucketSize( bucketIndex )");
  ZEL_ASSERT_AS(n->wheelIndex_ == InvalidWheelIndex, "wheelIndex( n ) == InvalidWheelIndex");
  ZEL_ASSERT_AS(n->bucketIndex_ == InvalidBucketIndex,
                "Kiv::bucketIndex( n ) == InvalidBucketIndex");

  HeadNTail* const hnt = &tw->levels_[bucketIndex].slots[index];
  n->next_ = nullptr;
  n->prev_ = hnt->t;
  if (hnt->t) {
    ZEL_ASSERT_AS(!hnt->t->next_, "!next( hnt->t )");
    hnt->t->next_ = n;
  } else {
    ZEL_ASSERT_AS(!hnt->h && !hnt->t, "!hnt->h && !hnt->t");
    hnt->h = n;
  }
  hnt->t = n;
  n->wheelIndex_ = index;
  n->bucketIndex_ = bucketIndex;
  tw->levelTimerInc(bucketIndex);
  ++tw->insertions_;
  if (auto t = Zel::TraceHelper(trace(), traceFiling)) {
    t << "Inserting " << n << " in bucket " << bucketIndex << " at index " << index << " headNtail "
      << static_cast<void const*>(hnt) << " " << tw->insertions_ << " currentIndex "
      << tw->levels_[bucketIndex].current << " scheduled " << tw->scheduledWheelIndex();
  }
  logEntry(tw, n, opFiled);
}

[[gnu::always_inline]] inline void removeNotifiee(TimerWheel* tw, Notifiee* n) {
  U32 const level = n->bucketIndex_;
  if (auto t = Zel::TraceHelper(trace(), traceStep)) {
    t << "removeNotifiee: Removing " << n << " from bucket " << level;
  }
  HeadNTail* const hnt = &tw->levels_[level].slots[n->wheelIndex_];
  ZEL_ASSERT_AS(hnt->h, "hnt");
  if (!n->prev_) {
    if (auto t = Zel::TraceHelper(trace(), traceStep)) {
      t << "Removing: " << n << " is the head. prev " << n->prev_ << " next " << n->next_;
    }
    ZEL_ASSERT_AS(hnt->h == n, "hnt->h == n");
    hnt->h = n->next_;
  } else {
    if (auto t = Zel::TraceHelper(trace(), traceStep)) {
      t << "Removing: " << n << " is not the head. prev " << n->prev_ << " next " << n->next_;
    }
    ZEL_ASSERT_AS(hnt->h != n, "hnt->h != n");
    ZEL_ASSERT_AS(n->prev_->next_ == n, "next( prev( n ) ) == n");
    n->prev_->next_ = n->next_;
  }
  if (!n->next_) {
    if (auto t = Zel::TraceHelper(trace(), traceStep)) {
      t << "Removing: " << n << " is the tail. prev " << n->prev_ << " next " << n->next_;
    }
    ZEL_ASSERT_AS(hnt->t == n, "hnt->t == n");
    hnt->t = n->prev_;
  } else {
    if (auto t = Zel::TraceHelper(trace(), traceStep)) {
      t << "Removing: " << n << " is not the tail. prev " << n->prev_ << " next " << n->next_;
    }
    ZEL_ASSERT_AS(hnt->t != n, "hnt->t != n");
    ZEL_ASSERT_AS(n->next_->prev_ == n, "prev( next( n ) ) == n");
    n->next_->prev_ = n->prev_;
  }
  n->next_ = nullptr;
  n->prev_ = nullptr;
  n->wheelIndex_ = InvalidWheelIndex;
  n->bucketIndex_ = InvalidBucketIndex;
  tw->levelTimerDec(level);
  logEntry(tw, n, opUnfiled);
}

[[gnu::always_inline]] inline void deleteTimer(TimerWheel* tw, Notifiee* n) {
  ZEL_ASSERT_AS(tw->timers() != 0, "tw->timers()");
  U32 const level = n->bucketIndex();
  U32 const index = n->wheelIndex();
  removeNotifiee(tw, n);
  maybeUpdateSystemClock(tw, level, index, false);
}

[[gnu::always_inline]] inline void newTimer(TimerWheel* tw, Notifiee* n) {
  if (tw->scheduledWheelIndex() != InvalidWheelIndex) maybePullUpWheelTime(tw);
  ZEL_ASSERT_AS(!tw->systemClockHandlerActive(), "!tw->systemClockHandlerActive()");
  if (tw->currentWheelIndexTime() == Zel::endOfTime) {
    tw->turnOrigin_ = tw->time();
    tw->turnTick_ = 0;
    for (U32 level = 0; level < tw->bucketCount(); ++level) tw->currentWheelIndexIs(level, 0);
  }
  insertNotifiee(tw, n, ticksUntil(tw, n));
  maybeUpdateSystemClock(tw, n->bucketIndex(), n->wheelIndex(), true);
}

[[gnu::always_inline]] inline void maybePullUpWheelTime(TimerWheel* tw) {
  ZEL_ASSERT_AS(tw->currentWheelIndexTime() != Zel::endOfTime,
                "tw->currentWheelIndexTime() != Zel::endOfTime");
  Seconds const dist = tw->time() - tw->currentWheelIndexTime();
  if (dist <= 0) return;
  U64 const elapsed = msecsToTicks(roundedMsecs(dist), tw->tickMsecs(), false);
  if (elapsed == 0) return;
  ZEL_ASSERT_AS(tw->scheduledWheelIndex() != InvalidWheelIndex,
                "tw->scheduledWheelIndex() != InvalidWheelIndex");
  U32 const current = tw->currentWheelIndex(0);
  U32 const scheduled = tw->scheduledWheelIndex();
  // The slots before the scheduled one are empty; the scheduled one has not been expired yet.
  U32 const schedDistTicks = scheduled > current ? scheduled - current : 0;
  if (auto t = Zel::TraceHelper(trace(), traceStep)) {
    t << "PullingUp current index " << current << " sched index " << scheduled << " now dist "
      << dist << " schedDistTicks " << schedDistTicks;
  }
  U32 const index = current + static_cast<U32>(std::min<U64>(elapsed, schedDistTicks));
  if (index == current) return;
  tw->currentWheelIndexIs(0, index);
  if (auto t = Zel::TraceHelper(trace(), traceStep)) {
    t << "Pulling current up to index " << index << " time " << tw->currentWheelIndexTime();
  }
}

[[gnu::visibility("hidden")]] void rearrangeTimers(TimerWheel* tw) {
  U32 const current = tw->currentWheelIndex(0);
  ZEL_ASSERT_AS(tw->scheduledWheelIndex() == tw->ghostTimerIndex(),
                "tw->scheduledWheelIndex() == tw->ghostTimerIndex()");
  ZEL_ASSERT_AS(current == tw->ghostTimerIndex(), "current == tw->ghostTimerIndex()");
  tw->turnTick_ += current;
  tw->currentWheelIndexIs(0, 0);
  U32 const last = tw->bucketCount() - 1;
  for (U32 level = 1; level <= last; ++level) {
    TimerWheel::Level& above = tw->levels_[level];
    if (above.current + 1 < above.size) {
      ++above.current;
      refileSlot(tw, level, above.current);
      return;
    }
    above.current = 0;
    if (level == last) {
      refileSlot(tw, level, 0);
      return;
    }
    // Filing reaches a level above 0 only with a carry of at least one slot, so slot 0 of a
    // level below the last is never used.
    ZEL_ASSERT_AS(!wheelAt(tw, level, 0), "wheelAt( tw, iter.key(), current ) == 0");
  }
}

[[gnu::always_inline]] inline void maybeUpdateSystemClock(TimerWheel* tw, U32 level, U32 index,
                                                          bool added) {
  if (auto t = Zel::TraceHelper(trace(), traceStep)) {
    t << "maybeUpdateSystemClock"
      << " event in bucketIndex " << level << " wheelIndex " << index << " after add/remove? "
      << added;
  }
  // The expiry loop schedules the clock itself as it ends.
  if (tw->systemClockHandlerActive()) return;
  if (!added) {
    // A slot that a removal empties costs at most one idle clock event; rescheduling would
    // cost a scan of level 0 on every disarm.
    if (tw->timers() == 0) shutdownWheel(tw);
    return;
  }
  if (!tw->systemClock()) return;
  ZEL_ASSERT_AS(tw->currentWheelIndex(0) != InvalidWheelIndex,
                "tw->currentWheelIndex( 0 ) != InvalidWheelIndex");
  U32 const scheduled = tw->scheduledWheelIndex();
  if (scheduled == InvalidWheelIndex) {
    ZEL_ASSERT_AS(tw->timers() == 1, "tw->timers() == 1");
    if (level != 0) ZEL_ASSERT_AS(tw->timer(0) == 0, "tw->timer( 0 ) == 0");
    tw->scheduleClock(level == 0 ? index : tw->ghostTimerIndex());
    return;
  }
  if (level == 0 && index < scheduled) tw->scheduleClock(index);
}

U32 findNextUsedIndex(TimerWheel const* tw, U32 startIndex) {
  ZEL_ASSERT_AS(startIndex >= tw->currentWheelIndex(0), "startIndex >= tw->currentWheelIndex( 0 )");
  HeadNTail const* const slots = tw->wheelBase(0);
  U32 const end = tw->bucketSize(0);
  for (U32 i = startIndex; i < end; ++i) {
    if (slots[i].h) return i;
  }
  return InvalidWheelIndex;
}

[[gnu::visibility("hidden")]] void shutdownWheel(TimerWheel* tw) {
  if (auto t = Zel::TraceHelper(trace(), traceClock)) t << "Wheel being shut down";
  ZEL_ASSERT_AS(tw->timers() == 0, "tw->timers() == 0");
  ZEL_ASSERT_AS(!tw->systemClockHandlerActive(), "!tw->systemClockHandlerActive()");
  for (TimerWheel::Level& level : tw->levels_) level.current = InvalidWheelIndex;
  tw->currentWheelIndexTime_ = Zel::endOfTime;
  tw->turnOrigin_ = Zel::endOfTime;
  tw->turnTick_ = 0;
  tw->scheduleClock(InvalidWheelIndex);
}

HeadNTail const* wheelAt(TimerWheel const* tw, U32 level, U32 index) {
  ZEL_ASSERT(level < tw->bucketCount() && index < tw->bucketSize(level));
  return usedSlot(tw, level, index);
}

[[gnu::always_inline]] inline void logEntry(TimerWheel* tw, Notifiee const* n, U8 op) {
  tw->log_[tw->logged_ % TimerWheel::logCapacity] = TimerWheel::LogEntry{n, op};
  ++tw->logged_;
}

void printLogEntries(TimerWheel const* tw, std::ostream& out) {
  U64 const capacity = TimerWheel::logCapacity;
  U64 const first = tw->logged_ > capacity ? tw->logged_ - capacity : 0;
  for (U64 i = first; i < tw->logged_; ++i) {
    TimerWheel::LogEntry const& entry = tw->log_[i % TimerWheel::logCapacity];
    out << entry.notifiee << " op is " << unsigned(entry.op) << '\n';
  }
}

}  // namespace Kiv
