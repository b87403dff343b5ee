// Kiv::TimerWheel: a hierarchical timer wheel that multiplexes any number of timers onto one
// Zel::Clock notifiee.
//
// A timer is a TimerWheel::NotifieeConst. Its owner attaches it to a wheel (notifierIs) and arms,
// moves and disarms it through timeMinIs(t), t an absolute time in seconds. The wheel files the
// timer into a slot of one of its levels: level 0 has one slot per tick of tickMsecs, each slot of
// level L + 1 spans a whole turn of level L. When level 0 completes a turn the next slot of
// level 1 comes down into level 0 (cascading), and so on upwards. Arming, moving and disarming
// cost O(1) and never allocate: a timer is linked into its slot through its own fields. A timer
// comes down at most once per level on its way to level 0 (one beyond the capacity, once per turn
// of the last level besides), so expiry costs O(1) amortized.
//
// Time. A deadline is measured from the time of the wheel's current level-0 slot, rounded to the
// nearest millisecond (a remainder of exactly one half is dropped) and then up to whole ticks.
// So a timer fires at the first tick boundary at or after its rounded deadline: at most one tick
// late while the event loop keeps up, and never earlier than half a millisecond before its
// deadline. A deadline at or before the current slot's time (or a timeMin of 0 set on an
// attached timer) lands in the current slot and fires on the next clock event; the current slot
// may trail the present by up to a tick, so a deadline just past fires at the next tick
// boundary instead, which is still not early. A deadline beyond maxTicks is filed in the
// farthest slot of the last level (trace "Reducing timeout to fit the maximum timer capacity")
// and filed again each time that slot comes down, so it still fires on time; among equal
// deadlines it may then fire after timers armed later.
//
// Expiry. When the clock reaches a slot, the wheel takes every timer of the slot in filing order,
// unfiles it, sets its timeMin to the end of time and runs its onTimeMin(). It works slot after
// due slot until processTimeLimit seconds have passed, then lets the event loop run and goes on
// at the next clock event. While it expires timers, arming or moving a timer of this wheel fails
// the assertion "!tw->systemClockHandlerActive()": an owner re-arms after the clock event (for
// instance from a Zel::Clock notifiee armed for the current time, which runs on the loop's next
// turn). Disarming or detaching timers is allowed at any time.
//
// The owner's pattern for receiving expiry:
//
//   class SessionSm {
//   public:
//     explicit SessionSm(Zel::Ptr<Kiv::TimerWheel const> const& wheel) {
//       zelIdleTimer_.notifierIs(wheel);
//     }
//     // Arms the idle timer, or moves it if it is armed.
//     void activityIs(Seconds now) { zelIdleTimer_.timeMinIs(now + 30.0); }
//     void closedIs() { zelIdleTimer_.timeMinIs(Zel::endOfTime); }  // disarms; no onTimeMin()
//
//   private:
//     class ZelIdleTimer : public Kiv::TimerWheel::NotifieeConst {
//     public:
//       explicit ZelIdleTimer(SessionSm& owner) : owner_(owner) {}
//       // The wheel has just set timeMin() to the end of time: the timer expired.
//       void onTimeMin() override { owner_.handleIdleTimer(); }
//
//     private:
//       SessionSm& owner_;
//     };
//
//     void handleIdleTimer();  // must not arm a timer of this wheel (see Expiry)
//     ZelIdleTimer zelIdleTimer_{*this};
//   };
//
// Choices this wheel makes:
// - Cascading stops at the first level that does not wrap: a level's next slot comes down only
//   when every level below it has completed a turn.
// - preserveOrder: when true, a slot that comes down is re-filed from its head, so timers that
//   meet again in one lower slot keep the order in which they were filed and equal deadlines fire
//   in arming order. When false the slot is re-filed from its tail; the wheel then promises no
//   order among timers that shared a slot before a cascade. Both cost the same.
// - systemClockTakesOffsetTime: when true, doUpdateSystemClock() is given the seconds from now
//   until the scheduled slot (never negative) instead of its absolute time; the base version
//   adds the current time back before arming the Zel::Clock. It is for derived wheels whose
//   clock counts delays.
// - Attaching a timer files it when its timeMin is a finite time other than 0; 0 and the
//   beginning of time read as "no deadline" at that moment and become the end of time.
// - Timers attach to the wheel directly, not through a notifiee list: a wheel holding a million
//   timers must not visit them, and leaving such a list is linear. The bookkeeping attributes
//   (levels, indices, counts, times) change only through the wheel's own steps: users read them.
// - Slots live in one zeroed array per level, made with the level, so filing never allocates;
//   wheelAt() reports a slot that holds no timer as null.
// - The operation log is a ring of the last logCapacity filings (op 1), unfilings (op 2) and
//   expiries (op 3), printed oldest first by printLogEntries().
//
// Single activity: all operations run on the wheel's event loop.
#pragma once

