// Kiv::XactAggregatorSm: the coordinator's side of the transaction protocol.
//
// The owner makes Xact entities, sets their blockingXact and failIfBlockingXactFails, registers
// one config directory (written) and one status directory (watched) per worker, and calls
// doStartXact(x). Per transaction the aggregator then holds it in one state:
//
//   idle or finished   held nowhere; statusVersion == configVersion
//   blocked            blockedXact: a transaction of its blockingXact has not yet succeeded
//   pending            pendingXact: maxAllowedInProgressXacts are in progress
//   in progress        inProgressXact: the next attempt's config went to every worker
//
// A transaction in progress fails at the first failed answer to its current attempt, or when it
// is older than `timeout` at a scan every `pollingInterval` ("Timeout" under the name of each
// status directory that has not answered, or under "unknown"); it succeeds when every status
// directory has answered the attempt. A blocked one that asked for it (failIfBlockingXactFails)
// fails when a blocking transaction fails, and starts when all have succeeded. The outcome is
// published in the Xact: `comment` and `result` first, then statusVersion = configVersion. Each
// finish frees a slot for pending transactions and wakes the transactions it blocked.
//
// Choices this implementation makes where the protocol leaves room:
// - A transaction sits in at most one of inProgressXact, pendingXact and blockedXact. doStartXact
//   on a transaction already held moves it: a restart of one in progress keeps its slot (the
//   in-progress limit does not send it to pendingXact), a transaction that turns out blocked
//   leaves the in-progress and pending sets, one started or failed leaves the others.
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
// - Destroying an aggregator first detaches its watchers, then withdraws its configs from every
//   config directory (handleDel()).
// - Reflection covers the settings and the config directories; the collections of watchers
//   (transactions in progress or blocked, status directories) are read through their counts and
//   readers. The clock is passed to the generic constructor as it is: it has no string form.
//
// Single activity: every mutator and handler runs on the event loop that owns the aggregator.
#pragma once

#include <Kiv/XactDirectories.h>
#include <Kiv/XactRecords.h>

#include <Zel/Clock.h>
#include <Zel/Collections.h>
#include <Zel/Entity.h>
#include <Zel/Name.h>
#include <Zel/String.h>
#include <Zel/Types.h>

#include <cstddef>
#include <memory>

namespace Kiv {

// Whether a transaction of x.blockingXact() is unfinished or did not succeed.
bool xactIsBlocked(Zel::Ptr<Xact> const& x);
// Whether x.failIfBlockingXactFails() is set and a transaction of x.blockingXact() finished with
// xactFailure. An unfinished blocker never fails its dependant.
bool failXact(Zel::Ptr<Xact> const& x);

class XactAggregatorSm;
// `clock` drives the time-out scan; with a null clock nothing times out.
Zel::Ptr<XactAggregatorSm> xactAggregatorSmFactory(Zel::String const& name,
                                                   Zel::Ptr<Zel::Clock const> const& clock);

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
  void reviewBlockedXact(Zel::Ptr<Xact> x, Zel::Ptr<Xact const> blocking);
  void handleStatusFrom(XactStatusDir const& dir, U32 id);
  bool mayDecide(ZelInProgressXact& progress, XactStatus const& status) const;
  U32 answers(U32 id, U32 configVersion) const;
  void finishXact(Xact& x, XactResult result, U32 attempt);
  bool ownsFinish(Xact const& x, U32 attempt) const;
  void feedStatuses(Zel::Name const& name, Zel::Ptr<XactStatusDir const> const& dir);

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

}  // namespace Kiv
