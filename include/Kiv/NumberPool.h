// Number pools: sets of unsigned 32-bit numbers kept as disjoint inclusive ranges
// (Kiv::NumberPool), and the same sets grouped by the instant at which they expire
// (Kiv::TimedNumberPool, made of Kiv::NumberPoolWithTimestamp members). They are the free, active
// and hold-down pools of Kiv::NumAllocator.
//
//   auto pool = Kiv::numberPoolFactory();
//   pool->addRange(Kiv::Range(1, 1'000'000));
//   pool->delNumber(5);              // two ranges: 1 .. 4 and 6 .. 1000000
//   pool->getMin();                  // 1
//
// Representation. A pool stores maximal ranges: pairwise disjoint and never adjacent (ranges
// that touch are joined), in an ordered map keyed by each range's max. Memory and the cost of
// every operation follow the number of ranges, not the number of numbers: a pool over millions
// of numbers with a few holes is a handful of map entries. Adding or removing a range costs
// O(log r) plus O(1) per stored range that it swallows; membership is one O(log r) lookup.
//
// Failures. Building a Range with min > max throws Zel::RangeException "Range::min > Range::max
// not allowed" (so does parsing or reading such a range from the attribute log). Reading the
// minimum, maximum or earliest element of an empty pool fails the assertion "poolIter" (for a
// timed pool "timedPoolIter"): callers test isEmpty() first.
//
// Observers: a NumberPool notifies onPool(key) for each stored range that is added, changed or
// removed; a TimedNumberPool notifies onTimedPool(timestamp) when a member is created or removed.
//
// One thread at a time, like every entity.
#pragma once

#include <Zel/Collections.h>
#include <Zel/Entity.h>
#include <Zel/NboAttrLog.h>
#include <Zel/Notifiee.h>
#include <Zel/Types.h>
#include <Zel/Value.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace Kiv {

// An inclusive range of U32 numbers, min <= max. The default is 0 .. 0.
class Range : public Zel::Value<Range> {
public:
  constexpr Range() noexcept = default;
  // Throws Zel::RangeException "Range::min > Range::max not allowed" when min > max.
  Range(U32 min, U32 max);

  constexpr U32 min() const noexcept { return min_; }
  constexpr U32 max() const noexcept { return max_; }
  // Each mutator keeps min <= max, throwing as the constructor does: to move a range past its
  // other bound, assign a new Range.
  void minIs(U32 min);
  void maxIs(U32 max);

  constexpr bool inRange(U32 n) const noexcept { return min_ <= n && n <= max_; }
  // max - min + 1; a U64, since the range 0 .. 0xffffffff holds 2^32 numbers.
  constexpr U64 size() const noexcept { return U64{max_} - min_ + 1; }

  // The parser and the log reader set fields one at a time, so the table names unchecked setters
  // and the pair is checked once both are read.
  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::Range", Zel::field("min", &Range::min, &Range::rawMinIs),
                            Zel::field("max", &Range::max, &Range::rawMaxIs));
  }
  // Throws as the constructor does when min > max.
  void zelValidate() const;

private:
  constexpr void rawMinIs(U32 min) noexcept { min_ = min; }
  constexpr void rawMaxIs(U32 max) noexcept { max_ = max; }

  U32 min_ = 0;
  U32 max_ = 0;
};

// A number with an instant. Ordered by timestamp, then number.
class TimedU32 : public Zel::Value<TimedU32> {
public:
  constexpr TimedU32() noexcept = default;
  constexpr TimedU32(Seconds timestamp, U32 number) noexcept
      : timestamp_(timestamp), number_(number) {}

  constexpr Seconds timestamp() const noexcept { return timestamp_; }
  constexpr void timestampIs(Seconds timestamp) noexcept { timestamp_ = timestamp; }
  constexpr U32 number() const noexcept { return number_; }
  constexpr void numberIs(U32 number) noexcept { number_ = number; }

  constexpr bool operator<(TimedU32 const& other) const noexcept {
    return timestamp_ < other.timestamp_ ||
           (timestamp_ == other.timestamp_ && number_ < other.number_);
  }

  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::TimedU32",
                            Zel::field("timestamp", &TimedU32::timestamp, &TimedU32::timestampIs),
                            Zel::field("number", &TimedU32::number, &TimedU32::numberIs));
  }

