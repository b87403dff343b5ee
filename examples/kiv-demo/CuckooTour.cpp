// The cuckoo tour: a 2-way, 4-bin exact-match table of 8K slots filled with random hashes until
// the first item cannot be placed, with a writer that applies every queued write to its own copy
// of the hardware table; then removals, and the pending review placing the parked items on
// virtual time.
#include "Tour.h"

#include <Kiv/CuckooHashTable.h>
#include <Zel/Activity.h>
#include <Zel/System.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace KivDemo {
namespace {

using Kiv::Cuckoo::CuckooLocation;
using Kiv::Cuckoo::HashItem;
using Kiv::Cuckoo::TableId;
using Zel::U32;
using Zel::U8;

constexpr U8 ways = 2;
constexpr U32 buckets = 1024;
constexpr U8 bins = 4;
constexpr U32 seed = 7;
constexpr U32 pendingGoal = 20;

// The hardware side: applies the queued writes in order to its copy of the table, then
// acknowledges them through the config.
class Writer {
public:
  Writer(Zel::Ptr<Kiv::Cuckoo::Config> config, Zel::Ptr<Kiv::Cuckoo::Status> status)
      : config_(std::move(config)), status_(std::move(status)) {}

  // Applies the queue; returns the number of writes.
  U32 drain() {
    U32 writes = 0;
    for (auto const& write : status_->cuckooCmds()->itemSeqIteratorConst()) {
      if (write->item()) {
        hardware_[write->location()] = write->item();
      } else {
        hardware_.erase(write->location());
      }
      ++writes;
    }
    config_->cmdReadCompletedInc(1);
    return writes;
  }
  // Whether the copy holds exactly what the table's shadow holds.
  bool matches(Kiv::Cuckoo::HashTable const& table, Kiv::Cuckoo::Status const& status) const {
    U32 occupied = 0;
    for (auto const& entry : status.tableStatIteratorConst()) {
      occupied += entry.second->numOfHashItems();
    }
    return hardware_.size() == occupied &&
           std::all_of(hardware_.begin(), hardware_.end(), [&](auto const& slot) {
             return table.itemShadow(slot.first) == slot.second;
           });
  }

private:
  Zel::Ptr<Kiv::Cuckoo::Config> config_;
  Zel::Ptr<Kiv::Cuckoo::Status> status_;
  std::map<CuckooLocation, Zel::Ptr<HashItem const>> hardware_;
};

std::string percent(double fraction) {
  char text[16];
  std::snprintf(text, sizeof text, "%.1f%%", 100 * fraction);
  return text;
}

// Counts of inserts by slot writes: 1, 2, 3-4, 5-8, 9-16, 17 and more.
class WriteHistogram {
public:
  void add(U32 writes) {
    std::size_t bucket = 0;
    while (bucket + 1 < counts_.size() && writes > (1u << bucket)) ++bucket;
    ++counts_[bucket];
    total_ += writes;
    inserts_ += 1;
    longest_ = std::max(longest_, writes);
  }
  void print(std::ostream& out) const {
    char line[128];
    std::snprintf(line, sizeof line, "   slot writes per insert: mean %.2f, longest %u\n",
                  double(total_) / inserts_, longest_);
    out << line;
    static constexpr std::array<char const*, 6> labels{"1", "2", "3-4", "5-8", "9-16", "17+"};
    out << "     ";
    for (std::size_t i = 0; i < counts_.size(); ++i) {
      out << labels[i] << ": " << counts_[i] << (i + 1 < counts_.size() ? "   " : "\n");
    }
  }

private:
  std::array<U32, 6> counts_{};
  U32 total_ = 0;
  U32 inserts_ = 0;
  U32 longest_ = 0;
};

void printTables(std::ostream& out, Kiv::Cuckoo::Status const& status) {
  for (auto const& [id, stat] : status.tableStatIteratorConst()) {
    U32 const slots = stat->tableDesc()->tableSize() * stat->tableDesc()->binSize();
    out << "   table " << unsigned(id.value()) << ": " << stat->numOfHashItems() << " / " << slots
        << " slots (" << percent(stat->occupancy()) << "), " << stat->numOfEvicts()
        << " evictions\n";
  }
}

// The table, its writer, and the items offered to it so far.
struct Rig {
  Zel::Ptr<Kiv::Cuckoo::Config> config = Kiv::Cuckoo::configFactory("fib", ways);
  Zel::Ptr<Kiv::Cuckoo::Status> status = Kiv::Cuckoo::statusFactory("fib");
  Zel::Ptr<Kiv::Cuckoo::HashTable> table;
  Writer writer{config, status};
  std::mt19937 random{seed};
  std::vector<Zel::Ptr<HashItem const>> items;

