// Kiv::HBitmap against a plain std::vector<uint64_t> holding the same bits, in the same run:
//
// - each global search against a linear scan of the plain words with count-trailing/leading-zeros
//   that starts at the end opposite the only bit in the wanted state: the scan's worst case, which
//   is what the summary trees are for;
// - setBit and clearBit, in sequential and in random bit order, against the same bit update of the
//   plain vector, which pays the same cache misses but keeps no summaries;
// - from those, how each operation's cost grows from 2^12 to 2^28 bits; and the memory both trees
//   take against two bits per bit.
//
// Benchmarks are named "<operation>/<implementation>/<size>"; the tables after the run are built
// from the CPU time per iteration of this run only.
#include "../BenchMain.h"

#include <Kiv/HBitmap.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace {

using Kiv::HBitmap;
using Kiv::U32;
using Kiv::U64;
using State = HBitmap::BitState;
using Pref = HBitmap::IndexPreference;

constexpr std::array<U32, 3> kLog2Sizes{12, 20, 28};
constexpr double kMinSeconds = 0.2;

std::string sizeName(U32 log2Size) { return "2^" + std::to_string(log2Size); }

// One bitmap and one plain vector per size, made on first use and shared by every benchmark.
struct Subject {
  Zel::Ptr<HBitmap> bitmap;
  std::vector<std::uint64_t> plain;
};

Subject& subject(U32 log2Size) {
  static std::map<U32, Subject> subjects;
  auto [it, made] = subjects.try_emplace(log2Size);
  if (made) {
    U32 const size = U32{1} << log2Size;
    it->second.bitmap = Kiv::hBitmapFactory(log2Size, size, State::bitClear);
    it->second.plain.assign(size / 64, 0);
  }
  return it->second;
}

// ---- Searches -----------------------------------------------------------------------------------

struct Search {
  char const* name;
  State state;
  Pref pref;
};

constexpr std::array<Search, 4> kSearches{{
    {"findBitInSetState(preferLo)", State::bitSet, Pref::preferLo},
    {"findBitInSetState(preferHi)", State::bitSet, Pref::preferHi},
    {"findBitInClearState(preferLo)", State::bitClear, Pref::preferLo},
    {"findBitInClearState(preferHi)", State::bitClear, Pref::preferHi},
}};

// Leaves one bit in the wanted state, at the end a search with `pref` reaches last; returns it.
U32 arrange(Subject& s, Search const& search) {
  U32 const size = s.bitmap->size();
  U32 const loner = search.pref == Pref::preferLo ? size - 1 : 0;
  bool const wantSet = search.state == State::bitSet;
  s.bitmap->updateBitsInRange(0, size - 1, wantSet ? State::bitClear : State::bitSet);
  s.bitmap->updateBit(loner, search.state);
  std::fill(s.plain.begin(), s.plain.end(), wantSet ? 0 : ~std::uint64_t{0});
  s.plain[loner / 64] ^= std::uint64_t{1} << (loner % 64);
  return loner;
}

U32 linearScan(std::vector<std::uint64_t> const& words, State state, Pref pref) {
  std::uint64_t const flip = state == State::bitSet ? 0 : ~std::uint64_t{0};
  U32 const n = static_cast<U32>(words.size());
  if (pref == Pref::preferLo) {
    for (U32 w = 0; w < n; ++w) {
      if (std::uint64_t const v = words[w] ^ flip) return w * 64 + std::countr_zero(v);
    }
  } else {
    for (U32 w = n; w-- > 0;) {
      if (std::uint64_t const v = words[w] ^ flip) return w * 64 + 63 - std::countl_zero(v);
    }
  }
  return HBitmap::notFound;
}

