// Kiv::NumAllocator in virtual time: a randomized run against a reference model with an invariant
// checker after every step (pools disjoint and covering the range, no number reused before its
// rounded expiry, the timer armed exactly while numbers are held and at the earliest instant),
// then the defaults with the trace vocabulary, configuration and reflection, and the misuse that
// aborts.
#include <Kiv/NumAllocator.h>

#include <Zel/Activity.h>
#include <Zel/GenericIf.h>
#include <Zel/System.h>
#include <Zel/Trace.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>

namespace Kiv {
namespace {

using Mode = NumAllocatorConfig::AllocationMode;
using Zel::System::currentTime;

constexpr Seconds kStart = 100.5;
constexpr S64 kInvalid = NumAllocator::invalidNumber;

Zel::Ptr<Zel::Clock> const& loopClock() { return Zel::activityManager()->clock(); }
void runUntil(Seconds t) { Zel::activityManager()->runUntil(t); }

class NumAllocatorTest : public testing::Test {
protected:
  void SetUp() override {
    Zel::System::virtualTimeIs(kStart);
    ASSERT_EQ(loopClock()->armedCount(), 0u) << "an earlier test left notifiees armed";
  }
  void TearDown() override { Zel::System::virtualTimeDel(); }

  Zel::Ptr<NumAllocator> make(Range const& range) {
    config = numAllocatorConfigFactory(range);
    status = numAllocatorStatusFactory();
    return numAllocatorFactory(config, status);
  }

  Zel::Ptr<NumAllocatorConfig> config;
  Zel::Ptr<NumAllocatorStatus> status;
};
using NumAllocatorDeathTest = NumAllocatorTest;

// What the allocator should hold, with the expiry instants computed from the contract's formula.
struct Model {
  Range range;
  std::set<U32> free, active;
  std::map<U32, Seconds> held;        // number -> expiry instant
  std::map<U32, Seconds> freedAfter;  // number -> the instant before which it must not return,
                                      // while no range or mode change has freed it early

