// Kiv::XactExecutorSm: the worker's side of the transaction protocol.
//
// It executes each new or changed config of one config directory through doExecute(), supplied
// by a derived class, and writes the outcome into its status directory with statusVersion =
// configVersion. A withdrawn config deletes its status at once. A worker derives its executor
// class, overrides doExecute, inherits the constructor and makes it by
// xactExecutorSmFactory<Derived>(name, configDir, statusDir, clock).
//
// Without a clock each config executes synchronously inside its change notification. With a
// clock changed ids wait in `backlog` and run in time slices on the clock's activity: a slice
// executes entries in id order from `bookmark` until `backlogQuantum` seconds have passed (at
// least one entry per slice), then yields to the event loop and resumes at the next turn. A
// config rewritten while waiting executes once, with its latest value.
//
// Choices this implementation makes where the protocol leaves room:
// - The backlog is ordered by id (not hashed), so a time slice that yields resumes at its
//   bookmark, or at the next id when that one was withdrawn, and wraps once to the lowest.
// - An id leaves the backlog before it executes (and goes back if doExecute throws), so a config
//   rewritten during its own execution is executed again.
// - Destroying an executor first detaches its config watcher, then withdraws its statuses
//   (handleDel()).
// - Derived executors are reflected as XactExecutorSm. The directories and the clock are passed
//   to the generic constructor as they are: they have no string form.
//
// Single activity: every mutator and handler runs on the event loop that owns the executor.
#pragma once

#include <Kiv/XactDirectories.h>
#include <Kiv/XactRecords.h>

#include <Zel/Clock.h>
#include <Zel/Collections.h>
#include <Zel/Entity.h>
#include <Zel/String.h>
#include <Zel/Types.h>

#include <cstddef>
#include <utility>

namespace Kiv {

class XactExecutorSm;
// Makes an executor of class E (XactExecutorSm or a class derived from it) from E's constructor
// arguments, runs handleInit() and takes up the configs already present. The constructor cannot
// take them up itself: while the base is being built, doExecute is not yet the derived class's.
template <class E = XactExecutorSm, class... A>
Zel::Ptr<E> xactExecutorSmFactory(A&&... args);

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
  void dispatchCountInc(U64 d) { attributeInc(dispatchCount_, d, &NotifieeConst::onDispatchCount); }
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