void hbitmapSearch(benchmark::State& st, U32 log2Size, Search search) {
  Subject& s = subject(log2Size);
  U32 const expected = arrange(s, search);
  HBitmap const& bitmap = *s.bitmap;
  U32 found = 0;
  for (auto _ : st) {
    found = search.state == State::bitSet ? bitmap.findBitInSetState(search.pref)
                                          : bitmap.findBitInClearState(search.pref);
    benchmark::DoNotOptimize(found);
  }
  if (found != expected) st.SkipWithError("HBitmap found the wrong bit");
}

void scanSearch(benchmark::State& st, U32 log2Size, Search search) {
  Subject& s = subject(log2Size);
  U32 const expected = arrange(s, search);
  U32 found = 0;
  for (auto _ : st) {
    benchmark::ClobberMemory();
    found = linearScan(s.plain, search.state, search.pref);
    benchmark::DoNotOptimize(found);
  }
  if (found != expected) st.SkipWithError("the scan found the wrong bit");
}

// ---- Point updates ------------------------------------------------------------------------------

struct Update {
  char const* name;
  State state;
  bool random;
};

constexpr std::array<Update, 4> kUpdates{{
    {"setBit(sequential)", State::bitSet, false},
    {"clearBit(sequential)", State::bitClear, false},
    {"setBit(random)", State::bitSet, true},
    {"clearBit(random)", State::bitClear, true},
}};

// The i-th bit touched: in order, or spread over the whole bitmap by Fibonacci hashing.
U32 bitAt(U64 i, bool random, U32 mask) {
  return (random ? static_cast<U32>((i * 0x9E3779B97F4A7C15u) >> 32) : static_cast<U32>(i)) & mask;
}

void hbitmapUpdate(benchmark::State& st, U32 log2Size, Update update) {
  HBitmap& bitmap = *subject(log2Size).bitmap;
  U32 const mask = bitmap.size() - 1;
  U64 i = 0;
  for (auto _ : st) {
    U32 const bit = bitAt(i++, update.random, mask);
    if (update.state == State::bitSet) {
      bitmap.setBit(bit);
    } else {
      bitmap.clearBit(bit);
    }
  }
}

void plainUpdate(benchmark::State& st, U32 log2Size, Update update) {
  std::vector<std::uint64_t>& words = subject(log2Size).plain;
  U32 const mask = static_cast<U32>(words.size() * 64 - 1);
  U64 i = 0;
  for (auto _ : st) {
    U32 const bit = bitAt(i++, update.random, mask);
    std::uint64_t const bitMask = std::uint64_t{1} << (bit % 64);
    if (update.state == State::bitSet) {
      words[bit / 64] |= bitMask;
    } else {
      words[bit / 64] &= ~bitMask;
    }
    benchmark::ClobberMemory();
  }
}

// ---- Registration and tables --------------------------------------------------------------------

std::string benchName(char const* operation, char const* implementation, U32 log2Size) {
  return std::string(operation) + "/" + implementation + "/" + sizeName(log2Size);
}

void registerAll() {
  for (U32 log2Size : kLog2Sizes) {
    for (Search const& search : kSearches) {
      benchmark::RegisterBenchmark(benchName(search.name, "hbitmap", log2Size).c_str(),
                                   hbitmapSearch, log2Size, search)
          ->MinTime(kMinSeconds);
      benchmark::RegisterBenchmark(benchName(search.name, "linearScan", log2Size).c_str(),
                                   scanSearch, log2Size, search)
          ->MinTime(kMinSeconds)
          ->Unit(benchmark::kMicrosecond);
    }
    for (Update const& update : kUpdates) {
      benchmark::RegisterBenchmark(benchName(update.name, "hbitmap", log2Size).c_str(),
                                   hbitmapUpdate, log2Size, update)
          ->MinTime(kMinSeconds);
      benchmark::RegisterBenchmark(benchName(update.name, "plainVector", log2Size).c_str(),
                                   plainUpdate, log2Size, update)
          ->MinTime(kMinSeconds);
    }
  }
}

// Keeps each benchmark's CPU time per iteration (with --benchmark_repetitions, the median).
class TimeSummary : public KivBench::Summary {
public:
  using Summary::Summary;

