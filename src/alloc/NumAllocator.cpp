#include <Kiv/NumAllocator.h>

#include <Zel/Activity.h>
#include <Zel/Assert.h>
#include <Zel/Exception.h>
#include <Zel/GenericIf.h>
#include <Zel/System.h>
#include <Zel/Trace.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace Kiv {
namespace {

[[maybe_unused]] Zel::TypeRegistration<NumAllocatorConfig, NumAllocatorStatus, NumAllocator> const
    registration;

constexpr auto trace = Zel::traceHandle<"NumAllocator">;
constexpr int traceChange = 3;      // configuration changes
constexpr int traceRefusal = 5;     // requests that get no number
constexpr int traceHoldDown = 7;    // the hold-down timer and numbers leaving hold-down
constexpr int traceAllocation = 9;  // each request and the number it gets

constexpr U32 maxNumber = std::numeric_limits<U32>::max();

// Times print in their shortest exact form; a stream would print 1700000132 as 1.7e+09.
Zel::String timeText(Seconds t) { return Zel::valueToStrep(t); }

// Drops from `pool` the numbers outside `range`.
template <class Pool>
void trimTo(Pool& pool, Range const& range) {
  if (range.min() > 0) pool.delRange(Range(0, range.min() - 1));
  if (range.max() < maxNumber) pool.delRange(Range(range.max() + 1, maxNumber));
}

}  // namespace

// ---- NumAllocatorConfig -----------------------------------------------------------------------

Zel::Ptr<NumAllocatorConfig> numAllocatorConfigFactory(Range const& range) {
  return Zel::allocate<NumAllocatorConfig>(range);
}

void NumAllocatorConfig::expiryTimeIs(Seconds expiryTime) {
  if (!(expiryTime >= 0 && expiryTime < Zel::endOfTime)) {
    throw Zel::RangeException("NumAllocatorConfig::expiryTime < 0 not allowed");
  }
  attributeIs(expiryTime_, expiryTime, &NotifieeConst::onExpiryTime);
}

void NumAllocatorConfig::expiryTimeGranularityIs(float granularity) {
  if (!(granularity >= 0 && granularity <= 1)) {
    throw Zel::RangeException("NumAllocatorConfig::expiryTimeGranularity < 0 or > 1 not allowed");
  }
  attributeIs(expiryTimeGranularity_, granularity, &NotifieeConst::onExpiryTimeGranularity);
}

// ---- NumAllocatorStatus -----------------------------------------------------------------------

Zel::Ptr<NumAllocatorStatus> numAllocatorStatusFactory() {
  return Zel::allocate<NumAllocatorStatus>();
}

// ---- NumAllocator -----------------------------------------------------------------------------

Zel::Ptr<NumAllocator> numAllocatorFactory(Zel::Ptr<NumAllocatorConfig const> const& config,
                                           Zel::Ptr<NumAllocatorStatus> const& status) {
  Zel::refuseNull(config, "Kiv::NumAllocator", "config");
  Zel::refuseNull(status, "Kiv::NumAllocator", "status");
  return Zel::allocate<NumAllocator>(config, status);
}

NumAllocator::NumAllocator(Zel::Ptr<NumAllocatorConfig const> const& config,
                           Zel::Ptr<NumAllocatorStatus> const& status)
    : config_(config),
      status_(status),
      freePool_(numberPoolFactory()),
      activePool_(numberPoolFactory()),
      holdDownPool_(timedNumberPoolFactory()) {
  zelConfig_.notifierIs(config_);
  clock_.notifierIs(Zel::activityManager()->clock());
  handleInitialized();
}

void NumAllocator::handleInitialized() {
  freePool_->addRange(config_->range());
  ZEL_ASSERT_AS(clock_.notifier(), "clock_");
  clock_.timeMinIs(Zel::endOfTime);
  updateStatus();
}

S64 NumAllocator::getNumber() {
  if (auto t = Zel::TraceHelper(trace(), traceAllocation)) t << "getNumber";
  return allocateNumber(invalidNumber);
}

S64 NumAllocator::getExactNumber(U32 number) {
  if (auto t = Zel::TraceHelper(trace(), traceAllocation)) {
    t << "getExactNumber"
      << " number " << number;
  }
  return allocateNumber(number);
}

