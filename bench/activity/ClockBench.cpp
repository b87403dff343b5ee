// The clock with a million notifiees under virtual time: arming, unarming, and firing them all
// through ActivityManager::runUntil, each beside a std::priority_queue baseline of the same events
// measured in the same iteration.
//
// The benchmark's own time is the clock's (manual timing in thread CPU time, one iteration = a
// million operations).
// The counters give nanoseconds per operation for both and their ratio, clock / baseline.
//
// The baseline cannot unarm in place, so it deletes lazily: unarming marks the event, and each
// marked event is popped and dropped when it reaches the top. Its unarm cost is the marking plus
// those pops: in a real mix the cancelled events are interleaved with live ones, so the queue
// cannot skip them by clearing itself once nothing live is left.
#include <Zel/Activity.h>
#include <Zel/Clock.h>
#include <Zel/System.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <memory>
#include <numeric>
#include <queue>
#include <random>
#include <vector>

namespace {

using Zel::Seconds;
using Zel::U64;

constexpr std::size_t count = 1'000'000;
constexpr Seconds horizon = 1e6;

// The same million random times and a random unarming order for every benchmark.
struct Workload {
  std::vector<Seconds> times;
  std::vector<std::size_t> unarmOrder;

  static Workload const& get() {
    static Workload const workload = [] {
      Workload w;
      std::mt19937_64 random(42);
      std::uniform_real_distribution<Seconds> time(1, horizon);
      w.times.resize(count);
      for (Seconds& t : w.times) t = time(random);
      w.unarmOrder.resize(count);
      std::iota(w.unarmOrder.begin(), w.unarmOrder.end(), std::size_t(0));
      std::shuffle(w.unarmOrder.begin(), w.unarmOrder.end(), random);
      return w;
    }();
    return workload;
  }
};

class Tick : public Zel::Clock::NotifieeConst {
public:
  void onTime() override { benchmark::DoNotOptimize(++fired); }
  static inline U64 fired = 0;
};

std::unique_ptr<Tick[]> attachedTicks() {
  auto ticks = std::make_unique<Tick[]>(count);
  for (std::size_t i = 0; i < count; ++i) ticks[i].notifierIs(Zel::activityManager()->clock());
  return ticks;
}

// The baseline's counterpart of a notifiee: a virtual handler and the lazy-deletion mark.
class Target {
public:
  virtual ~Target() = default;
  virtual void onTime() { benchmark::DoNotOptimize(++fired); }
  bool cancelled = false;
  static inline U64 fired = 0;
};

struct Event {
  Seconds time;
  U64 order;
  Target* target;
};
struct Later {
  bool operator()(Event const& a, Event const& b) const noexcept {
    return a.time > b.time || (a.time == b.time && a.order > b.order);
  }
};
using Baseline = std::priority_queue<Event, std::vector<Event>, Later>;

Baseline reservedBaseline() {
  std::vector<Event> storage;
  storage.reserve(count);
  return Baseline(Later{}, std::move(storage));
}

void pushAll(Baseline& queue, std::vector<Target>& targets) {
  auto const& times = Workload::get().times;
  for (std::size_t i = 0; i < count; ++i) queue.push(Event{times[i], i, &targets[i]});
}

// The thread's CPU time, so that both sides are timed alike on a machine shared with builds.
double threadSeconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

template <class Work>
double secondsOf(Work&& work) {
  double const begin = threadSeconds();
  work();
  return threadSeconds() - begin;
}

// Sums both sides over the iterations; report() gives them per operation.
class Tally {
public:
  explicit Tally(benchmark::State& state) : state_(state) {}
  void report() {
    double const ops = double(state_.iterations()) * count;
    state_.counters["clock_ns"] = clock_ * 1e9 / ops;
    state_.counters["baseline_ns"] = baseline_ * 1e9 / ops;
    state_.counters["ratio"] = clock_ / baseline_;
  }
  void clock(double seconds) {
    clock_ += seconds;
    state_.SetIterationTime(seconds);
  }
  void baseline(double seconds) { baseline_ += seconds; }

private:
  benchmark::State& state_;
  double clock_ = 0;
  double baseline_ = 0;
};

void armAll(Tick* ticks) {
  auto const& times = Workload::get().times;
  for (std::size_t i = 0; i < count; ++i) ticks[i].timeMinIs(times[i]);
}

void unarmAll(Tick* ticks) {
  for (std::size_t i : Workload::get().unarmOrder) ticks[i].timeMinIs(Zel::endOfTime);
}

void ClockArm(benchmark::State& state) {
  Tally tally(state);
  auto ticks = attachedTicks();
  std::vector<Target> targets(count);
  for (auto _ : state) {
    tally.clock(secondsOf([&] { armAll(ticks.get()); }));
    unarmAll(ticks.get());
    Baseline queue = reservedBaseline();
    tally.baseline(secondsOf([&] { pushAll(queue, targets); }));
  }
  tally.report();
}

void ClockUnarm(benchmark::State& state) {
  Tally tally(state);
  auto ticks = attachedTicks();
  std::vector<Target> targets(count);
  for (auto _ : state) {
    armAll(ticks.get());
    tally.clock(secondsOf([&] { unarmAll(ticks.get()); }));
    Baseline queue = reservedBaseline();
    pushAll(queue, targets);
    tally.baseline(secondsOf([&] {
      for (std::size_t i : Workload::get().unarmOrder) targets[i].cancelled = true;
      for (; !queue.empty(); queue.pop()) {
        if (!queue.top().target->cancelled) queue.top().target->onTime();
      }
    }));
    for (Target& target : targets) target.cancelled = false;
  }
  tally.report();
}

void ClockFire(benchmark::State& state) {
  Tally tally(state);
  auto ticks = attachedTicks();
  std::vector<Target> targets(count);
  auto manager = Zel::activityManager();
  U64 const ticksBefore = Tick::fired;
  U64 const targetsBefore = Target::fired;
  for (auto _ : state) {
    Zel::System::virtualTimeIs(0);
    armAll(ticks.get());
    tally.clock(secondsOf([&] { manager->runUntil(horizon); }));
    Baseline queue = reservedBaseline();
    pushAll(queue, targets);
    Seconds now = 0;
    tally.baseline(secondsOf([&] {
      for (; !queue.empty(); queue.pop()) {
        now = queue.top().time;
        benchmark::DoNotOptimize(now);
        queue.top().target->onTime();
      }
    }));
  }
  Zel::System::virtualTimeDel();
  tally.report();
  if (Tick::fired - ticksBefore != Target::fired - targetsBefore) {
    state.SkipWithError("the clock and the baseline fired different numbers of events");
  }
}

}  // namespace

// A firing iteration takes most of a second; two seconds give each benchmark a few iterations.
BENCHMARK(ClockArm)->UseManualTime()->MinTime(2)->Unit(benchmark::kMillisecond);
BENCHMARK(ClockUnarm)->UseManualTime()->MinTime(2)->Unit(benchmark::kMillisecond);
BENCHMARK(ClockFire)->UseManualTime()->MinTime(2)->Unit(benchmark::kMillisecond);
