#include "RoundTrip.h"

#include <Kiv/Seqno.h>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  return KivFuzz::roundTrip<Kiv::Seqno32>(data, size);
}