  Rig() {
    for (U8 t = 0; t < ways; ++t) config->tableDescListIs(TableId(t), buckets, bins);
    config->randomSeedIs(seed);
    table = Kiv::Cuckoo::hashTableFactory(config, status);
    table->handleInitialized();
  }
  // Offers a new item with random hashes; the writer then applies the queue.
  bool insertNext(U32& writes) {
    items.push_back(
        Kiv::Cuckoo::intHashItemFactory(U32(items.size()), U32(random()), U32(random()), 0));
    bool const placed = table->insertItem(items.back());
    writes = writer.drain();
    return placed;
  }
  char const* writerCopy() const {
    return writer.matches(*table, *status) ? "matches the shadow" : "DIFFERS from the shadow";
  }
};

void fillUntilPending(std::ostream& out, Rig& rig) {
  out << "1. Fill a " << unsigned(ways) << "-way table of " << buckets << " buckets x "
      << unsigned(bins) << " bins (" << ways * buckets * bins
      << " slots) with random hashes until an item goes pending.\n";
  WriteHistogram histogram;
  U32 writes = 0;
  while (rig.insertNext(writes)) histogram.add(writes);
  out << "   " << rig.items.size() - 1 << " items placed; item " << rig.items.size() - 1
      << " found no place after " << rig.config->maxRetry() << " walks of " << rig.config->maxLoop()
      << " steps and went pending\n";
  printTables(out, *rig.status);
  histogram.print(out);
  out << "   cycles removed from eviction paths: " << rig.status->cycleCount() << " (at most "
      << rig.status->longestCycle()
      << " in one path); walks that hit maxLoop: " << rig.status->retryCount() << "\n";
  out << "   the writer's copy of the hardware table " << rig.writerCopy() << "\n\n";
}

void reviewTimeline(std::ostream& out, Rig& rig, Zel::Seconds start) {
  Kiv::Cuckoo::Status const& status = *rig.status;
  out << "2. Keep inserting until " << pendingGoal
      << " items are pending, then let the review run every "
      << rig.config->pendingItemReviewQuantum() << " s for 70 s.\n";
  U32 placed = 0;
  U32 writes = 0;
  while (status.pendingItemSets() < pendingGoal) placed += rig.insertNext(writes);
  out << "   " << placed << " more placed on the way\n";
  for (int second = 5; second <= 70; second += 5) {
    U32 const pending = status.pendingItemSets();
    U32 const syslog = status.pendingItemSyslogVersion();
    Zel::activityManager()->runUntil(start + second);
    rig.writer.drain();
    bool const changed =
        status.pendingItemSets() != pending || status.pendingItemSyslogVersion() != syslog;
    if (!changed) continue;
    out << "   +" << second << " s: pending " << status.pendingItemSets() << ", pendingItemVersion "
        << status.pendingItemVersion() << ", pendingItemSyslogVersion "
        << status.pendingItemSyslogVersion() << "\n";
  }
  out << "   (pendingItemVersion counts reviews that placed items; pendingItemSyslogVersion rises\n"
         "   once items have been pending longer than "
      << rig.config->syslogIntervalForPendingItems() << " s, and again when none are left)\n\n";
}

void removeAndReview(std::ostream& out, Rig& rig, Zel::Seconds start) {
  Kiv::Cuckoo::Status const& status = *rig.status;
  out << "3. Remove 32 placed items; the next review places the pending ones.\n";
  for (U32 key = 0; key < 32; ++key) rig.table->deleteItem(rig.items[key * 100]);
  U32 const removals = rig.writer.drain();
  Zel::activityManager()->runUntil(start + 75);
  U32 const placements = rig.writer.drain();
  out << "   " << removals << " clears queued, then the review at +75 s queued " << placements
      << " writes: pending " << status.pendingItemSets() << ", pendingItemVersion "
      << status.pendingItemVersion() << ", pendingItemSyslogVersion "
      << status.pendingItemSyslogVersion() << "\n";
  out << "   review armed: "
      << (rig.table->pendingItemReviewTime() == Zel::endOfTime ? "no, nothing is pending" : "yes")
      << "\n";
  printTables(out, status);
  out << "   writes acknowledged by the writer: " << status.totalCmdReadCompleted() << "; its copy "
      << rig.writerCopy() << "\n";
}

void cuckooTour(std::ostream& out) {
  constexpr Zel::Seconds start = 1'000'000;
  Zel::System::VirtualTimeScope const time(start);
  Rig rig;
  fillUntilPending(out, rig);
  reviewTimeline(out, rig, start);
  removeAndReview(out, rig, start);
}

TourRegistrar const registrar(40, "cuckoo",
                              "Cuckoo hash table: fill to the first pending item, then the review",
                              &cuckooTour);

}  // namespace
}  // namespace KivDemo
