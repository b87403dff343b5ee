// Kiv::NumAllocator: hands out unsigned 32-bit numbers from a configured range, lowest free
// number first, and holds released numbers down for a while before they can be handed out again,
// so that a number just given up is not reused at once.
//
//   auto config = Kiv::numAllocatorConfigFactory(Kiv::Range(1, 4096));
//   auto status = Kiv::numAllocatorStatusFactory();
//   auto ifIndexes = Kiv::numAllocatorFactory(config, status);
//   S64 const ifIndex = ifIndexes->getNumber();    // 1, or -1 once the range is exhausted
//   ifIndexes->releaseNumber(1);                   // free again some 30 seconds later
//
// The owner drives it through a Kiv::NumAllocatorConfig and reads a Kiv::NumAllocatorStatus; the
// allocator reacts to changes of the config's range and allocation mode.
//
// Pools. Every number of the range is in exactly one of three number pools: free (may be handed
// out), active (handed out or reserved) and hold-down (released, with the instant at which it
// becomes free). Numbers move free -> active (getNumber, getExactNumber, reserveNumber) ->
// hold-down (release in mode "allocate") -> free (expiry), or active -> free directly in mode
// "reserveOnly".
//
// Hold-down. A release at time `now` with a delay d expires at ceil((now + d) / g) * g, where
// g = expiryTime * expiryTimeGranularity (3 s with the defaults): expiry instants fall on
// multiples of g, so numbers released close together share one instant, the hold-down pool holds
// ranges rather than single numbers, and the timer fires once per group. The product g is taken
// in single precision, as the granularity is a float, so that 30 s x 0.1 is exactly 3 s; a g of 0
// (an expiryTime of 0) rounds nothing. The allocator keeps one notifiee of its activity's clock
// (Zel::activityManager()->clock()) armed exactly while the hold-down pool is not empty, at the
// pool's earliest instant; when it fires, every group whose instant has come returns to the free
// pool. Changing expiryTime applies to later releases only.
//
// Range changes. Narrowing the range drops the numbers outside it from all three pools (numbers
// handed out beyond the new range are forgotten); widening it adds the new numbers to the free
// pool. The timer follows the hold-down pool's new earliest instant.
//
// Mode changes. Switching to "reserveOnly" frees every held number at once and disarms the timer;
// in that mode numbers are only reserved and released, never picked by the allocator.
//
// Failures. A wanted number that is not free, or an empty free pool, returns invalidNumber (-1)
// and changes nothing. Every other misuse fails an assertion, which aborts: allocating in mode
// "reserveOnly", reserving a reserved number, a number outside the range or while numbers are
// held down (in any mode: reserving is meant for "reserveOnly" or for a start-up before any
// release), releasing a number that is not active.
//
// Tracing: handle "NumAllocator"; level 3 range and mode changes, 5 refusals, 7 timer and
// hold-down moves, 9 every allocation.
//
// Runs on one activity: the clock callback and the configuration reactions come on the thread
// that made the allocator.
#pragma once

#include <Kiv/NumberPool.h>

#include <Zel/Clock.h>
#include <Zel/Entity.h>
#include <Zel/Notifiee.h>
#include <Zel/Strep.h>
#include <Zel/Types.h>

namespace Kiv {

class NumAllocatorConfig;
Zel::Ptr<NumAllocatorConfig> numAllocatorConfigFactory(Range const& range);

// What the owner sets. Each change notifies.
class NumAllocatorConfig : public Zel::Notifier {
public:
  // "allocate" (0): the allocator picks numbers and holds released ones down. "reserveOnly" (1):
  // the owner names every number; released numbers are free at once.
  enum class AllocationMode : U8 { allocate_, reserveOnly_ };

  class NotifieeConst : public Zel::NotifieeConstOf<NumAllocatorConfig> {
  public:
    virtual void onRange() {}
    virtual void onExpiryTime() {}
    virtual void onExpiryTimeGranularity() {}
    virtual void onAllocationMode() {}
  };

  // The numbers the allocator owns; set at construction and changeable afterwards.
  Range range() const noexcept { return range_; }
  void rangeIs(Range const& range) { attributeIs(range_, range, &NotifieeConst::onRange); }

