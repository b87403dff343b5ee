// The runtime's per-operation costs, each beside the plain C++ it stands in for: a Ptr copy
// against a raw pointer copy, a notifying mutator against a compare-and-store of a plain field,
// and the attribute-log form of a small value type against a memcpy of its bytes.
//
// Names are "<group>/<variant>"; the variant starting with "baseline" is the one that
// RatioMain.cpp divides the others of its group by.
#include <Zel/Entity.h>
#include <Zel/NboAttrLog.h>
#include <Zel/Value.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <vector>

namespace {

using Zel::U16;
using Zel::U32;

// Eight bytes of payload in three fields of two widths, like a typical log-record key.
class Stamp : public Zel::Value<Stamp> {
public:
  U32 timestamp() const { return timestamp_; }
  void timestampIs(U32 v) { timestamp_ = v; }
  U16 pid() const { return pid_; }
  void pidIs(U16 v) { pid_ = v; }
  U16 sequence() const { return sequence_; }
  void sequenceIs(U16 v) { sequence_ = v; }

  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::BenchStamp",
                            Zel::field("timestamp", &Stamp::timestamp, &Stamp::timestampIs),
                            Zel::field("pid", &Stamp::pid, &Stamp::pidIs),
                            Zel::field("sequence", &Stamp::sequence, &Stamp::sequenceIs));
  }

private:
  U32 timestamp_ = 0;
  U16 pid_ = 0;
  U16 sequence_ = 0;
};
static_assert(sizeof(Stamp) == 8, "the memcpy baseline copies exactly the three fields");

Stamp sampleStamp() {
  Stamp s;
  s.timestampIs(0x5f3e2a10);
  s.pidIs(4321);
  s.sequenceIs(17);
  return s;
}

class Gauge;
Zel::Ptr<Gauge> gaugeFactory();

// The smallest observable entity: one scalar with the standard one-line mutator.
class Gauge : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<Gauge> {
  public:
    virtual void onLevel() {}
  };

  U32 level() const { return level_; }
  void levelIs(U32 v) { attributeIs(level_, v, &NotifieeConst::onLevel); }

protected:
  Gauge() = default;

private:
  U32 level_ = 0;
};

Zel::Ptr<Gauge> gaugeFactory() { return Zel::allocate<Gauge>(); }

class LevelCounter : public Gauge::NotifieeConst {
public:
  void onLevel() override { ++calls_; }

private:
  U32 calls_ = 0;
};

// The baseline's field sits behind a pointer, like the entity's, so both loops reload it.
struct PlainGauge {
  U32 level = 0;
};

// Restores the process-wide switch when the benchmark ends, even if it is cut short.
class ThreadSafePointersScope {
public:
  explicit ThreadSafePointersScope(bool on) : previous_(Zel::threadSafePointers()) {
    Zel::threadSafePointersIs(on);
  }
  ~ThreadSafePointersScope() { Zel::threadSafePointersIs(previous_); }
  ThreadSafePointersScope(ThreadSafePointersScope const&) = delete;
  ThreadSafePointersScope& operator=(ThreadSafePointersScope const&) = delete;

private:
  bool previous_;
};

// ---------------------------------------------------------------- Ptr copy

void ptrCopyRaw(benchmark::State& state) {
  Zel::Ptr<Gauge> const gauge = gaugeFactory();
  Gauge* raw = gauge.ptr();
  for (auto _ : state) {
    Gauge* copy = raw;
    benchmark::DoNotOptimize(copy);
  }
}

void ptrCopyCounted(benchmark::State& state, bool threadSafe) {
  ThreadSafePointersScope scope(threadSafe);
  Zel::Ptr<Gauge> const gauge = gaugeFactory();
  for (auto _ : state) {
    Zel::Ptr<Gauge> copy(gauge);
    benchmark::DoNotOptimize(copy);
  }
}

BENCHMARK(ptrCopyRaw)->Name("PtrCopy/baseline_raw_pointer");
BENCHMARK_CAPTURE(ptrCopyCounted, plain, false)->Name("PtrCopy/plain_count");
BENCHMARK_CAPTURE(ptrCopyCounted, atomic, true)->Name("PtrCopy/atomic_count");

// ---------------------------------------------------------------- scalar mutator
//
// Each loop alternates between two values so that every iteration really stores, and clobbers
// memory so that the store is neither sunk out of the loop nor the compare folded away.

void mutatorCompareStore(benchmark::State& state) {
  auto plain = std::make_unique<PlainGauge>();
  PlainGauge* gauge = plain.get();
  benchmark::DoNotOptimize(gauge);
  U32 next = 1;
  for (auto _ : state) {
    if (gauge->level != next) gauge->level = next;
    next ^= 1;
    benchmark::ClobberMemory();
  }
}

void mutatorAttributeIs(benchmark::State& state, bool watched) {
  Zel::Ptr<Gauge> const owner = gaugeFactory();
  Gauge* gauge = owner.ptr();
  benchmark::DoNotOptimize(gauge);
  LevelCounter counter;
  if (watched) counter.notifierIs(owner);
  U32 next = 1;
  for (auto _ : state) {
    gauge->levelIs(next);
    next ^= 1;
    benchmark::ClobberMemory();
  }
}

BENCHMARK(mutatorCompareStore)->Name("ScalarMutator/baseline_compare_store");
BENCHMARK_CAPTURE(mutatorAttributeIs, unwatched, false)->Name("ScalarMutator/no_notifiee");
BENCHMARK_CAPTURE(mutatorAttributeIs, watched, true)->Name("ScalarMutator/one_notifiee");

// ---------------------------------------------------------------- attribute log

void attrLogMemcpy(benchmark::State& state) {
  Stamp source = sampleStamp();
  unsigned char buffer[sizeof(Stamp)];
  for (auto _ : state) {
    benchmark::DoNotOptimize(source);
    std::memcpy(buffer, &source, sizeof buffer);
    benchmark::DoNotOptimize(buffer);
  }
}

// Out keeps its capacity across clear(), so the loop measures encoding, not allocation.
void attrLogWrite(benchmark::State& state) {
  Stamp source = sampleStamp();
  Zel::NboAttrLog::Out out;
  out.reserve(sizeof(Stamp));
  for (auto _ : state) {
    out.clear();
    benchmark::DoNotOptimize(source);
    out << source;
    benchmark::DoNotOptimize(out.bytes().data());
    benchmark::ClobberMemory();
  }
}

void attrLogRead(benchmark::State& state) {
  Zel::NboAttrLog::Out out;
  out << sampleStamp();
  std::vector<Zel::U8> const& bytes = out.bytes();
  Stamp target;
  for (auto _ : state) {
    benchmark::DoNotOptimize(bytes.data());
    Zel::NboAttrLog::In in(bytes);
    in >> target;
    benchmark::DoNotOptimize(target);
  }
}

BENCHMARK(attrLogMemcpy)->Name("AttrLogU32U16U16/baseline_memcpy_8_bytes");
BENCHMARK(attrLogWrite)->Name("AttrLogU32U16U16/write_out");
BENCHMARK(attrLogRead)->Name("AttrLogU32U16U16/read_in");

}  // namespace
