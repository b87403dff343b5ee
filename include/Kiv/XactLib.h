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
// Choices this implementation makes where the protocol leaves room:
// - A transaction sits in at most one of the aggregator's inProgressXact, pendingXact and
//   blockedXact. doStartXact on a transaction already held moves it: a restart of one in progress
//   keeps its slot (the in-progress limit does not send it to pendingXact), a transaction that
//   turns out blocked leaves the in-progress and pending sets, one started or failed leaves the
//   others.
// - Transactions in progress are hashed by id; the walks that go in id order (the time-out scan,
//   the re-evaluation after a status directory left) sort the ids first. Lookups by id are the
//   hot path: one per status change.
// - Answers are counted per attempt, so a status that cannot decide the transaction costs O(1):
//   the full evaluation over every status directory runs only when a failed answer arrives or
//   when as many answers arrived as there are directories. The outcome is the same as evaluating
//   on every change; with XactLib traces at level 8 or above every change is evaluated in full,
//   so that each one is traced.
// - Outcomes belong to the start that produced them: if a handler starts a transaction again
//   while its previous attempt is being finished (an observer of its result, or of another
//   transaction that the finish set off), the old outcome is not written over the new start.
// - Raising maxAllowedInProgressXacts starts pending transactions at once.
// - Directories added while transactions are in progress take part from the next start on: no
//   config is written into a config directory after the fact, while a status directory added
//   meanwhile is waited for. Add a worker's pair between transactions or restart those in
//   progress.
// - The executor's backlog is ordered by id (not hashed), so a time slice that yields resumes at
//   its bookmark, or at the next id when that one was withdrawn, and wraps once to the lowest.
// - The executor takes an id out of its backlog before executing it (and puts it back if
//   doExecute throws), so a config rewritten during its own execution is executed again.
// - Destroying an aggregator withdraws its configs from every config directory; destroying an
//   executor withdraws its statuses (their handleDel()). Each first detaches its own watchers.
// - Reflection covers the aggregator's and executor's settings, counters and plain collections;
//   the collections of watchers (transactions in progress or blocked, status directories) are
//   read through their counts and readers. Handles (directories, the clock) are passed to the
//   generic constructors as they are: they have no string form.
//
// Single activity: every mutator and handler runs on the event loop that owns these objects.
// The aggregator and the executors of one process may share that loop; a worker without a clock
// then answers inside the aggregator's doStartXact.
#pragma once

#include <Zel/Clock.h>
#include <Zel/Collections.h>
#include <Zel/Entity.h>
#include <Zel/Name.h>
#include <Zel/String.h>
#include <Zel/Types.h>
#include <Zel/Value.h>

#include <iosfwd>
#include <memory>
#include <utility>

namespace Kiv {

// ---- Records ----------------------------------------------------------------------------------

// The outcome of a transaction or of one worker's execution, stored as U32.
enum class XactResult : U32 { xactInProgress = 0, xactSuccess = 1, xactFailure = 2 };

constexpr auto zelEnumInfo(XactResult) {
  return Zel::enumInfo<XactResult>("Kiv::XactResult",
                                   {{XactResult::xactInProgress, "xactInProgress"},
                                    {XactResult::xactSuccess, "xactSuccess"},
                                    {XactResult::xactFailure, "xactFailure"}});
}

// By number; throws Zel::RangeException "XactResult::value > 2 not allowed" past the last.
XactResult XactResultInstance(U32 value);
// By name ("xactSuccess"); throws Zel::RangeException for any other text.
XactResult XactResultInstance(Zel::String const& name);
// The enumerator's name, as the string form prints it.
Zel::String stringValue(XactResult result);
std::ostream& operator<<(std::ostream& out, XactResult result);

// What the coordinator publishes per worker; the default value (both 0) stands for no config.
class XactConfig : public Zel::Value<XactConfig> {
public:
  XactConfig() = default;
  XactConfig(U32 id, U32 configVersion) noexcept : id_(id), configVersion_(configVersion) {}

  U32 id() const noexcept { return id_; }
  void idIs(U32 id) noexcept { id_ = id; }
  U32 configVersion() const noexcept { return configVersion_; }
  void configVersionIs(U32 version) noexcept { configVersion_ = version; }

  static constexpr auto zelFields() {
    return Zel::valueFields(
        "Kiv::XactConfig", Zel::field("id", &XactConfig::id, &XactConfig::idIs),
        Zel::field("configVersion", &XactConfig::configVersion, &XactConfig::configVersionIs));
  }

private:
  U32 id_ = 0;
  U32 configVersion_ = 0;
};

// A worker's answer for the attempt `statusVersion`; the default value stands for no status.
class XactStatus : public Zel::Value<XactStatus> {
public:
  XactStatus() = default;
  XactStatus(U32 id, XactResult result, Zel::String comment, U32 statusVersion)
      : id_(id), result_(result), comment_(std::move(comment)), statusVersion_(statusVersion) {}

