// The hierarchical bitmap tour: three million bits used as an index allocator. Taking an index is
// "find the lowest clear bit, set it"; releasing one clears it, and the lowest released index is
// the next one taken. Every search reads one word per level, however full the bitmap is.
#include "Tour.h"

#include <Kiv/HBitmap.h>

#include <array>
#include <iomanip>
#include <ostream>
#include <sstream>

namespace KivDemo {
namespace {

using Kiv::HBitmap;
using Kiv::U32;
using Kiv::U64;

constexpr auto preferLo = HBitmap::IndexPreference::preferLo;
constexpr auto preferHi = HBitmap::IndexPreference::preferHi;

// The lowest free index, now taken; notFound when every index is taken.
U32 take(HBitmap& ids) {
  U32 const id = ids.findBitInClearState(preferLo);
  if (id != HBitmap::notFound) ids.setBit(id);
  return id;
}

void printShape(std::ostream& out, HBitmap const& ids) {
  out << "   " << ids.size() << " bits in " << ids.height() << " levels; words per level:";
  U64 words = 0;
  for (U32 level = 0; level < ids.height(); ++level) {
    U32 const levelWords = level + 1 < ids.height() ? ids.numBitsAtHeight(level + 1) : 1;
    out << (level == 0 ? " " : ", ") << levelWords;
    words += levelWords;
  }
  U64 const bytes = 2 * sizeof(U64) * words;
  std::ostringstream bitsPerIndex;  // keeps the caller's stream in its default format
  bitsPerIndex << std::fixed << std::setprecision(3) << 8.0 * double(bytes) / ids.size();
  out << "\n   memory: two trees of " << words << " words, " << bytes << " bytes, "
      << bitsPerIndex.str() << " bits per index\n\n";
}

void hBitmapTour(std::ostream& out) {
  out << "1. A bitmap of three million indexes, all free.\n";
  Zel::Ptr<HBitmap> const ids = Kiv::hBitmapFactory(1, 3'000'000, HBitmap::BitState::bitClear);
  printShape(out, *ids);

  out << "2. Take a million indexes, lowest free first.\n";
  U32 first = take(*ids);
  U32 last = first;
  for (int i = 1; i < 1'000'000; ++i) last = take(*ids);
  out << "   took " << first << " .. " << last << "; " << ids->numBitsInSetState() << " in use\n\n";

  out << "3. Release three; the next takes reuse them, lowest first, then continue at the end.\n";
  std::array<U32, 3> const released{654'321, 77, 4'096};
  out << "   released";
  for (U32 id : released) {
    ids->clearBit(id);
    out << ' ' << id;
  }
  out << "; taken next:";
  for (int i = 0; i < 4; ++i) out << ' ' << take(*ids);
  out << "\n   highest index in use: " << ids->findBitInSetState(preferHi) << "\n\n";

  out << "4. Reserve the top hundred thousand indexes for static use, then search around them.\n";
  ids->setBitsInRange(2'900'000, 2'999'999);
  out << "   in use: " << ids->numBitsInSetState()
      << "; highest in use: " << ids->findBitInSetState(preferHi)
      << "; highest free: " << ids->findBitInClearState(preferHi) << '\n';
  bool const reservedAllTaken =
      ids->findClearBitInRange(2'900'000, 2'999'999, preferLo) == HBitmap::notFound;
  out << "   lowest free from 2500000: "
      << ids->findClearBitInRange(2'500'000, ids->size() - 1, preferLo)
      << "; free in 2900000 .. 2999999: " << (reservedAllTaken ? "none" : "some") << '\n';
}

TourRegistrar const registrar(50, "hbitmap", "Hierarchical bitmap as an index allocator",
                              &hBitmapTour);

}  // namespace
}  // namespace KivDemo