#include <Zel/Clock.h>
#include <Zel/Entity.h>
#include <Zel/Types.h>
#include <Zel/Value.h>

#include <array>
#include <cstddef>
#include <iosfwd>
#include <memory>
#include <vector>

namespace Kiv {

// The number of slots of one level of a timer wheel: 2 to 0xFFFFFFFE.
class BucketSize : public Zel::Value<BucketSize> {
public:
  BucketSize() = default;
  explicit BucketSize(U32 size) { valueIs(size); }

  U32 value() const noexcept { return value_; }
  // Throws Zel::RangeException "BucketSize::value < 2 or > 0xfffffffe not allowed".
  void valueIs(U32 size) {
    if (size < 2 || size > 0xfffffffe) [[unlikely]]
      throwOutOfRange();
    value_ = size;
  }
  // A bucket size is a count of slots wherever a number is expected.
  operator U32() const noexcept { return value_; }

  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::BucketSize",
                            Zel::field("value", &BucketSize::value, &BucketSize::valueIs));
  }

private:
  [[noreturn]] static void throwOutOfRange();
  U32 value_ = 2;
};

struct HeadNTail;
class TimerWheel;

Zel::Ptr<TimerWheel> timerWheelFactory(Zel::Ptr<Zel::Clock const> const& systemClock, U32 tickMsecs,
                                       U32 initialMaxTicks, bool preserveOrder,
                                       U32 defaultBucketSize);

class TimerWheel : public Zel::PtrInterface {
public:
  static constexpr U32 InvalidWheelIndex = 0xCAFEFEED;
  static constexpr U32 InvalidBucketIndex = 0xCAFEFEED;
  static constexpr std::size_t logCapacity = 64;

  // A timer. It keeps its deadline and its place in the wheel; see the file comment for the
  // owner's pattern.
  class NotifieeConst : public Zel::PtrInterface::NotifieeConst {
  public:
    NotifieeConst() = default;
    // Unfiles the timer: a destroyed timer never fires.
    ~NotifieeConst() override;

    Zel::Ptr<TimerWheel const> const& notifier() const noexcept { return wheel_; }
    // Leaves the present wheel (unfiling the timer) and attaches to `wheel` (null: none), filing
    // the timer there if its timeMin is a deadline.
    void notifierIs(Zel::Ptr<TimerWheel const> const& wheel);

    Seconds timeMin() const noexcept { return timeMin_; }
    // Arms (a finite time), moves, or disarms (Zel::endOfTime) the timer. Once attached, 0 asks
    // for the next clock event, and NaN fails the assertion "!isnan( n->timeMin() )".
    void timeMinIs(Seconds t);

    // Runs after the wheel has set timeMin() to the end of time because the timer expired. The
    // owner's own timeMinIs() calls do not run it.
    virtual void onTimeMin() {}

    // The timer's place: its level (bucketIndex), its slot in that level (wheelIndex) and its
    // neighbours in the slot; the indices are invalid and the neighbours null when not filed.
    U32 bucketIndex() const noexcept { return bucketIndex_; }
    U32 wheelIndex() const noexcept { return wheelIndex_; }
    NotifieeConst const* next() const noexcept { return next_; }
    NotifieeConst const* prev() const noexcept { return prev_; }

  private:
    friend class TimerWheel;
    friend inline void insertNotifiee(TimerWheel* tw, NotifieeConst* n, U32 ticks);
    friend inline void removeNotifiee(TimerWheel* tw, NotifieeConst* n);

    // Timers observe the wheel as const, yet filing one changes the wheel's bookkeeping (as
    // arming a Zel::Clock notifiee changes the clock's schedule).
    TimerWheel* wheel() const noexcept { return const_cast<TimerWheel*>(wheel_.ptr()); }

    Zel::Ptr<TimerWheel const> wheel_;
    Seconds timeMin_ = Zel::endOfTime;
    NotifieeConst* next_ = nullptr;
    NotifieeConst* prev_ = nullptr;
    U32 wheelIndex_ = InvalidWheelIndex;
    U32 bucketIndex_ = InvalidBucketIndex;
  };

  ~TimerWheel() override;

