#include <Kiv/CuckooEvictPath.h>

#include <Zel/GenericIf.h>

#include <utility>

namespace Kiv::Cuckoo {

Zel::Ptr<EvictCmd> evictCmdFactory(Zel::Ptr<HashItem const> oldItem,
                                   Zel::Ptr<HashItem const> newItem, CuckooLocation location) {
  return Zel::allocate<EvictCmd>(std::move(oldItem), std::move(newItem), location);
}

Zel::Ptr<EvictCmdPath> evictCmdPathFactory() { return Zel::allocate<EvictCmdPath>(); }

Zel::TypeRegistration<EvictCmd, EvictCmdPath> const registration;

}  // namespace Kiv::Cuckoo