  U32 id() const noexcept { return id_; }
  void idIs(U32 id) noexcept { id_ = id; }
  XactResult result() const noexcept { return result_; }
  void resultIs(XactResult result) noexcept { result_ = result; }
  Zel::String const& comment() const noexcept { return comment_; }
  void commentIs(Zel::String comment) noexcept { comment_ = std::move(comment); }
  U32 statusVersion() const noexcept { return statusVersion_; }
  void statusVersionIs(U32 version) noexcept { statusVersion_ = version; }

  // True for the default value: no status.
  bool operator!() const { return *this == XactStatus(); }

  static constexpr auto zelFields() {
    return Zel::valueFields(
        "Kiv::XactStatus", Zel::field("id", &XactStatus::id, &XactStatus::idIs),
        Zel::field("result", &XactStatus::result, &XactStatus::resultIs),
        Zel::field("comment", &XactStatus::comment, &XactStatus::commentIs),
        Zel::field("statusVersion", &XactStatus::statusVersion, &XactStatus::statusVersionIs));
  }

private:
  U32 id_ = 0;
  XactResult result_ = XactResult::xactInProgress;
  Zel::String comment_;
  U32 statusVersion_ = 0;
};

// What a worker's doExecute returns for one config.
class ExecResult : public Zel::Value<ExecResult> {
public:
  ExecResult() = default;
  ExecResult(XactResult result, Zel::String comment)
      : result_(result), comment_(std::move(comment)) {}

  XactResult result() const noexcept { return result_; }
  void resultIs(XactResult result) noexcept { result_ = result; }
  Zel::String const& comment() const noexcept { return comment_; }
  void commentIs(Zel::String comment) noexcept { comment_ = std::move(comment); }

  // True for the default value.
  bool operator!() const { return *this == ExecResult(); }

  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::ExecResult",
                            Zel::field("result", &ExecResult::result, &ExecResult::resultIs),
                            Zel::field("comment", &ExecResult::comment, &ExecResult::commentIs));
  }

private:
  XactResult result_ = XactResult::xactInProgress;
  Zel::String comment_;
};

// ---- The coordinator's transaction ------------------------------------------------------------

class Xact;
Zel::Ptr<Xact> xactFactory(U32 id);

class Xact : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<Xact> {
  public:
    virtual void onConfigVersion() {}
    virtual void onStartTime() {}
    virtual void onStatusVersion() {}
    virtual void onResult() {}
    virtual void onComment(Zel::String const&) {}
    virtual void onBlockingXact(U32) {}
    virtual void onFailIfBlockingXactFails() {}
  };
  using Notifiee = Zel::NotifieeOf<Xact>;

  U32 id() const noexcept { return id_; }

  // The current attempt; wraps in 32 bits.
  U32 configVersion() const noexcept { return configVersion_; }
  void configVersionIs(U32 version) {
    attributeIs(configVersion_, version, &NotifieeConst::onConfigVersion);
  }
  void configVersionInc(U32 delta) {
    attributeInc(configVersion_, delta, &NotifieeConst::onConfigVersion);
  }
  void configVersionDec(U32 delta) {
    attributeInc(configVersion_, U32(0u - delta), &NotifieeConst::onConfigVersion);
  }

  // When the current attempt was sent out.
  Seconds startTime() const noexcept { return startTime_; }
  void startTimeIs(Seconds time) { attributeIs(startTime_, time, &NotifieeConst::onStartTime); }

  // The attempt whose outcome `result` reports.
  U32 statusVersion() const noexcept { return statusVersion_; }
  void statusVersionIs(U32 version) {
    attributeIs(statusVersion_, version, &NotifieeConst::onStatusVersion);
  }

  XactResult result() const noexcept { return result_; }
  void resultIs(XactResult result) { attributeIs(result_, result, &NotifieeConst::onResult); }

  // Remarks about the outcome by source: a status directory's name, or "unknown".
  Zel::String comment(Zel::String const& source) const { return comment_.value(source); }
  void commentIs(Zel::String const& source, Zel::String const& text) {
    entryIs(comment_, source, text, &NotifieeConst::onComment);
  }
  void commentDel(Zel::String const& source) {
    entryDel(comment_, source, &NotifieeConst::onComment);
  }
  void commentDelAll() { entryDelAll(comment_, &NotifieeConst::onComment); }
  void commentNotify(Zel::String const& source) { notify(&NotifieeConst::onComment, source); }
  auto const& commentIteratorConst() const noexcept { return comment_; }

  // Transactions that must finish with success before this one starts, keyed by their id. A null
  // transaction throws Zel::RangeException "null _blockingXact parameter to mutator for
  // Kiv::Xact::blockingXact not allowed"".
  Zel::Ptr<Xact const> blockingXact(U32 id) const { return blockingXact_.value(id); }
  void blockingXactIs(Zel::Ptr<Xact const> const& blocking);
  void blockingXactDel(U32 id) { entryDel(blockingXact_, id, &NotifieeConst::onBlockingXact); }
  void blockingXactDelAll() { entryDelAll(blockingXact_, &NotifieeConst::onBlockingXact); }
  void blockingXactNotify(U32 id) { notify(&NotifieeConst::onBlockingXact, id); }
  auto const& blockingXactIteratorConst() const noexcept { return blockingXact_; }

  // When true, a blocking transaction that finishes with xactFailure fails this one; when false
  // this one keeps waiting until it is stopped.
  bool failIfBlockingXactFails() const noexcept { return failIfBlockingXactFails_; }
  void failIfBlockingXactFailsIs(bool fail) {
    attributeIs(failIfBlockingXactFails_, fail, &NotifieeConst::onFailIfBlockingXactFails);
  }

  static auto zelAttributes() {
    return Zel::entityAttributes<Xact>(
        "Kiv::Xact", &xactFactory, Zel::ctorParams(Zel::ctorParam("id", &Xact::id)),
        Zel::scalar("configVersion", &Xact::configVersion, &Xact::configVersionIs),
        Zel::scalar("startTime", &Xact::startTime, &Xact::startTimeIs),
        Zel::scalar("statusVersion", &Xact::statusVersion, &Xact::statusVersionIs),
        Zel::scalar("result", &Xact::result, &Xact::resultIs),
        Zel::collection("comment", &Xact::comment_, &Xact::commentIs, &Xact::commentDel,
                        &Xact::commentDelAll),
        Zel::collection("blockingXact", &Xact::blockingXact_, nullptr, &Xact::blockingXactDel,
                        &Xact::blockingXactDelAll),
        Zel::scalar("failIfBlockingXactFails", &Xact::failIfBlockingXactFails,
                    &Xact::failIfBlockingXactFailsIs));
  }

