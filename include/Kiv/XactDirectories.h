// The transaction directories: where a coordinator and its workers meet.
//
// - XactConfigDir: the configs one worker is asked to apply, ordered by id. Only the coordinator
//   writes it; the worker's executor watches it.
// - XactStatusDir: one worker's answers, hashed by id. Only the worker writes it; the
//   coordinator's aggregator watches it.
// - XactDir: a coordinator's transactions, ordered by id, each made by xactIs(id).
//
// One XactConfigDir and XactStatusDir pair exists per worker. Each directory is named at
// construction; nameIsFromBackup() renames one restored from a backup, before it is registered
// with an aggregator (which keys directories by name). Entries are keyed by the transaction id,
// and each change notifies its id; reading an absent entry gives the default value (null for a
// transaction). Reflection reads the entries; only the owning side writes them.
#pragma once

#include <Kiv/XactRecords.h>

#include <Zel/Collections.h>
#include <Zel/Entity.h>
#include <Zel/Name.h>
#include <Zel/Types.h>

#include <cstddef>

namespace Kiv {

class XactConfigDir;
Zel::Ptr<XactConfigDir> xactConfigDirFactory(Zel::Name const& name);

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

}  // namespace Kiv
