// The reporter the benchmark programs build their summaries on: it forwards every report to the
// display reporter and hands each run that measured something to record(): the run itself, or
// with --benchmark_repetitions only the median.
#pragma once

#include <benchmark/benchmark.h>

#include <vector>

namespace KivBench {

class ForwardingReporter : public benchmark::BenchmarkReporter {
public:
  explicit ForwardingReporter(benchmark::BenchmarkReporter& display) : display_(display) {}

  bool ReportContext(Context const& context) override { return display_.ReportContext(context); }
  void ReportRuns(std::vector<Run> const& runs) override {
    display_.ReportRuns(runs);
    for (Run const& run : runs) {
      if (run.error_occurred) continue;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
      record(run);
    }
  }
  void Finalize() override { display_.Finalize(); }

protected:
  // CPU time per iteration, in nanoseconds.
  static double cpuNanoseconds(Run const& run) {
    return run.GetAdjustedCPUTime() * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
  }

private:
  virtual void record(Run const& run) = 0;

  benchmark::BenchmarkReporter& display_;
};

}  // namespace KivBench
