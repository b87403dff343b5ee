// The runtime's hashes: 32-bit values computed the same way on every target.
//
// A hashed collection places a key by its hash modulo the bucket count, so when the hashes agree,
// a collection given the same keys in the same order iterates in the same order on x86-64 and on
// 32-bit x86, and so does every handler that walks one (the directories of a transaction
// aggregator, for instance). std::hash does not give that: its text hash and its hash of a 64-bit
// integer depend on the width of std::size_t.
//
// Integers hash to themselves when they fit in 32 bits, text to its FNV-1a hash; Zel::Hash
// (Zel/Value.h) builds on these for every key type, and pointers keep their address hash, whose
// order differs from run to run anyway.
#pragma once

#include <Zel/Types.h>

#include <string_view>

namespace Zel {

// The low half, mixed with the high half multiplied by the golden ratio: a word below 2^32 hashes
// to itself, and -1 does not meet 0.
constexpr U32 hashWord(U64 word) noexcept { return U32(word) ^ (U32(word >> 32) * 0x9e3779b9u); }

// FNV-1a: short identifiers are what collections here are keyed by.
constexpr U32 hashText(std::string_view text) noexcept {
  U32 hash = 0x811c9dc5u;
  for (char c : text) hash = (hash ^ U8(c)) * 0x01000193u;
  return hash;
}

// Folds one more field's hash into a running one.
constexpr U32 hashCombine(U32 seed, U32 hash) noexcept {
  return seed ^ (hash + 0x9e3779b9u + (seed << 6) + (seed >> 2));
}

}  // namespace Zel