S64 NumAllocator::allocateNumber(S64 desiredNumber) {
  ZEL_ASSERT_AS(config_->allocationMode() == NumAllocatorConfig::AllocationMode::allocate_,
                "config()->allocationMode() == NumAllocatorConfig::AllocationMode::allocate_");
  bool const desired = desiredNumber != invalidNumber;
  if (desired && !(desiredNumber >= 0 && desiredNumber <= maxNumber &&
                   freePool_->isMember(static_cast<U32>(desiredNumber)))) {
    if (auto t = Zel::TraceHelper(trace(), traceRefusal)) {
      t << desiredNumber << " is not part of free pool.";
    }
    return invalidNumber;
  }
  if (freePool_->isEmpty()) {
    if (auto t = Zel::TraceHelper(trace(), traceRefusal)) {
      t << "Number allocator exhausted with range: " << config_->range();
    }
    return invalidNumber;
  }
  U32 const num = desired ? static_cast<U32>(desiredNumber) : freePool_->getMin();
  if (auto t = Zel::TraceHelper(trace(), traceAllocation)) {
    t << (desired ? "Allocating desired number " : "Allocating some number ") << num
      << " from free pool";
  }
  ZEL_ASSERT_AS(!activePool_->isMember(num), "!activePool()->isMember( num )");
  ZEL_ASSERT_AS(freePool_->isMember(num), "freePool()->isMember( num )");
  freePool_->delNumber(num);
  activePool_->addNumber(num);
  updateStatus();
  return num;
}

void NumAllocator::reserveNumber(U32 number) {
  ZEL_ASSERT_AS(!isReserved(number), "!isReserved( number )");
  ZEL_ASSERT_AS(holdDownPool_->isEmpty(), "holdDownPool()->isEmpty()");
  ZEL_ASSERT_AS(config_->range().inRange(number), "config()->range().inRange( number )");
  activePool_->addNumber(number);
  freePool_->delNumber(number);
  updateStatus();
}

void NumAllocator::releaseNumber(U32 number) {
  releaseNumberWithExpiry(number, config_->expiryTime());
}

void NumAllocator::releaseNumberWithExpiry(U32 number, Seconds expiryDelay) {
  ZEL_ASSERT_AS(activePool_->isMember(number), "activePool()->isMember( number )");
  ZEL_ASSERT(!std::isnan(expiryDelay));
  activePool_->delNumber(number);
  if (config_->allocationMode() == NumAllocatorConfig::AllocationMode::reserveOnly_) {
    if (expiryDelay > 0) {
      if (auto t = Zel::TraceHelper(trace(), traceHoldDown)) {
        t << "Hold down pool is not needed when we always reserve";
      }
    }
    freePool_->addNumber(number);
    updateStatus();
    return;
  }
  Seconds const expiry = roundedExpiry(expiryDelay);
  ZEL_ASSERT_AS(!holdDownPool_->isMember(number), "!holdDownPool()->isMember( number )");
  // The number is in no member, as just asserted: adding it as a one-number range skips the
  // search of every member that addNumber makes to move a number between instants.
  holdDownPool_->addRange(TimedRange(expiry, Range(number, number)));
  updateTimer();
  updateStatus();
}

Seconds NumAllocator::roundedExpiry(Seconds expiryDelay) const {
  Seconds const target = Zel::System::currentTime() + expiryDelay;
  Seconds const g = static_cast<float>(config_->expiryTime()) * config_->expiryTimeGranularity();
  return g > 0 ? std::ceil(target / g) * g : target;
}

void NumAllocator::updateTimer() {
  if (holdDownPool_->isEmpty()) {
    clock_.timeMinIs(Zel::endOfTime);
    return;
  }
  Seconds const earliest = holdDownPool_->getEarliest().timestamp();
  if (clock_.timeMin() == earliest) {
    if (auto t = Zel::TraceHelper(trace(), traceHoldDown)) {
      t << "Timer already armed at " << timeText(earliest);
    }
    return;
  }
  if (auto t = Zel::TraceHelper(trace(), traceHoldDown)) {
    t << "Arming timer to fire at " << timeText(earliest);
  }
  clock_.timeMinIs(earliest);
}