protected:
  explicit Xact(U32 id) noexcept : id_(id) {}

private:
  U32 id_;
  U32 configVersion_ = 0;
  Seconds startTime_ = 0.0;
  U32 statusVersion_ = 0;
  XactResult result_ = XactResult::xactInProgress;
  Zel::HashMap2018<Zel::String, Zel::String> comment_;
  Zel::HashMap2018<U32, Zel::Ptr<Xact const>> blockingXact_;
  bool failIfBlockingXactFails_ = false;
};

// ---- Directories ------------------------------------------------------------------------------
//
// Each is named at construction; nameIsFromBackup() renames one restored from a backup, before it
// is registered with an aggregator (which keys directories by name). Entries are keyed by the
// transaction id; reading an absent one gives the default value. Reflection reads the entries;
// only the owning side writes them.

class XactConfigDir;
Zel::Ptr<XactConfigDir> xactConfigDirFactory(Zel::Name const& name);

// The configs one worker is asked to apply, ordered by id.
class XactConfigDir : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<XactConfigDir> {
  public:
    virtual void onXactConfig(U32) {}
  };

  Zel::Name const& name() const noexcept { return name_; }
  void nameIsFromBackup(Zel::Name const& name) { name_ = name; }

  XactConfig xactConfig(U32 id) const { return xactConfig_.value(id); }
  bool xactConfigHas(U32 id) const { return xactConfig_.has(id); }
  // Inserts or replaces the entry under config.id().
  void xactConfigIs(XactConfig const& config) {
    entryIs(xactConfig_, config.id(), config, &NotifieeConst::onXactConfig);
  }
  void xactConfigDel(U32 id) { entryDel(xactConfig_, id, &NotifieeConst::onXactConfig); }
  void xactConfigDelAll() { entryDelAll(xactConfig_, &NotifieeConst::onXactConfig); }
  auto const& xactConfigIteratorConst() const noexcept { return xactConfig_; }
  std::size_t xactConfigCount() const noexcept { return xactConfig_.size(); }

  static auto zelAttributes() {
    return Zel::entityAttributes<XactConfigDir>(
        "Kiv::XactConfigDir", &xactConfigDirFactory,
        Zel::ctorParams(Zel::ctorParam("name", &XactConfigDir::name)),
        Zel::collection("xactConfig", &XactConfigDir::xactConfig_, nullptr,
                        &XactConfigDir::xactConfigDel, &XactConfigDir::xactConfigDelAll));
  }

protected:
  explicit XactConfigDir(Zel::Name const& name) : name_(name) {}

private:
  Zel::Name name_;
  Zel::RbTreeMap<U32, XactConfig> xactConfig_;
};

class XactStatusDir;
Zel::Ptr<XactStatusDir> xactStatusDirFactory(Zel::Name const& name);

