#include <Kiv/NumAllocator.h>

#include <Zel/Activity.h>
#include <Zel/GenericIf.h>
#include <Zel/System.h>
#include <Zel/Trace.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace Kiv {
namespace {

using Mode = NumAllocatorConfig::AllocationMode;
using Zel::System::currentTime;
constexpr S64 kInvalid = NumAllocator::invalidNumber;

Zel::Ptr<Zel::Clock> const& loopClock() { return Zel::activityManager()->clock(); }
void runUntil(Seconds t) { Zel::activityManager()->runUntil(t); }

class NumAllocatorTest : public testing::Test {
protected:
  void SetUp() override {
    Zel::System::virtualTimeIs(100.5);
    ASSERT_EQ(loopClock()->armedCount(), 0u) << "an earlier test left notifiees armed";
  }
  void TearDown() override { Zel::System::virtualTimeDel(); }

  Zel::Ptr<NumAllocator> make(Range const& range) {
    config = numAllocatorConfigFactory(range);
    return numAllocatorFactory(config, status);
  }

  Zel::Ptr<NumAllocatorConfig> config;
  Zel::Ptr<NumAllocatorStatus> status = numAllocatorStatusFactory();
};
using NumAllocatorDeathTest = NumAllocatorTest;

// What the allocator should hold: every number of the range not active or held is free.
struct Model {
  Range range;
  std::set<U32> active;
  std::map<U32, Seconds> held;  // number -> expiry instant
  bool isFree(U32 n) const { return range.inRange(n) && !active.contains(n) && !held.contains(n); }
};

void matches(NumAllocator const& a, NumAllocatorStatus const& status, Model const& m,
             U32 universe) {
  U64 free = 0;
  for (U32 n = 0; n < universe; ++n) {
    free += m.isFree(n);
    ASSERT_EQ(std::tuple(a.isFree(n), a.isReserved(n), a.isHoldDown(n)),
              std::tuple(m.isFree(n), m.active.contains(n), m.held.contains(n)))
        << "free, reserved, held: " << n;
  }
  ASSERT_EQ(std::tuple(a.freeCount(), a.reservedCount(), a.holdDownCount()),
            std::tuple(free, U64(m.active.size()), U64(m.held.size())));
  ASSERT_EQ(status.rangeExhausted(), free == 0);
  ASSERT_EQ(status.allFree(), m.active.empty() && m.held.empty());
  Seconds earliest = Zel::endOfTime;
  for (auto const& [n, t] : m.held) earliest = std::min(earliest, t);
  ASSERT_EQ(loopClock()->armedCount(), m.held.empty() ? 0u : 1u);
  ASSERT_EQ(loopClock()->nextTime(), earliest);
}

struct StatusWatch : NumAllocatorStatus::NotifieeConst {
  void onRangeExhausted() override { ++notifications; }
  void onAllFree() override { ++notifications; }
  int notifications = 0;
};

// Every operation and configuration change in random order, with hold-down instants computed
// from the contract's formula; status notifications come only when a status changes.
TEST_F(NumAllocatorTest, RandomRunMatchesModel) {
  constexpr U32 universe = 48;
  std::mt19937 rng(11);
  auto below = [&](U32 n) { return std::uniform_int_distribution<U32>(0, n - 1)(rng); };
  Model m{Range(1, 40), {}, {}};
  auto alloc = make(m.range);
  StatusWatch watch;
  watch.notifierIs(status);
  config->expiryTimeIs(10.0);
  config->expiryTimeGranularityIs(0.5f);
  for (int step = 0; step < 3000 && !HasFailure(); ++step) {
    bool const allocating = config->allocationMode() == Mode::allocate_;
    bool const exhausted = status->rangeExhausted(), allFree = status->allFree();
    int const notifications = watch.notifications;
    std::vector<U32> free;
    for (U32 n = 0; n < universe; ++n) {
      if (m.isFree(n)) free.push_back(n);
    }
    U32 const n = below(universe);
    S64 expected = kInvalid, got = kInvalid;
    U32 const op = below(10);
    if (op < 3 && allocating && below(3) == 0) {
      got = alloc->getExactNumber(n);
      expected = m.isFree(n) ? n : kInvalid;
    } else if (op < 3 && allocating) {
      got = alloc->getNumber();
      expected = free.empty() ? kInvalid : free.front();
    } else if (op >= 3 && op < 5 && !m.active.empty()) {
      U32 const number = *std::next(m.active.begin(), below(U32(m.active.size())));
      Seconds const delay = below(41) * 0.5;
      Seconds const g = float(config->expiryTime()) * config->expiryTimeGranularity();
      Seconds const target = currentTime() + delay;
      alloc->releaseNumberWithExpiry(number, delay);
      m.active.erase(number);
      if (allocating) m.held[number] = g > 0 ? std::ceil(target / g) * g : target;
    } else if (op == 5 || op == 6) {
      runUntil(currentTime() + below(9) * 0.75);
      std::erase_if(m.held, [](auto const& entry) { return entry.second <= currentTime(); });
    } else if (op == 7 && m.held.empty() && !free.empty()) {
      U32 const number = free[below(U32(free.size()))];
      alloc->reserveNumber(number);
      m.active.insert(number);
    } else if (op == 8) {
      Range const next(n, n + below(universe - n));
      config->rangeIs(next);
      std::erase_if(m.active, [&](U32 number) { return !next.inRange(number); });
      std::erase_if(m.held, [&](auto const& entry) { return !next.inRange(entry.first); });
      m.range = next;
    } else if (op == 9 && below(3) == 0) {
      config->allocationModeIs(allocating ? Mode::reserveOnly_ : Mode::allocate_);
      m.held.clear();  // freed at once
    } else if (op == 9) {
      config->expiryTimeIs(below(3) * 10.0);
    }
    // A number handed out must be the model's choice, so none returns before its expiry.
    ASSERT_EQ(got, expected) << "step " << step;
    if (got != kInvalid) m.active.insert(U32(got));
    ASSERT_NO_FATAL_FAILURE(matches(*alloc, *status, m, universe)) << "step " << step;
    ASSERT_EQ(watch.notifications - notifications,
              (status->rangeExhausted() != exhausted) + (status->allFree() != allFree));
  }
}

// The defaults' 3 s rounding, shared instants, a re-armed timer, reserveOnly set by reflection, and
// the trace vocabulary on the way; then the configuration refuses meaningless expiry times.
TEST_F(NumAllocatorTest, DefaultsTracesConfigurationAndReflection) {
  std::ostringstream lines;
  Zel::traceSinkIs(&lines);
  Zel::traceHandle<"NumAllocator">().levelIs(Zel::TraceHandle::maxLevel);
  auto alloc = make(Range(1, 3));
  for (S64 expected : {1, 2, 3, -1}) EXPECT_EQ(alloc->getNumber(), expected);
  alloc->releaseNumber(2);  // at 100.5: ceil(130.5 / 3) * 3 = 132
  Zel::System::virtualTimeIs(101.0);
  alloc->releaseNumber(1);  // the same instant
  EXPECT_EQ(alloc->getExactNumber(2), kInvalid);
  runUntil(132.0);
  EXPECT_EQ(alloc->getExactNumber(2), 2);
  alloc->releaseNumber(2);  // 162
  Zel::System::virtualTimeIs(140.0);
  alloc->releaseNumber(3);  // 171
  runUntil(165.0);
  config->fwkType()->attributeValueIs(*config, "allocationMode", "reserveOnly");
  EXPECT_EQ(alloc->fwkType()->attributeValue(*alloc, "freeCount"), "3");
  alloc->reserveNumber(3);
  alloc->releaseNumber(3);
  Zel::traceHandle<"NumAllocator">().levelIs(Zel::TraceHandle::disabled);
  Zel::traceSinkIs(nullptr);
  for (char const* line :
       {"getNumber", "Allocating some number 1 from free pool",
        "Number allocator exhausted with range: Value('Kiv::Range', ** {'min': 1, 'max': 3})",
        "Arming timer to fire at 132", "Timer already armed at 132", "getExactNumber number 2",
        "2 is not part of free pool.", "moveExpiredIdToFreePool: 132",
        "Moving range to free list Value('Kiv::Range', ** {'min': 1, 'max': 2})",
        "Allocating desired number 2 from free pool", "Re-arming the timer to fire again at 171",
        "void Kiv::NumAllocator::handleAllocationMode() allocationMode reserveOnly",
        "Moved number 3 from holdDownPool to freePool",
        "Hold down pool is not needed when we always reserve"}) {
    EXPECT_NE(lines.str().find(line), std::string::npos) << line << "\n" << lines.str();
  }

  EXPECT_THROW(config->expiryTimeIs(-1.0), Zel::RangeException);
  EXPECT_THROW(config->expiryTimeIs(Zel::endOfTime), Zel::RangeException);
  EXPECT_THROW(config->expiryTimeGranularityIs(1.5f), Zel::RangeException);
  EXPECT_THROW(numAllocatorFactory(config, nullptr), Zel::RangeException);
}

TEST_F(NumAllocatorDeathTest, MisuseAborts) {
  auto alloc = make(Range(1, 10));
  alloc->getNumber();
  EXPECT_DEATH(alloc->reserveNumber(1), "Assertion failed: !isReserved\\( number \\)");
  EXPECT_DEATH(alloc->reserveNumber(11), "Assertion failed: config.*inRange\\( number \\)");
  EXPECT_DEATH(alloc->releaseNumber(2), "Assertion failed: activePool.*isMember\\( number \\)");
  alloc->getNumber();
  alloc->releaseNumber(2);
  EXPECT_DEATH(alloc->reserveNumber(5), "Assertion failed: holdDownPool\\(\\)->isEmpty\\(\\)");
  config->allocationModeIs(Mode::reserveOnly_);
  EXPECT_DEATH(alloc->getNumber(), "Assertion failed: config.*allocationMode.* == .*allocate_");
}

}  // namespace
}  // namespace Kiv
