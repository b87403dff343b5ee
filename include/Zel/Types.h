// Fixed-width integer names and time values used throughout libKiv.
#pragma once

#include <cstdint>
#include <limits>

namespace Zel {

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using S8 = std::int8_t;
using S16 = std::int16_t;
using S32 = std::int32_t;
using S64 = std::int64_t;

// Time is seconds since the epoch as a double.
using Seconds = double;

// A clock notifiee whose timeMin is the end of time is not armed.
inline constexpr Seconds endOfTime = std::numeric_limits<Seconds>::infinity();
// An unset time stamp.
inline constexpr Seconds beginningOfTime = -std::numeric_limits<Seconds>::infinity();

}  // namespace Zel

namespace Kiv {
using Zel::S16;
using Zel::S32;
using Zel::S64;
using Zel::S8;
using Zel::Seconds;
using Zel::U16;
using Zel::U32;
using Zel::U64;
using Zel::U8;
}  // namespace Kiv