  // The search, growth and memory tables.
  void print(std::ostream& out) const override;

  // The time of one benchmark, or 0 when it did not run.
  double ns(std::string const& name) const {
    auto it = nanoseconds_.find(name);
    return it == nanoseconds_.end() ? 0.0 : it->second;
  }

private:
  void record(Run const& run) override {
    nanoseconds_[run.run_name.function_name] = cpuNanoseconds(run);
  }

  std::map<std::string, double> nanoseconds_;
};

void printSearchTable(std::ostream& out, TimeSummary const& t) {
  KivBench::print(
      out, "\nGlobal search against a linear scan from the opposite end (aim at 2^28: >= 1000x)\n");
  KivBench::print(out, "%-32s %6s %14s %14s %12s\n", "operation", "size", "hbitmap ns", "scan ns",
                  "speedup");
  for (Search const& search : kSearches) {
    for (U32 log2Size : kLog2Sizes) {
      double const mine = t.ns(benchName(search.name, "hbitmap", log2Size));
      double const scan = t.ns(benchName(search.name, "linearScan", log2Size));
      if (mine == 0 || scan == 0) continue;
      KivBench::print(out, "%-32s %6s %14.2f %14.2f %11.0fx\n", search.name,
                      sizeName(log2Size).c_str(), mine, scan, scan / mine);
    }
  }
}

void printGrowthRow(std::ostream& out, TimeSummary const& t, char const* operation,
                    char const* implementation) {
  std::array<double, kLog2Sizes.size()> ns{};
  for (std::size_t i = 0; i < kLog2Sizes.size(); ++i) {
    ns[i] = t.ns(benchName(operation, implementation, kLog2Sizes[i]));
    if (ns[i] == 0) return;
  }
  KivBench::print(out, "%-32s %-12s %10.2f %10.2f %10.2f %9.2fx\n", operation, implementation,
                  ns[0], ns[1], ns[2], ns[2] / ns[0]);
}

void printGrowthTable(std::ostream& out, TimeSummary const& t) {
  KivBench::print(out,
                  "\nGrowth from 2^12 to 2^28 bits, ns per operation (aim for hbitmap: <= 3x)\n");
  KivBench::print(out, "%-32s %-12s %10s %10s %10s %10s\n", "operation", "impl", "2^12", "2^20",
                  "2^28", "2^28/2^12");
  for (Search const& search : kSearches) printGrowthRow(out, t, search.name, "hbitmap");
  for (Update const& update : kUpdates) {
    printGrowthRow(out, t, update.name, "hbitmap");
    printGrowthRow(out, t, update.name, "plainVector");
  }
}

void printMemoryTable(std::ostream& out) {
  KivBench::print(out, "\nMemory of both trees against two bits per bit (aim: <= 1.02)\n");
  KivBench::print(out, "%6s %8s %14s %14s %8s\n", "size", "height", "words/tree", "bytes", "ratio");
  for (U32 log2Size : kLog2Sizes) {
    HBitmap const& bitmap = *subject(log2Size).bitmap;
    U64 const wordsPerTree = U64{bitmap.arrayBaseOffsetForHeight(bitmap.height() - 1)} + 1;
    U64 const bytes = 2 * 8 * wordsPerTree;
    double const twoBitsPerBit = 2.0 * bitmap.size() / 8;
    KivBench::print(out, "%6s %8u %14llu %14llu %8.4f\n", sizeName(log2Size).c_str(),
                    bitmap.height(), static_cast<unsigned long long>(wordsPerTree),
                    static_cast<unsigned long long>(bytes), double(bytes) / twoBitsPerBit);
  }
}

void TimeSummary::print(std::ostream& out) const {
  printSearchTable(out, *this);
  printGrowthTable(out, *this);
  printMemoryTable(out);
}

KivBench::ProgramRegistrar const program({.registerBenchmarks = &registerAll,
                                          .summary = &KivBench::makeSummary<TimeSummary>});

}  // namespace