  // The hold-down time releaseNumber applies, in seconds (default 30). Throws
  // Zel::RangeException "NumAllocatorConfig::expiryTime < 0 not allowed" for a negative, NaN or
  // infinite time.
  Seconds expiryTime() const noexcept { return expiryTime_; }
  void expiryTimeIs(Seconds expiryTime);

  // The fraction of expiryTime to which expiry instants are rounded up (default 0.1). Throws
  // Zel::RangeException "NumAllocatorConfig::expiryTimeGranularity < 0 or > 1 not allowed".
  float expiryTimeGranularity() const noexcept { return expiryTimeGranularity_; }
  void expiryTimeGranularityIs(float granularity);

  // Default "allocate".
  AllocationMode allocationMode() const noexcept { return allocationMode_; }
  void allocationModeIs(AllocationMode mode) {
    attributeIs(allocationMode_, mode, &NotifieeConst::onAllocationMode);
  }

  static auto zelAttributes();

protected:
  explicit NumAllocatorConfig(Range const& range) : range_(range) {}

private:
  Range range_;
  Seconds expiryTime_ = 30.0;
  float expiryTimeGranularity_ = 0.1f;
  AllocationMode allocationMode_ = AllocationMode::allocate_;
};

constexpr auto zelEnumInfo(NumAllocatorConfig::AllocationMode) {
  return Zel::enumInfo<NumAllocatorConfig::AllocationMode>(
      "Kiv::NumAllocatorConfig::AllocationMode",
      {{NumAllocatorConfig::AllocationMode::allocate_, "allocate"},
       {NumAllocatorConfig::AllocationMode::reserveOnly_, "reserveOnly"}});
}

// The range cannot be written through reflection, which treats constructor parameters as
// read-only; C++ callers change it with rangeIs.
inline auto NumAllocatorConfig::zelAttributes() {
  return Zel::entityAttributes<NumAllocatorConfig>(
      "Kiv::NumAllocatorConfig", &numAllocatorConfigFactory,
      Zel::ctorParams(Zel::ctorParam("range", &NumAllocatorConfig::range)),
      Zel::scalar("expiryTime", &NumAllocatorConfig::expiryTime, &NumAllocatorConfig::expiryTimeIs),
      Zel::scalar("expiryTimeGranularity", &NumAllocatorConfig::expiryTimeGranularity,
                  &NumAllocatorConfig::expiryTimeGranularityIs),
      Zel::scalar("allocationMode", &NumAllocatorConfig::allocationMode,
                  &NumAllocatorConfig::allocationModeIs));
}

class NumAllocatorStatus;
Zel::Ptr<NumAllocatorStatus> numAllocatorStatusFactory();

// What the allocator publishes. Each change notifies.
class NumAllocatorStatus : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<NumAllocatorStatus> {
  public:
    virtual void onRangeExhausted() {}
    virtual void onAllFree() {}
  };

  // The free pool is empty (default false).
  bool rangeExhausted() const noexcept { return rangeExhausted_; }
  void rangeExhaustedIs(bool exhausted) {
    attributeIs(rangeExhausted_, exhausted, &NotifieeConst::onRangeExhausted);
  }
  // The active and hold-down pools are both empty (default true).
  bool allFree() const noexcept { return allFree_; }
  void allFreeIs(bool allFree) { attributeIs(allFree_, allFree, &NotifieeConst::onAllFree); }

  static auto zelAttributes() {
    return Zel::entityAttributes<NumAllocatorStatus>(
        "Kiv::NumAllocatorStatus", &numAllocatorStatusFactory, Zel::ctorParams(),
        Zel::scalar("rangeExhausted", &NumAllocatorStatus::rangeExhausted,
                    &NumAllocatorStatus::rangeExhaustedIs),
        Zel::scalar("allFree", &NumAllocatorStatus::allFree, &NumAllocatorStatus::allFreeIs));
  }

protected:
  NumAllocatorStatus() = default;

private:
  bool rangeExhausted_ = false;
  bool allFree_ = true;
};

class NumAllocator;
// Makes an allocator of config's range with every number free, and writes `status`. Null
// arguments throw Zel::RangeException "null _config parameter to mutator for
// Kiv::NumAllocator::config not allowed"" (likewise for status).
Zel::Ptr<NumAllocator> numAllocatorFactory(Zel::Ptr<NumAllocatorConfig const> const& config,
                                           Zel::Ptr<NumAllocatorStatus> const& status);

