// The transactions tour: a coordinator pushes 300 configuration transactions to four workers with
// at most 8 in progress. One worker refuses about 5% of its configs, one is slow enough that
// transactions queued behind it time out now and then, and some transactions form dependency
// chains. Each agent runs on a clock of its own, as each agent process has its own event loop;
// the tour steps the clocks in virtual time, so the slow worker's delays cost nothing and every
// run prints the same.
#include "Tour.h"

#include <Kiv/XactLib.h>

#include <Zel/Clock.h>
#include <Zel/System.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace KivDemo {
namespace {

using Kiv::ExecResult;
using Kiv::XactConfig;
using Kiv::XactResult;
using Zel::Ptr;
using Zel::Seconds;
using Zel::U32;
using Zel::System::currentTime;

constexpr U32 xactCount = 300;
constexpr U32 inProgressLimit = 8;
constexpr Seconds timeout = 2.0;

// The agents' event loops: one clock per agent. Each step moves virtual time to the earliest
// armed notifiee of any agent and lets every agent fire what is due.
class Agents {
public:
  Ptr<Zel::Clock const> clockIs() {
    clocks_.push_back(Zel::clockFactory());
    return clocks_.back();
  }

  void runUntil(Seconds end) {
    for (;;) {
      Seconds next = Zel::endOfTime;
      for (auto const& clock : clocks_) next = std::min(next, clock->nextTime());
      if (next > end) break;
      if (next > currentTime()) Zel::System::virtualTimeIs(next);
      for (auto const& clock : clocks_) clock->doFireDue(currentTime());
    }
    if (end > currentTime()) Zel::System::virtualTimeIs(end);
  }

private:
  std::vector<Ptr<Zel::Clock>> clocks_;
};

// A worker agent: each config takes minCost to maxCost virtual seconds to apply, now and then it
// stalls for `stall` seconds more, and some configs are refused.
class Worker : public Kiv::XactExecutorSm {
public:
  struct Behaviour {
    Seconds minCost;
    Seconds maxCost;
    double stalls;  // the share of configs that stall
    Seconds stall;
    double refusals;  // the share of configs refused
  };

protected:
  Worker(Zel::String const& name, Ptr<Kiv::XactConfigDir const> const& configDir,
         Ptr<Kiv::XactStatusDir> const& statusDir, Ptr<Zel::Clock const> const& clock,
         Behaviour behaviour, U32 seed)
      : XactExecutorSm(name, configDir, statusDir, clock), behaviour_(behaviour), random_(seed) {}

  ExecResult doExecute(XactConfig const&) override {
    Seconds cost =
        std::uniform_real_distribution<Seconds>(behaviour_.minCost, behaviour_.maxCost)(random_);
    if (std::bernoulli_distribution(behaviour_.stalls)(random_)) cost += behaviour_.stall;
    Zel::System::sleep(cost);
    if (std::bernoulli_distribution(behaviour_.refusals)(random_)) {
      return ExecResult(XactResult::xactFailure, "TCAM full");
    }
    return ExecResult(XactResult::xactSuccess, "");
  }

private:
  Behaviour behaviour_;
  std::mt19937 random_;
};

struct Cluster {
  Agents agents;
  Ptr<Kiv::XactAggregatorSm> aggregator =
      Kiv::xactAggregatorSmFactory("coordinator", agents.clockIs());
  Ptr<Kiv::XactDir> xacts = Kiv::xactDirFactory("xacts");
  std::vector<Ptr<Worker>> workers;

