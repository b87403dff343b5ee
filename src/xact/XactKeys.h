// A handler run from a walk over a collection may change that collection, so the transaction
// state machines walk over a copy of its keys.
#pragma once

#include <type_traits>
#include <vector>

namespace Kiv {

// The keys of `entries`, in their iteration order.
template <class Range>
auto keysOf(Range const& entries) {
  std::vector<std::remove_cvref_t<decltype(entries.begin()->first)>> keys;
  keys.reserve(entries.size());
  for (auto const& entry : entries) keys.push_back(entry.first);
  return keys;
}

}  // namespace Kiv