void NumAllocator::moveExpiredIdToFreePool() {
  ZEL_ASSERT_AS(config_->allocationMode() == NumAllocatorConfig::AllocationMode::allocate_,
                "config()->allocationMode() == NumAllocatorConfig::AllocationMode::allocate_");
  Seconds const now = Zel::System::currentTime();
  if (auto t = Zel::TraceHelper(trace(), traceHoldDown)) {
    t << "moveExpiredIdToFreePool"
      << ": " << timeText(now);
  }
  while (!holdDownPool_->isEmpty()) {
    TimedRange const earliest = holdDownPool_->getEarliestRange();
    if (now < earliest.timestamp()) {
      if (auto t = Zel::TraceHelper(trace(), traceHoldDown)) {
        t << "Re-arming the timer to fire again at " << timeText(earliest.timestamp());
      }
      clock_.timeMinIs(earliest.timestamp());
      break;
    }
    if (auto t = Zel::TraceHelper(trace(), traceHoldDown)) {
      t << "Moving range to free list " << earliest.range();
    }
    holdDownPool_->delTimedRange(earliest);
    freePool_->addRange(earliest.range());
  }
  updateStatus();
}

void NumAllocator::updateStatus() {
  status_->rangeExhaustedIs(freePool_->isEmpty());
  status_->allFreeIs(activePool_->isEmpty() && holdDownPool_->isEmpty());
}

void NumAllocator::handleRange() {
  if (auto t = Zel::TraceHelper(trace(), traceChange)) t << "handleRange";
  Range const range = config_->range();
  trimTo(*freePool_, range);
  trimTo(*holdDownPool_, range);
  trimTo(*activePool_, range);
  U64 const held = freePool_->size() + holdDownPool_->size() + activePool_->size();
  if (held < range.size()) {
    // The pools still cover one run of the old range: the new range adds what lies around it.
    U32 const min = range.min();
    U32 oldMin = maxNumber;
    U32 oldMax = 0;
    auto widen = [&](auto const& pool) {
      if (pool.isEmpty()) return;
      oldMin = std::min(oldMin, pool.getMin());
      oldMax = std::max(oldMax, pool.getMax());
    };
    widen(*freePool_);
    widen(*holdDownPool_);
    widen(*activePool_);
    if (held == 0) {
      freePool_->addRange(range);
    } else {
      ZEL_ASSERT_AS(oldMin >= min, "oldMin >= min");
      if (min < oldMin) freePool_->addRange(Range(min, oldMin - 1));
      if (oldMax < range.max()) freePool_->addRange(Range(oldMax + 1, range.max()));
    }
  }
  ZEL_ASSERT_AS(freePool_->size() + holdDownPool_->size() + activePool_->size() == range.size(),
                "freePool()->size() + holdDownPool()->size() + activePool()->size() == "
                "config()->range().size()");
  updateTimer();
  updateStatus();
}

void NumAllocator::handleAllocationMode() {
  auto const mode = config_->allocationMode();
  if (auto t = Zel::TraceHelper(trace(), traceChange)) {
    t << "void Kiv::NumAllocator::handleAllocationMode()"
      << " allocationMode " << Zel::enumName(mode);
  }
  if (mode == NumAllocatorConfig::AllocationMode::allocate_) {
    ZEL_ASSERT_AS(holdDownPool_->isEmpty(), "holdDownPool()->isEmpty()");
    return;
  }
  while (!holdDownPool_->isEmpty()) {
    TimedRange const earliest = holdDownPool_->getEarliestRange();
    holdDownPool_->delTimedRange(earliest);
    freePool_->addRange(earliest.range());
    if (!trace().enabled(traceHoldDown)) continue;
    for (U64 n = earliest.range().min(); n <= earliest.range().max(); ++n) {
      if (auto t = Zel::TraceHelper(trace(), traceHoldDown)) {
        t << "Moved number " << n << " from holdDownPool to freePool";
      }
    }
  }
  updateTimer();
  updateStatus();
}

}  // namespace Kiv
