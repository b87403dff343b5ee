#include <Kiv/XactExecutorSm.h>

#include "XactKeys.h"

#include <Zel/Exception.h>
#include <Zel/GenericIf.h>
#include <Zel/System.h>
#include <Zel/Trace.h>

namespace Kiv {
namespace {

[[maybe_unused]] Zel::TypeRegistration<XactExecutorSm> const registration;

constexpr auto trace = Zel::traceHandle<"XactLib">;

constexpr int traceState = 5;       // statuses deleted, the executor deleted
constexpr int traceStep = 7;        // each execution
constexpr int traceEvaluation = 8;  // each config seen, each time slice
constexpr int traceTick = 9;        // initialisation

using Zel::endOfTime;
using Zel::System::currentTime;

}  // namespace

XactExecutorSm::XactExecutorSm(Zel::String const& name,
                               Zel::Ptr<XactConfigDir const> const& xactConfigDir,
                               Zel::Ptr<XactStatusDir> const& xactStatusDir,
                               Zel::Ptr<Zel::Clock const> const& clock)
    : name_(name), xactStatusDir_(xactStatusDir) {
  Zel::refuseNull(xactConfigDir, "Kiv::XactExecutorSm", "xactConfigDir");
  Zel::refuseNull(xactStatusDir, "Kiv::XactExecutorSm", "xactStatusDir");
  zelXactConfigDir_.notifierIs(xactConfigDir);
  zelClock_.notifierIs(clock);
}

// The config watcher goes first: no config may reach doExecute once the derived part is gone.
XactExecutorSm::~XactExecutorSm() {
  zelXactConfigDir_.notifierIs(nullptr);
  handleDel();
}

void XactExecutorSm::backlogQuantumIs(Seconds quantum) {
  if (!(quantum >= 0)) throw Zel::RangeException("XactExecutorSm::backlogQuantum < 0 not allowed");
  attributeIs(backlogQuantum_, quantum, &NotifieeConst::onBacklogQuantum);
}

ExecResult XactExecutorSm::doExecute(XactConfig const&) {
  throw Zel::NoImplementationException("doExecute must be implemented in the derived class");
}

void XactExecutorSm::doProcessXact(U32 id) {
  if (auto t = Zel::TraceHelper(trace(), traceStep)) {
    t << "void Kiv::XactExecutorSm::doProcessXact(U32) " << name_ << " id " << id;
  }
  XactConfig const config = xactConfigDir()->xactConfig(id);
  if (config == XactConfig()) {
    if (auto t = Zel::TraceHelper(trace(), traceState)) t << "Deleting xactStatus with id: " << id;
    xactStatusDir_->xactStatusDel(id);
    return;
  }
  if (auto t = Zel::TraceHelper(trace(), traceStep)) {
    t << "configVersion: " << config.configVersion();
  }
  ExecResult const outcome = doExecute(config);
  xactStatusDir_->xactStatusIs(
      XactStatus(id, outcome.result(), outcome.comment(), config.configVersion()));
}

void XactExecutorSm::handleXactConfig(U32 id) {
  if (auto t = Zel::TraceHelper(trace(), traceEvaluation)) {
    t << "void Kiv::XactExecutorSm::handleXactConfig(U32) " << name_ << " id " << id;
  }
  updatesSeenInc(1);
  if (!clock()) {
    doProcessXact(id);
    return;
  }
  if (xactConfigDir()->xactConfig(id) == XactConfig()) {
    backlogDel(id);
    doProcessXact(id);
    return;
  }
  backlogIs(id, true);
  if (zelClock_.timeMin() == endOfTime) zelClock_.timeMinIs(0.0);
}

void XactExecutorSm::handleXactConfig() {
  for (U32 id : keysOf(xactConfigDir()->xactConfigIteratorConst())) {
    if (xactConfigDir()->xactConfigHas(id)) handleXactConfig(id);
  }
}

// The slice walks the backlog in id order from the bookmark to the end, then once from the lowest
// id. It takes each entry out by its position; when an execution's handlers withdraw entries
// (which may take the next position with them), the walk finds its place again by id.
void XactExecutorSm::handleClock() {
  if (auto t = Zel::TraceHelper(trace(), traceEvaluation)) {
    t << "void Kiv::XactExecutorSm::handleClock() " << name_;
  }
  Seconds const start = currentTime();
  Seconds const deadline = start + backlogQuantum_;
  Seconds now = start;
  U64 done = 0;
  auto next = backlog_.lowerBound(bookmark_);
  bool restarted = false;
  while (!backlog_.empty()) {
    if (next == backlog_.end()) {
      if (restarted) break;
      restarted = true;
      next = backlog_.begin();
      continue;
    }
    U32 const id = next->first;
    now = currentTime();
    if (done > 0 && now >= deadline) {
      bookmarkIs(id);
      zelClock_.timeMinIs(0.0);
      yieldBeforeFinishingCountInc(1);
      break;
    }
    U64 const removals = backlogRemovals_;
    next = backlog_.del(next);
    notify(&NotifieeConst::onBacklog, id);
    executeBacklogEntry(id);
    if (backlogRemovals_ != removals) next = backlog_.upperBound(id);
    ++done;
  }
  updatesProcessedInc(done);
  timeUsedInc(now - start);
  dispatchCountInc(1);
}

// The entry is out of the backlog while it executes, so that a config rewritten meanwhile is
// queued again; it goes back in if doExecute throws.
void XactExecutorSm::executeBacklogEntry(U32 id) {
  try {
    doProcessXact(id);
  } catch (...) {
    backlogIs(id, true);
    throw;
  }
}

void XactExecutorSm::handleInit() {
  if (auto t = Zel::TraceHelper(trace(), traceTick)) {
    t << "void Kiv::XactExecutorSm::handleInit() " << name_;
  }
}

void XactExecutorSm::handleDel() {
  if (auto t = Zel::TraceHelper(trace(), traceState)) {
    t << "void Kiv::XactExecutorSm::handleDel() " << name_;
  }
  xactStatusDir_->xactStatusDelAll();
  if (zelClock_.notifier()) zelClock_.timeMinIs(endOfTime);
}

}  // namespace Kiv