// One worker's answers, hashed by id.
class XactStatusDir : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<XactStatusDir> {
  public:
    virtual void onXactStatus(U32) {}
  };

  Zel::Name const& name() const noexcept { return name_; }
  void nameIsFromBackup(Zel::Name const& name) { name_ = name; }

  XactStatus xactStatus(U32 id) const { return xactStatus_.value(id); }
  bool xactStatusHas(U32 id) const { return xactStatus_.has(id); }
  // Inserts or replaces the entry under status.id().
  void xactStatusIs(XactStatus const& status) {
    entryIs(xactStatus_, status.id(), status, &NotifieeConst::onXactStatus);
  }
  void xactStatusDel(U32 id) { entryDel(xactStatus_, id, &NotifieeConst::onXactStatus); }
  void xactStatusDelAll() { entryDelAll(xactStatus_, &NotifieeConst::onXactStatus); }
  auto const& xactStatusIteratorConst() const noexcept { return xactStatus_; }
  std::size_t xactStatusCount() const noexcept { return xactStatus_.size(); }

  static auto zelAttributes() {
    return Zel::entityAttributes<XactStatusDir>(
        "Kiv::XactStatusDir", &xactStatusDirFactory,
        Zel::ctorParams(Zel::ctorParam("name", &XactStatusDir::name)),
        Zel::collection("xactStatus", &XactStatusDir::xactStatus_, nullptr,
                        &XactStatusDir::xactStatusDel, &XactStatusDir::xactStatusDelAll));
  }

protected:
  explicit XactStatusDir(Zel::Name const& name) : name_(name) {}

private:
  Zel::Name name_;
  Zel::HashMap2018<U32, XactStatus> xactStatus_;
};

class XactDir;
Zel::Ptr<XactDir> xactDirFactory(Zel::Name const& name);

// A coordinator's transactions, ordered by id.
class XactDir : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<XactDir> {
  public:
    virtual void onXact(U32) {}
  };

  Zel::Name const& name() const noexcept { return name_; }
  void nameIsFromBackup(Zel::Name const& name) { name_ = name; }

  // The transaction `id`, or null.
  Zel::Ptr<Xact> xact(U32 id) const { return xact_.value(id); }
  bool xactHas(U32 id) const { return xact_.has(id); }
  // Finds the transaction `id` or makes it.
  Zel::Ptr<Xact> xactIs(U32 id) {
    return instantiateChild(xact_, id, &NotifieeConst::onXact, xactFactory, id);
  }
  void xactDel(U32 id) { entryDel(xact_, id, &NotifieeConst::onXact); }
  void xactDelAll() { entryDelAll(xact_, &NotifieeConst::onXact); }
  auto const& xactIteratorConst() const noexcept { return xact_; }
  std::size_t xactCount() const noexcept { return xact_.size(); }

  static auto zelAttributes() {
    return Zel::entityAttributes<XactDir>(
        "Kiv::XactDir", &xactDirFactory, Zel::ctorParams(Zel::ctorParam("name", &XactDir::name)),
        Zel::collection("xact", &XactDir::xact_, nullptr, &XactDir::xactDel, &XactDir::xactDelAll));
  }

protected:
  explicit XactDir(Zel::Name const& name) : name_(name) {}

private:
  Zel::Name name_;
  Zel::RbTreeMap<U32, Zel::Ptr<Xact>> xact_;
};

// Whether a transaction of x.blockingXact() is unfinished or did not succeed.
bool xactIsBlocked(Zel::Ptr<Xact> const& x);
// Whether x.failIfBlockingXactFails() is set and a transaction of x.blockingXact() finished with
// xactFailure. An unfinished blocker never fails its dependant.
bool failXact(Zel::Ptr<Xact> const& x);

// ---- The coordinator's state machine ----------------------------------------------------------

class XactAggregatorSm;
// `clock` drives the time-out scan; with a null clock nothing times out.
Zel::Ptr<XactAggregatorSm> xactAggregatorSmFactory(Zel::String const& name,
                                                   Zel::Ptr<Zel::Clock const> const& clock);

