// The activity: one event loop per thread. Zel::activityManager() returns the calling thread's
// manager, made on first use; it owns the thread's Clock and its set of file descriptors.
//
// Under wall time the loop waits in epoll until a descriptor is readable or the earliest armed
// clock notifiee is due, so waiting costs no CPU. Under virtual time it never waits for the
// clock: runUntil() jumps from one due notifiee to the next, firing each in order of timeMin and
// then of arming, and ends with the time at its target.
#pragma once

#include <Zel/Clock.h>
#include <Zel/Entity.h>
#include <Zel/Ptr.h>
#include <Zel/Types.h>

#include <cstddef>
#include <unordered_map>

namespace Zel {

class FileDescriptor;

class ActivityManager : public PtrInterface {
public:
  ~ActivityManager() override;

  Ptr<Clock> const& clock() const noexcept { return clock_; }

  // One turn: waits at most `maxWaitSeconds` (under wall time; not at all under virtual time)
  // for a readable descriptor or a due notifiee, then dispatches descriptors and fires due
  // notifiees. Returns the number of handlers run.
  std::size_t runOnce(Seconds maxWaitSeconds);
  // Turns until stop(). Under virtual time, ends when nothing is armed and no descriptor is
  // registered, since nothing could ever happen again.
  void run();
  // Turns until the time reaches `t` or stop() is called; see the class comment.
  void runUntil(Seconds t);
  // Ends run() or runUntil() at the end of the current turn.
  void stop() noexcept { stopping_ = true; }

  std::size_t descriptorCount() const noexcept { return descriptors_.size(); }

protected:
  ActivityManager();

private:
  friend class FileDescriptor;

  // Registers a descriptor for readability; throws ErrnoException when the kernel refuses it.
  // A number registered before (closed and reused since, or registered again) now belongs to
  // the new registration.
  U64 descriptorIs(int descriptor, FileDescriptor* owner);
  // Drops a registration; the number leaves the epoll set only if it still belongs to it.
  void descriptorDel(U64 registration, int descriptor) noexcept;

  std::size_t dispatchDescriptors(Seconds maxWaitSeconds);
  // Under virtual time: turns at the current instant until nothing more is due there and no
  // descriptor is readable, so that what a handler starts (a write to a watched socket, a
  // notifiee armed for now) and data a handler left unread are handled before time moves on; a
  // handler that never drains its descriptor holds virtual time still. False when stop() was
  // called.
  bool settleInstant();
  Seconds waitFor(Seconds maxWaitSeconds) const noexcept;

  Ptr<Clock> clock_;
  int epoll_;
  bool stopping_ = false;
  U64 nextRegistration_ = 1;
  // Registration number -> owner; a descriptor removed in the middle of a dispatch is found
  // missing here and skipped.
  std::unordered_map<U64, FileDescriptor*> descriptors_;
  // Descriptor number -> the registration it currently belongs to.
  std::unordered_map<int, U64> registrationOf_;
};

// The calling thread's activity manager, made on first use.
Ptr<ActivityManager> activityManager();

}  // namespace Zel
