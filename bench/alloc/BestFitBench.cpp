// Kiv::BestFitAllocator beside plain std::map allocators, in the same run:
//
// - alloc/free churn on a space of 2^20 entries kept three quarters full, block sizes 1..64
//   (maxBlkSz 64): each iteration frees a random held block and allocates one of a random size,
//   the same script for every implementation. The baselines are a naive first fit that scans a
//   std::map of free blocks from the bottom, and the plainest best fit with merging: a std::set
//   of (size, start) for the lower bound and a std::map by start for the neighbours. The second is
//   the lower bound that an ordered-map allocator can reach; the aim is to stay within 2x of it.
// - defragment of a fully fragmented space, every other block free, against a plain compaction of
//   a std::map of the used blocks that computes the same moves. Reported per used block at 2^18 and
//   2^20 entries: a cost per block that does not grow with the space means one pass proportional
//   to the used blocks.
//
// Without a main of its own (the folder's executable is shared), each benchmark times its loop and
// leaves its cost in a table that the later benchmarks of its group read to report their ratios
// as counters: x_firstFit, x_mapBestFit, x_plainCompaction.
#include <Kiv/BestFitAllocator.h>

#include <benchmark/benchmark.h>

#include <time.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Kiv::U32;
using Kiv::U64;
using BlkPtr = Zel::Ptr<Kiv::BFA::Blk>;

constexpr U32 kChurnMemSz = 1u << 20;
constexpr U32 kMaxBlkSz = 64;
constexpr U32 kScriptSteps = 1u << 16;

// Nanoseconds per operation of each benchmark's last run, by name.
std::map<std::string, double>& costs() {
  static std::map<std::string, double> table;
  return table;
}

void reportRatio(benchmark::State& st, char const* counter, std::string const& baseline,
                 double ns) {
  auto const it = costs().find(baseline);
  if (it != costs().end()) st.counters[counter] = ns / it->second;
}

// CPU time of the calling thread, so that other processes on the machine do not count.
class Stopwatch {
public:
  Stopwatch() : start_(now()) {}
  double ns() const { return now() - start_; }

private:
  static double now() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) * 1e9 + double(t.tv_nsec);
  }

  double start_;
};

// ---- Churn --------------------------------------------------------------------------------------

// The sizes that fill the space to three quarters, then per step a size to allocate and a random
// number that picks the held block to free.
struct Script {
  std::vector<U32> fill;
  std::vector<U32> sizes;
  std::vector<U32> victims;
};

Script const& script() {
  static Script const s = [] {
    Script out;
    std::mt19937 rng(20260);
    U64 filled = 0;
    while (filled < kChurnMemSz / 4 * 3) {
      out.fill.push_back(1 + rng() % kMaxBlkSz);
      filled += out.fill.back();
    }
    for (U32 i = 0; i < kScriptSteps; ++i) {
      out.sizes.push_back(1 + rng() % kMaxBlkSz);
      out.victims.push_back(U32(rng()));
    }
    return out;
  }();
  return s;
}

// A held block of the map allocators.
struct Held {
  U32 start;
  U32 size;
};

// First fit: the free blocks by start, scanned from the bottom for the first that is large enough.
class FirstFitMap {
public:
  explicit FirstFitMap(U32 memSz) { free_.emplace(0, memSz); }

  bool alloc(U32 n, Held* out) {
    for (auto it = free_.begin(); it != free_.end(); ++it) {
      if (it->second < n) continue;
      *out = {it->first, n};
      if (it->second > n) free_.emplace_hint(std::next(it), it->first + n, it->second - n);
      free_.erase(it);
      return true;
    }
    return false;
  }

  void free(Held blk) {
    auto next = free_.lower_bound(blk.start);
    if (next != free_.begin()) {
      auto prev = std::prev(next);
      if (prev->first + prev->second == blk.start) {
        blk = {prev->first, prev->second + blk.size};
        free_.erase(prev);
      }
    }
    if (next != free_.end() && next->first == blk.start + blk.size) {
      blk.size += next->second;
      next = free_.erase(next);
    }
    free_.emplace_hint(next, blk.start, blk.size);
  }

private:
  std::map<U32, U32> free_;
};

