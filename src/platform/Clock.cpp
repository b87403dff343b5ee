#include <Zel/Clock.h>

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

void Clock::place(std::size_t index, Slot slot) const noexcept {
  slot.notifiee->heapIndex_ = index;
  heap_[index] = slot;
}

void Clock::siftUp(std::size_t index) const noexcept {
  Slot const moving = heap_[index];
  while (index > 0) {
    std::size_t const parent = (index - 1) / 2;
    if (!before(moving, heap_[parent])) break;
    place(index, heap_[parent]);
    index = parent;
  }
  place(index, moving);
}

void Clock::siftDown(std::size_t index) const noexcept {
  Slot const moving = heap_[index];
  std::size_t const size = heap_.size();
  for (;;) {
    std::size_t child = 2 * index + 1;
    if (child >= size) break;
    if (child + 1 < size && before(heap_[child + 1], heap_[child])) ++child;
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
  n.armOrder_ = nextOrder_++;
  Slot& slot = heap_[n.heapIndex_];
  slot.time = n.timeMin_;
  slot.order = n.armOrder_;
  resift(n.heapIndex_);
}

void Clock::resift(std::size_t index) const noexcept {
  if (index > 0 && before(heap_[index], heap_[(index - 1) / 2])) {
    siftUp(index);
  } else {
    siftDown(index);
  }
}

void Clock::unarm(NotifieeConst& n) const noexcept {
  std::size_t const index = n.heapIndex_;
  n.heapIndex_ = NotifieeConst::notInHeap;
  Slot const last = heap_.back();
  heap_.pop_back();
  if (index == heap_.size()) return;
  place(index, last);
  resift(index);
}

std::size_t Clock::doFireDue(Seconds now) {
  U64 const turn = nextOrder_;
  std::size_t fired = 0;
  while (!heap_.empty() && heap_.front().time <= now && heap_.front().order < turn) {
    NotifieeConst& n = *heap_.front().notifiee;
    n.timeMinIs(endOfTime);
    ++fired;
    n.onTime();
  }
  return fired;
}

}  // namespace Zel