  // ---- Constructor parameters ----
  Zel::Ptr<Zel::Clock const> const& systemClock() const noexcept { return systemClock_; }
  U32 tickMsecs() const noexcept { return tickMsecs_; }
  U32 initialMaxTicks() const noexcept { return initialMaxTicks_; }
  bool preserveOrder() const noexcept { return preserveOrder_; }
  U32 defaultBucketSize() const noexcept { return defaultBucketSize_; }

  // Drives the wheel from `clock`; with a null clock the wheel files timers but none fires.
  // Moving to another clock keeps the schedule. Not allowed while timers expire.
  void systemClockIs(Zel::Ptr<Zel::Clock const> const& clock);
  void systemClockDel() { systemClockIs(nullptr); }

  // The number of ticks the levels cover: the product of their sizes, at most 0xFFFFFFFF.
  U32 maxTicks() const noexcept { return maxTicks_; }

  // The time one clock event may spend expiring timers, 0 to 0.5 seconds (default 0.05);
  // throws Zel::RangeException "TimerWheel::processTimeLimit < 0 or > 0.5 not allowed".
  Seconds processTimeLimit() const noexcept { return processTimeLimit_; }
  void processTimeLimitIs(Seconds limit);

  // ---- Per-level bookkeeping, by level (0 is the finest) ----
  U32 bucketCount() const noexcept { return static_cast<U32>(levels_.size()); }
  // The size of a level; a level the wheel does not have reads as 2.
  BucketSize bucketSize(U32 level) const {
    return level < levels_.size() ? BucketSize(levels_[level].size) : BucketSize();
  }
  // The slot array of a level, or null.
  HeadNTail const* wheelBase(U32 level) const noexcept {
    return level < levels_.size() ? levels_[level].slots.get() : nullptr;
  }
  // The level's current slot; InvalidWheelIndex while the wheel is idle, 0 for no such level.
  U32 currentWheelIndex(U32 level) const noexcept {
    return level < levels_.size() ? levels_[level].current : 0;
  }
  // The number of timers filed in a level; timerHas() tells whether there is any.
  U32 timer(U32 level) const noexcept { return level < levels_.size() ? levels_[level].timers : 0; }
  bool timerHas(U32 level) const noexcept { return timer(level) != 0; }
  // The number of levels that hold timers (not the number of timers).
  U32 timers() const noexcept { return nonEmptyLevels_; }
  U32 remainingNonEmptyBuckets() const noexcept { return timers(); }

  // The absolute time of level 0's current slot; the end of time while idle.
  Seconds currentWheelIndexTime() const noexcept { return currentWheelIndexTime_; }
  // The level-0 slot the clock is armed for, or InvalidWheelIndex.
  U32 scheduledWheelIndex() const noexcept { return scheduledWheelIndex_; }
  // One past the last slot of level 0: reaching it cascades the levels above.
  U32 ghostTimerIndex() const noexcept { return bucketSize(0); }

  bool systemClockHandlerActive() const noexcept { return systemClockHandlerActive_; }
  bool systemClockTakesOffsetTime() const noexcept { return systemClockTakesOffsetTime_; }
  void systemClockTakesOffsetTimeIs(bool offset) noexcept { systemClockTakesOffsetTime_ = offset; }
  bool initialized() const noexcept { return initialized_; }

  // The time source of the wheel: Zel::System::currentTime().
  Seconds time() const noexcept;

  // Adds a level of `size` slots above the present ones (throws as BucketSize does). Only while
  // no timer is filed: the assertion is "timers() == 0".
  void doAddNewBucket(U32 size);

protected:
  TimerWheel(Zel::Ptr<Zel::Clock const> const& systemClock, U32 tickMsecs, U32 initialMaxTicks,
             bool preserveOrder, U32 defaultBucketSize);

  // Arms the clock for level-0 slot `index` at `time` (see systemClockTakesOffsetTime); the end
  // of time with InvalidWheelIndex disarms it. Acts only when the wheel has a clock. A derived
  // wheel may re-time the clock; its override calls this version, which records the index.
  virtual void doUpdateSystemClock(Seconds time, U32 index);

private:
  // The wheel's own steps (HTimerWheel.cpp). Those on the arming path are inline there and
  // compile into timeMinIs() as one function.
  friend inline void insertNotifiee(TimerWheel* tw, NotifieeConst* n, U32 ticks);
  friend inline void removeNotifiee(TimerWheel* tw, NotifieeConst* n);
  friend inline void deleteTimer(TimerWheel* tw, NotifieeConst* n);
  friend inline void newTimer(TimerWheel* tw, NotifieeConst* n);
  friend void rearrangeTimers(TimerWheel* tw);
  friend inline void maybePullUpWheelTime(TimerWheel* tw);
  friend inline void maybeUpdateSystemClock(TimerWheel* tw, U32 level, U32 index, bool added);
  friend void shutdownWheel(TimerWheel* tw);
  friend inline void logEntry(TimerWheel* tw, NotifieeConst const* n, U8 op);
  friend void printLogEntries(TimerWheel const* tw, std::ostream& out);

