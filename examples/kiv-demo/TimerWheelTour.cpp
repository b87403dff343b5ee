// The timer-wheel tour: 100,000 leases with deadlines from a millisecond to an hour share one
// wheel of 10 ms ticks, run in virtual time. It shows how many fire in each simulated minute, how
// late they fire, how the levels empty as the wheel cascades, and how few clock events it takes.
#include "Tour.h"

#include <Kiv/HTimerWheel.h>

#include <Zel/Activity.h>
#include <Zel/System.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace KivDemo {
namespace {

using Zel::Seconds;
using Zel::U32;
using Zel::U64;

constexpr Seconds start = 1000.0;
constexpr U32 tickMsecs = 10;
constexpr Seconds tick = tickMsecs / 1000.0;

// What the leases have in common: the lateness of those that expired since the last report.
struct ExpiryLog {
  U64 fired = 0;
  U64 early = 0;
  Seconds latest = 0;  // the largest lateness, in ticks
};

// An owner of one timer, in the pattern the wheel's header shows.
class Lease {
public:
  Lease(Zel::Ptr<Kiv::TimerWheel const> const& wheel, ExpiryLog& log, Seconds deadline)
      : log_(log), deadline_(deadline) {
    zelTimer_.notifierIs(wheel);
    zelTimer_.timeMinIs(deadline);
  }

private:
  class ZelTimer : public Kiv::TimerWheel::NotifieeConst {
  public:
    explicit ZelTimer(Lease& owner) : owner_(owner) {}
    void onTimeMin() override { owner_.handleTimer(); }

  private:
    Lease& owner_;
  };

  void handleTimer() {
    Seconds const lateness = (Zel::System::currentTime() - deadline_) / tick;
    ++log_.fired;
    // Deadlines round to the nearest millisecond, so up to half a millisecond early is on time.
    if (lateness < -0.05 - 1e-6) ++log_.early;
    log_.latest = std::max(log_.latest, lateness);
  }

  ExpiryLog& log_;
  Seconds deadline_;
  ZelTimer zelTimer_{*this};
};

std::string levelCounts(Kiv::TimerWheel const& wheel) {
  std::string text;
  for (U32 level = 0; level < wheel.bucketCount(); ++level) {
    char column[16];
    std::snprintf(column, sizeof column, "%9u", wheel.timer(level));
    text += column;
  }
  return text;
}

// Runs the loop to `until`, returning the number of clock events it fired.
U64 runTo(Seconds until) {
  auto const activity = Zel::activityManager();
  U64 events = 0;
  for (Seconds next = activity->clock()->nextTime(); next <= until;
       next = activity->clock()->nextTime()) {
    if (next > Zel::System::currentTime()) Zel::System::virtualTimeIs(next);
    events += activity->runOnce(0);
  }
  Zel::System::virtualTimeIs(until);
  return events;
}

void timerWheelTour(std::ostream& out) {
  constexpr U32 leases = 100000;
  Zel::System::virtualTimeIs(start);
  auto const wheel =
      Kiv::timerWheelFactory(Zel::activityManager()->clock(), tickMsecs, 360000, true, 64);
  out << leases << " leases with deadlines from 1 ms to 1 h (log-uniform) on one wheel:\n"
      << wheel->bucketCount() << " levels of " << wheel->defaultBucketSize() << " slots, "
      << tickMsecs << " ms ticks, " << wheel->maxTicks() << " ticks ("
      << std::lround(wheel->maxTicks() * tick / 3600) << " h) of capacity\n\n";

  std::mt19937_64 random(2024);
  ExpiryLog log;
  std::vector<std::unique_ptr<Lease>> all;
  all.reserve(leases);
  for (U32 i = 0; i < leases; ++i) {
    Seconds const unit = Seconds(random() >> 11) * 0x1.0p-53;
    Seconds const deadline = start + 0.001 * std::exp(unit * std::log(3.6e6));
    all.push_back(std::make_unique<Lease>(wheel, log, deadline));
  }

  char line[160];
  std::snprintf(line, sizeof line, "%-9s %7s %14s%9s%9s%9s%9s %13s\n", "minutes", "fired",
                "latest (ticks)", "level 0", "level 1", "level 2", "level 3", "clock events");
  out << line << std::string(83, '-') << '\n';
  out << "armed" << std::string(28, ' ') << levelCounts(*wheel) << '\n';
  U64 totalEvents = 0, totalFired = 0, totalEarly = 0;
  Seconds latest = 0;
  U32 from = 0;
  for (U32 to : {1, 2, 3, 4, 5, 10, 20, 30, 40, 50, 60}) {
    U64 const events = runTo(start + 60.0 * to);
    std::string const span =
        from + 1 == to ? std::to_string(to) : std::to_string(from + 1) + "-" + std::to_string(to);
    std::snprintf(line, sizeof line, "%-9s %7llu %14.2f%s %13llu\n", span.c_str(),
                  static_cast<unsigned long long>(log.fired), log.latest,
                  levelCounts(*wheel).c_str(), static_cast<unsigned long long>(events));
    out << line;
    totalEvents += events;
    totalFired += log.fired;
    totalEarly += log.early;
    latest = std::max(latest, log.latest);
    log = ExpiryLog{};
    from = to;
  }
  out << "\n"
      << totalFired << " of " << leases << " leases fired, " << totalEarly
      << " early; the latest was " << std::lround(latest * 100) / 100.0 << " ticks late.\n"
      << "The wheel used " << totalEvents << " clock events; a clock notifiee per lease would"
      << " have used " << leases << ".\n"
      << "Wheel now idle: " << (wheel->currentWheelIndexTime() == Zel::endOfTime ? "yes" : "no")
      << '\n';
  all.clear();
  Zel::System::virtualTimeDel();
}

TourRegistrar const registrar(60, "timer-wheel",
                              "Timer wheel: 100,000 timers from milliseconds to an hour",
                              &timerWheelTour);

}  // namespace
}  // namespace KivDemo