// Per transaction: idle or finished (held nowhere), blocked (blockedXact, waiting for its
// blocking transactions), pending (pendingXact, waiting for a free in-progress slot) or in
// progress (inProgressXact, sent to every worker and awaiting answers). It fails at the first
// failed answer, when it is older than `timeout` at a scan every `pollingInterval`, or when a
// blocking transaction fails and it asked for that; it succeeds when every status directory has
// answered the current attempt. Each finish frees a slot for pending transactions and wakes the
// transactions it blocked.
class XactAggregatorSm : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<XactAggregatorSm> {
  public:
    virtual void onInProgressXact(U32) {}
    virtual void onPendingXact(U32) {}
    virtual void onBlockedXact(U32) {}
    virtual void onXactConfigDir(Zel::Name const&) {}
    virtual void onXactStatusDir(Zel::Name const&) {}
    virtual void onPurgingPendingXact() {}
    virtual void onMaxAllowedInProgressXacts() {}
    virtual void onPollingInterval() {}
    virtual void onTimeout() {}
  };

  // Scratch record of the comments gathered for one transaction, keyed by source.
  class XactComments {
  public:
    XactComments() = default;
    // There is no string form to parse: fails the assertion "No String constructor for
    // XactComments - has collection".
    XactComments(char const* begin, char const* end);

    Zel::String comment(Zel::String const& source) const { return comment_.value(source); }
    void commentIs(Zel::String const& source, Zel::String const& text) {
      comment_.valueIs(source, text);
    }
    void commentDel(Zel::String const& source) { comment_.del(source); }
    void commentDelAll() noexcept { comment_.delAll(); }
    auto const& commentIteratorConst() const noexcept { return comment_; }

  private:
    Zel::HashMap2018<Zel::String, Zel::String> comment_;
  };

  ~XactAggregatorSm() override;

  Zel::String const& name() const noexcept { return name_; }
  Zel::Ptr<Zel::Clock const> const& clock() const noexcept { return zelClock_.notifier(); }
  // When the next time-out scan runs; the end of time when none is armed.
  Seconds nextPollTime() const noexcept { return zelClock_.timeMin(); }

  // ---- Starting and stopping ----

  // Starts X (a new attempt with the next configVersion), restarts it, or queues it as blocked
  // or pending; see the class comment. With no config or no status directory registered it
  // succeeds at once. An exception from a worker that answers synchronously propagates; X then
  // stays in progress until it is answered, stopped or timed out.
  void doStartXact(Zel::Ptr<Xact> const& x);
  // Withdraws a transaction: takes it out of every set, which may start pending ones, and deletes
  // its config from every config directory. The Xact's own attributes are left as they are.
  void doStopXact(U32 id);

  // ---- Transactions by state ----
  //
  // The mutators are the state machine's own steps (owners call doStartXact and doStopXact). A
  // null transaction throws Zel::RangeException "null _inProgressXact parameter to mutator for
  // Kiv::XactAggregatorSm::inProgressXact not allowed"" (likewise for pendingXact, blockedXact).

  Zel::Ptr<Xact> inProgressXact(U32 id) const;
  bool inProgressXactHas(U32 id) const { return inProgressXact_.has(id); }
  std::size_t inProgressXactCount() const noexcept { return inProgressXact_.size(); }
  // Each insertion or removal runs handleInProgressXact(id).
  void inProgressXactIs(Zel::Ptr<Xact> const& x);
  void inProgressXactDel(U32 id);

  Zel::Ptr<Xact> pendingXact(U32 id) const { return pendingXact_.value(id); }
  std::size_t pendingXactCount() const noexcept { return pendingXact_.size(); }
  void pendingXactIs(Zel::Ptr<Xact> const& x);
  void pendingXactDel(U32 id) { entryDel(pendingXact_, id, &NotifieeConst::onPendingXact); }

  Zel::Ptr<Xact> blockedXact(U32 id) const;
  std::size_t blockedXactCount() const noexcept { return blockedXact_.size(); }
  // Watches X's blocking transactions; a change of their statusVersion reviews X.
  void blockedXactIs(Zel::Ptr<Xact> const& x);
  void blockedXactDel(U32 id);

  // ---- Workers ----
  //
  // Directories are keyed by their names. A null directory throws Zel::RangeException "null
  // _xactConfigDir parameter to mutator for Kiv::XactAggregatorSm::xactConfigDir not allowed""
  // (likewise for xactStatusDir).

  Zel::Ptr<XactConfigDir> xactConfigDir(Zel::Name const& name) const {
    return xactConfigDir_.value(name);
  }
  std::size_t xactConfigDirCount() const noexcept { return xactConfigDir_.size(); }
  void xactConfigDirIs(Zel::Ptr<XactConfigDir> const& dir);
  void xactConfigDirDel(Zel::Name const& name) {
    entryDel(xactConfigDir_, name, &NotifieeConst::onXactConfigDir);
  }
  void xactConfigDirDelAll() { entryDelAll(xactConfigDir_, &NotifieeConst::onXactConfigDir); }

  Zel::Ptr<XactStatusDir const> xactStatusDir(Zel::Name const& name) const;
  std::size_t xactStatusDirCount() const noexcept { return xactStatusDir_.size(); }
  // Watches the directory; its present statuses are evaluated at once. Each change runs
  // handleXactStatusDir(name), so removing a directory re-evaluates every transaction in
  // progress.
  void xactStatusDirIs(Zel::Ptr<XactStatusDir const> const& dir);
  void xactStatusDirDel(Zel::Name const& name);
  void xactStatusDirDelAll();

  // ---- Settings ----

  // True while pending transactions are being started, so that the walk runs only once.
  bool purgingPendingXact() const noexcept { return purgingPendingXact_; }
  // The largest number of transactions in progress at once (default 10000).
  U32 maxAllowedInProgressXacts() const noexcept { return maxAllowedInProgressXacts_; }
  void maxAllowedInProgressXactsIs(U32 limit);
  // Seconds between time-out scans (default 1.0); throws Zel::RangeException
  // "XactAggregatorSm::pollingInterval <= 0 not allowed" for a value not above 0.
  Seconds pollingInterval() const noexcept { return pollingInterval_; }
  void pollingIntervalIs(Seconds interval);
  // The age at which a transaction in progress fails (default 600.0); throws
  // Zel::RangeException "XactAggregatorSm::timeout < 0 not allowed" for a negative value or NaN.
  Seconds timeout() const noexcept { return timeout_; }
  void timeoutIs(Seconds timeout);

  // ---- Handlers ----

  // Traces only.
  void handleInit();
  // Disarms the time-out scan and deletes every config from every config directory.
  void handleDel();
  // The time-out scan: fails each transaction in progress for at least `timeout` seconds, with
  // "Timeout" under the name of each status directory that has not answered (or under "unknown"),
  // then re-arms while transactions remain in progress.
  void handleClock();
  // Evaluates the transaction `id` over every status directory: the first failed answer fails it,
  // answers from all directories succeed it; worker comments are collected either way.
  void handleStatusChange(U32 id);
  // After `id` left inProgressXact: starts pending transactions while there is room.
  void handleInProgressXact(U32 id);
  // After the status directory `name` was removed: evaluates every transaction in progress.
  void handleXactStatusDir(Zel::String const& name);

  static auto zelAttributes() {
    using Sm = XactAggregatorSm;
    return Zel::entityAttributes<Sm>(
        "Kiv::XactAggregatorSm", &xactAggregatorSmFactory,
        Zel::ctorParams(Zel::ctorParam("name", &Sm::name), Zel::ctorParam("clock", &Sm::clock)),
        Zel::computed("inProgressXactCount", &Sm::inProgressXactCount),
        Zel::computed("pendingXactCount", &Sm::pendingXactCount),
        Zel::computed("blockedXactCount", &Sm::blockedXactCount),
        Zel::collection("xactConfigDir", &Sm::xactConfigDir_, nullptr, &Sm::xactConfigDirDel,
                        &Sm::xactConfigDirDelAll),
        Zel::computed("xactStatusDirCount", &Sm::xactStatusDirCount),
        Zel::computed("purgingPendingXact", &Sm::purgingPendingXact),
        Zel::scalar("maxAllowedInProgressXacts", &Sm::maxAllowedInProgressXacts,
                    &Sm::maxAllowedInProgressXactsIs),
        Zel::scalar("pollingInterval", &Sm::pollingInterval, &Sm::pollingIntervalIs),
        Zel::scalar("timeout", &Sm::timeout, &Sm::timeoutIs),
        Zel::computed("nextPollTime", &Sm::nextPollTime));
  }

