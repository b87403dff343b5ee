// kiv-bench-runtime's summary: after the run, each benchmark's time as a ratio to the baseline of
// its group, measured in the same run.
//
// A benchmark named "<group>/<variant>" belongs to <group>; the variant whose name starts with
// "baseline" is the group's baseline.
#include "../BenchMain.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace {

// Keeps each benchmark's CPU time per iteration: the run's own, or with --benchmark_repetitions
// the median of the runs.
class RatioSummary : public KivBench::Summary {
public:
  using Summary::Summary;

  // Prints one line per non-baseline benchmark whose group has a baseline that ran.
  void print(std::ostream& out) const override;

private:
  struct Measured {
    std::string group;
    std::string variant;
    double nanoseconds;
  };

  void record(Run const& run) override;
  Measured const* baselineOf(std::string const& group) const;

  std::vector<Measured> measured_;  // in the order the benchmarks ran
};

void RatioSummary::record(Run const& run) {
  std::string const name = run.run_name.str();
  std::size_t const slash = name.find('/');
  if (slash == std::string::npos) return;
  Measured entry{name.substr(0, slash), name.substr(slash + 1), cpuNanoseconds(run)};
  auto same = std::find_if(measured_.begin(), measured_.end(), [&](Measured const& m) {
    return m.group == entry.group && m.variant == entry.variant;
  });
  // A later report of the same benchmark is its median over the repetitions.
  if (same != measured_.end()) {
    *same = entry;
  } else {
    measured_.push_back(entry);
  }
}

RatioSummary::Measured const* RatioSummary::baselineOf(std::string const& group) const {
  for (Measured const& m : measured_) {
    if (m.group == group && std::string_view(m.variant).starts_with("baseline")) return &m;
  }
  return nullptr;
}

void RatioSummary::print(std::ostream& out) const {
  std::size_t width = 0;
  for (Measured const& m : measured_)
    width = std::max(width, m.group.size() + 1 + m.variant.size());
  bool headerDone = false;
  for (Measured const& m : measured_) {
    Measured const* baseline = baselineOf(m.group);
    if (!baseline || baseline == &m) continue;
    if (!headerDone) {
      out << "\nRatio to the group's baseline (CPU time per iteration, this run):\n";
      headerDone = true;
    }
    KivBench::print(out, "%-*s %9.2f ns   %-*s %9.2f ns   %7.2fx\n", int(width),
                    (m.group + "/" + m.variant).c_str(), m.nanoseconds, int(width),
                    (baseline->group + "/" + baseline->variant).c_str(), baseline->nanoseconds,
                    m.nanoseconds / baseline->nanoseconds);
  }
}

KivBench::ProgramRegistrar const program({.summary = &KivBench::makeSummary<RatioSummary>});

}  // namespace
