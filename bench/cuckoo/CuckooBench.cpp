// What the cuckoo model costs beside the bare random walk it models, measured in the same run.
//
// - fill/<shape>/<engine>: tables of about 64K slots (2 tables x 4 bins, 3 x 2, 4 x 1) filled
//   with random hashes until the first failed insert, by the full model (hitless, then with
//   hitless off) and by a bare array-based cuckoo that makes the same random walk with no command
//   bookkeeping. Reports the load at the first failure, inserts per second, slot writes per
//   insert and cycles removed. The plain model and the bare walk draw the same random numbers for
//   the same choices, so they must fail at the same insert: the summary checks that.
// - insert<L>/<shape>/<engine>: inserts at L% load (1% of the slots per iteration, removed again
//   untimed), median of three repetitions. The summary divides the model's cost by the bare
//   walk's.
// - lookup/...: the model's allocation-free itemLocation, its lookupItem (which allocates the
//   CuckooItem it returns) and the bare probe, with the allocations counted per lookup.
// - shadow/...: the probe of one item's buckets in the model's shadow layout, a plain array of
//   slots per table, beside the same probe in a Zel::HashMap2018 keyed by CuckooLocation.
//
// The writer is played after every model call: it drains the queue and acknowledges it.
#include "../BenchMain.h"

#include <Kiv/CuckooHashTable.h>

#include <Zel/Collections.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <new>
#include <ostream>
#include <random>
#include <string>
#include <typeinfo>
#include <vector>

namespace {

using Kiv::Cuckoo::CuckooLocation;
using Kiv::Cuckoo::HashItem;
using Kiv::Cuckoo::TableId;
using Zel::U32;
using Zel::U64;
using Zel::U8;

// Counted by the replaced operator new below. The benchmarks run on one thread.
U64 allocationCount = 0;

}  // namespace

