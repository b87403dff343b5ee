// The number structures beside plain standard containers, in the same run:
//
// - NumAllocator get/release churn over a range of one million numbers, half of them handed out:
//   each iteration releases a random handed-out number and gets one; every 1024 iterations the
//   virtual time moves one second, so released numbers come back after the 30 s hold-down.
//   Baseline: a std::set<U32> free list with a FIFO of (expiry, number) for the hold-down, rounded
//   the same way.
// - NumberPool add/delete of random single numbers over a million-number range, in two shapes: a
//   full pool that keeps 1024 holes (each iteration opens a hole at a random number and closes the
//   oldest), and a pool where each iteration toggles a random number (about half full, a quarter
//   million ranges). Baseline: std::set<U32> doing the same.
// - IdSet union and intersection of two random sets of size 16320, dense (half the ids) and
//   sparse (16 ids), the copying operators and in-place union. Baseline: std::bitset<16320>.
//
// Each group's baseline runs first and leaves its CPU time per iteration in a table; the other
// benchmarks of the group report their ratio to it as the counter x_baseline. Memory counters
// give the structure's bytes against the baseline's: map and set nodes are estimated as the
// node header of the standard library's red-black tree (a colour and three pointers) plus the
// element, rounded up to pointer alignment; IdSet buckets are array entries of an index and a
// word.
#include <Kiv/IdSet.h>
#include <Kiv/NumAllocator.h>
#include <Kiv/NumberPool.h>

#include <Zel/Activity.h>
#include <Zel/System.h>

#include <benchmark/benchmark.h>

#include <time.h>

#include <bitset>
#include <cmath>
#include <cstddef>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using Kiv::Range;
using Kiv::U16;
using Kiv::U32;
using Kiv::U64;

constexpr U32 kMillion = 1'000'000;
constexpr Kiv::Seconds kStart = 1'000'000.0;

std::map<std::string, double>& costs() {
  static std::map<std::string, double> table;
  return table;
}

// CPU time of the calling thread, so that the other processes on the machine do not count.
double threadNs() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return double(t.tv_sec) * 1e9 + double(t.tv_nsec);
}

// Runs `step` once per iteration and files the time per iteration under `group`: as its baseline,
// or as a ratio to the baseline when that ran earlier in this process.
template <class Step>
void timeLoop(benchmark::State& state, std::string const& group, bool baseline, Step&& step) {
  double const start = threadNs();
  for (auto _ : state) step();
  double const ns = (threadNs() - start) / double(state.iterations());
  if (baseline) {
    costs()[group] = ns;
    return;
  }
  auto const it = costs().find(group);
  if (it != costs().end()) state.counters["x_baseline"] = ns / it->second;
}