private:
  Seconds timestamp_ = 0.0;
  U32 number_ = 0;
};

// A range with an instant.
class TimedRange : public Zel::Value<TimedRange> {
public:
  constexpr TimedRange() noexcept = default;
  constexpr TimedRange(Seconds timestamp, Range const& range) noexcept
      : timestamp_(timestamp), range_(range) {}

  constexpr Seconds timestamp() const noexcept { return timestamp_; }
  constexpr void timestampIs(Seconds timestamp) noexcept { timestamp_ = timestamp; }
  constexpr Range const& range() const noexcept { return range_; }
  constexpr void rangeIs(Range const& range) noexcept { range_ = range; }

  static constexpr auto zelFields() {
    return Zel::valueFields(
        "Kiv::TimedRange",
        Zel::field("timestamp", &TimedRange::timestamp, &TimedRange::timestampIs),
        Zel::field("range", &TimedRange::range, &TimedRange::rangeIs));
  }

private:
  Seconds timestamp_ = 0.0;
  Range range_;
};

class NumberPool;
Zel::Ptr<NumberPool> numberPoolFactory();

class NumberPool : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<NumberPool> {
  public:
    // The range stored under `key` (its max) was added, changed or removed.
    virtual void onPool(U32 /*key*/) {}
  };

  // ---- The pool collection: the stored ranges, keyed by max ----
  // The range stored under `key`, or the default 0 .. 0 when there is none.
  Range pool(U32 key) const { return pool_.value(key); }
  bool poolHas(U32 key) const { return pool_.ranges.contains(key); }
  // Removes one stored range (which keeps the ranges maximal) or all of them.
  void poolDel(U32 key);
  void poolDelAll();
  // The stored ranges in increasing order, as (max, range) pairs.
  auto const& poolIteratorConst() const noexcept { return pool_.ranges; }
  // The number of stored ranges, which is what the pool's memory follows.
  std::size_t rangeCount() const noexcept { return pool_.ranges.size(); }

  // ---- Operations ----
  // Adds every number of `range`; numbers already present stay.
  void addRange(Range range);
  void addNumber(U32 n) { addRange(Range(n, n)); }
  // Removes every number of `range`; stored ranges cut by it are trimmed or split.
  void delRange(Range range);
  void delNumber(U32 n) { delRange(Range(n, n)); }

  bool isMember(U32 n) const;
  bool isEmpty() const noexcept { return pool_.ranges.empty(); }
  // The count of numbers: the sum of the stored ranges' sizes.
  U64 size() const noexcept { return size_; }
  // The lowest number and the first stored range; assertion "poolIter" on an empty pool.
  U32 getMin() const { return getMinRange().min(); }
  Range getMinRange() const;
  // The highest number; assertion "poolIter" on an empty pool.
  U32 getMax() const;

  static auto zelAttributes();

protected:
  NumberPool() = default;

  // Reflection's description of the pool collection, shared with derived pools.
  template <class T>
  static constexpr auto poolAttribute() {
    return Zel::collection("pool", &T::pool_, nullptr, &T::poolDel, &T::poolDelAll);
  }

private:
  // The runtime's Zel::RbTreeMap offers no ordered search (lower_bound), which every pool
  // operation starts with; this is the same std::map under the names reflection reads.
  struct Ranges {
    using key_type = U32;
    using mapped_type = Range;

    Range value(U32 key) const {
      auto it = ranges.find(key);
      return it == ranges.end() ? Range() : it->second;
    }
    auto begin() const noexcept { return ranges.begin(); }
    auto end() const noexcept { return ranges.end(); }

    std::map<U32, Range> ranges;
  };
  using Iterator = std::map<U32, Range>::iterator;

  // The raw steps of the operations: store `range` under its max (next to `hint`), or erase a
  // stored range. Both keep size() and note the key for notifyChanged().
  Iterator poolIs(Iterator hint, Range const& range);
  Iterator eraseRange(Iterator position);
  // Notifies the keys an operation changed once it is complete, so that a notifiee sees (and
  // may change) a consistent pool.
  void notifyChanged();

  Ranges pool_;
  U64 size_ = 0;
  std::vector<U32> changedKeys_;  // filled only while someone observes the pool
};

inline auto NumberPool::zelAttributes() {
  return Zel::entityAttributes<NumberPool>("Kiv::NumberPool", &numberPoolFactory, Zel::ctorParams(),
                                           poolAttribute<NumberPool>());
}