protected:
  XactAggregatorSm(Zel::String const& name, Zel::Ptr<Zel::Clock const> const& clock);

private:
  class ZelClock : public Zel::Clock::NotifieeConst {
  public:
    explicit ZelClock(XactAggregatorSm& owner) noexcept : owner_(owner) {}
    void onTime() override { owner_.handleClock(); }

  private:
    XactAggregatorSm& owner_;
  };
  class ZelInProgressXact;
  class ZelXactStatusDir;
  class ZelBlockedXact;
  class ZelBlockingXact;

  void purgingPendingXactIs(bool purging) {
    attributeIs(purgingPendingXact_, purging, &NotifieeConst::onPurgingPendingXact);
  }
  void startPendingXacts();
  bool startsWithinLimit(U32 id) const;
  void sendXact(Zel::Ptr<Xact> const& x);
  void failBlockedXact(Xact& x);
  void reviewBlockedXact(Zel::Ptr<Xact> x, Zel::Ptr<Xact const> blocker);
  void handleStatusFrom(XactStatusDir const& dir, U32 id);
  bool mayDecide(ZelInProgressXact& progress, XactStatus const& status) const;
  U32 answers(U32 id, U32 configVersion) const;
  void finishXact(Xact& x, XactResult result, U32 attempt);
  bool ownsFinish(Xact const& x, U32 attempt) const;
  void feedStatuses(Zel::Name const& name, Zel::Ptr<XactStatusDir const> const& dir);
  void detachReactors() noexcept;

  Zel::String name_;
  Zel::HashMap2018<U32, std::unique_ptr<ZelInProgressXact>> inProgressXact_;
  Zel::HashMap2018<U32, Zel::Ptr<Xact>> pendingXact_;
  Zel::HashMap2018<U32, std::unique_ptr<ZelBlockedXact>> blockedXact_;
  Zel::HashMap2018<Zel::Name, Zel::Ptr<XactConfigDir>> xactConfigDir_;
  Zel::HashMap2018<Zel::Name, std::unique_ptr<ZelXactStatusDir>> xactStatusDir_;
  bool purgingPendingXact_ = false;
  U32 maxAllowedInProgressXacts_ = 10000;
  Seconds pollingInterval_ = 1.0;
  Seconds timeout_ = 600.0;
  ZelClock zelClock_{*this};
};

// ---- The worker's state machine ---------------------------------------------------------------

class XactExecutorSm;
// Makes an executor of class E (XactExecutorSm or a class derived from it) from E's constructor
// arguments, runs handleInit() and takes up the configs already present. The constructor cannot
// take them up itself: while the base is being built, doExecute is not yet the derived class's.
template <class E = XactExecutorSm, class... A>
Zel::Ptr<E> xactExecutorSmFactory(A&&... args);

