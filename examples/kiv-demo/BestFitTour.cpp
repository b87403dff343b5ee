// The best-fit allocator tour: the index space of a hardware ACL table, carved into rule blocks
// of 1 to 32 entries. Churn leaves the free entries scattered in holes too small for a large rule;
// defragment() returns the block moves that compact the table, and the owner copies the entries
// in that order, never overwriting a block that has not moved yet.
#include "Tour.h"

#include <Kiv/BestFitAllocator.h>

#include <algorithm>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace KivDemo {
namespace {

using Kiv::U32;
using BlkPtr = Zel::Ptr<Kiv::BFA::Blk>;

constexpr U32 tableSize = 2048;
constexpr U32 firstIndex = 4096;  // the entries below belong to another table
constexpr U32 largestRule = 64;
constexpr U32 largestSmallRule = 8;
constexpr U32 entriesPerCell = 8;

// The table as 64 cells a line, each cell 8 entries: '#' all in use, '.' all free, ':' mixed.
void printTable(std::ostream& out, Kiv::BestFitAllocator const& table) {
  std::vector<bool> free(table.memSz(), false);
  for (auto const& [start, size] : table.freeBlkStartIndexToSzIteratorConst()) {
    std::fill_n(free.begin() + start, size, true);
  }
  for (U32 line = 0; line < table.memSz(); line += 64 * entriesPerCell) {
    out << "   " << firstIndex + line << "  ";
    for (U32 cell = line; cell < std::min(table.memSz(), line + 64 * entriesPerCell);
         cell += entriesPerCell) {
      auto const from = free.begin() + cell;
      auto const freeInCell = std::count(from, from + entriesPerCell, true);
      out << (freeInCell == 0 ? '#' : freeInCell == entriesPerCell ? '.' : ':');
    }
    out << '\n';
  }
}

void printFreeSpace(std::ostream& out, Kiv::BestFitAllocator const& table) {
  U32 largest = 0;
  for (auto const& [start, size] : table.freeBlkStartIndexToSzIteratorConst()) {
    largest = std::max(largest, size);
  }
  out << "   free: " << table.numFreeEntries() << " of " << table.memSz() << " entries in "
      << table.freeBlkStartIndexToSzs()
      << (table.freeBlkStartIndexToSzs() == 1 ? " block" : " blocks") << ", the largest " << largest
      << " entries; " << table.inUseBlocks() << " rule blocks in use\n";
}

// The real table as the owner sees it: the rule in each entry, or -1 for a free entry.
using Table = std::vector<int>;

int ruleOf(std::vector<BlkPtr> const& rules, Kiv::BFA::Blk const* blk) {
  auto const held = [blk](BlkPtr const& rule) { return rule.ptr() == blk; };
  return int(std::find_if(rules.begin(), rules.end(), held) - rules.begin());
}

Table owners(Kiv::BestFitAllocator const& table, std::vector<BlkPtr> const& rules) {
  Table entries(table.memSz(), -1);
  for (std::size_t r = 0; r < rules.size(); ++r) {
    std::fill_n(entries.begin() + (rules[r]->index() - firstIndex), rules[r]->size(), int(r));
  }
  return entries;
}

// Copies the rules as the moves say, in order, and counts the entries written over that still
// held a rule other than the one being copied.
U32 overwrites(Table entries, Kiv::BFA::PendingCmds const& moves,
               Kiv::BestFitAllocator const& table, std::vector<BlkPtr> const& rules) {
  U32 overwritten = 0;
  for (auto const& move : moves.pendingCmdLogIteratorConst()) {
    int const rule = ruleOf(rules, move.blk().ptr());
    U32 const from = move.oldIndex() - firstIndex;
    U32 const to = move.blk()->index() - firstIndex;
    for (U32 i = 0; i < move.blk()->size(); ++i) {
      overwritten += entries[to + i] != -1 && entries[to + i] != rule;
    }
    std::fill_n(entries.begin() + from, move.blk()->size(), -1);
    std::fill_n(entries.begin() + to, move.blk()->size(), rule);
  }
  return entries == owners(table, rules) ? overwritten : U32(entries.size());
}

// How many rules of the largest size fit, tried and released again.
U32 largeRulesThatFit(Kiv::BestFitAllocator& table) {
  std::vector<BlkPtr> tried;
  while (BlkPtr rule = table.alloc(largestRule)) tried.push_back(rule);
  return U32(tried.size());
}

void bestFitTour(std::ostream& out) {
  auto const table = Kiv::bestFitAllocatorFactory(tableSize, firstIndex, largestRule);
  std::mt19937 random(65);
  auto smallRule = [&] { return 1 + U32(random() % largestSmallRule); };

  out << "1. An ACL table of " << tableSize << " entries (indexes " << firstIndex << " .. "
      << firstIndex + tableSize - 1 << ") for rules of up to " << largestRule
      << " entries,\n   filled with rules of 1 to " << largestSmallRule
      << " entries; then 600 times a random rule goes and, once 20% of\n   the table is free, a"
         " new one comes for each that goes.\n   One character is "
      << entriesPerCell << " entries: # in use, . free, : both.\n";
  std::vector<BlkPtr> rules;
  while (BlkPtr rule = table->alloc(smallRule())) rules.push_back(rule);
  for (int round = 0; round < 600; ++round) {
    std::swap(rules[random() % rules.size()], rules.back());
    rules.pop_back();
    if (table->numFreeEntries() * 5 < tableSize) continue;
    if (BlkPtr rule = table->alloc(smallRule())) rules.push_back(rule);
  }
  printTable(out, *table);
  printFreeSpace(out, *table);
  out << "   rules of " << largestRule << " entries that fit: " << largeRulesThatFit(*table)
      << "\n\n";

  out << "2. defragment() slides every block down onto the free entries below it.\n";
  Table const before = owners(*table, rules);
  Zel::Ptr<Kiv::BFA::PendingCmds> const moves = table->defragment();
  U32 copied = 0;
  for (auto const& move : moves->pendingCmdLogIteratorConst()) copied += move.blk()->size();
  out << "   " << moves->pendingCmdLogs() << " moves, " << copied
      << " entries to copy in the hardware, in this order; the first five:\n";
  U32 shown = 0;
  for (auto const& move : moves->pendingCmdLogIteratorConst()) {
    if (shown++ == 5) break;
    out << "     copy " << move.blk()->size() << " entries from " << move.oldIndex() << " to "
        << move.blk()->index() << '\n';
  }
  out << "   as a value: " << moves->pendingCmdLog() << '\n';
  out << "   replayed in order on a copy of the table: "
      << overwrites(before, *moves, *table, rules)
      << " entries of rules not yet moved are overwritten\n\n";

  out << "3. The table after the moves: the free entries are one block at the top.\n";
  printTable(out, *table);
  printFreeSpace(out, *table);
  out << "   rules of " << largestRule << " entries that fit: " << largeRulesThatFit(*table)
      << "\n\n";

  out << "4. resizeMemory(" << tableSize - 256
      << ") hands the top 256 entries to another table: they are free, so nothing moves.\n";
  bool const moved = bool(table->resizeMemory(tableSize - 256));
  out << "   " << (moved ? "blocks moved" : "no moves") << "; the table now ends at "
      << firstIndex + table->memSz() - 1 << ", " << table->numFreeEntries() << " entries free\n";
}

TourRegistrar const registrar(85, "best-fit", "Best-fit block allocator: churn, then defragment",
                              &bestFitTour);

}  // namespace
}  // namespace KivDemo