class NumberPoolWithTimestamp;
Zel::Ptr<NumberPoolWithTimestamp> numberPoolWithTimestampFactory(Seconds timestamp);

// A number pool that carries the instant at which its numbers expire.
class NumberPoolWithTimestamp : public NumberPool {
public:
  Seconds timestamp() const noexcept { return timestamp_; }

  static auto zelAttributes() {
    return Zel::entityAttributes<NumberPoolWithTimestamp>(
        "Kiv::NumberPoolWithTimestamp", &numberPoolWithTimestampFactory,
        Zel::ctorParams(Zel::ctorParam("timestamp", &NumberPoolWithTimestamp::timestamp)),
        poolAttribute<NumberPoolWithTimestamp>());
  }

protected:
  explicit NumberPoolWithTimestamp(Seconds timestamp) : timestamp_(timestamp) {}

private:
  Seconds timestamp_;
};

class TimedNumberPool;
Zel::Ptr<TimedNumberPool> timedNumberPoolFactory();

// Numbers grouped by expiry instant: one NumberPoolWithTimestamp member per instant, earliest
// first. A number is normally in one member; addRange alone does not enforce that (see there).
// The operations remove members they empty; a member made empty otherwise (timedPoolIs without
// numbers, or changes made through a member's own operations) is skipped by the queries.
class TimedNumberPool : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<TimedNumberPool> {
  public:
    // The member for `timestamp` was created or removed.
    virtual void onTimedPool(Seconds /*timestamp*/) {}
  };

  using Members = Zel::RbTreeMap<Seconds, Zel::Ptr<NumberPoolWithTimestamp>>;

  // ---- The timedPool collection: members by instant ----
  Zel::Ptr<NumberPoolWithTimestamp const> timedPool(Seconds timestamp) const {
    return timedPool_.value(timestamp);
  }
  bool timedPoolHas(Seconds timestamp) const { return timedPool_.has(timestamp); }
  // Finds or creates the member for `timestamp`.
  Zel::Ptr<NumberPoolWithTimestamp> timedPoolIs(Seconds timestamp);
  void timedPoolDel(Seconds timestamp);
  void timedPoolDelAll();
  // The members, earliest first, as (timestamp, member) pairs.
  Members const& timedPoolIteratorConst() const noexcept { return timedPool_; }

  // ---- Operations ----
  // Moves the number to the member for its timestamp: it is first removed from whichever member
  // holds it.
  void addNumber(TimedU32 const& number);
  // Adds the range to the member for its timestamp. Unlike addNumber it does not remove the
  // numbers from other members first, so a number may then be held under two instants (and
  // counted twice by size()); this asymmetry is part of the contract.
  void addRange(TimedRange const& range);
  // Remove numbers from the member of the given timestamp only.
  void delTimedNumber(TimedU32 const& number);
  void delTimedRange(TimedRange const& range);
  // Remove numbers from whichever members hold them.
  void delNumber(U32 n) { delRange(Range(n, n)); }
  void delRange(Range const& range);

  bool isMember(U32 n) const;
  bool isEmpty() const;
  // The sum of the members' sizes. Costs one step per member.
  U64 size() const;
  // Over all members; assertion "timedPoolIter" when the pool is empty.
  U32 getMin() const;
  U32 getMax() const;
  // The earliest member's timestamp with its lowest number, or with its first range; assertion
  // "timedPoolIter" when the pool is empty.
  TimedU32 getEarliest() const;
  TimedRange getEarliestRange() const;

  static auto zelAttributes() {
    return Zel::entityAttributes<TimedNumberPool>(
        "Kiv::TimedNumberPool", &timedNumberPoolFactory, Zel::ctorParams(),
        Zel::collection("timedPool", &TimedNumberPool::timedPool_, nullptr,
                        &TimedNumberPool::timedPoolDel, &TimedNumberPool::timedPoolDelAll));
  }

protected:
  TimedNumberPool() = default;

private:
  // The earliest member that holds a number; assertion "timedPoolIter" when there is none.
  NumberPoolWithTimestamp const& earliest() const;
  // Applies `change` to the member for `timestamp`, if any, and removes it when emptied.
  template <class Change>
  void changeMember(Seconds timestamp, Change&& change);

  Members timedPool_;
};

}  // namespace Kiv
