#include "RoundTrip.h"

#include <Kiv/TristateBool.h>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  return KivFuzz::roundTrip<Kiv::TristateBool>(data, size);
}
