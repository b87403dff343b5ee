// Shared by the cuckoo suites: building a table of a given shape, a plain model of the real
// table (location -> item) that the queued writes are replayed against, and the way to the
// engine's private steps.
#pragma once

#include <Kiv/CuckooHashTable.h>

#include <algorithm>
#include <functional>
#include <map>
#include <vector>

namespace Kiv::Cuckoo {

// The steps of an insert, for the tests that walk or queue a path by hand.
struct HashTableTestPeer {
  static Zel::Ptr<EvictCmd> setItemAtLocation(HashTable& table,
                                              Zel::Ptr<HashItem const> const& item,
                                              CuckooLocation const& location) {
    return table.setItemAtLocation(item, location);
  }
  static Zel::Ptr<HashItem const> tryInsertItem(HashTable& table,
                                                Zel::Ptr<HashItem const> const& item,
                                                Zel::Ptr<EvictCmdPath> const& evictPath) {
    return table.tryInsertItem(item, evictPath);
  }
  static void updateCuckooCmds(HashTable& table, Zel::Ptr<EvictCmdPath> const& evictPath,
                               Zel::Ptr<CuckooCmds> const& cuckooCmds) {
    table.updateCuckooCmds(evictPath, cuckooCmds);
  }
};

}  // namespace Kiv::Cuckoo

namespace Kiv::Cuckoo::Test {

using Peer = HashTableTestPeer;

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
  explicit Rig(Shape shape, std::function<void(Config&)> const& configure = {})
      : config(configFactory("test", shape.numTables)), status(statusFactory("test")) {
    for (U8 t = 0; t < shape.numTables; ++t) {
      config->tableDescListIs(TableId(t), shape.tableSize, shape.binSize);
    }
    if (configure) configure(*config);
    table = hashTableFactory(config, status);
    table->handleInitialized();
  }

  Zel::Ptr<CuckooCmds> const& queue() const { return status->cuckooCmds(); }
  void ack() const { config->cmdReadCompletedInc(1); }

  Slots shadow() const {
    Slots slots;
    for (auto const& [id, desc] : config->tableDescListIteratorConst()) {
      for (U32 s = 0; s < desc->binSize() * desc->tableSize(); ++s) {
        CuckooLocation const location(id, U8(s / desc->tableSize()), s % desc->tableSize());
        if (auto item = table->itemShadow(location)) slots.emplace(location, item);
      }
    }
    return slots;
  }

  // The slots a lookup of `item` probes, in probe order: tables by id, then bins.
  std::vector<CuckooLocation> slotsOf(Zel::Ptr<HashItem const> const& item) const {
    std::vector<CuckooLocation> slots;
    for (auto const& [id, desc] : config->tableDescListIteratorConst()) {
      for (U8 b = 0; b < desc->binSize(); ++b) {
        slots.emplace_back(id, b, item->getHash(id) % desc->tableSize());
      }
    }
    return slots;
  }
  // Whether a lookup in `slots` (a model of the real table) finds `item`.
  bool findable(Slots const& slots, Zel::Ptr<HashItem const> const& item) const {
    return std::ranges::any_of(slotsOf(item), [&](CuckooLocation const& location) {
      auto it = slots.find(location);
      return it != slots.end() && item->isEqual(it->second);
    });
  }
};

inline U32 keyOf(Zel::Ptr<HashItem const> const& item) {
  return static_cast<IntHashItem const&>(*item).key();
}

}  // namespace Kiv::Cuckoo::Test