// Best fit with merging on plain ordered containers: the lower bound by (size, start), the
// neighbours by start.
class BestFitMap {
public:
  explicit BestFitMap(U32 memSz) { add(0, memSz); }

  bool alloc(U32 n, Held* out) {
    auto const fit = bySize_.lower_bound({n, 0});
    if (fit == bySize_.end()) return false;
    auto const [size, start] = *fit;
    bySize_.erase(fit);
    byStart_.erase(start);
    if (size > n) add(start + n, size - n);
    *out = {start, n};
    return true;
  }

  void free(Held blk) {
    auto next = byStart_.lower_bound(blk.start);
    if (next != byStart_.begin()) {
      auto prev = std::prev(next);
      if (prev->first + prev->second == blk.start) {
        blk = {prev->first, prev->second + blk.size};
        bySize_.erase({prev->second, prev->first});
        byStart_.erase(prev);
      }
    }
    if (next != byStart_.end() && next->first == blk.start + blk.size) {
      blk.size += next->second;
      bySize_.erase({next->second, next->first});
      byStart_.erase(next);
    }
    add(blk.start, blk.size);
  }

private:
  void add(U32 start, U32 size) {
    bySize_.emplace(size, start);
    byStart_.emplace(start, size);
  }

  std::set<std::pair<U32, U32>> bySize_;
  std::map<U32, U32> byStart_;
};

// The allocator under test behind the same two calls.
class KivBestFit {
public:
  explicit KivBestFit(U32 memSz) : a_(Kiv::bestFitAllocatorFactory(memSz, 0, kMaxBlkSz)) {}

  bool alloc(U32 n, BlkPtr* out) {
    *out = a_->alloc(n);
    return bool(*out);
  }

private:
  Zel::Ptr<Kiv::BestFitAllocator> a_;
};

// Frees a scripted victim and allocates a scripted size per iteration; the plain allocators free
// through their own call, the Kiv blocks by dropping their last reference.
template <class Allocator, class Handle>
void churn(benchmark::State& st, char const* name) {
  Script const& s = script();
  Allocator allocator(kChurnMemSz);
  std::vector<Handle> held;
  held.reserve(s.fill.size() + 1);
  for (U32 size : s.fill) {
    Handle h;
    if (allocator.alloc(size, &h)) held.push_back(std::move(h));
  }
  U32 step = 0;
  U64 refused = 0;
  Stopwatch const watch;
  for (auto _ : st) {
    Handle& victim = held[s.victims[step] % held.size()];
    if constexpr (std::is_same_v<Handle, Held>) allocator.free(victim);
    victim = std::move(held.back());
    held.pop_back();
    Handle h;
    if (allocator.alloc(s.sizes[step], &h)) {
      held.push_back(std::move(h));
    } else {
      ++refused;
    }
    step = (step + 1) % kScriptSteps;
  }
  double const ns = watch.ns() / double(st.iterations());
  costs()[name] = ns;
  st.counters["refused"] = double(refused);
  reportRatio(st, "x_firstFit", "churn/firstFitMap", ns);
  reportRatio(st, "x_mapBestFit", "churn/mapBestFit", ns);
}

void churnFirstFit(benchmark::State& st) { churn<FirstFitMap, Held>(st, "churn/firstFitMap"); }
void churnMapBestFit(benchmark::State& st) { churn<BestFitMap, Held>(st, "churn/mapBestFit"); }
void churnKiv(benchmark::State& st) { churn<KivBestFit, BlkPtr>(st, "churn/kivBestFit"); }

BENCHMARK(churnFirstFit)->Name("BestFit/churn/firstFitMap")->MinTime(0.3);
BENCHMARK(churnMapBestFit)->Name("BestFit/churn/mapBestFit")->MinTime(0.3);
BENCHMARK(churnKiv)->Name("BestFit/churn/kivBestFit")->MinTime(0.3);

// ---- Defragment ---------------------------------------------------------------------------------

// Block sizes that tile a space of memSz entries: all 1 ("single"), or 1..64 at random ("mixed").
std::vector<U32> tiling(U32 memSz, bool mixed) {
  std::vector<U32> sizes;
  std::mt19937 rng(memSz);
  for (U32 filled = 0; filled < memSz;) {
    U32 const size = mixed ? std::min<U32>(1 + rng() % kMaxBlkSz, memSz - filled) : 1;
    sizes.push_back(size);
    filled += size;
  }
  return sizes;
}

