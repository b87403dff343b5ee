// The runtime's collections: thin adapters over standard containers that speak the attribute
// vocabulary (value, valueIs, del, has, delAll) and report whether a mutation changed anything,
// which is what an entity's collection mutator needs in order to notify only on change.
//
//   RbTreeMap<K, V>    ordered by key (std::map)
//   HashMap2018<K, V>  hashed by key (std::unordered_map); HashMap is the same
//   DynArray<T, Index> growable array indexed by Index (std::vector)
//   LinkQueue<T>       FIFO: push at the tail, pop at the head (std::deque)
//   LinkStack<T>       LIFO: push and pop at the head (std::vector)
#pragma once

#include <Zel/Assert.h>
#include <Zel/Types.h>
#include <Zel/Value.h>

#include <cstddef>
#include <deque>
#include <map>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Zel {

template <class Container>
class MapAdapter {
public:
  using key_type = typename Container::key_type;
  using mapped_type = typename Container::mapped_type;
  using iterator = typename Container::iterator;
  using const_iterator = typename Container::const_iterator;

  std::size_t size() const noexcept { return entries_.size(); }
  bool empty() const noexcept { return entries_.empty(); }
  bool has(key_type const& key) const { return entries_.find(key) != entries_.end(); }

  // The entry for `key`, or the default value (null for pointers) when absent.
  mapped_type value(key_type const& key) const {
    auto it = entries_.find(key);
    return it == entries_.end() ? mapped_type{} : it->second;
  }
  // The stored entry or null, without copying it.
  mapped_type const* find(key_type const& key) const {
    auto it = entries_.find(key);
    return it == entries_.end() ? nullptr : &it->second;
  }
  mapped_type& operator[](key_type const& key) { return entries_[key]; }

  // Inserts or replaces; false when an equal entry was already there.
  bool valueIs(key_type const& key, mapped_type const& value) {
    auto [it, inserted] = entries_.try_emplace(key, value);
    if (inserted) return true;
    if (it->second == value) return false;
    it->second = value;
    return true;
  }
  // The first entry whose key is not less (lowerBound) or greater (upperBound) than `key`;
  // ordered maps only.
  const_iterator lowerBound(key_type const& key) const { return entries_.lower_bound(key); }
  const_iterator upperBound(key_type const& key) const { return entries_.upper_bound(key); }

  // Removes one entry; false when there was none.
  bool del(key_type const& key) { return entries_.erase(key) != 0; }
  iterator del(const_iterator position) { return entries_.erase(position); }
  // Removes every entry and returns their keys in iteration order.
  std::vector<key_type> delAll() {
    std::vector<key_type> keys;
    keys.reserve(entries_.size());
    for (auto const& entry : entries_) keys.push_back(entry.first);
    entries_.clear();
    return keys;
  }

  iterator begin() noexcept { return entries_.begin(); }
  iterator end() noexcept { return entries_.end(); }
  const_iterator begin() const noexcept { return entries_.begin(); }
  const_iterator end() const noexcept { return entries_.end(); }

private:
  Container entries_;
};

template <class K, class V, class Compare = std::less<K>>
using RbTreeMap = MapAdapter<std::map<K, V, Compare>>;

template <class K, class V, class H = Hash<K>>
using HashMap2018 = MapAdapter<std::unordered_map<K, V, H>>;

template <class K, class V, class H = Hash<K>>
using HashMap = HashMap2018<K, V, H>;

template <class T, class Index = U32>
class DynArray {
public:
  using value_type = T;
  using index_type = Index;

  Index size() const noexcept { return static_cast<Index>(entries_.size()); }
  bool empty() const noexcept { return entries_.empty(); }
  // The entry at `index`, or the default value past the end.
  T value(Index index) const { return index < size() ? entries_[index] : T{}; }
  T const& operator[](Index index) const {
    ZEL_ASSERT(index < size());
    return entries_[index];
  }
  T& operator[](Index index) {
    ZEL_ASSERT(index < size());
    return entries_[index];
  }
  // Stores at `index`, growing the array with default entries; false when nothing changed.
  bool valueIs(Index index, T const& value) {
    if (index >= size()) {
      entries_.resize(std::size_t(index) + 1);
    } else if (entries_[index] == value) {
      return false;
    }
    entries_[index] = value;
    return true;
  }
  void push(T value) { entries_.push_back(std::move(value)); }
  void resize(Index size) { entries_.resize(size); }
  void delAll() noexcept { entries_.clear(); }

  auto begin() noexcept { return entries_.begin(); }
  auto end() noexcept { return entries_.end(); }
  auto begin() const noexcept { return entries_.begin(); }
  auto end() const noexcept { return entries_.end(); }

private:
  std::vector<T> entries_;
};

template <class T>
class LinkQueue {
public:
  std::size_t size() const noexcept { return entries_.size(); }
  bool empty() const noexcept { return entries_.empty(); }
  T const& head() const {
    ZEL_ASSERT(!empty());
    return entries_.front();
  }
  void push(T value) { entries_.push_back(std::move(value)); }
  T pop() {
    ZEL_ASSERT(!empty());
    T value = std::move(entries_.front());
    entries_.pop_front();
    return value;
  }
  void delAll() noexcept { entries_.clear(); }
  auto begin() const noexcept { return entries_.begin(); }
  auto end() const noexcept { return entries_.end(); }

private:
  std::deque<T> entries_;
};

template <class T>
class LinkStack {
public:
  std::size_t size() const noexcept { return entries_.size(); }
  bool empty() const noexcept { return entries_.empty(); }
  T const& head() const {
    ZEL_ASSERT(!empty());
    return entries_.back();
  }
  void push(T value) { entries_.push_back(std::move(value)); }
  T pop() {
    ZEL_ASSERT(!empty());
    T value = std::move(entries_.back());
    entries_.pop_back();
    return value;
  }
  void delAll() noexcept { entries_.clear(); }

private:
  std::vector<T> entries_;
};

}  // namespace Zel
