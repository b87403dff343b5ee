// The one time source of the library. Every timed part reads time through currentTime().
//
// Tests and simulations switch the process to virtual time: time then stands still unless
// virtualTimeIs() or the activity loop (ActivityManager::runUntil) moves it, so timed behaviour
// runs deterministically and as fast as the CPU allows.
#pragma once

#include <Zel/Types.h>

namespace Zel::System {

// Seconds since the epoch: the virtual time when it is on, the wall clock otherwise.
Seconds currentTime() noexcept;

// Switches the process to virtual time at `t`; a later call moves it (backwards too, for tests
// that need it).
void virtualTimeIs(Seconds t) noexcept;
// Returns to the wall clock.
void virtualTimeDel() noexcept;
bool virtualTime() noexcept;

// Sleeps on the wall clock; under virtual time moves the virtual time forward instead, so code
// that waits for the next second terminates in tests.
void sleep(Seconds seconds);

// Puts the process on virtual time at `start` for the scope's lifetime, then restores the time
// source it had: the wall clock, or the virtual time it stood at.
class VirtualTimeScope {
public:
  explicit VirtualTimeScope(Seconds start) noexcept;
  VirtualTimeScope(VirtualTimeScope const&) = delete;
  VirtualTimeScope& operator=(VirtualTimeScope const&) = delete;
  ~VirtualTimeScope();

private:
  bool wasVirtual_;
  Seconds before_;
};

}  // namespace Zel::System
