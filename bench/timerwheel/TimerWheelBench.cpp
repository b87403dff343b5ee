// The timer wheel's cost per operation with 10K, 100K and 1M live timers (10 ms ticks, deadlines
// uniform in 10 ms .. 1 h), beside two baselines measured in the same run:
//   heap   a binary-heap timer queue: an indexed min-heap of timer pointers, the usual design;
//   clock  the activity clock's own notifiee queue (Zel::Clock, an indexed heap of slots).
// Operations: armDisarm (disarm a random live timer and arm it again: the timer and its
// neighbours are cold), timeout (arm a timer and disarm it before it fires, as a request's
// timeout is, with 1024 requests in flight among the n live timers), move (give a random live
// timer a new deadline), postpone (give a random live timer the latest deadline yet, as activity
// pushes back an idle timer) and expire (run virtual time through the hour until every timer
// fired; wheel and clock pay the event loop, the heap only pops). Every queue's timer fills one
// 64-byte line, as a timer embedded in its owner would. Time is virtual, so the wheel's reads of
// the time cost no system call.
//
// The table at the end gives nanoseconds per operation, the heap's and the clock's cost as
// multiples of the wheel's, and each queue's cost at 1M as a multiple of its cost at 10K.
#include "../BenchMain.h"

#include <Kiv/HTimerWheel.h>

#include <Zel/Activity.h>
#include <Zel/Clock.h>
#include <Zel/System.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using Zel::Seconds;
using Zel::U32;
using Zel::U64;

constexpr Seconds start = 1000.0;
constexpr Seconds horizon = 3600.0;
constexpr U32 sizes[] = {10000, 100000, 1000000};
// Requests in flight in the timeout benchmark: timers n .. n + inFlight - 1 of every queue.
constexpr U32 inFlight = 1024;

// Random draws, made once so that every queue sees the same sequence and no generator runs
// inside the timed loops.
struct Draws {
  static constexpr std::size_t count = 1 << 20;
  std::vector<U32> picks;
  std::vector<Seconds> deadlines;

  Draws() : picks(count), deadlines(count) {
    std::mt19937_64 random(7);
    for (std::size_t i = 0; i < count; ++i) {
      picks[i] = static_cast<U32>(random());
      deadlines[i] = start + 0.010 + (horizon - 0.010) * (random() >> 11) * 0x1.0p-53;
    }
  }
  U32 pick(std::size_t k, U32 n) const {
    return static_cast<U32>((U64(picks[k % count]) * n) >> 32);
  }
  Seconds deadline(std::size_t k) const { return deadlines[k % count]; }
};
Draws const& draws() {
  static Draws const all;
  return all;
}

Zel::Ptr<Zel::Clock> const& loopClock() { return Zel::activityManager()->clock(); }

// ---- The three queues, each holding n timers -------------------------------------------------

// A timer fills one line, as a timer embedded in its owner would, and counts its expiry.
struct alignas(64) WheelTimer : Kiv::TimerWheel::NotifieeConst {
  void onTimeMin() override { ++*expired; }
  U64* expired = nullptr;
};
struct alignas(64) ClockTimer : Zel::Clock::NotifieeConst {
  void onTime() override { ++*expired; }
  U64* expired = nullptr;
};

// The wheel's and the clock's queues differ only in what their timers attach to.
template <class Timer, class Notifier>
class NotifieeQueue {
public:
  NotifieeQueue(U32 n, Zel::Ptr<Notifier> notifier)
      : notifier_(std::move(notifier)), timers_(new Timer[n + inFlight]) {
    for (U32 i = 0; i < n + inFlight; ++i) {
      timers_[i].expired = &expired_;
      timers_[i].notifierIs(notifier_);
    }
  }
  void arm(U32 i, Seconds t) { timers_[i].timeMinIs(t); }
  void disarm(U32 i) { timers_[i].timeMinIs(Zel::endOfTime); }
  void move(U32 i, Seconds t) { timers_[i].timeMinIs(t); }
  U64 expireAll() {
    Zel::activityManager()->runUntil(start + horizon + 1);
    return expired_;
  }

private:
  Zel::Ptr<Notifier> notifier_;
  std::unique_ptr<Timer[]> timers_;
  U64 expired_ = 0;
};

struct WheelQueue : NotifieeQueue<WheelTimer, Kiv::TimerWheel> {
  explicit WheelQueue(U32 n)
      : NotifieeQueue(n, Kiv::timerWheelFactory(loopClock(), 10, 360000, true, 256)) {}
};

struct ClockQueue : NotifieeQueue<ClockTimer, Zel::Clock> {
  explicit ClockQueue(U32 n) : NotifieeQueue(n, loopClock()) {}
};

