// The main of every benchmark program; see BenchMain.h.
#include "BenchMain.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>

namespace KivBench {

namespace {

std::optional<Program>& registered() {
  static std::optional<Program> program;
  return program;
}

// The command line with the program's default flags after the program name, so that a flag the
// command line gives itself comes later and wins.
std::vector<char*> withDefaults(int argc, char** argv, std::vector<char const*> const& defaults) {
  std::vector<char*> args(argv, argv + argc);
  for (auto flag = defaults.rbegin(); flag != defaults.rend(); ++flag) {
    args.insert(args.begin() + 1, const_cast<char*>(*flag));
  }
  return args;
}

}  // namespace

ProgramRegistrar::ProgramRegistrar(Program program) {
  if (registered()) {
    std::fputs("kiv-bench: two programs registered in one executable\n", stderr);
    std::abort();
  }
  registered() = std::move(program);
}

void Summary::ReportRuns(std::vector<Run> const& runs) {
  display_.ReportRuns(runs);
  for (Run const& run : runs) {
    if (run.error_occurred) continue;
    if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
    record(run);
  }
}

double Summary::cpuNanoseconds(Run const& run) {
  return run.GetAdjustedCPUTime() * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
}

void print(std::ostream& out, char const* format, ...) {
  char line[512];
  std::va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  out << line;
}

}  // namespace KivBench

int main(int argc, char** argv) {
  KivBench::Program const program = KivBench::registered().value_or(KivBench::Program{});
  std::vector<char*> args = KivBench::withDefaults(argc, argv, program.defaultFlags);
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
  if (program.registerBenchmarks) program.registerBenchmarks();
  // The library makes the display reporter that --benchmark_format asks for.
  std::unique_ptr<benchmark::BenchmarkReporter> display(benchmark::CreateDefaultDisplayReporter());
  std::unique_ptr<KivBench::Summary> summary =
      program.summary ? program.summary(*display) : nullptr;
  benchmark::RunSpecifiedBenchmarks(summary ? summary.get() : display.get());
  if (program.finish) program.finish();
  if (summary) {
    bool const console = dynamic_cast<benchmark::ConsoleReporter*>(display.get()) != nullptr;
    std::cout.flush();
    summary->print(console ? std::cout : std::cerr);
  }
  benchmark::Shutdown();
  return 0;
}
