#include <Zel/Assert.h>
#include <Zel/System.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <ctime>

namespace Zel::System {

namespace {
// NaN means wall time; otherwise the virtual time itself. One word, so readers never see a
// switched flag with a stale time.
std::atomic<Seconds> virtualNow{std::nan("")};

Seconds wallTime() noexcept {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return Seconds(now.tv_sec) + Seconds(now.tv_nsec) * 1e-9;
}
}  // namespace

Seconds currentTime() noexcept {
  Seconds const v = virtualNow.load(std::memory_order_relaxed);
  return std::isnan(v) ? wallTime() : v;
}

void virtualTimeIs(Seconds t) noexcept {
  ZEL_ASSERT(!std::isnan(t));
  virtualNow.store(t, std::memory_order_relaxed);
}

void virtualTimeDel() noexcept { virtualNow.store(std::nan(""), std::memory_order_relaxed); }

bool virtualTime() noexcept { return !std::isnan(virtualNow.load(std::memory_order_relaxed)); }

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