  Seconds expiry(Seconds delay, Seconds expiryTime, float granularity) const {
    Seconds const g = static_cast<float>(expiryTime) * granularity;
    Seconds const target = currentTime() + delay;
    return g > 0 ? std::ceil(target / g) * g : target;
  }
  void expire() {
    std::erase_if(held, [&](auto const& entry) {
      if (entry.second > currentTime()) return false;
      free.insert(entry.first);
      return true;
    });
  }
  void rangeIs(Range const& next) {
    auto outside = [&](U32 n) { return !next.inRange(n); };
    std::erase_if(free, outside);
    std::erase_if(active, outside);
    std::erase_if(held, [&](auto const& entry) { return outside(entry.first); });
    std::erase_if(freedAfter, [&](auto const& entry) { return outside(entry.first); });
    for (U64 n = next.min(); n <= next.max(); ++n) {
      if (!range.inRange(U32(n))) free.insert(U32(n));
    }
    range = next;
  }
};

testing::AssertionResult matches(NumAllocator const& a, NumAllocatorStatus const& status,
                                 Model const& m, U32 universe) {
  for (U32 n = 0; n < universe; ++n) {
    bool const f = a.isFree(n), r = a.isReserved(n), h = a.isHoldDown(n);
    if (f != m.free.contains(n) || r != m.active.contains(n) || h != m.held.contains(n)) {
      return testing::AssertionFailure() << "pools disagree on " << n << ": free " << f
                                         << " reserved " << r << " held " << h;
    }
  }
  if (a.freeCount() != m.free.size() || a.reservedCount() != m.active.size() ||
      a.holdDownCount() != m.held.size() ||
      a.freeCount() + a.reservedCount() + a.holdDownCount() != m.range.size()) {
    return testing::AssertionFailure() << "counts";
  }
  if (status.rangeExhausted() != m.free.empty() ||
      status.allFree() != (m.active.empty() && m.held.empty())) {
    return testing::AssertionFailure() << "status";
  }
  Seconds earliest = Zel::endOfTime;
  for (auto const& [n, t] : m.held) earliest = std::min(earliest, t);
  if (loopClock()->armedCount() != (m.held.empty() ? 0u : 1u) ||
      loopClock()->nextTime() != earliest) {
    return testing::AssertionFailure() << "timer at " << loopClock()->nextTime() << ", earliest "
                                       << earliest;
  }
  return testing::AssertionSuccess();
}

TEST_F(NumAllocatorTest, RandomRunMatchesModel) {
  constexpr U32 universe = 48;
  std::mt19937 rng(11);
  auto below = [&](U32 n) { return std::uniform_int_distribution<U32>(0, n - 1)(rng); };
  Model m{Range(1, 40), {}, {}, {}, {}};
  for (U32 n = 1; n <= 40; ++n) m.free.insert(n);
  auto alloc = make(m.range);
  config->expiryTimeIs(10.0);
  config->expiryTimeGranularityIs(0.5f);

  // A number handed out must be the model's choice and must have served its hold-down.
  auto handedOut = [&](S64 got, S64 expected) {
    ASSERT_EQ(got, expected);
    if (got == kInvalid) return;
    U32 const n = U32(got);
    ASSERT_GE(currentTime(), m.freedAfter[n]) << n << " reused before its expiry";
    m.free.erase(n);
    m.active.insert(n);
  };
  for (int step = 0; step < 3000; ++step) {
    bool const allocating = config->allocationMode() == Mode::allocate_;
    switch (below(10)) {
      case 0:
      case 1:
        if (allocating) {
          handedOut(alloc->getNumber(), m.free.empty() ? kInvalid : S64(*m.free.begin()));
        }
        break;
      case 2:
        if (allocating) {
          U32 const n = below(universe);
          handedOut(alloc->getExactNumber(n), m.free.contains(n) ? S64(n) : kInvalid);
        }
        break;
      case 3:
      case 4: {
        if (m.active.empty()) break;
        U32 const n = *std::next(m.active.begin(), below(U32(m.active.size())));
        Seconds const delay = below(2) ? config->expiryTime() : below(40) * 0.5;
        Seconds const expiry =
            m.expiry(delay, config->expiryTime(), config->expiryTimeGranularity());
        if (delay == config->expiryTime()) {
          alloc->releaseNumber(n);
        } else {
          alloc->releaseNumberWithExpiry(n, delay);
        }
        m.active.erase(n);
        if (allocating) {
          m.held[n] = expiry;
          m.freedAfter[n] = expiry;
        } else {
          m.free.insert(n);
        }
        break;
      }
      case 5:
      case 6:
        runUntil(currentTime() + below(9) * 0.75);
        m.expire();
        break;
      case 7:
        if (m.held.empty() && !m.free.empty()) {
          U32 const n = *std::next(m.free.begin(), below(U32(m.free.size())));
          alloc->reserveNumber(n);
          m.free.erase(n);
          m.active.insert(n);
        }
        break;
      case 8: {
        U32 const lo = below(universe);
        Range const next(lo, lo + below(universe - lo));
        config->rangeIs(next);
        m.rangeIs(next);
        break;
      }
      default:
        if (below(3) == 0) {
          config->allocationModeIs(allocating ? Mode::reserveOnly_ : Mode::allocate_);
          for (auto const& [n, t] : m.held) {
            m.free.insert(n);
            m.freedAfter.erase(n);  // freed at once by the switch
          }
          m.held.clear();
        } else {
          config->expiryTimeIs(below(3) * 10.0);
        }
    }
    ASSERT_TRUE(matches(*alloc, *status, m, universe)) << "step " << step;
  }
}

// Captures the allocator's trace lines at full detail.
class CapturedTrace {
public:
  CapturedTrace() {
    Zel::traceSinkIs(&lines_);
    handle().levelIs(Zel::TraceHandle::maxLevel);
  }
  ~CapturedTrace() {
    handle().levelIs(Zel::TraceHandle::disabled);
    Zel::traceSinkIs(nullptr);
  }
  bool has(std::string const& text) const { return lines_.str().find(text) != std::string::npos; }
  std::string text() const { return lines_.str(); }

private:
  static Zel::TraceHandle& handle() { return Zel::traceHandle<"NumAllocator">(); }
  std::ostringstream lines_;
};

struct StatusWatch : NumAllocatorStatus::NotifieeConst {
  int exhausted = 0;
  int allFree = 0;
  void onRangeExhausted() override { ++exhausted; }
  void onAllFree() override { ++allFree; }
};

// The defaults' rounding (3 s), groups sharing an instant, a re-armed timer, a switch to
// reserveOnly, status notifications on change only, and the trace vocabulary along the way.
TEST_F(NumAllocatorTest, DefaultHoldDownAndTraces) {
  CapturedTrace trace;
  auto alloc = make(Range(1, 3));
  StatusWatch watch;
  watch.notifierIs(status);
  for (S64 expected : {1, 2, 3, -1}) EXPECT_EQ(alloc->getNumber(), expected);
  EXPECT_TRUE(status->rangeExhausted() && watch.exhausted == 1 && watch.allFree == 1);
  alloc->releaseNumber(2);  // at 100.5: ceil(130.5 / 3) * 3 = 132
  Zel::System::virtualTimeIs(101.0);
  alloc->releaseNumber(1);  // the same instant
  EXPECT_EQ(loopClock()->nextTime(), 132.0);
  EXPECT_EQ(alloc->getExactNumber(2), kInvalid);
  runUntil(132.0);
  EXPECT_EQ(alloc->getExactNumber(2), 2);
  alloc->releaseNumber(2);  // 162
  Zel::System::virtualTimeIs(140.0);
  alloc->releaseNumber(3);  // 171
  runUntil(165.0);
  EXPECT_EQ(loopClock()->nextTime(), 171.0);
  config->allocationModeIs(Mode::reserveOnly_);
  EXPECT_TRUE(alloc->isFree(3));
  alloc->reserveNumber(3);
  alloc->releaseNumber(3);
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
    EXPECT_TRUE(trace.has(line)) << line << "\n" << trace.text();
  }
}

// The configuration refuses times that would make expiry instants meaningless; reflection drives
// the allocator through its configuration and reads its counts.
TEST_F(NumAllocatorTest, ConfigurationAndReflection) {
  auto alloc = make(Range(6, 8));
  alloc->getNumber();
  alloc->releaseNumber(6);
  EXPECT_THROW(config->expiryTimeIs(-1.0), Zel::RangeException);
  EXPECT_THROW(config->expiryTimeIs(Zel::endOfTime), Zel::RangeException);
  EXPECT_THROW(config->expiryTimeGranularityIs(1.5f), Zel::RangeException);
  EXPECT_THROW(numAllocatorFactory(config, nullptr), Zel::RangeException);

  config->fwkType()->attributeValueIs(*config, "allocationMode", "reserveOnly");
  EXPECT_EQ(alloc->fwkType()->attributeValue(*alloc, "freeCount"), "3");
  EXPECT_EQ(alloc->fwkType()->attributeValue(*alloc, "holdDownPool"), "<Kiv::TimedNumberPool>");
  auto made = Zel::GenericIf::type("Kiv::NumAllocatorConfig")->genericIfFromCtorArgs(
      {Zel::String("Value('Kiv::Range', ** {'min': 1, 'max': 2})")});
  EXPECT_EQ(made->fwkType()->attributeValue(*made, "expiryTimeGranularity"), "0.1");
}

TEST_F(NumAllocatorDeathTest, MisuseAborts) {
  auto alloc = make(Range(1, 10));
  alloc->getNumber();
  EXPECT_DEATH(alloc->reserveNumber(1), "Assertion failed: !isReserved\\( number \\)");
  EXPECT_DEATH(alloc->reserveNumber(11),
               "Assertion failed: config\\(\\)->range\\(\\).inRange\\( number \\)");
  EXPECT_DEATH(alloc->releaseNumber(2),
               "Assertion failed: activePool\\(\\)->isMember\\( number \\)");
  alloc->getNumber();
  alloc->releaseNumber(2);
  EXPECT_DEATH(alloc->reserveNumber(5), "Assertion failed: holdDownPool\\(\\)->isEmpty\\(\\)");
  config->allocationModeIs(Mode::reserveOnly_);
  EXPECT_DEATH(alloc->getNumber(), "Assertion failed: config\\(\\)->allocationMode\\(\\) == "
                                   "NumAllocatorConfig::AllocationMode::allocate_");
}

}  // namespace
}  // namespace Kiv
