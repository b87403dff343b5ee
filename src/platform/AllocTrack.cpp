#include <Zel/AllocTrack.h>

#include <cxxabi.h>

#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>

namespace Zel {

namespace {

struct Registry {
  std::mutex mutex;
  std::deque<AllocTrackTypeInfo*> records;
};

Registry& registry() {
  static Registry* instance = new Registry;  // never destroyed: records outlive static teardown
  return *instance;
}

}  // namespace

std::string demangledName(std::type_info const& type) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  return status == 0 && name ? std::string(name.get()) : std::string(type.name());
}

AllocTrackTypeInfo& AllocTrackTypeInfo::registered(std::type_info const& type) {
  auto* record = new AllocTrackTypeInfo(demangledName(type));
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.records.push_back(record);
  return *record;
}

std::vector<AllocTrackTypeInfo const*> AllocTrackTypeInfo::all() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  return {r.records.begin(), r.records.end()};
}

void AllocTrackTypeInfo::trackAllocation(std::size_t size) noexcept {
  size_.store(size, std::memory_order_relaxed);
  allocations_.fetch_add(1, std::memory_order_relaxed);
  live_.fetch_add(1, std::memory_order_relaxed);
}

void AllocTrackTypeInfo::trackDeallocation() noexcept {
  live_.fetch_sub(1, std::memory_order_relaxed);
}

}  // namespace Zel