// Kept out of line: inlined, the compiler would pair malloc with the caller's operator new and
// warn of a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++allocationCount;
  if (void* memory = std::malloc(size ? size : 1)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

struct Shape {
  char const* name;
  U8 numTables;
  U32 tableSize;
  U8 binSize;
  double knownLoad;  // the load at which random-walk cuckoo tables of this shape start failing

  U32 capacity() const { return U32(numTables) * tableSize * binSize; }
};

constexpr std::array<Shape, 3> shapes{
    {{"2x4", 2, 8192, 4, 0.980}, {"3x2", 3, 10923, 2, 0.988}, {"4x1", 4, 16384, 1, 0.977}}};
constexpr int fillRounds = 4;
constexpr U32 insertWindows = 32;  // windows of 1% of the slots cycled through by insert<L>

using Hashes = std::array<U32, 4>;

// IntHashItem gives tables 2 and up one hash, so the four-table shape uses this item: one
// independent hash per table.
class QuadHashItem : public HashItem {
public:
  QuadHashItem(U32 key, Hashes const& hashes) : key_(key), hashes_(hashes) {}
  bool isEqual(Zel::Ptr<HashItem const> const& other) const override {
    HashItem const& item = *other;
    QuadHashItem const* const same = typeid(item) == typeid(*this)
                                         ? static_cast<QuadHashItem const*>(other.ptr())
                                         : dynamic_cast<QuadHashItem const*>(other.ptr());
    return same && same->key_ == key_;
  }
  U32 getHash(TableId tableId) const override { return hashes_[tableId.value()]; }
  Zel::String toStrep() const override { return "QuadHashItem(" + std::to_string(key_) + ")"; }

private:
  U32 key_;
  Hashes hashes_;
};

// The same items for every engine: key i has hashes[i], as a model item in items[i].
struct Workload {
  std::vector<Hashes> hashes;
  std::vector<Zel::Ptr<HashItem const>> items;
};

Workload const& workload(Shape const& shape, U32 round) {
  static std::map<std::pair<std::string, U32>, Workload> made;
  Workload& w = made[{shape.name, round}];
  if (!w.items.empty()) return w;
  std::mt19937 random(1000 + round);
  U32 const count = shape.capacity() + insertWindows * (shape.capacity() / 100);
  for (U32 key = 0; key < count; ++key) {
    Hashes const h{U32(random()), U32(random()), U32(random()), U32(random())};
    w.hashes.push_back(h);
    if (shape.numTables <= 3) {
      w.items.push_back(Kiv::Cuckoo::intHashItemFactory(key, h[0], h[1], h[2]));
    } else {
      w.items.push_back(Zel::allocate<QuadHashItem>(key, h));
    }
  }
  return w;
}

U32 seedOf(U32 round) { return 17 + round; }

// The full model with its writer.
class Model {
public:
  Model(Shape const& shape, bool hitless, U32 seed)
      : config_(Kiv::Cuckoo::configFactory("bench", shape.numTables)),
        status_(Kiv::Cuckoo::statusFactory("bench")) {
    for (U8 t = 0; t < shape.numTables; ++t) {
      config_->tableDescListIs(TableId(t), shape.tableSize, shape.binSize);
    }
    config_->hitlessIs(hitless);
    config_->randomSeedIs(seed);
    table_ = Kiv::Cuckoo::hashTableFactory(config_, status_);
    table_->handleInitialized();
  }

  // Inserts and drains the queue; `writes` is the number of slot writes the call queued.
  bool insert(Zel::Ptr<HashItem const> const& item, U32& writes) {
    bool const inserted = table_->insertItem(item);
    writes = status_->cuckooCmds()->itemSeqs();
    config_->cmdReadCompletedInc(1);
    return inserted;
  }
  void remove(Zel::Ptr<HashItem const> const& item) {
    table_->deleteItem(item);
    config_->cmdReadCompletedInc(1);
  }
  Kiv::Cuckoo::HashTable& table() { return *table_; }
  Kiv::Cuckoo::Status const& status() const { return *status_; }

private:
  Zel::Ptr<Kiv::Cuckoo::Config> config_;
  Zel::Ptr<Kiv::Cuckoo::Status> status_;
  Zel::Ptr<Kiv::Cuckoo::HashTable> table_;
};

// The bare walk: slots hold key + 1 (0 is free); the same free-slot order, the same random draws
// for table and bin, the same alternation, retries and exact revert as the model, and nothing
// else.
class BareCuckoo {
public:
  static constexpr U32 maxLoop = 200;
  static constexpr U32 maxRetry = 3;
  static constexpr U8 none = 0xff;

  BareCuckoo(Shape const& shape, std::vector<Hashes> const& hashes, U32 seed)
      : shape_(shape), hashes_(hashes) {
    for (U8 t = 0; t < shape.numTables; ++t) {
      slots_.emplace_back(std::size_t(shape.tableSize) * shape.binSize);
    }
    std::srand(seed);
  }

  U32* bucket(U8 t, U32 key) {
    return &slots_[t][std::size_t(hashes_[key][t] % shape_.tableSize) * shape_.binSize];
  }
  bool contains(U32 key) {
    for (U8 t = 0; t < shape_.numTables; ++t) {
      U32 const* const b = bucket(t, key);
      for (U8 k = 0; k < shape_.binSize; ++k) {
        if (b[k] == key + 1) return true;
      }
    }
    return false;
  }
  void remove(U32 key) {
    for (U8 t = 0; t < shape_.numTables; ++t) {
      U32* const b = bucket(t, key);
      for (U8 k = 0; k < shape_.binSize; ++k) {
        if (b[k] == key + 1) b[k] = 0;
      }
    }
  }
  bool insert(U32 key) {
    if (contains(key)) return true;
    for (U32 attempt = 0; attempt < maxRetry; ++attempt) {
      undo_.clear();
      U32 current = key + 1;
      for (U32 step = 0; step < maxLoop; ++step) {
        if (placeInFreeSlot(current)) return true;
        U8 t = U8(std::rand() % shape_.numTables);
        if (t == lastEvicted_) t = U8((t + 1) % shape_.numTables);
        U8 const k = shape_.binSize > 1 ? U8(std::rand() % shape_.binSize) : 0;
        lastEvicted_ = t;
        U32& slot = bucket(t, current - 1)[k];
        undo_.emplace_back(&slot, slot);
        std::swap(slot, current);
      }
      for (auto it = undo_.rbegin(); it != undo_.rend(); ++it) *it->first = it->second;
    }
    return false;
  }

private:
  bool placeInFreeSlot(U32 entry) {
    for (U8 t = 0; t < shape_.numTables; ++t) {
      U32* const b = bucket(t, entry - 1);
      for (U8 k = 0; k < shape_.binSize; ++k) {
        if (b[k] != 0) continue;
        b[k] = entry;
        lastEvicted_ = none;
        return true;
      }
    }
    return false;
  }

  Shape shape_;
  std::vector<Hashes> const& hashes_;
  std::vector<std::vector<U32>> slots_;
  std::vector<std::pair<U32*, U32>> undo_;
  U8 lastEvicted_ = none;
};

// ---- Fill to the first failure --------------------------------------------------------------

enum class Engine { hitless, plain, bare };
char const* nameOf(Engine engine) {
  switch (engine) {
    case Engine::hitless: return "model";
    case Engine::plain: return "model-plain";
    case Engine::bare: return "baseline-bare";
  }
  return "?";
}

struct FillResult {
  U32 inserted = 0;
  U64 writes = 0;
  U32 maxWrites = 0;
  U32 cycles = 0;
};

FillResult fillOnce(Shape const& shape, Engine engine, U32 round, benchmark::State& state) {
  Workload const& w = workload(shape, round);
  FillResult result;
  if (engine == Engine::bare) {
    BareCuckoo bare(shape, w.hashes, seedOf(round));
    state.ResumeTiming();
    while (result.inserted < w.items.size() && bare.insert(result.inserted)) ++result.inserted;
    state.PauseTiming();
    return result;
  }
  Model model(shape, engine == Engine::hitless, seedOf(round));
  state.ResumeTiming();
  U32 writes = 0;
  while (result.inserted < w.items.size() && model.insert(w.items[result.inserted], writes)) {
    ++result.inserted;
    result.writes += writes;
    result.maxWrites = std::max(result.maxWrites, writes);
  }
  state.PauseTiming();
  result.cycles = model.status().cycleCount();
  return result;
}

void fill(benchmark::State& state, Shape const& shape, Engine engine) {
  U32 round = 0;
  double inserted = 0, writes = 0, maxWrites = 0, cycles = 0, load = 0;
  for (auto _ : state) {
    state.PauseTiming();
    FillResult const r = fillOnce(shape, engine, round++, state);
    inserted += r.inserted;
    writes += double(r.writes);
    maxWrites = std::max(maxWrites, double(r.maxWrites));
    cycles += r.cycles;
    load += double(r.inserted) / shape.capacity();
    state.ResumeTiming();
  }
  state.counters["load%"] = 100 * load / round;
  state.counters["inserts/s"] = benchmark::Counter(inserted, benchmark::Counter::kIsRate);
  state.counters["writes/insert"] = writes / inserted;
  state.counters["maxWrites"] = maxWrites;
  state.counters["cycles"] = cycles / round;
  state.counters["firstFailure"] = inserted / round;
}

// ---- Inserts at a given load ----------------------------------------------------------------

// Both engines behind one shape of interface, by key.
struct ModelByKey {
  Model model;
  Workload const& w;
  bool insert(U32 key) {
    U32 writes = 0;
    return model.insert(w.items[key], writes);
  }
  void remove(U32 key) { model.remove(w.items[key]); }
};

template <class Engine>
void insertAtLoad(benchmark::State& state, Shape const& shape, double load, Engine& engine) {
  U32 const window = shape.capacity() / 100;
  U32 const base = U32(shape.capacity() * load) - window / 2;
  for (U32 key = 0; key < base; ++key) {
    if (!engine.insert(key)) return state.SkipWithError("the fill failed below the measured load");
  }
  U32 round = 0;
  for (auto _ : state) {
    U32 const first = base + (round++ % insertWindows) * window;
    for (U32 key = first; key < first + window; ++key) {
      if (!engine.insert(key)) return state.SkipWithError("an insert failed at the measured load");
    }
    state.PauseTiming();
    for (U32 key = first; key < first + window; ++key) engine.remove(key);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * window);
  state.counters["window"] = window;
}

void insertAtLoad(benchmark::State& state, Shape const& shape, Engine engine, double load) {
  Workload const& w = workload(shape, 0);
  if (engine == Engine::bare) {
    BareCuckoo bare(shape, w.hashes, seedOf(0));
    insertAtLoad(state, shape, load, bare);
  } else {
    ModelByKey model{Model(shape, true, seedOf(0)), w};
    insertAtLoad(state, shape, load, model);
  }
}

// ---- Lookups and the shadow layout ----------------------------------------------------------

Shape const& lookupShape() { return shapes[0]; }

struct Filled {
  Model model{lookupShape(), true, seedOf(0)};
  BareCuckoo bare{lookupShape(), workload(lookupShape(), 0).hashes, seedOf(0)};
  U32 residents = 0;

  Filled() {
    Workload const& w = workload(lookupShape(), 0);
    U32 writes = 0;
    U32 const target = U32(lookupShape().capacity() * 0.9);
    while (residents < target && model.insert(w.items[residents], writes) &&
           bare.insert(residents)) {
      ++residents;
    }
  }
};

Filled& filled() {
  static Filled instance;
  return instance;
}

void lookup(benchmark::State& state, int variant) {
  Filled& f = filled();
  Workload const& w = workload(lookupShape(), 0);
  U32 key = 0;
  U64 const allocationsBefore = allocationCount;
  for (auto _ : state) {
    switch (variant) {
      case 0: benchmark::DoNotOptimize(f.bare.contains(key)); break;
      case 1: benchmark::DoNotOptimize(f.model.table().itemLocation(w.items[key])); break;
      default: benchmark::DoNotOptimize(f.model.table().lookupItem(w.items[key])); break;
    }
    if (++key == f.residents) key = 0;
  }
  state.counters["allocs/lookup"] =
      double(allocationCount - allocationsBefore) / double(state.iterations());
}

// The shadow of the filled model in both layouts, and the buckets of every resident.
struct ShadowLayouts {
  std::vector<std::vector<Zel::Ptr<HashItem const>>> array;
  Zel::HashMap2018<CuckooLocation, Zel::Ptr<HashItem const>> map;
  std::vector<std::array<U32, 2>> buckets;

  ShadowLayouts() {
    Shape const& shape = lookupShape();
    Filled& f = filled();
    for (U8 t = 0; t < shape.numTables; ++t) {
      array.emplace_back(std::size_t(shape.tableSize) * shape.binSize);
      for (U8 b = 0; b < shape.binSize; ++b) {
        for (U32 i = 0; i < shape.tableSize; ++i) {
          CuckooLocation const location(TableId(t), b, i);
          if (auto item = f.model.table().itemShadow(location)) {
            array[t][std::size_t(i) * shape.binSize + b] = item;
            map.valueIs(location, item);
          }
        }
      }
    }
    for (U32 key = 0; key < f.residents; ++key) {
      Hashes const& h = workload(shape, 0).hashes[key];
      buckets.push_back({h[0] % shape.tableSize, h[1] % shape.tableSize});
    }
  }
};

void shadowProbe(benchmark::State& state, bool hashMap) {
  static ShadowLayouts const layouts;
  U8 const bins = lookupShape().binSize;
  std::size_t next = 0;
  for (auto _ : state) {
    auto const& bucket = layouts.buckets[next];
    if (++next == layouts.buckets.size()) next = 0;
    U32 occupied = 0;
    for (U8 t = 0; t < 2; ++t) {
      for (U8 b = 0; b < bins; ++b) {
        if (hashMap) {
          occupied += layouts.map.find(CuckooLocation(TableId(t), b, bucket[t])) != nullptr;
        } else {
          occupied += bool(layouts.array[t][std::size_t(bucket[t]) * bins + b]);
        }
      }
    }
    benchmark::DoNotOptimize(occupied);
  }
}

// ---- Report ---------------------------------------------------------------------------------

// Keeps each benchmark's CPU time and counters.
class CuckooSummary : public KivBench::Summary {
public:
  struct Measured {
    double nanoseconds;  // CPU time per iteration
    double iterations;
    std::map<std::string, double> counters;
  };

  using Summary::Summary;

  Measured const* find(std::string const& name) const {
    auto it = measured_.find(name);
    return it == measured_.end() ? nullptr : &it->second;
  }
  void print(std::ostream& out) const override;

private:
  void record(Run const& run) override {
    Measured& m = measured_[run.run_name.function_name];
    m.nanoseconds = cpuNanoseconds(run);
    m.iterations = double(run.iterations);
    for (auto const& [name, counter] : run.counters) m.counters[name] = counter.value;
  }

  std::map<std::string, Measured> measured_;
};

void CuckooSummary::print(std::ostream& out) const {
  out << "\nFill to the first failed insert (mean of " << fillRounds << " seeds):\n";
  KivBench::print(out, "%-5s %7s %9s %10s %9s %11s %13s %8s %12s %11s\n", "shape", "known", "model",
                  "bare", "plain", "model ins/s", "writes/insert", "cycles", "plain ins/s",
                  "bare ins/s");
  for (Shape const& shape : shapes) {
    std::string const prefix = std::string("fill/") + shape.name + "/";
    Measured const* model = find(prefix + "model");
    Measured const* plain = find(prefix + "model-plain");
    Measured const* bare = find(prefix + "baseline-bare");
    if (!model || !plain || !bare) continue;
    std::string const writes = std::to_string(model->counters.at("writes/insert")).substr(0, 4) +
                               " max " + std::to_string(int(model->counters.at("maxWrites")));
    KivBench::print(out, "%-5s %6.1f%% %8.2f%% %9.2f%% %8.2f%% %11.0f %13s %8.1f %12.0f %11.0f\n",
                    shape.name, 100 * shape.knownLoad, model->counters.at("load%"),
                    bare->counters.at("load%"), plain->counters.at("load%"),
                    model->counters.at("inserts/s"), writes.c_str(), model->counters.at("cycles"),
                    plain->counters.at("inserts/s"), bare->counters.at("inserts/s"));
    bool const same = plain->counters.at("firstFailure") == bare->counters.at("firstFailure");
    out << "      plain model and bare walk fail at the same insert: " << (same ? "yes" : "NO")
        << "\n";
  }

  out << "\nInsert cost, full model / bare walk (CPU ns per insert, median of 3, this run):\n";
  for (Shape const& shape : shapes) {
    out << "  " << shape.name;
    for (int load : {50, 90}) {
      std::string const prefix = "insert" + std::to_string(load) + "/" + shape.name + "/";
      Measured const* model = find(prefix + "model");
      Measured const* bare = find(prefix + "baseline-bare");
      if (!model || !bare) continue;
      double const window = model->counters.at("window");
      KivBench::print(out, "   at %d%%: %6.0f / %5.0f = %4.2fx", load, model->nanoseconds / window,
                      bare->nanoseconds / window, model->nanoseconds / bare->nanoseconds);
    }
    out << "\n";
  }

  Measured const* bare = find("lookup/baseline-bare");
  Measured const* located = find("lookup/model-itemLocation");
  Measured const* looked = find("lookup/model-lookupItem");
  if (bare && located && looked) {
    KivBench::print(out,
                    "\nLookup at 90%% load (2x4): itemLocation %.1f ns (%.2f allocations) = %.2fx "
                    "the bare probe (%.1f ns); lookupItem %.1f ns (%.2f allocations: its result)\n",
                    located->nanoseconds, located->counters.at("allocs/lookup"),
                    located->nanoseconds / bare->nanoseconds, bare->nanoseconds,
                    looked->nanoseconds, looked->counters.at("allocs/lookup"));
  }
  Measured const* array = find("shadow/baseline-array");
  Measured const* map = find("shadow/HashMap2018");
  if (array && map) {
    KivBench::print(out, "Shadow probe of 8 slots: array %.1f ns, HashMap2018 %.1f ns = %.2fx\n",
                    array->nanoseconds, map->nanoseconds, map->nanoseconds / array->nanoseconds);
  }
}

void registerBenchmarks() {
  for (Shape const& shape : shapes) {
    for (Engine engine : {Engine::hitless, Engine::plain, Engine::bare}) {
      std::string const name = std::string("fill/") + shape.name + "/" + nameOf(engine);
      benchmark::RegisterBenchmark(
          name.c_str(), [&shape, engine](benchmark::State& state) { fill(state, shape, engine); })
          ->Iterations(fillRounds)
          ->Unit(benchmark::kMillisecond);
    }
  }
  for (Shape const& shape : shapes) {
    for (double load : {0.5, 0.9}) {
      for (Engine engine : {Engine::hitless, Engine::bare}) {
        std::string const name =
            "insert" + std::to_string(int(load * 100)) + "/" + shape.name + "/" + nameOf(engine);
        benchmark::RegisterBenchmark(name.c_str(),
                                     [&shape, engine, load](benchmark::State& state) {
                                       insertAtLoad(state, shape, engine, load);
                                     })
            ->Unit(benchmark::kMicrosecond)
            ->MinTime(0.2)
            ->Repetitions(3)
            ->ReportAggregatesOnly(true);
      }
    }
  }
  using benchmark::State;
  benchmark::RegisterBenchmark("lookup/baseline-bare", [](State& s) { lookup(s, 0); });
  benchmark::RegisterBenchmark("lookup/model-itemLocation", [](State& s) { lookup(s, 1); });
  benchmark::RegisterBenchmark("lookup/model-lookupItem", [](State& s) { lookup(s, 2); });
  benchmark::RegisterBenchmark("shadow/baseline-array", [](State& s) { shadowProbe(s, false); });
  benchmark::RegisterBenchmark("shadow/HashMap2018", [](State& s) { shadowProbe(s, true); });
}

KivBench::ProgramRegistrar const program({.registerBenchmarks = &registerBenchmarks,
                                          .summary = &KivBench::makeSummary<CuckooSummary>});

}  // namespace
