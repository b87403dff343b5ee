// The number-allocation tour: interface indexes handed out with a hold-down in virtual time, a
// pool of a million numbers that stays a handful of ranges, and an identifier set in its run text.
#include "Tour.h"

#include <Kiv/IdSet.h>
#include <Kiv/NumAllocator.h>
#include <Kiv/NumberPool.h>

#include <Zel/Activity.h>
#include <Zel/System.h>

#include <ostream>
#include <string>

namespace KivDemo {
namespace {

using Kiv::Range;
using Kiv::Seconds;
using Kiv::U32;

constexpr Seconds kStart = 1'700'000'000.0;

std::string at(Seconds t) { return "t+" + std::to_string(static_cast<long>(t - kStart)); }

std::string ranges(Kiv::NumberPool const& pool) {
  std::string text;
  for (auto const& [max, range] : pool.poolIteratorConst()) {
    text += text.empty() ? "" : ", ";
    text += std::to_string(range.min());
    if (range.max() != range.min()) text += ".." + std::to_string(range.max());
  }
  return text.empty() ? "none" : text;
}

void printPools(std::ostream& out, Kiv::NumAllocator const& ifIndexes) {
  out << "     free: " << ranges(*ifIndexes.freePool())
      << "\n     in use: " << ranges(*ifIndexes.activePool()) << "\n     held: ";
  if (ifIndexes.holdDownPool()->isEmpty()) out << "none";
  char const* separator = "";
  for (auto const& [expiry, member] : ifIndexes.holdDownPool()->timedPoolIteratorConst()) {
    out << separator << ranges(*member) << " until " << at(expiry);
    separator = "; ";
  }
  out << '\n';
}

void interfaceIndexes(std::ostream& out) {
  out << "1. Interface indexes 1..4096, lowest free first, released ones held down 30 s.\n";
  Zel::System::VirtualTimeScope const scope(kStart);
  auto config = Kiv::numAllocatorConfigFactory(Range(1, 4096));
  auto status = Kiv::numAllocatorStatusFactory();
  auto ifIndexes = Kiv::numAllocatorFactory(config, status);
  out << "   t+0   five interfaces come up:";
  for (int i = 0; i < 5; ++i) out << ' ' << ifIndexes->getNumber();
  out << '\n';

  Zel::System::virtualTimeIs(kStart + 3);
  ifIndexes->releaseNumber(2);
  Zel::System::virtualTimeIs(kStart + 4);
  ifIndexes->releaseNumber(4);
  out << "   t+3   interface 2 goes away, at t+4 interface 4: both expire at one instant, "
         "rounded up to 3 s\n   t+4   the next one up gets "
      << ifIndexes->getNumber() << "; asking for 2 by name gets " << ifIndexes->getExactNumber(2)
      << '\n';
  Zel::System::virtualTimeIs(kStart + 5);
  ifIndexes->releaseNumber(5);
  out << "   t+5   interface 5 goes away: a second instant\n";
  printPools(out, *ifIndexes);

  Zel::activityManager()->runUntil(kStart + 35);
  out << "   t+35  the timer has fired for the first instant; the next two up get";
  for (int i = 0; i < 2; ++i) out << ' ' << ifIndexes->getNumber();
  out << '\n';
  Zel::activityManager()->runUntil(kStart + 40);
  out << "   t+40  and for the second:\n";
  printPools(out, *ifIndexes);
  out << "   status: rangeExhausted " << std::boolalpha << status->rangeExhausted() << ", allFree "
      << status->allFree() << "\n\n";
}

void millionPool(std::ostream& out) {
  out << "2. A pool of a million numbers with a few holes stays a handful of ranges.\n";
  auto pool = Kiv::numberPoolFactory();
  pool->addRange(Range(0, 999'999));
  pool->delNumber(17);
  pool->delRange(Range(1'000, 1'999));
  pool->delNumber(500'000);
  pool->delNumber(999'999);
  out << "   " << pool->size() << " numbers in " << pool->rangeCount()
      << " ranges: " << ranges(*pool) << '\n';
  pool->addRange(Range(1'000, 1'999));
  pool->addNumber(17);
  out << "   holes 17 and 1000..1999 filled again: " << ranges(*pool) << "\n\n";
}

void identifierSet(std::ostream& out) {
  out << "3. Identifier sets: VLANs 0..4095 of two ports, in their run text.\n";
  Kiv::IdSet port1(4096);
  port1.idSetRange(10, 21);
  port1.idIs(100, true);
  port1.idSetRange(200, 300);
  Kiv::IdSet port2(4096);
  std::string const text = "(1,15-25,250-4000)";
  sequenceToValue(text.data(), text.data() + text.size(), &port2);
  out << "   port 1: " << port1 << "\n   port 2: " << port2 << "  (parsed from " << text << ")\n"
      << "   either: " << (port1 | port2) << "\n   both:   " << (port1 & port2)
      << "\n   only 1: " << (port1 - port2) << "\n   neither: " << ~(port1 | port2) << '\n';
}

void numberAllocTour(std::ostream& out) {
  interfaceIndexes(out);
  millionPool(out);
  identifierSet(out);
}

TourRegistrar const registrar(80, "number-alloc",
                              "Number allocation: hold-down in virtual time, number pools, id sets",
                              &numberAllocTour);

}  // namespace
}  // namespace KivDemo
