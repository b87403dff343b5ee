// The transaction records: what a coordinator and its workers exchange, and the coordinator's
// transaction itself.
//
// - XactResult: the outcome of a transaction or of one worker's execution; printed and parsed by
//   its names "xactInProgress", "xactSuccess" and "xactFailure".
// - XactConfig{id, configVersion}: what the coordinator publishes per worker for one attempt.
// - XactStatus{id, result, comment, statusVersion}: a worker's answer to the attempt
//   `statusVersion`; it answers the current attempt only when statusVersion equals the
//   transaction's configVersion, and is stale otherwise.
// - ExecResult{result, comment}: what a worker's doExecute returns for one config.
// - Xact: the coordinator's transaction. configVersion counts its attempts; statusVersion names the
//   attempt whose outcome `result` and `comment` report. It is finished exactly when statusVersion
//   == configVersion; while an attempt is under way configVersion is one ahead and result is
//   xactInProgress. Its blockingXact entries serve one start: they are emptied when it leaves the
//   blocked state, started or failed.
//
// Every mutator notifies only on change.
#pragma once

#include <Zel/Collections.h>
#include <Zel/Entity.h>
#include <Zel/String.h>
#include <Zel/Types.h>
#include <Zel/Value.h>

#include <iosfwd>
#include <utility>

namespace Kiv {

// Stored as U32.
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

// The default value (both fields 0) stands for no config.
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

// The default value stands for no status.
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

}  // namespace Kiv