// Executes each new or changed config of one config directory through doExecute(), supplied by a
// derived class, and writes the outcome into its status directory with statusVersion =
// configVersion. A withdrawn config deletes its status at once.
//
// Without a clock each config executes synchronously inside its change notification. With a
// clock changed ids wait in `backlog` and run in time slices on the clock's activity: a slice
// executes entries in id order from `bookmark` until `backlogQuantum` seconds have passed (at
// least one entry per slice), then yields to the event loop and resumes at the next turn. A
// config rewritten while waiting executes once, with its latest value.
class XactExecutorSm : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<XactExecutorSm> {
  public:
    virtual void onUpdatesSeen() {}
    virtual void onUpdatesProcessed() {}
    virtual void onTimeUsed() {}
    virtual void onDispatchCount() {}
    virtual void onYieldBeforeFinishingCount() {}
    virtual void onBacklog(U32) {}
    virtual void onBookmark() {}
    virtual void onBacklogQuantum() {}
  };

  ~XactExecutorSm() override;

  Zel::String const& name() const noexcept { return name_; }
  Zel::Ptr<XactConfigDir const> const& xactConfigDir() const noexcept {
    return zelXactConfigDir_.notifier();
  }
  Zel::Ptr<XactStatusDir> const& xactStatusDir() const noexcept { return xactStatusDir_; }
  Zel::Ptr<Zel::Clock const> const& clock() const noexcept { return zelClock_.notifier(); }
  // When the next time slice runs; the end of time when none is armed.
  Seconds nextSliceTime() const noexcept { return zelClock_.timeMin(); }

  // ---- Counters ----

  // Config notifications received.
  U64 updatesSeen() const noexcept { return updatesSeen_; }
  void updatesSeenIs(U64 n) { attributeIs(updatesSeen_, n, &NotifieeConst::onUpdatesSeen); }
  void updatesSeenInc(U64 d) { attributeInc(updatesSeen_, d, &NotifieeConst::onUpdatesSeen); }
  // Backlog entries executed by time slices.
  U64 updatesProcessed() const noexcept { return updatesProcessed_; }
  void updatesProcessedIs(U64 n) {
    attributeIs(updatesProcessed_, n, &NotifieeConst::onUpdatesProcessed);
  }
  void updatesProcessedInc(U64 d) {
    attributeInc(updatesProcessed_, d, &NotifieeConst::onUpdatesProcessed);
  }
  // Seconds spent in time slices.
  Seconds timeUsed() const noexcept { return timeUsed_; }
  void timeUsedIs(Seconds t) { attributeIs(timeUsed_, t, &NotifieeConst::onTimeUsed); }
  void timeUsedInc(Seconds d) { attributeInc(timeUsed_, d, &NotifieeConst::onTimeUsed); }
  // Time slices run.
  U64 dispatchCount() const noexcept { return dispatchCount_; }
  void dispatchCountIs(U64 n) { attributeIs(dispatchCount_, n, &NotifieeConst::onDispatchCount); }
  void dispatchCountInc(U64 d) {
    attributeInc(dispatchCount_, d, &NotifieeConst::onDispatchCount);
  }
  // Time slices that yielded with backlog left.
  U64 yieldBeforeFinishingCount() const noexcept { return yieldBeforeFinishingCount_; }
  void yieldBeforeFinishingCountIs(U64 n) {
    attributeIs(yieldBeforeFinishingCount_, n, &NotifieeConst::onYieldBeforeFinishingCount);
  }
  void yieldBeforeFinishingCountInc(U64 d) {
    attributeInc(yieldBeforeFinishingCount_, d, &NotifieeConst::onYieldBeforeFinishingCount);
  }

  // ---- The backlog ----

  // Ids whose config changed and still await execution, in id order.
  bool backlog(U32 id) const { return backlog_.value(id); }
  bool backlogHas(U32 id) const { return backlog_.has(id); }
  std::size_t backlogCount() const noexcept { return backlog_.size(); }
  void backlogIs(U32 id, bool waiting) {
    entryIs(backlog_, id, waiting, &NotifieeConst::onBacklog);
  }
  void backlogDel(U32 id) {
    ++backlogRemovals_;
    entryDel(backlog_, id, &NotifieeConst::onBacklog);
  }
  void backlogDelAll() {
    ++backlogRemovals_;
    entryDelAll(backlog_, &NotifieeConst::onBacklog);
  }
  auto const& backlogIteratorConst() const noexcept { return backlog_; }
  // The id at which the next time slice starts.
  U32 bookmark() const noexcept { return bookmark_; }
  void bookmarkIs(U32 id) { attributeIs(bookmark_, id, &NotifieeConst::onBookmark); }
  // The length of one time slice in seconds (default 0.01); throws Zel::RangeException
  // "XactExecutorSm::backlogQuantum < 0 not allowed" for a negative value or NaN.
  Seconds backlogQuantum() const noexcept { return backlogQuantum_; }
  void backlogQuantumIs(Seconds quantum);

  // ---- Work ----

  // Applies one config and returns its outcome. The base version throws
  // Zel::NoImplementationException "doExecute must be implemented in the derived class".
  virtual ExecResult doExecute(XactConfig const& config);
  // Executes the config `id` and writes its status, or deletes the status when the config was
  // withdrawn.
  void doProcessXact(U32 id);

  // ---- Handlers ----

  // One config changed: executes it now (no clock, or withdrawn) or queues it.
  void handleXactConfig(U32 id);
  // Takes up every config present, in id order.
  void handleXactConfig();
  // One time slice.
  void handleClock();
  // Traces only.
  void handleInit();
  // Deletes every status this worker wrote and disarms the time slices.
  void handleDel();

  // Derived executors share this record: they are reflected as XactExecutorSm.
  static auto zelAttributes() {
    using Sm = XactExecutorSm;
    return Zel::entityAttributes<Sm>(
        "Kiv::XactExecutorSm",
        &xactExecutorSmFactory<Sm, Zel::String, Zel::Ptr<XactConfigDir const>,
                               Zel::Ptr<XactStatusDir>, Zel::Ptr<Zel::Clock const>>,
        Zel::ctorParams(Zel::ctorParam("name", &Sm::name),
                        Zel::ctorParam("xactConfigDir", &Sm::xactConfigDir),
                        Zel::ctorParam("xactStatusDir", &Sm::xactStatusDir),
                        Zel::ctorParam("clock", &Sm::clock)),
        Zel::scalar("updatesSeen", &Sm::updatesSeen, &Sm::updatesSeenIs),
        Zel::scalar("updatesProcessed", &Sm::updatesProcessed, &Sm::updatesProcessedIs),
        Zel::scalar("timeUsed", &Sm::timeUsed, &Sm::timeUsedIs),
        Zel::scalar("dispatchCount", &Sm::dispatchCount, &Sm::dispatchCountIs),
        Zel::scalar("yieldBeforeFinishingCount", &Sm::yieldBeforeFinishingCount,
                    &Sm::yieldBeforeFinishingCountIs),
        Zel::collection("backlog", &Sm::backlog_, &Sm::backlogIs, &Sm::backlogDel,
                        &Sm::backlogDelAll),
        Zel::scalar("bookmark", &Sm::bookmark, &Sm::bookmarkIs),
        Zel::scalar("backlogQuantum", &Sm::backlogQuantum, &Sm::backlogQuantumIs),
        Zel::computed("nextSliceTime", &Sm::nextSliceTime));
  }

