#include "RoundTrip.h"

#include <Kiv/MaybeU63.h>

namespace KivFuzz {

// Every word with bit 63 set prints as None, which reads back as bit 63 alone.
template <>
Kiv::MaybeU63 canonical(Kiv::MaybeU63 const& value) {
  return value.isNone() ? Kiv::MaybeU63::none() : value;
}

}  // namespace KivFuzz

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  return KivFuzz::roundTrip<Kiv::MaybeU63>(data, size);
}