// A small fast generator, the same sequence for a structure and its baseline.
struct SplitMix {
  U64 state;
  U64 next() {
    U64 z = (state += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
  }
  U32 below(U32 n) { return U32(next() % n); }
};

template <class Element>
constexpr double nodeBytes() {
  constexpr std::size_t header = 4 * sizeof(void*);  // the colour, padded, and three links
  constexpr std::size_t align = alignof(void*);
  return double((header + sizeof(Element) + align - 1) / align * align);
}
constexpr double kPoolNodeBytes = nodeBytes<std::pair<U32 const, Range>>();
constexpr double kSetNodeBytes = nodeBytes<U32>();

// ---- NumAllocator churn -------------------------------------------------------------------------

constexpr U32 kPerSecond = 1024;
constexpr Kiv::Seconds kHoldDown = 30.0;

// The handed-out numbers, for picking one at random to release.
class Handed {
public:
  void add(U32 n) { numbers_.push_back(n); }
  U32 takeRandom(SplitMix& rng) {
    U32 const at = rng.below(U32(numbers_.size()));
    U32 const n = numbers_[at];
    numbers_[at] = numbers_.back();
    numbers_.pop_back();
    return n;
  }

private:
  std::vector<U32> numbers_;
};

void churnNumAllocator(benchmark::State& state) {
  Zel::System::virtualTimeIs(kStart);
  auto config = Kiv::numAllocatorConfigFactory(Range(0, kMillion - 1));
  auto status = Kiv::numAllocatorStatusFactory();
  auto alloc = Kiv::numAllocatorFactory(config, status);
  Handed handed;
  for (U32 i = 0; i < kMillion / 2; ++i) handed.add(U32(alloc->getNumber()));
  SplitMix rng{1};
  U64 step = 0;
  bool exhausted = false;
  timeLoop(state, "numAllocatorChurn", false, [&] {
    alloc->releaseNumber(handed.takeRandom(rng));
    Kiv::S64 const n = alloc->getNumber();
    exhausted = exhausted || n < 0;
    handed.add(U32(n));
    if (++step % kPerSecond == 0) {
      Zel::activityManager()->runUntil(Zel::System::currentTime() + 1.0);
    }
  });
  if (exhausted) state.SkipWithError("the allocator ran out of numbers");
  U64 const ranges = alloc->freePool()->rangeCount() + alloc->activePool()->rangeCount();
  state.counters["poolRanges"] = double(ranges);
  state.counters["poolKiB"] = double(ranges) * kPoolNodeBytes / 1024;
  state.counters["setKiB"] = double(kMillion) * kSetNodeBytes / 1024;
  Zel::System::virtualTimeDel();
}

void churnSetFreeList(benchmark::State& state) {
  std::set<U32> free;
  for (U32 n = kMillion / 2; n < kMillion; ++n) free.insert(n);
  std::deque<std::pair<Kiv::Seconds, U32>> held;
  Handed handed;
  for (U32 n = 0; n < kMillion / 2; ++n) handed.add(n);
  SplitMix rng{1};
  U64 step = 0;
  Kiv::Seconds now = kStart;
  Kiv::Seconds const g = kHoldDown * 0.1;
  timeLoop(state, "numAllocatorChurn", true, [&] {
    held.emplace_back(std::ceil((now + kHoldDown) / g) * g, handed.takeRandom(rng));
    U32 const n = *free.begin();
    free.erase(free.begin());
    handed.add(n);
    if (++step % kPerSecond == 0) {
      now += 1.0;
      while (!held.empty() && held.front().first <= now) {
        free.insert(held.front().second);
        held.pop_front();
      }
    }
  });
}

// ---- NumberPool singles -------------------------------------------------------------------------

constexpr std::size_t kHoles = 1024;

// Opens a hole at a random number and closes the oldest open one.
template <class Has, class Del, class Add>
auto holesStep(SplitMix& rng, std::deque<U32>& holes, Has has, Del del, Add add) {
  return [&rng, &holes, has, del, add] {
    U32 const n = rng.below(kMillion);
    if (has(n)) {
      del(n);
      holes.push_back(n);
    }
    if (holes.size() > kHoles) {
      add(holes.front());
      holes.pop_front();
    }
  };
}

void poolHoles(benchmark::State& state) {
  auto pool = Kiv::numberPoolFactory();
  pool->addRange(Range(0, kMillion - 1));
  SplitMix rng{2};
  std::deque<U32> holes;
  timeLoop(state, "poolSinglesHoles", false,
           holesStep(
               rng, holes, [&](U32 n) { return pool->isMember(n); },
               [&](U32 n) { pool->delNumber(n); }, [&](U32 n) { pool->addNumber(n); }));
  state.counters["poolRanges"] = double(pool->rangeCount());
  state.counters["poolKiB"] = double(pool->rangeCount()) * kPoolNodeBytes / 1024;
  state.counters["setKiB"] = double(pool->size()) * kSetNodeBytes / 1024;
}

void setHoles(benchmark::State& state) {
  std::set<U32> set;
  for (U32 n = 0; n < kMillion; ++n) set.insert(set.end(), n);
  SplitMix rng{2};
  std::deque<U32> holes;
  timeLoop(state, "poolSinglesHoles", true,
           holesStep(
               rng, holes, [&](U32 n) { return set.contains(n); }, [&](U32 n) { set.erase(n); },
               [&](U32 n) { set.insert(n); }));
}

void poolToggle(benchmark::State& state) {
  auto pool = Kiv::numberPoolFactory();
  SplitMix rng{3};
  timeLoop(state, "poolSinglesToggle", false, [&] {
    U32 const n = rng.below(kMillion);
    if (pool->isMember(n)) {
      pool->delNumber(n);
    } else {
      pool->addNumber(n);
    }
  });
  state.counters["poolRanges"] = double(pool->rangeCount());
  state.counters["poolKiB"] = double(pool->rangeCount()) * kPoolNodeBytes / 1024;
  state.counters["setKiB"] = double(pool->size()) * kSetNodeBytes / 1024;
}

void setToggle(benchmark::State& state) {
  std::set<U32> set;
  SplitMix rng{3};
  timeLoop(state, "poolSinglesToggle", true, [&] {
    U32 const n = rng.below(kMillion);
    if (!set.erase(n)) set.insert(n);
  });
}

// ---- IdSet algebra ------------------------------------------------------------------------------

constexpr U16 kIdLimit = 16320;
using Bits = std::bitset<kIdLimit>;

struct Operands {
  Kiv::IdSet a{kIdLimit}, b{kIdLimit};
  Bits x, y;
};

// Two random sets: each id with probability one half (dense), or 16 random ids (sparse).
Operands operands(bool dense) {
  Operands o;
  SplitMix rng{dense ? 4u : 5u};
  auto fill = [&](Kiv::IdSet& set, Bits& bits) {
    for (U32 i = 0; i < (dense ? U32(kIdLimit) : 16u); ++i) {
      U16 const id = U16(dense ? i : rng.below(kIdLimit));
      if (dense && rng.below(2)) continue;
      set.idIs(id, true);
      bits.set(id);
    }
  };
  fill(o.a, o.x);
  fill(o.b, o.y);
  return o;
}

enum class SetOp { unionCopy, intersectionCopy, unionInPlace };

std::string idSetGroup(SetOp op, bool dense) {
  static char const* const names[] = {"union", "intersection", "unionInPlace"};
  return std::string("idSet/") + names[int(op)] + (dense ? "/dense" : "/sparse");
}

void idSetOp(benchmark::State& state, SetOp op, bool dense) {
  Operands o = operands(dense);
  timeLoop(state, idSetGroup(op, dense), false, [&] {
    if (op == SetOp::unionInPlace) {
      o.a |= o.b;
      benchmark::DoNotOptimize(o.a);
      return;
    }
    Kiv::IdSet const result = op == SetOp::unionCopy ? o.a | o.b : o.a & o.b;
    benchmark::DoNotOptimize(result);
  });
  std::size_t const bucketBytes = sizeof(Kiv::IdSet::Buckets::value_type);
  state.counters["idSetBytes"] = double(o.a.bucketCount() * bucketBytes);
  state.counters["bitsetBytes"] = double(sizeof(Bits));
}

void bitsetOp(benchmark::State& state, SetOp op, bool dense) {
  Operands o = operands(dense);
  timeLoop(state, idSetGroup(op, dense), true, [&] {
    if (op == SetOp::unionInPlace) {
      o.x |= o.y;
      benchmark::DoNotOptimize(o.x);
      return;
    }
    Bits const result = op == SetOp::unionCopy ? o.x | o.y : o.x & o.y;
    benchmark::DoNotOptimize(result);
  });
}

// ---- Registration -------------------------------------------------------------------------------

int registerAll() {
  benchmark::RegisterBenchmark("numAllocatorChurn/baseline_setFreeList", churnSetFreeList);
  benchmark::RegisterBenchmark("numAllocatorChurn/numAllocator", churnNumAllocator);
  benchmark::RegisterBenchmark("poolSinglesHoles/baseline_set", setHoles);
  benchmark::RegisterBenchmark("poolSinglesHoles/numberPool", poolHoles);
  benchmark::RegisterBenchmark("poolSinglesToggle/baseline_set", setToggle);
  benchmark::RegisterBenchmark("poolSinglesToggle/numberPool", poolToggle);
  for (bool dense : {true, false}) {
    for (SetOp op : {SetOp::unionCopy, SetOp::intersectionCopy, SetOp::unionInPlace}) {
      std::string const group = idSetGroup(op, dense);
      benchmark::RegisterBenchmark((group + "/baseline_bitset").c_str(), bitsetOp, op, dense);
      benchmark::RegisterBenchmark((group + "/idSet").c_str(), idSetOp, op, dense);
    }
  }
  return 0;
}

[[maybe_unused]] int const registered = registerAll();

}  // namespace
