// 10,000 transactions from one coordinator through 1, 8 and 64 synchronous workers and through 8
// time-sliced workers, with an in-progress limit of 10,000 and of 100, on the wall clock. Each
// worker's doExecute answers success at once, so what is measured is the protocol: configs
// written, executions dispatched, statuses weighed, slots released and pending transactions
// started. Timed: the starts and the event-loop turns until every transaction has finished.
//
// Reported per benchmark, as the median of seven repetitions interleaved at random with the
// others' (so that load from other processes spreads over all of them): finished transactions
// per second and the CPU time per transaction per worker. The table at the end compares the latter
// with the run's baselines: one synchronous worker at the same limit (the aim: no growth with the
// number of workers, i.e. cost per transaction linear in it) and eight synchronous workers at the
// same limit for the time-sliced mode (the aim: within 2x).
#include "../BenchMain.h"

#include <Kiv/XactLib.h>

#include <Zel/Activity.h>
#include <Zel/System.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Zel::Ptr;
using Zel::U32;

constexpr U32 xactsPerRun = 10000;

class Worker : public Kiv::XactExecutorSm {
protected:
  using XactExecutorSm::XactExecutorSm;
  Kiv::ExecResult doExecute(Kiv::XactConfig const&) override {
    return Kiv::ExecResult(Kiv::XactResult::xactSuccess, "");
  }
};

// A coordinator and its workers on this thread's event loop.
class Cluster {
public:
  Cluster(U32 workers, U32 limit, bool timeSliced) {
    aggregator_->maxAllowedInProgressXactsIs(limit);
    for (U32 i = 0; i < workers; ++i) {
      std::string const name = std::string("w").append(std::to_string(i));
      auto configDir = Kiv::xactConfigDirFactory(name);
      auto statusDir = Kiv::xactStatusDirFactory(name);
      workers_.push_back(Kiv::xactExecutorSmFactory<Worker>(
          name, configDir, statusDir, timeSliced ? clock() : Ptr<Zel::Clock>()));
      aggregator_->xactConfigDirIs(configDir);
      aggregator_->xactStatusDirIs(statusDir);
    }
    for (U32 id = 1; id <= xactsPerRun; ++id) xacts_.push_back(Kiv::xactFactory(id));
  }
  // Workers go first, so that the aggregator's withdrawal of its configs reaches no one.
  ~Cluster() { workers_.clear(); }

  void run() {
    for (auto const& x : xacts_) aggregator_->doStartXact(x);
    auto const loop = Zel::activityManager();
    while (aggregator_->inProgressXactCount() + aggregator_->pendingXactCount() != 0) {
      loop->runOnce(0);
    }
  }

  bool allSucceeded() const {
    for (auto const& x : xacts_) {
      if (x->result() != Kiv::XactResult::xactSuccess || x->statusVersion() != 1) return false;
    }
    return true;
  }

private:
  static Ptr<Zel::Clock> const& clock() { return Zel::activityManager()->clock(); }

  Ptr<Kiv::XactAggregatorSm> aggregator_ = Kiv::xactAggregatorSmFactory("coordinator", clock());
  std::vector<Ptr<Worker>> workers_;
  std::vector<Ptr<Kiv::Xact>> xacts_;
};

void transactions(benchmark::State& state) {
  U32 const workers = static_cast<U32>(state.range(0));
  U32 const limit = static_cast<U32>(state.range(1));
  bool const timeSliced = state.range(2) != 0;
  for (auto _ : state) {
    state.PauseTiming();
    {
      Cluster cluster(workers, limit, timeSliced);
      state.ResumeTiming();
      cluster.run();
      state.PauseTiming();
      if (!cluster.allSucceeded()) state.SkipWithError("a transaction did not succeed");
    }
    state.ResumeTiming();
  }
  state.counters["xacts/s"] =
      benchmark::Counter(xactsPerRun, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["s/xact/worker"] = benchmark::Counter(
      double(xactsPerRun) * workers,
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

BENCHMARK(transactions)
    ->ArgNames({"workers", "limit", "sliced"})
    ->ArgsProduct({{1, 8, 64}, {10000, 100}, {0}})
    ->Args({8, 10000, 1})
    ->Args({8, 100, 1})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(0.1)
    ->Repetitions(7)
    ->ReportAggregatesOnly(true);

// Keeps each benchmark's median CPU time per iteration over its repetitions (the machine may be
// shared), then prints the ratios the aims are about.
class RatioSummary : public KivBench::Summary {
public:
  using Summary::Summary;

  void print(std::ostream& out) const override {
    out << "\nCPU time per transaction per worker (ns) and its ratio to the baseline:\n"
        << "  mode    limit  workers  ns/xact/worker  baseline                  ratio\n";
    for (auto const& [key, ns] : perXactWorker_) {
      auto const& [sliced, limit, workers] = key;
      auto const baseline = perXactWorker_.find({0, limit, sliced ? 8 : 1});
      if (baseline == perXactWorker_.end()) continue;
      KivBench::print(out, "  %-6s %6ld %8ld %15.1f  %-24s %6.2fx\n", sliced ? "sliced" : "sync",
                      limit, workers, ns,
                      sliced ? "8 sync workers, same limit" : "1 sync worker, same limit",
                      ns / baseline->second);
    }
  }

private:
  void record(Run const& run) override {
    long workers = 0, limit = 0, sliced = 0;
    std::sscanf(run.run_name.args.c_str(), "workers:%ld/limit:%ld/sliced:%ld", &workers, &limit,
                &sliced);
    perXactWorker_[{sliced, limit, workers}] =
        cpuNanoseconds(run) / (double(xactsPerRun) * workers);
  }

  std::map<std::tuple<long, long, long>, double> perXactWorker_;  // (sliced, limit, workers)
};

// Interleaving is the default here; a flag given on the command line still wins.
KivBench::ProgramRegistrar const program({.summary = &KivBench::makeSummary<RatioSummary>,
                                          .defaultFlags = {
                                              "--benchmark_enable_random_interleaving=true"}});

}  // namespace
