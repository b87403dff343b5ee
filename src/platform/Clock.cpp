#include <Zel/Clock.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace Zel {

Ptr<Clock> clockFactory() { return allocate<Clock>(); }

Clock::NotifieeConst::~NotifieeConst() {
  if (armed()) clock_->unarm(*this);
}

void Clock::NotifieeConst::notifierIs(Ptr<Clock const> const& clock) {
  if (clock == clock_) return;
  if (armed()) clock_->unarm(*this);
  clock_ = clock;
  isRegisteredNotifieeIs(static_cast<bool>(clock_));
  if (clock_ && timeMin_ != endOfTime) clock_->arm(*this);
}

void Clock::NotifieeConst::timeMinIs(Seconds t) {
  ZEL_ASSERT(!std::isnan(t));
  timeMin_ = t;
  if (!clock_) return;
  if (t == endOfTime) {
    if (armed()) clock_->unarm(*this);
  } else if (armed()) {
    clock_->rearm(*this);
  } else {
    clock_->arm(*this);
  }
}

// The heap is 4-ary: half the levels of a binary heap, and so half the writes of heapIndex_
// into notifiees scattered over memory, for a few more comparisons within one cache line.
namespace {
constexpr std::size_t arity = 4;
constexpr std::size_t parentOf(std::size_t index) { return (index - 1) / arity; }
constexpr std::size_t firstChildOf(std::size_t index) { return arity * index + 1; }
}  // namespace

void Clock::place(std::size_t index, Slot slot) const noexcept {
  slot.notifiee->heapIndex_ = index;
  heap_[index] = slot;
}

std::size_t Clock::leastChild(std::size_t index) const noexcept {
  std::size_t const first = firstChildOf(index);
  std::size_t const last = std::min(first + arity, heap_.size());
  std::size_t least = first;
  for (std::size_t child = first + 1; child < last; ++child) {
    if (before(heap_[child], heap_[least])) least = child;
  }
  return least;
}

void Clock::siftUp(std::size_t index) const noexcept {
  Slot const moving = heap_[index];
  while (index > 0) {
    std::size_t const parent = parentOf(index);
    if (!before(moving, heap_[parent])) break;
    place(index, heap_[parent]);
    index = parent;
  }
  place(index, moving);
}

void Clock::siftDown(std::size_t index) const noexcept {
  Slot const moving = heap_[index];
  while (firstChildOf(index) < heap_.size()) {
    std::size_t const child = leastChild(index);
    if (!before(heap_[child], moving)) break;
    place(index, heap_[child]);
    index = child;
  }
  place(index, moving);
}

void Clock::arm(NotifieeConst& n) const {
  n.armOrder_ = nextOrder_++;
  heap_.push_back(Slot{n.timeMin_, n.armOrder_, &n});
  siftUp(heap_.size() - 1);
}

void Clock::rearm(NotifieeConst& n) const noexcept {
  if (n.firing_) {
    unarm(n);
    arm(n);
    return;
  }
  n.armOrder_ = nextOrder_++;
  Slot& slot = heap_[n.heapIndex_];
  slot.time = n.timeMin_;
  slot.order = n.armOrder_;
  resift(n.heapIndex_);
}

void Clock::resift(std::size_t index) const noexcept {
  if (index > 0 && before(heap_[index], heap_[parentOf(index)])) {
    siftUp(index);
  } else {
    siftDown(index);
  }
}

// The hole left by the notifiee sinks to a leaf along the least children, and the last slot
// fills it from there: the last slot is usually late, so this saves comparing it on the way down.
void Clock::unarm(NotifieeConst& n) const noexcept {
  std::size_t index = n.heapIndex_;
  n.heapIndex_ = NotifieeConst::notInHeap;
  if (n.firing_) {
    n.firing_ = false;
    batch_[index] = nullptr;
    return;
  }
  Slot const last = heap_.back();
  heap_.pop_back();
  if (index == heap_.size()) return;
  while (firstChildOf(index) < heap_.size()) {
    std::size_t const child = leastChild(index);
    place(index, heap_[child]);
    index = child;
  }
  place(index, last);
  siftUp(index);
}

// The due notifiees leave the heap before any fires, so that one re-armed by its handler for a
// past time goes back into the heap behind them instead of to its front.
std::size_t Clock::doFireDue(Seconds now) {
  ZEL_ASSERT(!firingBatch_);
  while (!heap_.empty() && heap_.front().time <= now) {
    NotifieeConst& n = *heap_.front().notifiee;
    unarm(n);
    n.firing_ = true;
    n.heapIndex_ = batch_.size();
    batch_.push_back(&n);
  }
  firingBatch_ = true;
  std::size_t fired = 0;
  std::size_t next = 0;
  // If a handler throws, the notifiees not yet fired go back into the heap, still due.
  struct EndOfBatch {
    Clock& clock;
    std::size_t& next;
    ~EndOfBatch() {
      for (; next < clock.batch_.size(); ++next) {
        if (NotifieeConst* const n = clock.batch_[next]) {
          n->firing_ = false;
          clock.arm(*n);
        }
      }
      clock.batch_.clear();
      clock.firingBatch_ = false;
    }
  } const end{*this, next};
  while (next < batch_.size()) {
    NotifieeConst* const n = batch_[next++];
    if (!n) continue;
    n->firing_ = false;
    n->heapIndex_ = NotifieeConst::notInHeap;
    n->timeMin_ = endOfTime;
    ++fired;
    n->onTime();
  }
  return fired;
}

}  // namespace Zel
