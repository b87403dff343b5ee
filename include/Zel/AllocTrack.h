// Allocation tracking per entity class: how many objects each factory made and how many live.
#pragma once

#include <Zel/Types.h>

#include <atomic>
#include <cstddef>
#include <string>
#include <typeinfo>
#include <vector>

namespace Zel {

class AllocTrackTypeInfo {
public:
  // The record of class T, created on first use and kept for the life of the process.
  template <class T>
  static AllocTrackTypeInfo& of() {
    static AllocTrackTypeInfo& record = registered(typeid(T));
    return record;
  }
  // Every record made so far, in order of creation.
  static std::vector<AllocTrackTypeInfo const*> all();

  void trackAllocation(std::size_t size) noexcept;
  void trackDeallocation() noexcept;

  std::string const& typeName() const noexcept { return typeName_; }
  // Size of the most recent allocation; objects of one class all have the same size.
  std::size_t size() const noexcept { return size_.load(std::memory_order_relaxed); }
  // Allocations attempted, including those whose constructor threw; live() excludes them.
  U64 allocations() const noexcept { return allocations_.load(std::memory_order_relaxed); }
  U64 live() const noexcept { return live_.load(std::memory_order_relaxed); }

private:
  explicit AllocTrackTypeInfo(std::string typeName) : typeName_(std::move(typeName)) {}
  static AllocTrackTypeInfo& registered(std::type_info const& type);

  std::string typeName_;
  std::atomic<std::size_t> size_{0};
  std::atomic<U64> allocations_{0};
  std::atomic<U64> live_{0};
};

// The readable name of a C++ type ("Kiv::Xact" rather than its mangled form).
std::string demangledName(std::type_info const& type);

}  // namespace Zel
