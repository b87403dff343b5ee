// Transactions: a coordinating agent hands versioned configuration transactions to worker agents
// and gathers their outcomes. The two sides meet only through directories:
//
//   coordinator                                worker
//   XactAggregatorSm --writes--> XactConfigDir --watched by--> XactExecutorSm (derived: doExecute)
//        ^                                                          |
//        +------ watches ------- XactStatusDir <------ writes ------+
//
// One XactConfigDir and XactStatusDir pair exists per worker. The coordinator holds each
// transaction as an Xact entity. Every (re)start bumps the Xact's configVersion and writes
// XactConfig{id, configVersion} into every config directory; a worker executes it and answers
// XactStatus{id, result, comment, statusVersion = configVersion} in its status directory. A
// status answers the current attempt only when its statusVersion equals the Xact's configVersion;
// older ones are stale and ignored. The aggregator publishes the outcome in the Xact: `comment`
// and `result` first, then statusVersion = configVersion. An Xact is finished exactly when
// statusVersion == configVersion, so the change of statusVersion is the signal to wait for.
//
//   auto aggregator = Kiv::xactAggregatorSmFactory("coordinator", Zel::activityManager()->clock());
//   aggregator->xactConfigDirIs(configDir);   // one pair per worker
//   aggregator->xactStatusDirIs(statusDir);
//   auto xact = Kiv::xactFactory(7);
//   xact->blockingXactIs(earlier);            // optional: wait for `earlier` to succeed
//   aggregator->doStartXact(xact);
//
//   class Worker : public Kiv::XactExecutorSm {   // on the worker's side
//   protected:
//     using XactExecutorSm::XactExecutorSm;
//     Kiv::ExecResult doExecute(Kiv::XactConfig const& config) override;
//   };
//   auto worker = Kiv::xactExecutorSmFactory<Worker>("worker1", configDir, statusDir, clock);
//
// The subsystem, by family:
//
//   Kiv/XactRecords.h       XactResult, XactConfig, XactStatus, ExecResult, and the Xact entity
//   Kiv/XactDirectories.h   XactConfigDir, XactStatusDir, XactDir
//   Kiv/XactAggregatorSm.h  the coordinator's state machine, and its blocking tests
//   Kiv/XactExecutorSm.h    the worker's state machine
//
// Single activity: every mutator and handler runs on the event loop that owns these objects.
// The aggregator and the executors of one process may share that loop; a worker without a clock
// then answers inside the aggregator's doStartXact.
#pragma once

#include <Kiv/XactAggregatorSm.h>
#include <Kiv/XactDirectories.h>
#include <Kiv/XactExecutorSm.h>
#include <Kiv/XactRecords.h>
