#include <Zel/Activity.h>
#include <Zel/Exception.h>
#include <Zel/FileDescriptor.h>
#include <Zel/System.h>

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <string>

namespace Zel {

ActivityManager::ActivityManager() : clock_(clockFactory()), epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (epoll_ < 0) throw ErrnoException("epoll_create1", errno);
}

ActivityManager::~ActivityManager() { close(epoll_); }

Ptr<ActivityManager> activityManager() {
  thread_local Ptr<ActivityManager> manager = allocate<ActivityManager>();
  return manager;
}

Ptr<ActivityManager> Notifier::zelFwkActivity() const { return activityManager(); }

U64 ActivityManager::descriptorIs(int descriptor, FileDescriptor* owner) {
  U64 const registration = nextRegistration_++;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = registration;
  // A number still in the set (registered again by its owner) is taken over with MOD.
  if (epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event) != 0 &&
      (errno != EEXIST || epoll_ctl(epoll_, EPOLL_CTL_MOD, descriptor, &event) != 0)) {
    throw ErrnoException("epoll_ctl add descriptor " + std::to_string(descriptor), errno);
  }
  descriptors_.emplace(registration, owner);
  registrationOf_[descriptor] = registration;
  return registration;
}

void ActivityManager::descriptorDel(U64 registration, int descriptor) noexcept {
  descriptors_.erase(registration);
  auto it = registrationOf_.find(descriptor);
  if (it == registrationOf_.end() || it->second != registration) return;
  registrationOf_.erase(it);
  // The owner may have closed the descriptor already, which removed it from the epoll set.
  epoll_ctl(epoll_, EPOLL_CTL_DEL, descriptor, nullptr);
}

Seconds ActivityManager::waitFor(Seconds maxWaitSeconds) const noexcept {
  if (System::virtualTime()) return 0;
  Seconds const untilDue = clock_->nextTime() - System::currentTime();
  return std::max(0.0, std::min(maxWaitSeconds, untilDue));
}

std::size_t ActivityManager::dispatchDescriptors(Seconds wait) {
  if (descriptors_.empty() && wait <= 0) return 0;
  // Round up, so that a wait for a notifiee does not end just before it is due and spin.
  int const timeoutMs = wait == endOfTime        ? -1
                        : wait * 1000 >= INT_MAX ? INT_MAX
                                                 : static_cast<int>(std::ceil(wait * 1000));
  epoll_event events[64];
  int const ready = epoll_wait(epoll_, events, 64, timeoutMs);
  std::size_t handled = 0;
  for (int i = 0; i < ready; ++i) {
    auto it = descriptors_.find(events[i].data.u64);
    if (it == descriptors_.end()) continue;  // removed by an earlier handler of this turn
    Ptr<FileDescriptor> owner(it->second);
    owner->handleReadable();
    ++handled;
  }
  return handled;
}

std::size_t ActivityManager::runOnce(Seconds maxWaitSeconds) {
  std::size_t handled = dispatchDescriptors(waitFor(maxWaitSeconds));
  return handled + clock_->doFireDue(System::currentTime());
}

bool ActivityManager::settleInstant() {
  for (;;) {
    std::size_t const handled = dispatchDescriptors(0);
    std::size_t const fired = clock_->doFireDue(System::currentTime());
    if (stopping_) return false;
    bool const moreDue = clock_->nextTime() <= System::currentTime();
    if (!moreDue && handled == 0 && (fired == 0 || descriptors_.empty())) return true;
  }
}

void ActivityManager::run() {
  stopping_ = false;
  while (!stopping_) {
    if (!System::virtualTime()) {
      runOnce(endOfTime);
      continue;
    }
    if (!settleInstant()) return;
    Seconds const next = clock_->nextTime();
    if (next != endOfTime) {
      System::virtualTimeIs(next);
    } else if (descriptors_.empty()) {
      return;
    } else {
      dispatchDescriptors(endOfTime);
    }
  }
}

void ActivityManager::runUntil(Seconds t) {
  ZEL_ASSERT(!std::isnan(t));
  stopping_ = false;
  if (!System::virtualTime()) {
    for (Seconds now = System::currentTime(); !stopping_ && now < t; now = System::currentTime()) {
      runOnce(t - now);
    }
    return;
  }
  for (;;) {
    if (!settleInstant()) return;
    Seconds const next = clock_->nextTime();
    if (next > t || next == endOfTime) break;
    System::virtualTimeIs(next);
  }
  // Virtual time stays finite: runUntil(endOfTime) ends when nothing is left armed.
  if (t > System::currentTime() && t != endOfTime) System::virtualTimeIs(t);
}

}  // namespace Zel
