#include <Zel/Assert.h>
#include <Zel/System.h>

#include <atomic>
#include <bit>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <limits>

// The build asks for the 64-bit time_t on every target; without it a 32-bit agent would stop
// reading the wall clock in 2038.
static_assert(sizeof(time_t) == 8, "build with _TIME_BITS=64");

namespace Zel::System {

namespace {
// NaN means wall time; otherwise the virtual time itself. One word, so readers never see a
// switched flag with a stale time. The word holds the double's bits: an atomic U64 is 8-byte
// aligned and so lock-free on 32-bit x86 too, where an atomic double (4-byte aligned there) may
// not be.
std::atomic<U64> virtualNow{std::bit_cast<U64>(std::numeric_limits<Seconds>::quiet_NaN())};

Seconds virtualNowValue() noexcept {
  return std::bit_cast<Seconds>(virtualNow.load(std::memory_order_relaxed));
}
void virtualNowIs(Seconds t) noexcept {
  virtualNow.store(std::bit_cast<U64>(t), std::memory_order_relaxed);
}

Seconds wallTime() noexcept {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return Seconds(now.tv_sec) + Seconds(now.tv_nsec) * 1e-9;
}
}  // namespace

Seconds currentTime() noexcept {
  Seconds const v = virtualNowValue();
  return std::isnan(v) ? wallTime() : v;
}

void virtualTimeIs(Seconds t) noexcept {
  ZEL_ASSERT(!std::isnan(t));
  virtualNowIs(t);
}

void virtualTimeDel() noexcept { virtualNowIs(std::numeric_limits<Seconds>::quiet_NaN()); }

bool virtualTime() noexcept { return !std::isnan(virtualNowValue()); }

void sleep(Seconds seconds) {
  if (!(seconds > 0)) return;
  if (virtualTime()) {
    virtualTimeIs(currentTime() + seconds);
    return;
  }
  timespec remaining;
  remaining.tv_sec = static_cast<time_t>(seconds);
  remaining.tv_nsec = static_cast<long>((seconds - Seconds(remaining.tv_sec)) * 1e9);
  while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}

VirtualTimeScope::VirtualTimeScope(Seconds start) noexcept
    : wasVirtual_(virtualTime()), before_(currentTime()) {
  virtualTimeIs(start);
}

VirtualTimeScope::~VirtualTimeScope() {
  if (wasVirtual_) {
    virtualTimeIs(before_);
  } else {
    virtualTimeDel();
  }
}

}  // namespace Zel::System