class HeapQueue {
public:
  explicit HeapQueue(U32 n) : timers_(n + inFlight) { heap_.reserve(n + inFlight); }
  void arm(U32 i, Seconds t) {
    timers_[i].deadline = t;
    timers_[i].index = heap_.size();
    heap_.push_back(&timers_[i]);
    siftUp(timers_[i].index);
  }
  void disarm(U32 i) {
    std::size_t const at = timers_[i].index;
    timers_[i].index = notInHeap;
    Timer* const last = heap_.back();
    heap_.pop_back();
    if (at == heap_.size()) return;
    place(at, last);
    if (at > 0 && last->deadline < heap_[(at - 1) / 2]->deadline) {
      siftUp(at);
    } else {
      siftDown(at);
    }
  }
  void move(U32 i, Seconds t) {
    disarm(i);
    arm(i, t);
  }
  U64 expireAll() {
    U64 expired = 0;
    while (!heap_.empty()) {
      disarm(static_cast<U32>(heap_.front() - timers_.data()));
      ++expired;
    }
    return expired;
  }

private:
  static constexpr std::size_t notInHeap = ~std::size_t(0);
  struct alignas(64) Timer {
    Seconds deadline = 0;
    std::size_t index = notInHeap;
  };
  void place(std::size_t at, Timer* t) {
    heap_[at] = t;
    t->index = at;
  }
  void siftUp(std::size_t at) {
    Timer* const moving = heap_[at];
    while (at > 0 && moving->deadline < heap_[(at - 1) / 2]->deadline) {
      place(at, heap_[(at - 1) / 2]);
      at = (at - 1) / 2;
    }
    place(at, moving);
  }
  void siftDown(std::size_t at) {
    Timer* const moving = heap_[at];
    for (std::size_t child; (child = 2 * at + 1) < heap_.size(); at = child) {
      if (child + 1 < heap_.size() && heap_[child + 1]->deadline < heap_[child]->deadline) ++child;
      if (!(heap_[child]->deadline < moving->deadline)) break;
      place(at, heap_[child]);
    }
    place(at, moving);
  }
  std::vector<Timer> timers_;
  std::vector<Timer*> heap_;
};

// The queue that armDisarm and move share: n timers armed with the shared deadlines, kept from
// one benchmark to the next. One queue lives at a time, and none while timers expire, since the
// wheel and the clock queue arm the loop's own clock.
std::shared_ptr<void> live;
std::string liveName;

void liveDel() {
  live.reset();
  liveName.clear();
}

template <class Queue>
Queue& liveQueue(char const* name, U32 n) {
  std::string const wanted = name + std::to_string(n);
  if (liveName != wanted) {
    liveDel();
    Zel::System::virtualTimeIs(start);
    auto queue = std::make_shared<Queue>(n);
    for (U32 i = 0; i < n; ++i) queue->arm(i, draws().deadline(i));
    live = queue;
    liveName = wanted;
  }
  return *static_cast<Queue*>(live.get());
}

void perOperation(benchmark::State& state, double operationsPerIteration) {
  state.counters["per_op"] =
      benchmark::Counter(operationsPerIteration, benchmark::Counter::kIsIterationInvariantRate |
                                                     benchmark::Counter::kInvert);
}

template <class Queue>
void armDisarm(benchmark::State& state, char const* name, U32 n) {
  Queue& queue = liveQueue<Queue>(name, n);
  std::size_t k = n;
  for (auto _ : state) {
    U32 const i = draws().pick(k, n);
    queue.disarm(i);
    queue.arm(i, draws().deadline(k));
    ++k;
  }
  perOperation(state, 1);
}

template <class Queue>
void timeout(benchmark::State& state, char const* name, U32 n) {
  Queue& queue = liveQueue<Queue>(name, n);
  for (U32 r = 0; r < inFlight; ++r) queue.arm(n + r, draws().deadline(r));
  std::size_t k = inFlight;
  for (auto _ : state) {
    U32 const i = n + static_cast<U32>(k % inFlight);
    queue.disarm(i);  // the reply to the request armed inFlight operations ago
    queue.arm(i, draws().deadline(k));
    ++k;
  }
  for (U32 r = 0; r < inFlight; ++r) queue.disarm(n + r);
  perOperation(state, 1);
}

template <class Queue>
void move(benchmark::State& state, char const* name, U32 n) {
  Queue& queue = liveQueue<Queue>(name, n);
  std::size_t k = n;
  for (auto _ : state) {
    queue.move(draws().pick(k, n), draws().deadline(k));
    ++k;
  }
  perOperation(state, 1);
}

