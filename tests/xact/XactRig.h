// A coordinator and its workers for the transaction tests, in virtual time.
#pragma once

#include <Kiv/XactLib.h>

#include <Zel/Activity.h>
#include <Zel/System.h>

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace XactTest {

using Kiv::ExecResult;
using Kiv::Xact;
using Kiv::XactConfig;
using Kiv::XactResult;
using Kiv::XactStatus;
using Zel::Ptr;
using Zel::Seconds;
using Zel::U32;
using Zel::U64;

constexpr XactResult inProgress = XactResult::xactInProgress;
constexpr XactResult success = XactResult::xactSuccess;
constexpr XactResult failure = XactResult::xactFailure;
constexpr Seconds start = 1000.0;

inline Ptr<Zel::Clock> const& loopClock() { return Zel::activityManager()->clock(); }
inline void runUntil(Seconds t) { Zel::activityManager()->runUntil(t); }
inline Seconds now() { return Zel::System::currentTime(); }

inline bool finished(Xact const& x) { return x.statusVersion() == x.configVersion(); }

inline std::map<std::string, std::string> comments(Xact const& x) {
  std::map<std::string, std::string> all;
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

  // Answers by hand, as a silent worker's test script does.
  void answerIs(U32 id, XactResult result, U32 version, char const* comment = "") const {
    statusDir->xactStatusIs(XactStatus(id, result, comment, version));
  }
};

class Rig {
public:
  Ptr<Kiv::XactAggregatorSm> aggregator = Kiv::xactAggregatorSmFactory("coordinator", loopClock());
  Ptr<Kiv::XactDir> xacts = Kiv::xactDirFactory("xacts");
  std::deque<WorkerSide> workers;  // references stay valid as workers join

  enum class Kind { silent, synchronous, timeSliced };

  WorkerSide& workerIs(std::string const& name, Kind kind) {
    WorkerSide side{Kiv::xactConfigDirFactory(name), Kiv::xactStatusDirFactory(name), nullptr};
    if (kind != Kind::silent) {
      side.worker = Kiv::xactExecutorSmFactory<Worker>(
          name, side.configDir, side.statusDir,
          kind == Kind::timeSliced ? loopClock() : Ptr<Zel::Clock>());
    }
    aggregator->xactConfigDirIs(side.configDir);
    aggregator->xactStatusDirIs(side.statusDir);
    workers.push_back(side);
    return workers.back();
  }

  Ptr<Xact> start(U32 id) {
    Ptr<Xact> x = xacts->xactIs(id);
    aggregator->doStartXact(x);
    return x;
  }
};

// Every test runs in virtual time from `start` on the thread's activity, and leaves no clock
// notifiee armed.
class XactFixture : public testing::Test {
protected:
  void SetUp() override {
    Zel::System::virtualTimeIs(start);
    ASSERT_EQ(loopClock()->armedCount(), 0u) << "an earlier test left notifiees armed";
  }
  void TearDown() override { Zel::System::virtualTimeDel(); }
};

}  // namespace XactTest
