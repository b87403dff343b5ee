#include <Kiv/NumberPool.h>

#include <Zel/GenericIf.h>
#include <Zel/NboAttrLog.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <utility>
#include <vector>

namespace Kiv {
namespace {

using Reference = std::set<U32>;
using TimedReference = std::map<Seconds, Reference>;
constexpr U32 kWidth = 128;  // a run's numbers are base .. base + kWidth - 1

// Ranges keyed by their max, maximal (disjoint and never adjacent), holding exactly the
// reference's numbers; size, emptiness, extremes and membership across the window agree.
void matches(NumberPool const& pool, Reference const& ref, U32 base) {
  Reference held;
  U64 lowestNextMin = 0;
  for (auto const& [key, range] : pool.poolIteratorConst()) {
    ASSERT_TRUE(key == range.max() && range.min() >= lowestNextMin) << key << " " << range;
    lowestNextMin = U64{range.max()} + 2;
    for (U64 n = range.min(); n <= range.max(); ++n) held.insert(U32(n));
  }
  ASSERT_EQ(held, ref);
  ASSERT_EQ(pool.size(), ref.size());
  ASSERT_EQ(pool.isEmpty(), ref.empty());
  ASSERT_TRUE(ref.empty() || (pool.getMin() == *ref.begin() && pool.getMax() == *ref.rbegin()));
  for (U32 n = base; n - base < kWidth; ++n) ASSERT_EQ(pool.isMember(n), ref.contains(n)) << n;
}

// One member per instant of the reference, each matching its numbers, and the queries over all.
void matches(TimedNumberPool const& pool, TimedReference const& ref, U32 base) {
  ASSERT_EQ(pool.timedPoolIteratorConst().size(), ref.size());
  Reference all;
  U64 total = 0;
  for (auto const& [t, member] : pool.timedPoolIteratorConst()) {
    ASSERT_TRUE(member->timestamp() == t && ref.contains(t)) << t;
    ASSERT_NO_FATAL_FAILURE(matches(*member, ref.at(t), base)) << "at " << t;
    all.insert(ref.at(t).begin(), ref.at(t).end());
    total += ref.at(t).size();
  }
  ASSERT_EQ(pool.size(), total);
  ASSERT_EQ(pool.isEmpty(), ref.empty());
  for (U32 n = base; n - base < kWidth; ++n) ASSERT_EQ(pool.isMember(n), all.contains(n)) << n;
  if (ref.empty()) return;
  auto const& [t, earliest] = *ref.begin();
  U32 end = *earliest.begin();
  while (earliest.contains(end + 1)) ++end;
  ASSERT_EQ(pool.getEarliest(), TimedU32(t, *earliest.begin()));
  ASSERT_EQ(pool.getEarliestRange(), TimedRange(t, Range(*earliest.begin(), end)));
  ASSERT_TRUE(pool.getMin() == *all.begin() && pool.getMax() == *all.rbegin());
}

void add(Reference& set, Range r) {
  for (U64 n = r.min(); n <= r.max(); ++n) set.insert(U32(n));
}
void del(Reference& set, Range r) {
  std::erase_if(set, [&](U32 n) { return r.inRange(n); });
}

// The stored ranges as key (each range's max) to min.
std::map<U32, U32> snapshot(NumberPool const& pool) {
  std::map<U32, U32> out;
  for (auto const& [key, range] : pool.poolIteratorConst()) out[key] = range.min();
  return out;
}

struct KeyWatch : NumberPool::NotifieeConst {
  std::map<U32, U32> seen;
  void onPool(U32 key) override { seen.try_emplace(key, U32(notifier()->size())); }
};

class NumberPoolRandomRun : public testing::TestWithParam<U32> {};

// Windows at both ends of the U32 space, where bounds overflow. The plain pool notifies the keys of
// exactly the ranges that changed, when done; the timed pool's addRange alone leaves numbers held.
TEST_P(NumberPoolRandomRun, MatchesSetReferences) {
  U32 const base = GetParam();
  std::mt19937 rng(base);
  auto below = [&](U32 n) { return std::uniform_int_distribution<U32>(0, n - 1)(rng); };
  auto pool = numberPoolFactory();
  auto timed = timedNumberPoolFactory();
  KeyWatch watch;
  watch.notifierIs(pool);
  Reference ref;
  TimedReference timedRef;
  for (int step = 0; step < 3000; ++step) {
    auto const before = snapshot(*pool);
    watch.seen.clear();
    U32 const a = base + below(kWidth);
    U32 const length = below(4) == 0 ? below(kWidth) : below(8);
    Range const r(a, U32(std::min<U64>(U64{a} + length, U64{base} + kWidth - 1)));
    Seconds const t = std::array{1.0, 2.5, 3.0, 7.25}[below(4)];
    U32 const op = below(9);
    if (op == 0) {
      pool->addRange(r);
      add(ref, r);
    } else if (op == 1) {
      pool->delRange(r);
      del(ref, r);
    } else if (op == 2 && below(20) == 0) {
      pool->poolDelAll();
      ref.clear();
    } else if (op == 2 && !before.empty()) {
      auto const [key, stored] = *std::next(before.begin(), below(U32(before.size())));
      pool->poolDel(key);
      del(ref, Range(stored, key));
    } else if (op == 3) {
      timed->addNumber(TimedU32(t, a));
      for (auto& [instant, numbers] : timedRef) numbers.erase(a);
      timedRef[t].insert(a);
    } else if (op == 4) {
      timed->addRange(TimedRange(t, r));
      add(timedRef[t], r);
    } else if (op == 5) {
      timed->delTimedNumber(TimedU32(t, a));
      timedRef[t].erase(a);
    } else if (op == 6) {
      timed->delTimedRange(TimedRange(t, r));
      del(timedRef[t], r);
    } else if (op > 6) {
      timed->delRange(r);
      for (auto& [instant, numbers] : timedRef) del(numbers, r);
    }
    std::erase_if(timedRef, [](auto const& entry) { return entry.second.empty(); });
    ASSERT_NO_FATAL_FAILURE(matches(*pool, ref, base)) << "step " << step << " range " << r;
    ASSERT_NO_FATAL_FAILURE(matches(*timed, timedRef, base)) << "step " << step << " range " << r;
    std::map<U32, U32> changed;
    std::ranges::set_symmetric_difference(before, snapshot(*pool),
                                          std::inserter(changed, changed.end()));
    for (auto& [key, size] : changed) size = U32(pool->size());  // notified once complete
    ASSERT_EQ(watch.seen, changed) << "notified keys";
  }
}

INSTANTIATE_TEST_SUITE_P(Ends, NumberPoolRandomRun, testing::Values(0u, 0xffffffffu - kWidth + 1));

// The value types' checks and forms, a pool over all 2^32 numbers, and reflection.
TEST(NumberPool, ValueTypesBoundsAndReflection) {
  EXPECT_THAT([] { Range(5, 4); }, testing::ThrowsMessage<Zel::RangeException>(
                                       testing::StrEq("Range::min > Range::max not allowed")));
  Range r(1, 3);
  EXPECT_THROW(r.minIs(4), Zel::RangeException);
  EXPECT_THROW(r.maxIs(0), Zel::RangeException);
  TimedRange const tr(132.5, r);
  EXPECT_EQ(Zel::valueToStrep(tr),
            "Value('Kiv::TimedRange', ** {'timestamp': 132.5, 'range': Value('Kiv::Range', ** "
            "{'min': 1, 'max': 3})})");
  EXPECT_EQ(Zel::strepToValue<TimedRange>(Zel::valueToStrep(tr).view()), tr);
  EXPECT_THROW(Zel::strepToValue<Range>("Value('Kiv::Range', ** {'min': 5, 'max': 4})"),
               Zel::RangeException);
  EXPECT_THROW(Zel::strepToValue<TimedRange>(
                   "Value('Kiv::TimedRange', ** {'timestamp': 1.0, 'range': Value('Kiv::Range', "
                   "** {'min': 5, 'max': 4})})"),
               Zel::RangeException);
  Zel::NboAttrLog::Out inverted;
  inverted << U32{5} << U32{4};
  Zel::NboAttrLog::In invertedIn(inverted.bytes());
  EXPECT_THROW(invertedIn >> r, Zel::RangeException);
  EXPECT_EQ(r, Range(1, 3));
  EXPECT_TRUE(TimedU32(1.0, 9) < TimedU32(2.0, 1) && TimedU32(2.0, 1) < TimedU32(2.0, 3));

  auto pool = numberPoolFactory();
  pool->addRange(Range(0, 0xffffffff));
  EXPECT_EQ(pool->size(), U64{1} << 32);
  pool->delNumber(9);
  Zel::GenericIf const& type = *pool->fwkType();
  EXPECT_EQ(type.attributeEntries(*pool, "pool").back(),
            (std::pair<Zel::String, Zel::String>(
                "4294967295", "Value('Kiv::Range', ** {'min': 10, 'max': 4294967295})")));
  type.attributeEntryDel(*pool, "pool", "4294967295");
  EXPECT_EQ(pool->size(), 9u);
  auto timed = timedNumberPoolFactory();
  timed->addNumber(TimedU32(3.5, 1));
  EXPECT_EQ(timed->fwkType()->attributeEntries(*timed, "timedPool"),
            (Zel::GenericIf::Entries{{"3.5", "<Kiv::NumberPoolWithTimestamp>"}}));
}

TEST(NumberPoolDeathTest, EmptyPoolsHaveNoMinimum) {
  auto pool = numberPoolFactory();
  EXPECT_DEATH(pool->getMin(), "Assertion failed: poolIter \\(");
  EXPECT_DEATH(pool->getMax(), "Assertion failed: poolIter \\(");
  auto timed = timedNumberPoolFactory();
  timed->timedPoolIs(1.0);  // a member without numbers does not count
  EXPECT_DEATH(timed->getEarliest(), "Assertion failed: timedPoolIter \\(");
}

}  // namespace
}  // namespace Kiv
