// Notification: a notifier keeps a NotifieeList of registered notifiees and visits it after each
// change; a notifiee holds a Ptr to its notifier and overrides the onX() handlers it cares about.
//
// A notifiee may register, unregister or be destroyed while its notifier is visiting the list
// (from inside a handler, say): removed notifiees are skipped, and notifiees added during a visit
// are first called on the next change.
#pragma once

#include <Zel/Ptr.h>

#include <cstddef>
#include <vector>

namespace Zel {

// The base of every notifiee class.
class PtrInterface::NotifieeConst {
public:
  NotifieeConst(NotifieeConst const&) = delete;
  NotifieeConst& operator=(NotifieeConst const&) = delete;
  virtual ~NotifieeConst() = default;

  bool isRegisteredNotifiee() const noexcept { return isRegisteredNotifiee_; }

protected:
  NotifieeConst() noexcept = default;
  void isRegisteredNotifieeIs(bool registered) noexcept { isRegisteredNotifiee_ = registered; }

private:
  bool isRegisteredNotifiee_ = false;
};

class NotifieeList {
public:
  using Entry = PtrInterface::NotifieeConst;

  bool empty() const noexcept { return live_ == 0; }
  std::size_t size() const noexcept { return live_; }
  bool visiting() const noexcept { return visiting_ != 0; }
  void notifieeIs(Entry* notifiee);
  void notifieeDel(Entry* notifiee) noexcept;

  // Calls visitor(entry) for each notifiee registered when the visit began, in order of
  // registration.
  template <class Visitor>
  void doVisit(Visitor&& visitor) {
    VisitScope scope(*this);
    std::size_t const count = entries_.size();
    for (std::size_t i = 0; i < count; ++i) {
      if (Entry* entry = entries_[i]) visitor(*entry);
    }
  }

private:
  class VisitScope {
  public:
    explicit VisitScope(NotifieeList& list) noexcept : list_(list) { ++list_.visiting_; }
    ~VisitScope() {
      if (--list_.visiting_ == 0 && list_.entries_.size() != list_.live_) list_.compact();
    }

  private:
    NotifieeList& list_;
  };

  void compact() noexcept;

  std::vector<Entry*> entries_;  // null where a notifiee left during a visit
  std::size_t live_ = 0;
  unsigned visiting_ = 0;
};

// The notifiee base of notifier class T: T::NotifieeConst derives from it and adds handlers.
template <class T>
class NotifieeConstOf : public PtrInterface::NotifieeConst {
public:
  Ptr<T const> const& notifier() const noexcept { return notifier_; }

  // Unregisters from the present notifier and registers with `notifier` (null: none).
  void notifierIs(Ptr<T const> const& notifier) {
    if (notifier == notifier_) return;
    if (notifier) notifier->zelNotifiees().notifieeIs(this);
    if (notifier_) notifier_->zelNotifiees().notifieeDel(this);
    notifier_ = notifier;
    isRegisteredNotifieeIs(static_cast<bool>(notifier_));
  }

  ~NotifieeConstOf() override {
    if (notifier_) notifier_->zelNotifiees().notifieeDel(this);
  }

protected:
  NotifieeConstOf() = default;

private:
  Ptr<T const> notifier_;
};

// The notifiee of notifier class T that may change what it observes: T::Notifiee.
template <class T>
class NotifieeOf : public T::NotifieeConst {
public:
  Ptr<T> notifier() const noexcept { return constPtrCast<T>(T::NotifieeConst::notifier()); }
  void notifierIs(Ptr<T> const& notifier) { T::NotifieeConst::notifierIs(notifier); }
};

}  // namespace Zel