protected:
  // Refuses a null directory with Zel::RangeException "null _xactConfigDir parameter to mutator
  // for Kiv::XactExecutorSm::xactConfigDir not allowed"" (likewise xactStatusDir). Configs
  // present are taken up by xactExecutorSmFactory, once the derived object is complete.
  XactExecutorSm(Zel::String const& name, Zel::Ptr<XactConfigDir const> const& xactConfigDir,
                 Zel::Ptr<XactStatusDir> const& xactStatusDir,
                 Zel::Ptr<Zel::Clock const> const& clock);

private:
  class ZelXactConfigDir : public XactConfigDir::NotifieeConst {
  public:
    explicit ZelXactConfigDir(XactExecutorSm& owner) noexcept : owner_(owner) {}
    void onXactConfig(U32 id) override { owner_.handleXactConfig(id); }

  private:
    XactExecutorSm& owner_;
  };
  class ZelClock : public Zel::Clock::NotifieeConst {
  public:
    explicit ZelClock(XactExecutorSm& owner) noexcept : owner_(owner) {}
    void onTime() override { owner_.handleClock(); }

  private:
    XactExecutorSm& owner_;
  };

  Zel::RbTreeMap<U32, bool>::iterator firstFrom(U32 id);
  void executeBacklogEntry(U32 id);

  Zel::String name_;
  Zel::Ptr<XactStatusDir> xactStatusDir_;
  U64 updatesSeen_ = 0;
  U64 updatesProcessed_ = 0;
  Seconds timeUsed_ = 0.0;
  U64 dispatchCount_ = 0;
  U64 yieldBeforeFinishingCount_ = 0;
  Zel::RbTreeMap<U32, bool> backlog_;
  U64 backlogRemovals_ = 0;  // lets a time slice notice entries withdrawn under it
  U32 bookmark_ = 0;
  Seconds backlogQuantum_ = 0.01;
  ZelXactConfigDir zelXactConfigDir_{*this};
  ZelClock zelClock_{*this};
};

template <class E, class... A>
Zel::Ptr<E> xactExecutorSmFactory(A&&... args) {
  Zel::Ptr<E> executor = Zel::allocate<E>(std::forward<A>(args)...);
  executor->handleInit();
  executor->handleXactConfig();
  return executor;
}

}  // namespace Kiv
