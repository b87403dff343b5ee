#include <Kiv/XactAggregatorSm.h>

#include "XactKeys.h"

#include <Zel/Assert.h>
#include <Zel/Exception.h>
#include <Zel/GenericIf.h>
#include <Zel/System.h>
#include <Zel/Trace.h>

#include <algorithm>
#include <optional>
#include <vector>

namespace Kiv {
namespace {

[[maybe_unused]] Zel::TypeRegistration<XactAggregatorSm> const registration;

constexpr auto trace = Zel::traceHandle<"XactLib">;

// Trace levels. At traceEvaluation every status change is evaluated over every directory, so
// that each one is traced; below it changes that cannot decide a transaction are only counted.
constexpr int traceFailure = 3;     // time-outs, dependency failures
constexpr int traceState = 5;       // starts, stops, outcomes, directories
constexpr int traceStep = 7;        // configs written, blocking reviews
constexpr int traceEvaluation = 8;  // each status weighed
constexpr int traceTick = 9;        // time-out scans, initialisation

using Zel::endOfTime;
using Zel::System::currentTime;
constexpr XactResult xactInProgress = XactResult::xactInProgress;
constexpr XactResult xactSuccess = XactResult::xactSuccess;
constexpr XactResult xactFailure = XactResult::xactFailure;

bool finished(Xact const& x) { return x.statusVersion() == x.configVersion(); }

// Whether `status` answers the attempt `configVersion`.
bool answersAttempt(XactStatus const& status, U32 configVersion) {
  return status.statusVersion() == configVersion && !!status;
}

// Handlers may add or remove config directories while configs are being written.
std::vector<Zel::Ptr<XactConfigDir>> dirsOf(
    Zel::HashMap2018<Zel::Name, Zel::Ptr<XactConfigDir>> const& map) {
  std::vector<Zel::Ptr<XactConfigDir>> dirs;
  dirs.reserve(map.size());
  for (auto const& [name, dir] : map) dirs.push_back(dir);
  return dirs;
}

}  // namespace

// ---- Blocking tests ---------------------------------------------------------------------------

bool xactIsBlocked(Zel::Ptr<Xact> const& x) {
  for (auto const& [id, blocking] : x->blockingXactIteratorConst()) {
    if (finished(*blocking) && blocking->result() == xactSuccess) continue;
    if (auto t = Zel::TraceHelper(trace(), traceStep)) {
      t << "Xact: " << x->id() << " blocked due to: " << blocking->id();
    }
    return true;
  }
  return false;
}

bool failXact(Zel::Ptr<Xact> const& x) {
  if (!x->failIfBlockingXactFails()) return false;
  for (auto const& [id, blocking] : x->blockingXactIteratorConst()) {
    if (!finished(*blocking) || blocking->result() != xactFailure) continue;
    if (auto t = Zel::TraceHelper(trace(), traceFailure)) {
      t << "Xact: " << x->id() << " failed due to: " << blocking->id();
    }
    return true;
  }
  return false;
}

// ---- The aggregator's watchers ----------------------------------------------------------------

// A transaction in progress. It reacts to nothing of the transaction's own; it counts the answers
// to the current attempt, so that a status that cannot decide the transaction costs O(1). The
// count never falls short of the directories that answer: every status that starts to answer
// arrives as a change or with a directory's first statuses, and the count is taken afresh over
// every directory at the first status of each attempt.
class XactAggregatorSm::ZelInProgressXact : public Xact::Notifiee {
public:
  explicit ZelInProgressXact(Zel::Ptr<Xact> const& x) { notifierIs(x); }

  std::optional<U32> attempt;  // the configVersion that `answers` counts for
  U32 answers = 0;
};

class XactAggregatorSm::ZelXactStatusDir : public XactStatusDir::NotifieeConst {
public:
  explicit ZelXactStatusDir(XactAggregatorSm& owner) noexcept : owner_(owner) {}

