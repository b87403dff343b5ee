// The one main of the benchmark programs (bench/BenchMain.cpp), and what a program adds to it.
//
// Every program under bench/ links BenchMain.cpp, which runs the benchmarks named on the command
// line as Google Benchmark's own main does. A program that registers benchmarks at run time, keeps
// flags of its own or prints tables after the run says so with one line at namespace scope:
//
//   KivBench::ProgramRegistrar const program({.registerBenchmarks = &registerQueues,
//                                              .summary = &KivBench::makeSummary<TableReporter>});
//
// A summary sees every report as it passes to the display reporter, and prints its tables once
// every benchmark has run: on standard output under the console format, on standard error under a
// machine-readable one (--benchmark_format=json), so that such output stays parseable.
#pragma once

#include <benchmark/benchmark.h>

#include <iosfwd>
#include <memory>
#include <vector>

namespace KivBench {

// A program's tables: forwards every report to the display reporter and hands record() each run
// that measured something (the run itself, or with --benchmark_repetitions only the median).
class Summary : public benchmark::BenchmarkReporter {
public:
  explicit Summary(benchmark::BenchmarkReporter& display) : display_(display) {}

  bool ReportContext(Context const& context) override { return display_.ReportContext(context); }
  void ReportRuns(std::vector<Run> const& runs) override;
  void Finalize() override { display_.Finalize(); }

  // Writes the tables, after every benchmark has run.
  virtual void print(std::ostream& out) const = 0;

protected:
  // CPU time per iteration, in nanoseconds.
  static double cpuNanoseconds(Run const& run);

private:
  virtual void record(Run const& run) = 0;

  benchmark::BenchmarkReporter& display_;
};

template <class S>
std::unique_ptr<Summary> makeSummary(benchmark::BenchmarkReporter& display) {
  return std::make_unique<S>(display);
}

// What a program adds to the shared main; every part is optional.
struct Program {
  // Registers the benchmarks that are not registered statically (after the flags are parsed).
  void (*registerBenchmarks)() = nullptr;
  // Makes the program's summary.
  std::unique_ptr<Summary> (*summary)(benchmark::BenchmarkReporter& display) = nullptr;
  // Runs after the last benchmark, before the summary prints: releases what the runs kept.
  void (*finish)() = nullptr;
  // Flags in force unless the command line gives its own.
  std::vector<char const*> defaultFlags = {};
};

// Makes `program` the one the shared main runs; at most one per executable.
class ProgramRegistrar {
public:
  explicit ProgramRegistrar(Program program);
};

// printf into `out`: the summaries' tables line up most easily with printf formats.
[[gnu::format(printf, 2, 3)]] void print(std::ostream& out, char const* format, ...);

}  // namespace KivBench
