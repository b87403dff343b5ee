#include <Zel/Ptr.h>

#include <new>

namespace Zel {

namespace detail {
std::atomic<bool> threadSafePointers{false};
}

void threadSafePointersIs(bool on) noexcept {
  detail::threadSafePointers.store(on, std::memory_order_relaxed);
}

PtrInterface::~PtrInterface() = default;

void PtrInterface::hasNotificationActiveIs(bool active) const noexcept {
  if (threadSafePointers()) {
    if (active) {
      word_.fetch_or(notificationActiveBit, std::memory_order_relaxed);
    } else {
      word_.fetch_and(~notificationActiveBit, std::memory_order_relaxed);
    }
    return;
  }
  U32 const word = word_.load(std::memory_order_relaxed);
  word_.store(active ? word | notificationActiveBit : word & ~notificationActiveBit,
              std::memory_order_relaxed);
}

void PtrInterface::handleZeroRef() const noexcept { delete this; }

void* PtrInterface::zelMemAlloc(std::size_t size) { return ::operator new(size); }

void PtrInterface::zelMemFree(void* memory) noexcept { ::operator delete(memory); }

}  // namespace Zel