  class ZelSystemClock : public Zel::Clock::NotifieeConst {
  public:
    explicit ZelSystemClock(TimerWheel& wheel) : wheel_(wheel) {}
    void onTime() override { wheel_.handleSystemClock(); }

  private:
    TimerWheel& wheel_;
  };

  static constexpr U8 notPowerOfTwo = 0xFF;
  struct Level {
    std::unique_ptr<HeadNTail[]> slots;
    U32 size;
    U32 current;
    U32 timers;
    U8 shift;  // log2 of size, so that carrying into the next level needs no division
  };

  struct LogEntry {
    NotifieeConst const* notifiee;
    U8 op;
  };

  // Called by NotifieeConst: on a change of timeMin, on attaching, on detaching. Internal to the
  // library (hidden); the first two are on the arming path and inline like the steps.
  [[gnu::visibility("hidden")]] inline void timeUpdateIs(NotifieeConst* n);
  [[gnu::visibility("hidden")]] inline void newNotifiee(NotifieeConst* n);
  [[gnu::visibility("hidden")]] void deleteNotifiee(NotifieeConst* n);

  void handleInitialized();
  void handleSystemClock();
  [[gnu::visibility("hidden")]] void expireSlot(U32 index);
  // Arms the clock for level-0 slot `index` (InvalidWheelIndex: disarms) through
  // doUpdateSystemClock, in the form systemClockTakesOffsetTime asks for.
  [[gnu::visibility("hidden")]] void scheduleClock(U32 index);

  // The absolute time of level-0 slot `index` in the present turn of level 0.
  Seconds slotTime(U32 index) const noexcept {
    return turnOrigin_ + static_cast<Seconds>(turnTick_ + index) * tickMsecs_ / 1000.0;
  }
  void currentWheelIndexIs(U32 level, U32 index) noexcept {
    levels_[level].current = index;
    if (level == 0) currentWheelIndexTime_ = slotTime(index);
  }
  void levelTimerInc(U32 level) noexcept {
    if (levels_[level].timers++ == 0) ++nonEmptyLevels_;
  }
  void levelTimerDec(U32 level) noexcept {
    if (--levels_[level].timers == 0) --nonEmptyLevels_;
  }

  Zel::Ptr<Zel::Clock const> systemClock_;
  U32 tickMsecs_;
  U32 initialMaxTicks_;
  bool preserveOrder_;
  U32 defaultBucketSize_;

  U32 maxTicks_ = 0;
  Seconds processTimeLimit_ = 0.05;
  std::vector<Level> levels_;
  U32 nonEmptyLevels_ = 0;
  Seconds currentWheelIndexTime_ = Zel::endOfTime;
  // Level-0 slot i of the present turn is due at turnOrigin_ + (turnTick_ + i) ticks: kept as a
  // tick count so that slot times do not drift over long runs.
  Seconds turnOrigin_ = Zel::endOfTime;
  U64 turnTick_ = 0;
  U32 scheduledWheelIndex_ = InvalidWheelIndex;
  bool systemClockHandlerActive_ = false;
  bool systemClockTakesOffsetTime_ = false;
  bool initialized_ = false;
  U64 insertions_ = 0;
  std::array<LogEntry, logCapacity> log_{};
  U64 logged_ = 0;
  ZelSystemClock zelSystemClock_{*this};
};

// A slot: the doubly linked list of the timers filed in it, oldest at the head.
struct HeadNTail {
  TimerWheel::NotifieeConst* h = nullptr;
  TimerWheel::NotifieeConst* t = nullptr;
};

// The ticks from the wheel's current level-0 slot to n's deadline (0 when it is past or 0),
// saturating at 0xFFFFFFFF. The wheel must be running.
U32 forwardTicks(TimerWheel const* tw, TimerWheel::NotifieeConst const* n);

// The first level-0 slot from `start` on that holds a timer, or InvalidWheelIndex.
U32 findNextUsedIndex(TimerWheel const* tw, U32 start);

// The slot at (level, index) if it holds a timer, else null.
HeadNTail const* wheelAt(TimerWheel const* tw, U32 level, U32 index);

// Writes the operation log, oldest entry first, one "<timer> op is <code>" line each.
void printLogEntries(TimerWheel const* tw, std::ostream& out);

}  // namespace Kiv