  void workerIs(std::string const& name, Worker::Behaviour behaviour) {
    auto configDir = Kiv::xactConfigDirFactory(name);
    auto statusDir = Kiv::xactStatusDirFactory(name);
    U32 const seed = static_cast<U32>(workers.size() + 1);
    workers.push_back(Kiv::xactExecutorSmFactory<Worker>(name, configDir, statusDir,
                                                         agents.clockIs(), behaviour, seed));
    aggregator->xactConfigDirIs(configDir);
    aggregator->xactStatusDirIs(statusDir);
  }
};

// Every tenth transaction heads a chain of three, each link waiting for the one before; in every
// other chain a link fails when the link before it fails, in the rest it keeps waiting.
void startAll(Cluster& cluster) {
  for (U32 id = 1; id <= xactCount; ++id) {
    Ptr<Kiv::Xact> const x = cluster.xacts->xactIs(id);
    if (id % 10 == 2 || id % 10 == 3) {
      x->blockingXactIs(cluster.xacts->xact(id - 1));
      x->failIfBlockingXactFailsIs(id / 10 % 2 == 0);
    }
    cluster.aggregator->doStartXact(x);
  }
}

bool timedOut(Kiv::Xact const& x) {
  for (auto const& [source, text] : x.commentIteratorConst()) {
    if (text == "Timeout") return true;
  }
  return false;
}

std::string outcomeOf(Kiv::Xact const& x) {
  if (x.result() == XactResult::xactInProgress) return "stopped while waiting for a failed blocker";
  if (x.result() == XactResult::xactSuccess) return "succeeded";
  if (timedOut(x)) return "failed: timed out";
  if (x.commentIteratorConst().empty()) return "failed: its blocker failed";
  return "failed: a worker refused";
}

void printOutcomes(std::ostream& out, Cluster const& cluster) {
  std::map<std::string, U32> counts;
  for (auto const& [id, x] : cluster.xacts->xactIteratorConst()) ++counts[outcomeOf(*x)];
  out << "   outcome                                        count\n";
  for (auto const& [outcome, count] : counts) {
    char line[96];
    std::snprintf(line, sizeof line, "   %-44s %6u\n", outcome.c_str(), count);
    out << line;
  }
  out << '\n';
}

void printComments(std::ostream& out, Cluster const& cluster) {
  out << "2. The comments of the failed ones, by source:\n";
  std::string blockerFailed;
  for (auto const& [id, x] : cluster.xacts->xactIteratorConst()) {
    if (x->result() != XactResult::xactFailure) continue;
    if (x->commentIteratorConst().empty()) {
      blockerFailed += (blockerFailed.empty() ? " " : ", ") + std::to_string(id);
      continue;
    }
    std::map<std::string, std::string> sorted;
    for (auto const& [source, text] : x->commentIteratorConst()) sorted[source.str()] = text.str();
    char head[32];
    std::snprintf(head, sizeof head, "   xact %3u ", id);
    out << head;
    for (auto const& [source, text] : sorted) out << " " << source << ": " << text;
    out << '\n';
  }
  out << "   no comment, their blocker failed:" << blockerFailed << "\n\n";
}

void printExecutors(std::ostream& out, Cluster const& cluster) {
  out << "3. The workers' executors:\n"
         "   worker      updates seen  processed  dispatches  yields  time used\n";
  for (auto const& worker : cluster.workers) {
    char line[96];
    std::snprintf(line, sizeof line, "   %-10s %13llu %10llu %11llu %7llu %8.2f s\n",
                  worker->name().c_str(), static_cast<unsigned long long>(worker->updatesSeen()),
                  static_cast<unsigned long long>(worker->updatesProcessed()),
                  static_cast<unsigned long long>(worker->dispatchCount()),
                  static_cast<unsigned long long>(worker->yieldBeforeFinishingCount()),
                  worker->timeUsed());
    out << line;
  }
  out << "   (a slice yields once it has run for 10 ms; each of the slow worker's configs takes\n"
         "   longer)\n";
}

void xactTour(std::ostream& out) {
  constexpr Seconds start = 1'000'000;
  Zel::System::VirtualTimeScope const time(start);
  Cluster cluster;
  cluster.aggregator->maxAllowedInProgressXactsIs(inProgressLimit);
  cluster.aggregator->timeoutIs(timeout);
  cluster.aggregator->pollingIntervalIs(0.25);
  cluster.workerIs("linecard1", {0.0002, 0.001, 0, 0, 0});
  cluster.workerIs("linecard2", {0.0002, 0.001, 0, 0, 0});
  cluster.workerIs("fabric", {0.0005, 0.002, 0, 0, 0.05});
  cluster.workerIs("slow", {0.02, 0.1, 0.03, 1.0, 0});

  out << "1. " << xactCount << " transactions from one coordinator to 4 workers, at most "
      << inProgressLimit << " in progress, time-out " << timeout << " s;\n"
      << "   every tenth heads a chain of three.\n";
  startAll(cluster);
  Kiv::XactAggregatorSm& aggregator = *cluster.aggregator;
  while (aggregator.inProgressXactCount() + aggregator.pendingXactCount() != 0) {
    cluster.agents.runUntil(currentTime() + 1);
  }
  out << "   all settled after " << static_cast<int>(currentTime() - start)
      << " s of virtual time; " << aggregator.blockedXactCount()
      << " left waiting for a failed blocker are stopped\n";
  for (auto const& [id, x] : cluster.xacts->xactIteratorConst()) {
    if (aggregator.blockedXact(id)) aggregator.doStopXact(id);
  }
  printOutcomes(out, cluster);
  printComments(out, cluster);
  printExecutors(out, cluster);
}

TourRegistrar const registrar(70, "xact",
                              "Transactions: a coordinator, four workers, time-outs and chains",
                              &xactTour);

}  // namespace
}  // namespace KivDemo
