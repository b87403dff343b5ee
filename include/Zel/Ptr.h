// Entities and their handles.
//
// An entity derives from PtrInterface and is held only through Ptr<T>, an intrusive handle.
// The reference count shares one word with the runtime's flag bits; when the count reaches zero,
// handleZeroRef() destroys the object.
//
// Counts are plain loads and stores unless the process-wide thread-safe-pointers switch is on;
// then they are atomic read-modify-writes. Turn the switch on before handles cross threads.
#pragma once

#include <Zel/Assert.h>
#include <Zel/Types.h>

#include <atomic>
#include <compare>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace Zel {

class GenericIf;

namespace detail {
extern std::atomic<bool> threadSafePointers;
}

// The process-wide switch for atomic reference counts (off by default).
inline bool threadSafePointers() noexcept {
  return detail::threadSafePointers.load(std::memory_order_relaxed);
}
void threadSafePointersIs(bool on) noexcept;

class PtrInterface {
public:
  class NotifieeConst;

  PtrInterface(PtrInterface const&) = delete;
  PtrInterface& operator=(PtrInterface const&) = delete;

  // The number of Ptr handles (and explicit increments) that hold this object.
  U32 references() const noexcept { return word_.load(std::memory_order_relaxed) & countMask; }
  // With the switch off only the owning thread touches the count, so a relaxed load and store
  // compile to the plain increment a single-threaded program would write.
  void referencesInc() const noexcept {
    if (threadSafePointers()) {
      word_.fetch_add(1, std::memory_order_relaxed);
    } else {
      word_.store(word_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }
  // Releases one reference; the last one runs handleZeroRef().
  void referencesDec() const noexcept {
    ZEL_ASSERT(references() != 0);
    U32 after;
    if (threadSafePointers()) {
      after = word_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      after = word_.load(std::memory_order_relaxed) - 1;
      word_.store(after, std::memory_order_relaxed);
    }
    if ((after & countMask) == 0) handleZeroRef();
  }

  // Set by the factory once the object is fully made; mutators notify only while it is true.
  bool hasNotificationActive() const noexcept {
    return (word_.load(std::memory_order_relaxed) & notificationActiveBit) != 0;
  }
  void hasNotificationActiveIs(bool active) const noexcept;

  // The reflection record of the object's class, or null for a class that has none.
  virtual GenericIf const* fwkType() const noexcept { return nullptr; }
  // The object's class as its author declared it (not the runtime's wrapper around it).
  virtual std::type_info const& zelClass() const noexcept { return typeid(*this); }

  // Raw memory for entities; zelMemFree releases what zelMemAlloc returned.
  static void* zelMemAlloc(std::size_t size);
  static void zelMemFree(void* memory) noexcept;

protected:
  PtrInterface() noexcept = default;
  virtual ~PtrInterface();

  // Runs when the last reference goes. The default destroys the object.
  virtual void handleZeroRef() const noexcept;

private:
  static constexpr U32 countMask = (1u << 30) - 1;
  static constexpr U32 notificationActiveBit = 1u << 31;

  mutable std::atomic<U32> word_{0};
};

template <class T>
class Ptr {
public:
  using element_type = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}
  Ptr(T* raw) noexcept : raw_(raw) { acquire(); }
  Ptr(Ptr const& other) noexcept : raw_(other.raw_) { acquire(); }
  Ptr(Ptr&& other) noexcept : raw_(std::exchange(other.raw_, nullptr)) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(Ptr<U> const& other)
  noexcept : raw_(other.ptr()) { acquire(); }
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& other)
  noexcept : raw_(other.release()) {}
  ~Ptr() { releaseHeld(); }

  Ptr& operator=(Ptr const& other) noexcept {
    Ptr(other).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& other) noexcept {
    Ptr(std::move(other)).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) noexcept {
    Ptr().swap(*this);
    return *this;
  }

  T* ptr() const noexcept { return raw_; }
  T* operator->() const noexcept { return raw_; }
  T& operator*() const noexcept { return *raw_; }
  explicit operator bool() const noexcept { return raw_ != nullptr; }

  void swap(Ptr& other) noexcept { std::swap(raw_, other.raw_); }
  // Gives up ownership without releasing the reference.
  T* release() noexcept { return std::exchange(raw_, nullptr); }

  template <class U>
  bool operator==(Ptr<U> const& other) const noexcept {
    return raw_ == other.ptr();
  }
  bool operator==(std::nullptr_t) const noexcept { return raw_ == nullptr; }
  bool operator==(T const* raw) const noexcept { return raw_ == raw; }
  template <class U>
  std::strong_ordering operator<=>(Ptr<U> const& other) const noexcept {
    return std::compare_three_way()(static_cast<void const*>(raw_),
                                    static_cast<void const*>(other.ptr()));
  }

private:
  void acquire() const noexcept {
    if (raw_) raw_->referencesInc();
  }
  void releaseHeld() noexcept {
    if (raw_) raw_->referencesDec();
  }

  T* raw_ = nullptr;
};

template <class T, class U>
Ptr<T> staticPtrCast(Ptr<U> const& p) noexcept {
  return Ptr<T>(static_cast<T*>(p.ptr()));
}
template <class T, class U>
Ptr<T> dynamicPtrCast(Ptr<U> const& p) noexcept {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}
template <class T, class U>
Ptr<T> constPtrCast(Ptr<U> const& p) noexcept {
  return Ptr<T>(const_cast<T*>(p.ptr()));
}

}  // namespace Zel

template <class T>
struct std::hash<Zel::Ptr<T>> {
  std::size_t operator()(Zel::Ptr<T> const& p) const noexcept {
    return std::hash<T const*>()(p.ptr());
  }
};
