// A coordinator and its workers for the transaction tests, in virtual time.
#pragma once

#include <Kiv/XactLib.h>

#include <Zel/Activity.h>
#include <Zel/System.h>

#include <gmock/gmock.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace XactTest {

using Kiv::ExecResult, Kiv::Xact, Kiv::XactConfig, Kiv::XactResult, Kiv::XactStatus;
using Zel::Ptr, Zel::Seconds, Zel::U32, Zel::U64;
using Comments = std::map<std::string, std::string>;

constexpr XactResult inProgress = XactResult::xactInProgress;
constexpr XactResult success = XactResult::xactSuccess;
constexpr XactResult failure = XactResult::xactFailure;
constexpr Seconds start = 1000.0;

inline Ptr<Zel::Clock> const& loopClock() { return Zel::activityManager()->clock(); }
inline void runUntil(Seconds t) { Zel::activityManager()->runUntil(t); }
inline Seconds now() { return Zel::System::currentTime(); }
inline bool finished(Xact const& x) { return x.statusVersion() == x.configVersion(); }

inline Comments comments(Xact const& x) {
  Comments all;
  for (auto const& [source, text] : x.commentIteratorConst()) all[source.str()] = text.str();
  return all;
}

// A worker whose answers the test scripts: success unless `answer` says otherwise; each execution
// takes `executionTime` virtual seconds.
class Worker : public Kiv::XactExecutorSm {
public:
  std::function<ExecResult(XactConfig const&)> answer;
  Seconds executionTime = 0;
  std::vector<XactConfig> executed;

protected:
  using XactExecutorSm::XactExecutorSm;
  ExecResult doExecute(XactConfig const& config) override {
    executed.push_back(config);
    if (executionTime > 0) Zel::System::sleep(executionTime);
    return answer ? answer(config) : ExecResult(success, "");
  }
};

// One worker's pair of directories, and its executor unless the test answers by hand.
struct WorkerSide {
  Ptr<Kiv::XactConfigDir> configDir;
  Ptr<Kiv::XactStatusDir> statusDir;
  Ptr<Worker> worker;
};

// A rig runs in virtual time from `start`, and finds no clock notifiee left armed by another.
struct Rig {
  enum class Kind { silent, synchronous, timeSliced };

  Rig() {
    Zel::System::virtualTimeIs(XactTest::start);
    EXPECT_EQ(loopClock()->armedCount(), 0u) << "an earlier rig left notifiees armed";
  }
  ~Rig() { Zel::System::virtualTimeDel(); }

  Ptr<Kiv::XactAggregatorSm> aggregator = Kiv::xactAggregatorSmFactory("coordinator", loopClock());
  Ptr<Kiv::XactDir> xacts = Kiv::xactDirFactory("xacts");
  std::deque<WorkerSide> workers;  // references stay valid as workers join

  WorkerSide& workerIs(std::string const& name, Kind kind) {
    WorkerSide side{Kiv::xactConfigDirFactory(name), Kiv::xactStatusDirFactory(name), nullptr};
    if (kind != Kind::silent) {
      side.worker = Kiv::xactExecutorSmFactory<Worker>(
          name, side.configDir, side.statusDir,
          kind == Kind::timeSliced ? loopClock() : Ptr<Zel::Clock>());
    }
    aggregator->xactConfigDirIs(side.configDir);
    aggregator->xactStatusDirIs(side.statusDir);
    return workers.emplace_back(side);
  }

  Ptr<Xact> start(U32 id) {
    Ptr<Xact> x = xacts->xactIs(id);
    aggregator->doStartXact(x);
    return x;
  }
};

}  // namespace XactTest