template <class Queue>
void postpone(benchmark::State& state, char const* name, U32 n) {
  Queue& queue = liveQueue<Queue>(name, n);
  std::size_t k = n;
  for (auto _ : state) {
    queue.move(draws().pick(k, n), start + horizon + 1e-6 * Seconds(k));
    ++k;
  }
  perOperation(state, 1);
}

template <class Queue>
void expire(benchmark::State& state, U32 n) {
  liveDel();
  for (auto _ : state) {
    state.PauseTiming();
    Zel::System::virtualTimeIs(start);
    auto queue = std::make_unique<Queue>(n);
    for (U32 i = 0; i < n; ++i) queue->arm(i, draws().deadline(i));
    state.ResumeTiming();
    if (queue->expireAll() != n) state.SkipWithError("not every timer expired");
    state.PauseTiming();
    queue.reset();
    state.ResumeTiming();
  }
  perOperation(state, n);
}

template <class Queue>
void registerQueue(char const* name) {
  for (U32 n : sizes) {
    std::string const suffix = std::string("/") + name + "/" + std::to_string(n);
    // Fixed iteration counts keep the whole run near half a minute.
    benchmark::RegisterBenchmark(("armDisarm" + suffix).c_str(), armDisarm<Queue>, name, n)
        ->Iterations(1000000);
    benchmark::RegisterBenchmark(("timeout" + suffix).c_str(), timeout<Queue>, name, n)
        ->Iterations(1000000);
    benchmark::RegisterBenchmark(("move" + suffix).c_str(), move<Queue>, name, n)
        ->Iterations(1000000);
    benchmark::RegisterBenchmark(("postpone" + suffix).c_str(), postpone<Queue>, name, n)
        ->Iterations(1000000);
    benchmark::RegisterBenchmark(("expire" + suffix).c_str(), expire<Queue>, n)
        ->Iterations(std::max<U32>(1, 2000000 / n))
        ->Unit(benchmark::kMillisecond);
  }
}

// Keeps every run's time per operation for the table.
class TableSummary : public KivBench::Summary {
  using Key = std::tuple<std::string, unsigned long, std::string>;  // operation, timers, queue

public:
  using Summary::Summary;

  void print(std::ostream& out) const override {
    KivBench::print(out, "\n%-10s %8s %10s %10s %10s %11s %11s\n", "operation", "timers",
                    "wheel ns", "heap ns", "clock ns", "heap/wheel", "clock/wheel");
    for (char const* op : {"armDisarm", "timeout", "move", "postpone", "expire"}) {
      for (U32 n : sizes) {
        double const w = at(op, n, "wheel"), h = at(op, n, "heap"), c = at(op, n, "clock");
        KivBench::print(out, "%-10s %8u %10.1f %10.1f %10.1f %10.2fx %10.2fx\n", op, n, w, h, c,
                        h / w, c / w);
      }
    }
    out << "\nCost at 1M timers as a multiple of the cost at 10K:\n";
    for (char const* op : {"armDisarm", "timeout", "move", "postpone", "expire"}) {
      KivBench::print(out, "%-10s", op);
      for (char const* queue : {"wheel", "heap", "clock"}) {
        KivBench::print(out, "   %s %5.2fx", queue,
                        at(op, sizes[2], queue) / at(op, sizes[0], queue));
      }
      out << '\n';
    }
  }

private:
  double at(std::string const& op, unsigned long n, std::string const& queue) const {
    auto const it = nanoseconds_.find({op, n, queue});
    return it == nanoseconds_.end() ? 0.0 : it->second;
  }
  // Benchmark names read "<operation>/<queue>/<timers>".
  void record(Run const& run) override {
    std::string const name = run.run_name.function_name;
    std::size_t const op = name.find('/'), queue = name.find('/', op + 1);
    auto const counter = run.counters.find("per_op");
    if (queue == std::string::npos || counter == run.counters.end()) return;
    Key const key{name.substr(0, op), std::stoul(name.substr(queue + 1)),
                  name.substr(op + 1, queue - op - 1)};
    nanoseconds_[key] = counter->second.value * 1e9;
  }

  std::map<Key, double> nanoseconds_;
};

void registerQueues() {
  registerQueue<WheelQueue>("wheel");
  registerQueue<HeapQueue>("heap");
  registerQueue<ClockQueue>("clock");
}

// The last queue's timers go before the process ends, and virtual time with them.
void finish() {
  liveDel();
  Zel::System::virtualTimeDel();
}

KivBench::ProgramRegistrar const program({.registerBenchmarks = &registerQueues,
                                          .summary = &KivBench::makeSummary<TableSummary>,
                                          .finish = &finish});

}  // namespace
