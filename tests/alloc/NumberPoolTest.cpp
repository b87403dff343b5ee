// Kiv::NumberPool and Kiv::TimedNumberPool against std::set references: randomized runs with an
// invariant checker after every step (at both ends of the U32 space, with the notified keys
// checked too), the value types' checks and forms, and the assertions that guard an empty pool.
#include <Kiv/NumberPool.h>

#include <Zel/GenericIf.h>
#include <Zel/NboAttrLog.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Kiv {
namespace {

using Reference = std::set<U32>;
using Snapshot = std::map<U32, Range>;

Snapshot snapshot(NumberPool const& pool) {
  Snapshot out;
  for (auto const& [key, range] : pool.poolIteratorConst()) out.emplace(key, range);
  return out;
}

// Ranges keyed by their max, maximal (disjoint and never adjacent), holding exactly the
// reference's numbers; size, emptiness, extremes and membership over `probe` agree.
testing::AssertionResult matches(NumberPool const& pool, Reference const& ref,
                                 std::vector<U32> const& probe) {
  Reference held;
  U64 previousMax = 0;
  bool first = true;
  for (auto const& [key, range] : pool.poolIteratorConst()) {
    if (key != range.max()) return testing::AssertionFailure() << "key " << key << " of " << range;
    if (!first && previousMax + 1 >= range.min()) {
      return testing::AssertionFailure() << "overlapping or adjacent at " << range;
    }
    first = false;
    previousMax = range.max();
    for (U64 n = range.min(); n <= range.max(); ++n) held.insert(U32(n));
  }
  if (held != ref) return testing::AssertionFailure() << "numbers differ";
  if (pool.size() != ref.size() || pool.isEmpty() != ref.empty()) {
    return testing::AssertionFailure() << "size " << pool.size() << " against " << ref.size();
  }
  if (!ref.empty() && (pool.getMin() != *ref.begin() || pool.getMax() != *ref.rbegin())) {
    return testing::AssertionFailure() << "extremes";
  }
  for (U32 n : probe) {
    if (pool.isMember(n) != ref.contains(n)) return testing::AssertionFailure() << "member " << n;
  }
  return testing::AssertionSuccess();
}

// Records the keys the pool notifies.
struct KeyWatch : NumberPool::NotifieeConst {
  std::set<U32> keys;
  void onPool(U32 key) override { keys.insert(key); }
};

// A window of 200 numbers at `base`: the run covers 0 and 0xffffffff, where bounds overflow.
class NumberPoolRandomRun : public testing::TestWithParam<U32> {};

TEST_P(NumberPoolRandomRun, MatchesSetReference) {
  U32 const base = GetParam();
  constexpr U32 width = 200;
  std::mt19937 rng(base);
  auto below = [&](U32 n) { return std::uniform_int_distribution<U32>(0, n - 1)(rng); };
  auto randomRange = [&] {
    U32 const a = base + below(width);
    U32 const length = below(4) == 0 ? below(width) : below(8);
    return Range(a, U32(std::min<U64>(U64{a} + length, U64{base} + width - 1)));
  };
  std::vector<U32> probe;
  for (U32 i = 0; i < width; ++i) probe.push_back(base + i);

  auto pool = numberPoolFactory();
  KeyWatch watch;
  watch.notifierIs(pool);
  Reference ref;
  for (int step = 0; step < 2000; ++step) {
    Snapshot const before = snapshot(*pool);
    watch.keys.clear();
    Range const r = randomRange();
    switch (below(6)) {
      case 0:
        pool->addRange(r);
        for (U64 n = r.min(); n <= r.max(); ++n) ref.insert(U32(n));
        break;
      case 1:
        pool->delRange(r);
        for (U64 n = r.min(); n <= r.max(); ++n) ref.erase(U32(n));
        break;
      case 2:
        pool->addNumber(r.min());
        ref.insert(r.min());
        break;
      case 3:
        pool->delNumber(r.max());
        ref.erase(r.max());
        break;
      case 4:
        if (!before.empty()) {
          auto const& [key, stored] = *std::next(before.begin(), below(U32(before.size())));
          pool->poolDel(key);
          for (U64 n = stored.min(); n <= stored.max(); ++n) ref.erase(U32(n));
        }
        break;
      default:
        if (below(20) == 0) {
          pool->poolDelAll();
          ref.clear();
        }
    }
    ASSERT_TRUE(matches(*pool, ref, probe)) << "step " << step << " range " << r;
    Snapshot const after = snapshot(*pool);
    std::set<U32> changed;
    for (auto const* side : {&before, &after}) {
      for (auto const& [key, range] : *side) {
        auto const& other = side == &before ? after : before;
        auto it = other.find(key);
        if (it == other.end() || !(it->second == range)) changed.insert(key);
      }
    }
    ASSERT_EQ(watch.keys, changed) << "notified keys, step " << step;
  }
}

INSTANTIATE_TEST_SUITE_P(Ends, NumberPoolRandomRun, testing::Values(0u, 0xffffffffu - 199));

using TimedReference = std::map<Seconds, Reference>;

testing::AssertionResult matches(TimedNumberPool const& pool, TimedReference const& ref,
                                 std::vector<U32> const& probe) {
  std::vector<Seconds> instants, expected;
  for (auto const& [t, numbers] : ref) expected.push_back(t);
  U64 total = 0;
  Reference all;
  for (auto const& [t, member] : pool.timedPoolIteratorConst()) {
    instants.push_back(t);
    if (member->timestamp() != t) return testing::AssertionFailure() << "member timestamp";
    auto it = ref.find(t);
    if (it == ref.end()) return testing::AssertionFailure() << "member " << t << " unexpected";
    if (auto check = matches(*member, it->second, probe); !check) return check << " at " << t;
    total += it->second.size();
    all.insert(it->second.begin(), it->second.end());
  }
  if (instants != expected) return testing::AssertionFailure() << "instants";
  if (pool.size() != total || pool.isEmpty() != ref.empty()) {
    return testing::AssertionFailure() << "size";
  }
  for (U32 n : probe) {
    if (pool.isMember(n) != all.contains(n)) return testing::AssertionFailure() << "member " << n;
  }
  if (ref.empty()) return testing::AssertionSuccess();
  auto const& [t, earliest] = *ref.begin();
  U32 end = *earliest.begin();
  while (earliest.contains(end + 1)) ++end;
  if (!(pool.getEarliest() == TimedU32(t, *earliest.begin())) ||
      !(pool.getEarliestRange() == TimedRange(t, Range(*earliest.begin(), end))) ||
      pool.getMin() != *all.begin() || pool.getMax() != *all.rbegin()) {
    return testing::AssertionFailure() << "earliest or extremes";
  }
  return testing::AssertionSuccess();
}

TEST(TimedNumberPool, RandomRunMatchesSetReference) {
  constexpr U32 width = 64;
  constexpr Seconds instants[] = {1.0, 2.5, 3.0, 7.25};
  std::mt19937 rng(7);
  auto below = [&](U32 n) { return std::uniform_int_distribution<U32>(0, n - 1)(rng); };
  std::vector<U32> probe;
  for (U32 i = 0; i < width; ++i) probe.push_back(i);

  auto pool = timedNumberPoolFactory();
  TimedReference ref;
  auto removeEmptied = [&] {
    std::erase_if(ref, [](auto const& entry) { return entry.second.empty(); });
  };
  for (int step = 0; step < 1500; ++step) {
    Seconds const t = instants[below(4)];
    U32 const a = below(width);
    Range const r(a, std::min(a + below(6), width - 1));
    switch (below(6)) {
      case 0:
        pool->addNumber(TimedU32(t, a));
        for (auto& [instant, numbers] : ref) numbers.erase(a);
        removeEmptied();
        ref[t].insert(a);
        break;
      case 1:  // does not take the numbers out of other instants first
        pool->addRange(TimedRange(t, r));
        for (U64 n = r.min(); n <= r.max(); ++n) ref[t].insert(U32(n));
        break;
      case 2:
        pool->delTimedNumber(TimedU32(t, a));
        if (ref.contains(t)) ref[t].erase(a);
        break;
      case 3:
        pool->delTimedRange(TimedRange(t, r));
        for (U64 n = r.min(); n <= r.max() && ref.contains(t); ++n) ref[t].erase(U32(n));
        break;
      case 4:
        pool->delNumber(a);
        for (auto& [instant, numbers] : ref) numbers.erase(a);
        break;
      default:
        pool->delRange(r);
        for (auto& [instant, numbers] : ref) {
          for (U64 n = r.min(); n <= r.max(); ++n) numbers.erase(U32(n));
        }
    }
    removeEmptied();
    ASSERT_TRUE(matches(*pool, ref, probe)) << "step " << step;
  }
}

// The value types' checks and forms, a pool over all 2^32 numbers, and reflection.
TEST(NumberPool, ValueTypesBoundsAndReflection) {
  try {
    Range(5, 4);
    ADD_FAILURE() << "an inverted range was built";
  } catch (Zel::RangeException const& e) {
    EXPECT_STREQ(e.what(), "Range::min > Range::max not allowed");
  }
  Range r(1, 3);
  EXPECT_THROW(r.minIs(4), Zel::RangeException);
  EXPECT_THROW(r.maxIs(0), Zel::RangeException);
  TimedRange const tr(132.5, r);
  EXPECT_EQ(Zel::valueToStrep(tr),
            "Value('Kiv::TimedRange', ** {'timestamp': 132.5, 'range': Value('Kiv::Range', ** "
            "{'min': 1, 'max': 3})})");
  EXPECT_EQ(Zel::strepToValue<TimedRange>(Zel::valueToStrep(tr).view()), tr);
  EXPECT_EQ(Zel::valueToStrep(TimedU32(2.0, 7)),
            "Value('Kiv::TimedU32', ** {'timestamp': 2, 'number': 7})");
  EXPECT_THROW(Zel::strepToValue<Range>("Value('Kiv::Range', ** {'min': 5, 'max': 4})"),
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
  pool->delNumber(0xffffffff);
  pool->delNumber(0);
  pool->delNumber(9);
  Zel::GenericIf const& type = *pool->fwkType();
  EXPECT_EQ(type.attributeEntries(*pool, "pool"),
            (Zel::GenericIf::Entries{{"8", "Value('Kiv::Range', ** {'min': 1, 'max': 8})"},
                                     {"4294967294", "Value('Kiv::Range', ** {'min': 10, "
                                                    "'max': 4294967294})"}}));
  type.attributeEntryDel(*pool, "pool", "4294967294");
  EXPECT_EQ(pool->size(), 8u);
  auto timed = timedNumberPoolFactory();
  timed->addNumber(TimedU32(3.5, 1));
  EXPECT_EQ(timed->fwkType()->attributeEntries(*timed, "timedPool"),
            (Zel::GenericIf::Entries{{"3.5", "<Kiv::NumberPoolWithTimestamp>"}}));
}

TEST(NumberPoolDeathTest, EmptyPoolsHaveNoMinimum) {
  auto pool = numberPoolFactory();
  EXPECT_DEATH(pool->getMin(), "Assertion failed: poolIter \\(");
  EXPECT_DEATH(pool->getMinRange(), "Assertion failed: poolIter \\(");
  EXPECT_DEATH(pool->getMax(), "Assertion failed: poolIter \\(");
  auto timed = timedNumberPoolFactory();
  timed->timedPoolIs(1.0);  // a member without numbers does not count
  EXPECT_DEATH(timed->getEarliest(), "Assertion failed: timedPoolIter \\(");
  EXPECT_DEATH(timed->getEarliestRange(), "Assertion failed: timedPoolIter \\(");
  EXPECT_DEATH(timed->getMin(), "Assertion failed: timedPoolIter \\(");
}

}  // namespace
}  // namespace Kiv