std::string defragName(char const* impl, U32 log2MemSz, bool mixed) {
  return std::string("defragment/") + impl + "/2^" + std::to_string(log2MemSz) +
         (mixed ? "/mixed" : "/single");
}

void defragmentKiv(benchmark::State& st, U32 log2MemSz, bool mixed) {
  U32 const memSz = 1u << log2MemSz;
  std::vector<U32> const sizes = tiling(memSz, mixed);
  double total = 0;
  U64 usedBlocks = 0;
  for (auto _ : st) {
    st.PauseTiming();
    auto a = Kiv::bestFitAllocatorFactory(memSz, 0, kMaxBlkSz);
    std::vector<BlkPtr> held;
    held.reserve(sizes.size());
    for (U32 size : sizes) held.push_back(a->alloc(size));
    for (std::size_t i = 0; i < held.size(); i += 2) held[i] = nullptr;
    usedBlocks = a->inUseBlocks();
    st.ResumeTiming();
    Stopwatch const watch;
    Zel::Ptr<Kiv::BFA::PendingCmds> cmds = a->defragment();
    total += watch.ns();
    st.PauseTiming();
    if (cmds->pendingCmdLogs() != usedBlocks) st.SkipWithError("not every block moved");
    cmds = nullptr;
    held.clear();
    st.ResumeTiming();
  }
  double const nsPerBlock = total / double(st.iterations()) / double(usedBlocks);
  costs()[defragName("kivBestFit", log2MemSz, mixed)] = nsPerBlock;
  st.counters["usedBlocks"] = double(usedBlocks);
  st.counters["ns_per_used_blk"] = nsPerBlock;
  reportRatio(st, "x_plainCompaction", defragName("plainCompaction", log2MemSz, mixed), nsPerBlock);
}

// The least work a compaction does: one pass over the used blocks in index order that computes
// each block's new place, records the move and rebuilds the map of used blocks.
void defragmentPlain(benchmark::State& st, U32 log2MemSz, bool mixed) {
  U32 const memSz = 1u << log2MemSz;
  std::vector<U32> const sizes = tiling(memSz, mixed);
  std::map<U32, U32> fragmented;
  U32 start = 0;
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    if (i % 2) fragmented.emplace(start, sizes[i]);
    start += sizes[i];
  }
  struct Move {
    U32 from, to, size;
  };
  double total = 0;
  for (auto _ : st) {
    st.PauseTiming();
    std::map<U32, U32> used = fragmented;
    std::vector<Move> moves;
    st.ResumeTiming();
    Stopwatch const watch;
    std::map<U32, U32> compact;
    U32 next = 0;
    for (auto const& [from, size] : used) {
      if (from != next) moves.push_back({from, next, size});
      compact.emplace_hint(compact.end(), next, size);
      next += size;
    }
    used.swap(compact);
    total += watch.ns();
    benchmark::DoNotOptimize(moves.data());
    st.PauseTiming();
    used.clear();
    compact.clear();
    st.ResumeTiming();
  }
  double const nsPerBlock = total / double(st.iterations()) / double(fragmented.size());
  costs()[defragName("plainCompaction", log2MemSz, mixed)] = nsPerBlock;
  st.counters["usedBlocks"] = double(fragmented.size());
  st.counters["ns_per_used_blk"] = nsPerBlock;
}

void registerDefragment() {
  for (U32 log2MemSz : {18u, 20u}) {
    for (bool mixed : {false, true}) {
      std::string const plain = "BestFit/" + defragName("plainCompaction", log2MemSz, mixed);
      benchmark::RegisterBenchmark(plain.c_str(), defragmentPlain, log2MemSz, mixed)
          ->Iterations(5)
          ->Unit(benchmark::kMillisecond);
      std::string const kiv = "BestFit/" + defragName("kivBestFit", log2MemSz, mixed);
      benchmark::RegisterBenchmark(kiv.c_str(), defragmentKiv, log2MemSz, mixed)
          ->Iterations(3)
          ->Unit(benchmark::kMillisecond);
    }
  }
}

int const registered = (registerDefragment(), 0);

}  // namespace
