// Shared by the cuckoo sources that report occupancy.
#pragma once

#include <Kiv/CuckooConfig.h>

#include <Zel/Types.h>

namespace Kiv::Cuckoo {

// The slots of a table, in 64 bits: tableSize x binSize may not fit in 32.
inline U64 capacityOf(TableDescriptor const& desc) {
  return U64(desc.tableSize()) * desc.binSize();
}

}  // namespace Kiv::Cuckoo
