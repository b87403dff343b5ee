// The cuckoo hash table: a software model of a multi-table, multi-bin cuckoo hash table whose
// real storage (a hardware table) is written by a separate writer.
//
// The model keeps a shadow of every occupied slot, decides where each item goes (displacing
// residents by a random walk that never evicts from the same table twice in a row), and queues,
// for every successful insert or removal, the slot writes the writer must apply. The queue is
// hitless: applied in order to the real table, every item findable before the call stays findable
// after each single write. Items that find no place are parked in the status's pending set and
// retried on the activity clock.
//
// Use:
//
//   auto config = configFactory("fib", 2);
//   config->tableDescListIs(TableId(0), 8192, 4);
//   config->tableDescListIs(TableId(1), 8192, 4);
//   auto status = statusFactory("fib");
//   auto table = hashTableFactory(config, status);
//   table->handleInitialized();
//   table->insertItem(intHashItemFactory(key, h0, h1, h2));
//   // The writer applies status->cuckooCmds()->itemSeqIteratorConst() in order, then
//   // acknowledges with config->cmdReadCompletedInc(1), which empties the queue.
//
// The caller supplies the hashes (HashItem::getHash); the table never computes one. Random
// choices come from the process generator (std::rand), so a non-zero Config::randomSeed makes
// every placement and every queued write reproducible, run after run. One caveat is part of the
// contract: with the trace handle "CuckooHashTable" at level 5 or more, initialisation with a
// seed draws one extra number to trace it, so traced and untraced runs place differently.
//
// Everything runs on one activity. The classes, by family:
// - Kiv/CuckooHashItem.h: TableId, CuckooLocation, and the items (HashItem, IntHashItem).
// - Kiv/CuckooConfig.h: the table's geometry and knobs (TableDescriptor, Config).
// - Kiv/CuckooStatus.h: the counters, the pending set and the writer's queue (TableStat, Status,
//   CuckooItem, CuckooCmds).
// - Kiv/CuckooEvictPath.h: the slot writes of one insert attempt (EvictCmd, EvictCmdPath).
// - Kiv/CuckooEngine.h: the table itself (HashTable).
#pragma once

#include <Kiv/CuckooConfig.h>
#include <Kiv/CuckooEngine.h>
#include <Kiv/CuckooEvictPath.h>
#include <Kiv/CuckooHashItem.h>
#include <Kiv/CuckooStatus.h>
