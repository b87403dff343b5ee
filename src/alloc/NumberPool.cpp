#include <Kiv/NumberPool.h>

#include <Zel/Assert.h>
#include <Zel/Exception.h>
#include <Zel/GenericIf.h>

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

namespace Kiv {
namespace {

[[maybe_unused]] Zel::TypeRegistration<Range, TimedU32, TimedRange, NumberPool,
                                       NumberPoolWithTimestamp, TimedNumberPool> const registration;

constexpr U32 maxNumber = std::numeric_limits<U32>::max();

[[noreturn]] void invertedRange() {
  throw Zel::RangeException("Range::min > Range::max not allowed");
}

}  // namespace

// ---- Range ------------------------------------------------------------------------------------

Range::Range(U32 min, U32 max) : min_(min), max_(max) { zelValidate(); }

void Range::minIs(U32 min) {
  if (min > max_) invertedRange();
  min_ = min;
}

void Range::maxIs(U32 max) {
  if (min_ > max) invertedRange();
  max_ = max;
}

void Range::zelValidate() const {
  if (min_ > max_) invertedRange();
}

// ---- NumberPool -------------------------------------------------------------------------------

Zel::Ptr<NumberPool> numberPoolFactory() { return Zel::allocate<NumberPool>(); }

NumberPool::Iterator NumberPool::poolIs(Iterator hint, Range const& range) {
  size_ += range.size();
  if (!zelNotifiees().empty()) changedKeys_.push_back(range.max());
  return pool_.ranges.emplace_hint(hint, range.max(), range);
}

NumberPool::Iterator NumberPool::eraseRange(Iterator position) {
  size_ -= position->second.size();
  if (!zelNotifiees().empty()) changedKeys_.push_back(position->first);
  return pool_.ranges.erase(position);
}

void NumberPool::notifyChanged() {
  if (changedKeys_.empty()) return;
  std::vector<U32> const keys = std::exchange(changedKeys_, {});
  for (U32 key : keys) notify(&NotifieeConst::onPool, key);
}

void NumberPool::poolDel(U32 key) {
  auto it = pool_.ranges.find(key);
  if (it == pool_.ranges.end()) return;
  eraseRange(it);
  notifyChanged();
}

void NumberPool::poolDelAll() {
  while (!pool_.ranges.empty()) eraseRange(pool_.ranges.begin());
  notifyChanged();
}

// R is the range being added and I a stored one, as in the assertion texts. R is a copy: the
// caller's may be a stored range that the operation erases.
void NumberPool::addRange(Range R) {
  auto& ranges = pool_.ranges;
  auto it = ranges.lower_bound(R.max());
  if (it != ranges.end() && it->second.min() <= R.min()) return;  // R is held already
  U32 min = R.min();
  U32 max = R.max();
  // A stored range holding R.min - 1 overlaps or touches R from below: join it.
  if (R.min() > 0) {
    auto below = ranges.lower_bound(R.min() - 1);
    if (below != ranges.end() && below->second.min() <= R.min() - 1) {
      min = below->second.min();
      eraseRange(below);
    }
  }
  // Every range left that meets R from R.min up to R.max lies wholly inside it.
  for (it = ranges.lower_bound(R.min()); it != ranges.end() && it->first <= R.max();) {
    Range const& I = it->second;
    ZEL_ASSERT_AS(R.inRange(I.min()) && R.inRange(I.max()),
                  "R.inRange( I.min() ) && R.inRange( I.max() )");
    it = eraseRange(it);
  }
  // The first range above R, if it holds R.max + 1, overlaps or touches R from above.
  if (R.max() < maxNumber && it != ranges.end() && it->second.min() <= R.max() + 1) {
    max = it->second.max();
    it = eraseRange(it);
  }
  poolIs(it, Range(min, max));
  notifyChanged();
}

void NumberPool::delRange(Range R) {
  auto& ranges = pool_.ranges;
  // Ranges meeting R are those from the first one ending at or after R.min that start by R.max;
  // only the first and the last of them can stick out of R.
  for (auto it = ranges.lower_bound(R.min()); it != ranges.end() && it->second.min() <= R.max();) {
    Range const I = it->second;
    it = eraseRange(it);
    if (!R.inRange(I.min())) {
      ZEL_ASSERT_AS(R.min() > I.min(), "R.min() > I.min()");
      poolIs(it, Range(I.min(), R.min() - 1));
    }
    if (!R.inRange(I.max())) {
      ZEL_ASSERT_AS(R.max() < I.max(), "R.max() < I.max()");
      poolIs(it, Range(R.max() + 1, I.max()));
      break;
    }
  }
  notifyChanged();
}

bool NumberPool::isMember(U32 n) const {
  auto it = pool_.ranges.lower_bound(n);
  return it != pool_.ranges.end() && it->second.min() <= n;
}

Range NumberPool::getMinRange() const {
  ZEL_ASSERT_AS(!pool_.ranges.empty(), "poolIter");
  return pool_.ranges.begin()->second;
}

U32 NumberPool::getMax() const {
  ZEL_ASSERT_AS(!pool_.ranges.empty(), "poolIter");
  return pool_.ranges.rbegin()->first;
}

// ---- NumberPoolWithTimestamp ------------------------------------------------------------------

Zel::Ptr<NumberPoolWithTimestamp> numberPoolWithTimestampFactory(Seconds timestamp) {
  return Zel::allocate<NumberPoolWithTimestamp>(timestamp);
}

// ---- TimedNumberPool --------------------------------------------------------------------------

Zel::Ptr<TimedNumberPool> timedNumberPoolFactory() { return Zel::allocate<TimedNumberPool>(); }

Zel::Ptr<NumberPoolWithTimestamp> TimedNumberPool::timedPoolIs(Seconds timestamp) {
  return instantiateChild(timedPool_, timestamp, &NotifieeConst::onTimedPool,
                          numberPoolWithTimestampFactory, timestamp);
}

void TimedNumberPool::timedPoolDel(Seconds timestamp) {
  entryDel(timedPool_, timestamp, &NotifieeConst::onTimedPool);
}

void TimedNumberPool::timedPoolDelAll() { entryDelAll(timedPool_, &NotifieeConst::onTimedPool); }

template <class Change>
void TimedNumberPool::changeMember(Seconds timestamp, Change&& change) {
  Zel::Ptr<NumberPoolWithTimestamp> const* member = timedPool_.find(timestamp);
  if (!member) return;
  std::forward<Change>(change)(**member);
  if ((*member)->isEmpty()) timedPoolDel(timestamp);
}

void TimedNumberPool::addNumber(TimedU32 const& number) {
  delNumber(number.number());
  timedPoolIs(number.timestamp())->addNumber(number.number());
}

void TimedNumberPool::addRange(TimedRange const& range) {
  timedPoolIs(range.timestamp())->addRange(range.range());
}

void TimedNumberPool::delTimedNumber(TimedU32 const& number) {
  changeMember(number.timestamp(), [&](NumberPool& member) { member.delNumber(number.number()); });
}

void TimedNumberPool::delTimedRange(TimedRange const& range) {
  changeMember(range.timestamp(), [&](NumberPool& member) { member.delRange(range.range()); });
}

void TimedNumberPool::delRange(Range const& range) {
  std::vector<Seconds> emptied;
  for (auto const& [timestamp, member] : timedPool_) {
    member->delRange(range);
    if (member->isEmpty()) emptied.push_back(timestamp);
  }
  for (Seconds timestamp : emptied) timedPoolDel(timestamp);
}

bool TimedNumberPool::isMember(U32 n) const {
  return std::any_of(timedPool_.begin(), timedPool_.end(),
                     [n](auto const& entry) { return entry.second->isMember(n); });
}

bool TimedNumberPool::isEmpty() const {
  return std::all_of(timedPool_.begin(), timedPool_.end(),
                     [](auto const& entry) { return entry.second->isEmpty(); });
}

U64 TimedNumberPool::size() const {
  U64 total = 0;
  for (auto const& entry : timedPool_) total += entry.second->size();
  return total;
}

U32 TimedNumberPool::getMin() const {
  U32 least = earliest().getMin();
  for (auto const& entry : timedPool_) {
    if (!entry.second->isEmpty()) least = std::min(least, entry.second->getMin());
  }
  return least;
}

U32 TimedNumberPool::getMax() const {
  U32 greatest = earliest().getMax();
  for (auto const& entry : timedPool_) {
    if (!entry.second->isEmpty()) greatest = std::max(greatest, entry.second->getMax());
  }
  return greatest;
}

NumberPoolWithTimestamp const& TimedNumberPool::earliest() const {
  auto const member = std::find_if(timedPool_.begin(), timedPool_.end(),
                                   [](auto const& entry) { return !entry.second->isEmpty(); });
  ZEL_ASSERT_AS(member != timedPool_.end(), "timedPoolIter");
  return *member->second;
}

TimedU32 TimedNumberPool::getEarliest() const {
  NumberPoolWithTimestamp const& member = earliest();
  return TimedU32(member.timestamp(), member.getMin());
}

TimedRange TimedNumberPool::getEarliestRange() const {
  NumberPoolWithTimestamp const& member = earliest();
  return TimedRange(member.timestamp(), member.getMinRange());
}

}  // namespace Kiv
