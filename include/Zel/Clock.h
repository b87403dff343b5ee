// Zel::Clock: the time of one activity, and the schedule of the notifiees waiting on it.
//
// A Clock::NotifieeConst asks to be called once the clock reaches its timeMin. A finite timeMin
// arms it, the end of time unarms it, NaN is refused by an assertion. Arming, moving and
// unarming cost O(log n) in the number of armed notifiees (an indexed 4-ary heap ordered by
// timeMin, then by order of arming). Destroying or detaching an armed notifiee unarms it.
//
// The activity loop fires due notifiees (ActivityManager); before it calls onTime() it sets the
// notifiee's timeMin to the end of time, so a handler re-arms by setting timeMin again. A
// notifiee re-armed for a time already past fires on the next turn of the loop, never
// recursively inside the handler.
#pragma once

#include <Zel/Assert.h>
#include <Zel/Entity.h>
#include <Zel/Ptr.h>
#include <Zel/System.h>
#include <Zel/Types.h>

#include <cstddef>
#include <vector>

namespace Zel {

class Clock;
Ptr<Clock> clockFactory();

class Clock : public Notifier {
public:
  class NotifieeConst : public PtrInterface::NotifieeConst {
  public:
    NotifieeConst() = default;
    ~NotifieeConst() override;

    Ptr<Clock const> const& notifier() const noexcept { return clock_; }
    // Moves the notifiee to another clock, keeping its timeMin (and so its arming).
    void notifierIs(Ptr<Clock const> const& clock);

    Seconds timeMin() const noexcept { return timeMin_; }
    void timeMinIs(Seconds t);
    bool armed() const noexcept { return heapIndex_ != notInHeap; }

    virtual void onTime() {}

  private:
    friend class Clock;
    static constexpr std::size_t notInHeap = ~std::size_t(0);

    Ptr<Clock const> clock_;
    Seconds timeMin_ = endOfTime;
    U64 armOrder_ = 0;
    std::size_t heapIndex_ = notInHeap;  // in the heap, or in the firing batch when firing_
    bool firing_ = false;
  };

  // The time source's current time.
  Seconds now() const noexcept { return System::currentTime(); }

  // The earliest armed timeMin, or the end of time when nothing is armed.
  Seconds nextTime() const noexcept { return heap_.empty() ? endOfTime : heap_.front().time; }
  std::size_t armedCount() const noexcept { return heap_.size(); }

  // Fires, in order, every notifiee due at `now` (timeMin <= now) when the call begins, skipping
  // those a handler disarms or moves meanwhile. A notifiee armed during the call waits for the
  // next one, so a handler that re-arms for a past time never runs again within the same call
  // and never holds back the others. Returns the number fired. Not reentrant.
  std::size_t doFireDue(Seconds now);

protected:
  Clock() = default;

private:
  struct Slot {
    Seconds time;
    U64 order;
    NotifieeConst* notifiee;
  };

  static bool before(Slot const& a, Slot const& b) noexcept {
    return a.time < b.time || (a.time == b.time && a.order < b.order);
  }

  void arm(NotifieeConst& n) const;
  // Moves an armed notifiee to its new timeMin, as if it were armed anew.
  void rearm(NotifieeConst& n) const noexcept;
  void unarm(NotifieeConst& n) const noexcept;
  void resift(std::size_t index) const noexcept;
  std::size_t leastChild(std::size_t index) const noexcept;
  void place(std::size_t index, Slot slot) const noexcept;
  void siftUp(std::size_t index) const noexcept;
  void siftDown(std::size_t index) const noexcept;

  // Notifiees observe the clock as const, yet arming changes its schedule.
  mutable std::vector<Slot> heap_;
  // The notifiees taken out of the heap to fire in the current doFireDue; null where a handler
  // disarmed or moved one before its turn.
  mutable std::vector<NotifieeConst*> batch_;
  bool firingBatch_ = false;
  mutable U64 nextOrder_ = 0;
};

}  // namespace Zel
