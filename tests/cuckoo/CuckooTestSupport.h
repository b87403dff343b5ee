// Shared by the cuckoo suites: building a table of a given shape, and a plain model of the real
// table (location -> item) that the queued writes are replayed against.
#pragma once

#include <Kiv/CuckooHashTable.h>

#include <map>
#include <vector>

namespace Kiv::Cuckoo::Test {

struct Shape {
  U32 tableSize;
  U8 binSize;
  U8 numTables;
};

using Slots = std::map<CuckooLocation, Zel::Ptr<HashItem const>>;

struct Rig {
  Zel::Ptr<Config> config;
  Zel::Ptr<Status> status;
  Zel::Ptr<HashTable> table;

  // A table of `shape` whose knobs `configure` may change before initialisation.
  template <class Configure>
  Rig(Shape shape, Configure&& configure)
      : config(configFactory("test", shape.numTables)), status(statusFactory("test")) {
    for (U8 t = 0; t < shape.numTables; ++t) {
      config->tableDescListIs(TableId(t), shape.tableSize, shape.binSize);
    }
    configure(*config);
    table = hashTableFactory(config, status);
    table->handleInitialized();
  }
  explicit Rig(Shape shape) : Rig(shape, [](Config&) {}) {}

  Zel::Ptr<CuckooCmds> const& queue() const { return status->cuckooCmds(); }
  std::vector<Zel::Ptr<CuckooItem>> queued() const {
    auto const& seq = queue()->itemSeqIteratorConst();
    return {seq.begin(), seq.end()};
  }
  // The writer's acknowledgement.
  void ack() const { config->cmdReadCompletedInc(1); }

  // Every occupied slot of the shadow.
  Slots shadow() const {
    Slots slots;
    for (auto const& [id, desc] : config->tableDescListIteratorConst()) {
      for (U8 b = 0; b < desc->binSize(); ++b) {
        for (U32 i = 0; i < desc->tableSize(); ++i) {
          CuckooLocation const location(id, b, i);
          if (auto item = table->itemShadow(location)) slots.emplace(location, item);
        }
      }
    }
    return slots;
  }

  // Whether a lookup in `slots` (a model of the real table) finds `item` where its hashes allow.
  bool findable(Slots const& slots, Zel::Ptr<HashItem const> const& item) const {
    for (auto const& [id, desc] : config->tableDescListIteratorConst()) {
      U32 const index = item->getHash(id) % desc->tableSize();
      for (U8 b = 0; b < desc->binSize(); ++b) {
        auto it = slots.find(CuckooLocation(id, b, index));
        if (it != slots.end() && item->isEqual(it->second)) return true;
      }
    }
    return false;
  }
};

// Applies one queued write to a model of the real table.
inline void applyWrite(Slots& slots, CuckooItem const& write) {
  if (write.item()) {
    slots[write.location()] = write.item();
  } else {
    slots.erase(write.location());
  }
}

inline U32 keyOf(Zel::Ptr<HashItem const> const& item) {
  return static_cast<IntHashItem const&>(*item).key();
}

}  // namespace Kiv::Cuckoo::Test