  void onXactStatus(U32 id) override { handleStatus(id); }
  // The immediate notification on attaching: every status present.
  void handleStatus() { owner_.feedStatuses(notifier()->name(), notifier()); }
  void handleStatus(U32 id) { owner_.handleStatusFrom(*notifier(), id); }

private:
  XactAggregatorSm& owner_;
};

class XactAggregatorSm::ZelBlockingXact : public Xact::NotifieeConst {
public:
  explicit ZelBlockingXact(ZelBlockedXact& blocked) noexcept : blocked_(blocked) {}

  void onStatusVersion() override { handleBlockingXactStatus(); }
  void handleBlockingXactStatus();

private:
  ZelBlockedXact& blocked_;
};

// A blocked transaction, with one ZelBlockingXact per entry of its blockingXact.
class XactAggregatorSm::ZelBlockedXact : public Xact::Notifiee {
public:
  ZelBlockedXact(XactAggregatorSm& owner, Zel::Ptr<Xact> const& x) : owner_(owner) {
    notifierIs(x);
    handleBlockingXact();
  }

  void onBlockingXact(U32 id) override { handleBlockingXact(id); }
  // The immediate notification on attaching: a watcher for every blocking transaction present.
  void handleBlockingXact() {
    for (auto const& [id, blocking] : notifier()->blockingXactIteratorConst()) {
      handleBlockingXact(id);
    }
  }
  // Keeps the watcher for `id` in step with the transaction's entry.
  void handleBlockingXact(U32 id) {
    Zel::Ptr<Xact const> const blocking = notifier()->blockingXact(id);
    if (!blocking) {
      blockingXact_.del(id);
      return;
    }
    std::unique_ptr<ZelBlockingXact>& watcher = blockingXact_[id];
    if (!watcher) watcher = std::make_unique<ZelBlockingXact>(*this);
    watcher->notifierIs(blocking);
  }
  // Both watchers may be gone when the review returns, so it works on copies of the handles.
  void handleBlockingXactStatus(Zel::Ptr<Xact const> const& blocking) {
    owner_.reviewBlockedXact(notifier(), blocking);
  }

private:
  XactAggregatorSm& owner_;
  Zel::HashMap2018<U32, std::unique_ptr<ZelBlockingXact>> blockingXact_;
};

void XactAggregatorSm::ZelBlockingXact::handleBlockingXactStatus() {
  blocked_.handleBlockingXactStatus(notifier());
}

// ---- The aggregator ---------------------------------------------------------------------------

XactAggregatorSm::XactComments::XactComments(char const*, char const*) {
  ZEL_ASSERT_AS(false, "No String constructor for XactComments - has collection");
}

Zel::Ptr<XactAggregatorSm> xactAggregatorSmFactory(Zel::String const& name,
                                                   Zel::Ptr<Zel::Clock const> const& clock) {
  Zel::Ptr<XactAggregatorSm> aggregator = Zel::allocate<XactAggregatorSm>(name, clock);
  aggregator->handleInit();
  return aggregator;
}

XactAggregatorSm::XactAggregatorSm(Zel::String const& name, Zel::Ptr<Zel::Clock const> const& clock)
    : name_(name) {
  zelClock_.notifierIs(clock);
}

// The watchers go first, so that withdrawing the configs cannot call back into a half-destroyed
// aggregator through a synchronous worker's answers.
XactAggregatorSm::~XactAggregatorSm() {
  xactStatusDir_.delAll();
  blockedXact_.delAll();
  handleDel();
}

Zel::Ptr<Xact> XactAggregatorSm::inProgressXact(U32 id) const {
  auto const* progress = inProgressXact_.find(id);
  return progress ? (*progress)->notifier() : nullptr;
}

void XactAggregatorSm::inProgressXactIs(Zel::Ptr<Xact> const& x) {
  Zel::refuseNull(x, "Kiv::XactAggregatorSm", "inProgressXact");
  U32 const id = x->id();
  auto const* present = inProgressXact_.find(id);
  if (present && (*present)->notifier() == x) return;
  inProgressXact_[id] = std::make_unique<ZelInProgressXact>(x);
  notify(&NotifieeConst::onInProgressXact, id);
  handleInProgressXact(id);
}

void XactAggregatorSm::inProgressXactDel(U32 id) {
  if (!inProgressXact_.del(id)) return;
  notify(&NotifieeConst::onInProgressXact, id);
  handleInProgressXact(id);
}

void XactAggregatorSm::pendingXactIs(Zel::Ptr<Xact> const& x) {
  Zel::refuseNull(x, "Kiv::XactAggregatorSm", "pendingXact");
  entryIs(pendingXact_, x->id(), x, &NotifieeConst::onPendingXact);
}

Zel::Ptr<Xact> XactAggregatorSm::blockedXact(U32 id) const {
  auto const* blocked = blockedXact_.find(id);
  return blocked ? (*blocked)->notifier() : nullptr;
}

void XactAggregatorSm::blockedXactIs(Zel::Ptr<Xact> const& x) {
  Zel::refuseNull(x, "Kiv::XactAggregatorSm", "blockedXact");
  U32 const id = x->id();
  auto const* present = blockedXact_.find(id);
  if (present && (*present)->notifier() == x) return;
  blockedXact_[id] = std::make_unique<ZelBlockedXact>(*this, x);
  notify(&NotifieeConst::onBlockedXact, id);
}

void XactAggregatorSm::blockedXactDel(U32 id) {
  if (blockedXact_.del(id)) notify(&NotifieeConst::onBlockedXact, id);
}

void XactAggregatorSm::xactConfigDirIs(Zel::Ptr<XactConfigDir> const& dir) {
  Zel::refuseNull(dir, "Kiv::XactAggregatorSm", "xactConfigDir");
  entryIs(xactConfigDir_, dir->name(), dir, &NotifieeConst::onXactConfigDir);
}

Zel::Ptr<XactStatusDir const> XactAggregatorSm::xactStatusDir(Zel::Name const& name) const {
  auto const* watcher = xactStatusDir_.find(name);
  return watcher ? (*watcher)->notifier() : nullptr;
}

void XactAggregatorSm::xactStatusDirIs(Zel::Ptr<XactStatusDir const> const& dir) {
  Zel::refuseNull(dir, "Kiv::XactAggregatorSm", "xactStatusDir");
  Zel::Name const name = dir->name();
  std::unique_ptr<ZelXactStatusDir>& watcher = xactStatusDir_[name];
  if (watcher && watcher->notifier() == dir) return;
  if (!watcher) watcher = std::make_unique<ZelXactStatusDir>(*this);
  watcher->notifierIs(dir);
  watcher->handleStatus();
  notify(&NotifieeConst::onXactStatusDir, name);
  handleXactStatusDir(Zel::String(name.view()));
}

void XactAggregatorSm::xactStatusDirDel(Zel::Name const& name) {
  if (!xactStatusDir_.del(name)) return;
  notify(&NotifieeConst::onXactStatusDir, name);
  handleXactStatusDir(Zel::String(name.view()));
}

void XactAggregatorSm::xactStatusDirDelAll() {
  for (Zel::Name const& name : xactStatusDir_.delAll()) {
    notify(&NotifieeConst::onXactStatusDir, name);
    handleXactStatusDir(Zel::String(name.view()));
  }
}

void XactAggregatorSm::maxAllowedInProgressXactsIs(U32 limit) {
  U32 const before = maxAllowedInProgressXacts_;
  attributeIs(maxAllowedInProgressXacts_, limit, &NotifieeConst::onMaxAllowedInProgressXacts);
  if (limit > before && !purgingPendingXact_ && !pendingXact_.empty()) startPendingXacts();
}

void XactAggregatorSm::pollingIntervalIs(Seconds interval) {
  if (!(interval > 0)) {
    throw Zel::RangeException("XactAggregatorSm::pollingInterval <= 0 not allowed");
  }
  attributeIs(pollingInterval_, interval, &NotifieeConst::onPollingInterval);
}

void XactAggregatorSm::timeoutIs(Seconds timeout) {
  if (!(timeout >= 0)) throw Zel::RangeException("XactAggregatorSm::timeout < 0 not allowed");
  attributeIs(timeout_, timeout, &NotifieeConst::onTimeout);
}

// ---- Starting and stopping ----

void XactAggregatorSm::doStartXact(Zel::Ptr<Xact> const& x) {
  ZEL_ASSERT_AS(x, "x");
  U32 const id = x->id();
  if (auto t = Zel::TraceHelper(trace(), traceState)) {
    t << "void Kiv::XactAggregatorSm::doStartXact(const Ptr&)"
      << " xact id: " << id << " configVersion: " << x->configVersion();
  }
  x->resultIs(xactInProgress);
  if (xactIsBlocked(x)) {
    if (failXact(x)) {
      pendingXactDel(id);
      blockedXactDel(id);
      inProgressXactDel(id);
      x->blockingXactDelAll();
      x->configVersionInc(1);
      x->commentDelAll();
      finishXact(*x, xactFailure, x->configVersion());
      return;
    }
    if (blockedXact_.has(id)) return;
    pendingXactDel(id);
    inProgressXactDel(id);
    blockedXactIs(x);
    x->resultIs(xactInProgress);
    return;
  }
  blockedXactDel(id);
  if (!startsWithinLimit(id)) {
    if (auto t = Zel::TraceHelper(trace(), traceState)) {
      t << "Xact: " << id << " could not be started due to maxAllowedInProgress Xacts";
    }
    pendingXactIs(x);
    return;
  }
  pendingXactDel(id);
  if (!xactConfigDir_.empty() && !xactStatusDir_.empty()) {
    sendXact(x);
    return;
  }
  inProgressXactDel(id);
  if (auto t = Zel::TraceHelper(trace(), traceState)) {
    t << "No xactConfigDirs or xactStatusDirs. Marking Xact as success";
  }
  x->configVersionInc(1);
  x->commentDelAll();
  finishXact(*x, xactSuccess, x->configVersion());
}

// A restart of a transaction in progress keeps its slot.
bool XactAggregatorSm::startsWithinLimit(U32 id) const {
  return inProgressXact_.has(id) || inProgressXact_.size() < maxAllowedInProgressXacts_;
}

void XactAggregatorSm::sendXact(Zel::Ptr<Xact> const& x) {
  U32 const id = x->id();
  Seconds const now = currentTime();
  inProgressXactIs(x);
  x->startTimeIs(now);
  if (zelClock_.timeMin() == endOfTime) zelClock_.timeMinIs(now + pollingInterval_);
  x->configVersionInc(1);
  // The version is read per directory: if a synchronous worker's answer finishes this attempt
  // and a handler restarts the transaction, the rest of the directories get the newer one.
  for (Zel::Ptr<XactConfigDir> const& dir : dirsOf(xactConfigDir_)) {
    XactConfig const config(id, x->configVersion());
    if (auto t = Zel::TraceHelper(trace(), traceStep)) {
      t << dir->name() << ": setting xactConfig: id: " << id
        << " configVersion: " << config.configVersion();
    }
    dir->xactConfigIs(config);
  }
}

void XactAggregatorSm::doStopXact(U32 id) {
  if (auto t = Zel::TraceHelper(trace(), traceState)) {
    t << "void Kiv::XactAggregatorSm::doStopXact(U32) " << name_ << " id: " << id;
  }
  pendingXactDel(id);
  blockedXactDel(id);
  inProgressXactDel(id);
  for (Zel::Ptr<XactConfigDir> const& dir : dirsOf(xactConfigDir_)) dir->xactConfigDel(id);
}

void XactAggregatorSm::finishXact(Xact& x, XactResult result, U32 attempt) {
  if (!ownsFinish(x, attempt)) return;
  x.resultIs(result);
  if (ownsFinish(x, attempt)) x.statusVersionIs(attempt);
}

// A handler may start the transaction again while `attempt` is being finished (from an observer
// of its result, or of another transaction that the finish set off); the new start then owns it
// and this outcome is dropped.
bool XactAggregatorSm::ownsFinish(Xact const& x, U32 attempt) const {
  U32 const id = x.id();
  return x.configVersion() == attempt && !inProgressXact_.has(id) && !pendingXact_.has(id) &&
         !blockedXact_.has(id);
}

// ---- Handlers ----

void XactAggregatorSm::handleInit() {
  if (auto t = Zel::TraceHelper(trace(), traceTick)) {
    t << "void Kiv::XactAggregatorSm::handleInit() " << name_;
  }
}

void XactAggregatorSm::handleDel() {
  if (auto t = Zel::TraceHelper(trace(), traceState)) {
    t << "void Kiv::XactAggregatorSm::handleDel() " << name_;
  }
  if (zelClock_.notifier()) zelClock_.timeMinIs(endOfTime);
  for (Zel::Ptr<XactConfigDir> const& dir : dirsOf(xactConfigDir_)) dir->xactConfigDelAll();
}

void XactAggregatorSm::handleClock() {
  if (auto t = Zel::TraceHelper(trace(), traceTick)) {
    t << "void Kiv::XactAggregatorSm::handleClock() " << name_;
  }
  Seconds const now = currentTime();
  std::vector<U32> expired;
  for (auto const& [id, progress] : inProgressXact_) {
    if (!(now - progress->notifier()->startTime() < timeout_)) expired.push_back(id);
  }
  std::sort(expired.begin(), expired.end());
  for (U32 id : expired) {
    Zel::Ptr<Xact> const x = inProgressXact(id);
    if (!x || now - x->startTime() < timeout_) continue;
    if (auto t = Zel::TraceHelper(trace(), traceFailure)) t << "Timeout for Xact: " << id;
    U32 const configVersion = x->configVersion();
    XactComments comments;
    for (auto const& [name, watcher] : xactStatusDir_) {
      if (!answersAttempt(watcher->notifier()->xactStatus(id), configVersion)) {
        comments.commentIs(Zel::String(name.view()), "Timeout");
      }
    }
    x->commentDelAll();
    if (comments.commentIteratorConst().empty()) {
      x->commentIs("unknown", "Timeout");
    } else {
      for (auto const& [source, text] : comments.commentIteratorConst()) x->commentIs(source, text);
    }
    inProgressXactDel(id);
    finishXact(*x, xactFailure, configVersion);
  }
  if (!inProgressXact_.empty()) zelClock_.timeMinIs(now + pollingInterval_);
}

void XactAggregatorSm::handleStatusChange(U32 id) {
  Zel::Ptr<Xact> const x = inProgressXact(id);
  if (!x) {
    if (auto t = Zel::TraceHelper(trace(), traceEvaluation)) {
      t << "Xact not found for the id: " << id;
    }
    return;
  }
  U32 const configVersion = x->configVersion();
  if (auto t = Zel::TraceHelper(trace(), traceEvaluation)) {
    t << " id " << id << " configVersion " << configVersion;
  }
  if (configVersion == 0) return;
  XactResult result = xactSuccess;
  XactComments comments;
  for (auto const& [name, watcher] : xactStatusDir_) {
    XactStatus const status = watcher->notifier()->xactStatus(id);
    if (auto t = Zel::TraceHelper(trace(), traceEvaluation)) {
      t << "xact status from: " << name << " ";
      if (!status) {
        t << "None";
      } else {
        t << status;
      }
      t << " statusVersion: " << status.statusVersion();
    }
    if (!answersAttempt(status, configVersion)) {
      if (result != xactFailure) result = xactInProgress;
      continue;
    }
    if (status.result() == xactFailure) {
      result = xactFailure;
      if (auto t = Zel::TraceHelper(trace(), traceState)) {
        t << "Failed status from: " << name << " statusVersion: " << status.statusVersion();
      }
    }
    if (!status.comment().empty()) {
      comments.commentIs(Zel::String(name.view()), status.comment());
      if (auto t = Zel::TraceHelper(trace(), traceEvaluation)) {
        t << "Comment from: " << name << " comment: " << status.comment();
      }
    }
  }
  if (auto t = Zel::TraceHelper(trace(), result == xactInProgress ? traceEvaluation : traceState)) {
    t << " id " << id << " version " << configVersion << " result " << result;
  }
  if (result != xactInProgress) {
    x->commentDelAll();
    for (auto const& [source, text] : comments.commentIteratorConst()) x->commentIs(source, text);
    inProgressXactDel(id);
    finishXact(*x, result, configVersion);
  }
  if (inProgressXact_.empty()) zelClock_.timeMinIs(endOfTime);
}

void XactAggregatorSm::handleInProgressXact(U32 id) {
  if (inProgressXact_.has(id)) return;
  if (pendingXact_.empty() || purgingPendingXact_) return;
  startPendingXacts();
}

// Takes pending transactions in the hash map's order. Each is removed before it starts, so the
// walk takes the first entry each time: that is the storage order, and it stays valid when a
// start adds or removes pending entries.
void XactAggregatorSm::startPendingXacts() {
  purgingPendingXactIs(true);
  try {
    while (!pendingXact_.empty() && inProgressXact_.size() < maxAllowedInProgressXacts_) {
      Zel::Ptr<Xact> const x = pendingXact_.begin()->second;
      pendingXactDel(x->id());
      doStartXact(x);
    }
  } catch (...) {
    purgingPendingXactIs(false);
    throw;
  }
  purgingPendingXactIs(false);
}

void XactAggregatorSm::handleXactStatusDir(Zel::String const& name) {
  if (auto t = Zel::TraceHelper(trace(), traceState)) {
    t << "void Kiv::XactAggregatorSm::handleXactStatusDir(Zel::String) " << name;
  }
  if (xactStatusDir_.has(Zel::Name(name))) return;
  if (auto t = Zel::TraceHelper(trace(), traceState)) t << "xactStatusDir " << name << " removed";
  std::vector<U32> ids = keysOf(inProgressXact_);
  std::sort(ids.begin(), ids.end());
  for (U32 id : ids) handleStatusChange(id);
}

// A blocking transaction of X changed its statusVersion.
void XactAggregatorSm::reviewBlockedXact(Zel::Ptr<Xact> x, Zel::Ptr<Xact const> blocking) {
  if (auto t = Zel::TraceHelper(trace(), traceStep)) {
    t << "blockingXact: " << blocking->id() << " blockedXact: " << x->id();
  }
  if (!xactIsBlocked(x)) {
    x->blockingXactDelAll();
    doStartXact(x);
    return;
  }
  if (!failXact(x)) return;
  doStopXact(x->id());
  x->blockingXactDelAll();
  x->configVersionInc(1);
  U32 const attempt = x->configVersion();
  x->resultIs(xactFailure);
  x->commentDelAll();
  if (ownsFinish(*x, attempt)) x->statusVersionIs(attempt);
}

// ---- Status evaluation ----

void XactAggregatorSm::feedStatuses(Zel::Name const& name,
                                    Zel::Ptr<XactStatusDir const> const& dir) {
  for (U32 id : keysOf(dir->xactStatusIteratorConst())) {
    auto const* watcher = xactStatusDir_.find(name);
    if (!watcher || (*watcher)->notifier() != dir) return;  // removed by a handler meanwhile
    handleStatusFrom(*dir, id);
  }
}

void XactAggregatorSm::handleStatusFrom(XactStatusDir const& dir, U32 id) {
  if (trace().enabled(traceEvaluation)) {
    handleStatusChange(id);
    return;
  }
  auto const* progress = inProgressXact_.find(id);
  if (progress && mayDecide(**progress, dir.xactStatus(id))) handleStatusChange(id);
}

bool XactAggregatorSm::mayDecide(ZelInProgressXact& progress, XactStatus const& status) const {
  Xact const& x = *progress.notifier();
  U32 const configVersion = x.configVersion();
  bool const answered = answersAttempt(status, configVersion);
  if (answered && status.result() == xactFailure) return true;
  if (progress.attempt != configVersion) {
    progress.attempt = configVersion;
    progress.answers = answers(x.id(), configVersion);
  } else if (answered) {
    ++progress.answers;
  }
  return progress.answers >= xactStatusDir_.size();
}

U32 XactAggregatorSm::answers(U32 id, U32 configVersion) const {
  U32 count = 0;
  for (auto const& [name, watcher] : xactStatusDir_) {
    count += answersAttempt(watcher->notifier()->xactStatus(id), configVersion);
  }
  return count;
}

}  // namespace Kiv
