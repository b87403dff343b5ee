#include <Kiv/CuckooConfig.h>

#include <Zel/Exception.h>
#include <Zel/GenericIf.h>

namespace Kiv::Cuckoo {

Zel::Ptr<TableDescriptor> tableDescriptorFactory(TableId tableId, U32 tableSize, U8 binSize) {
  return Zel::allocate<TableDescriptor>(tableId, tableSize, binSize);
}

TableDescriptor::TableDescriptor(TableId tableId, U32 tableSize, U8 binSize)
    : tableId_(tableId), tableSize_(tableSize), binSize_(binSize) {
  if (binSize < minBinSize || binSize > maxBinSize) {
    throw Zel::RangeException("TableDescriptor::binSize < 1 or > 8 not allowed");
  }
}

Zel::Ptr<Config> configFactory(Zel::Name name, U8 numTables) {
  return Zel::allocate<Config>(name, numTables);
}

Zel::TypeRegistration<TableDescriptor, Config> const registration;

}  // namespace Kiv::Cuckoo