class NumAllocator : public Zel::PtrInterface {
public:
  // Both the request for any number and the failure result.
  static constexpr S64 invalidNumber = -1;

  Zel::Ptr<NumAllocatorConfig const> const& config() const noexcept { return config_; }
  Zel::Ptr<NumAllocatorStatus> const& status() const noexcept { return status_; }
  Zel::Ptr<NumberPool const> freePool() const noexcept { return freePool_; }
  Zel::Ptr<NumberPool const> activePool() const noexcept { return activePool_; }
  Zel::Ptr<TimedNumberPool const> holdDownPool() const noexcept { return holdDownPool_; }

  // Mode "allocate" only. Takes `desiredNumber` when it is free, or the lowest free number when
  // it is invalidNumber; returns the number taken, or invalidNumber (nothing changes) when the
  // wanted number is not free or nothing is free.
  S64 allocateNumber(S64 desiredNumber);
  S64 getNumber();
  S64 getExactNumber(U32 number);
  // Takes `number`, which must be in the range and not reserved, while nothing is held down.
  void reserveNumber(U32 number);
  // Gives back an active number: held down for expiryTime in mode "allocate", free at once in
  // mode "reserveOnly".
  void releaseNumber(U32 number);
  // The same with a hold-down of `expiryDelay` seconds instead of expiryTime.
  void releaseNumberWithExpiry(U32 number, Seconds expiryDelay);

  bool isReserved(U32 n) const { return activePool_->isMember(n); }
  bool isHoldDown(U32 n) const { return holdDownPool_->isMember(n); }
  bool isFree(U32 n) const { return freePool_->isMember(n); }
  U64 reservedCount() const { return activePool_->size(); }
  U64 holdDownCount() const { return holdDownPool_->size(); }
  U64 freeCount() const { return freePool_->size(); }

  static auto zelAttributes();

protected:
  NumAllocator(Zel::Ptr<NumAllocatorConfig const> const& config,
               Zel::Ptr<NumAllocatorStatus> const& status);

private:
  class ZelConfig : public NumAllocatorConfig::NotifieeConst {
  public:
    explicit ZelConfig(NumAllocator& owner) : owner_(owner) {}
    void onRange() override { owner_.handleRange(); }
    void onExpiryTime() override { owner_.handleExpiryTime(); }
    void onAllocationMode() override { owner_.handleAllocationMode(); }

  private:
    NumAllocator& owner_;
  };

  class ZelClock : public Zel::Clock::NotifieeConst {
  public:
    explicit ZelClock(NumAllocator& owner) : owner_(owner) {}
    void onTime() override { owner_.moveExpiredIdToFreePool(); }

  private:
    NumAllocator& owner_;
  };

  void handleInitialized();
  void handleRange();
  void handleExpiryTime() {}
  void handleAllocationMode();
  void moveExpiredIdToFreePool();
  // Points the timer at the hold-down pool's earliest instant, or disarms it when the pool is
  // empty.
  void updateTimer();
  void updateStatus();
  // The expiry instant of a release now with `expiryDelay`, rounded up to the granularity.
  Seconds roundedExpiry(Seconds expiryDelay) const;

  Zel::Ptr<NumAllocatorConfig const> config_;
  Zel::Ptr<NumAllocatorStatus> status_;
  Zel::Ptr<NumberPool> freePool_;
  Zel::Ptr<NumberPool> activePool_;
  Zel::Ptr<TimedNumberPool> holdDownPool_;
  ZelConfig zelConfig_{*this};
  ZelClock clock_{*this};
};

inline auto NumAllocator::zelAttributes() {
  return Zel::entityAttributes<NumAllocator>(
      "Kiv::NumAllocator", &numAllocatorFactory,
      Zel::ctorParams(Zel::ctorParam("config", &NumAllocator::config),
                      Zel::ctorParam("status", &NumAllocator::status)),
      Zel::computed("freePool", &NumAllocator::freePool),
      Zel::computed("activePool", &NumAllocator::activePool),
      Zel::computed("holdDownPool", &NumAllocator::holdDownPool),
      Zel::computed("reservedCount", &NumAllocator::reservedCount),
      Zel::computed("holdDownCount", &NumAllocator::holdDownCount),
      Zel::computed("freeCount", &NumAllocator::freeCount));
}

}  // namespace Kiv
