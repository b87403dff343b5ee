// Bit scans of 64-bit words that compile to inline instructions on every target.
//
// On x86-64 std::countr_zero of a U64 is one instruction; on 32-bit x86, GCC 12 makes it a call to
// a library routine, which doubled the cost of a lowest-first bitmap search there. Scanning the
// two halves there costs one branch and one instruction.
#pragma once

#include <Zel/Types.h>

#include <bit>
#include <cstddef>

namespace Zel {

// The number of zero bits below the lowest one bit of `word`; 64 when word is 0.
constexpr int countrZero(U64 word) noexcept {
  if constexpr (sizeof(std::size_t) >= sizeof(U64)) {
    return std::countr_zero(word);
  } else {
    U32 const low = U32(word);
    return low != 0 ? std::countr_zero(low) : 32 + std::countr_zero(U32(word >> 32));
  }
}

}  // namespace Zel
