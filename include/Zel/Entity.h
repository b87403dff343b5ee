// The entity frame: allocate<T>() is every factory, Notifier is the base of every entity that
// others observe, and its protected helpers are the one place where the mutator contract lives:
//
//   1. if the new value equals the stored one, return: no notification;
//   2. store it;
//   3. if notifiees are registered, call each one's handler.
//
// So a class's mutators are one line each:
//
//   void configVersionIs(U32 v) { attributeIs(configVersion_, v, &NotifieeConst::onConfigVersion);
//   } void configVersionInc(U32 d) { attributeInc(configVersion_, d,
//   &NotifieeConst::onConfigVersion); } void commentIs(String const& k, String const& v) {
//   entryIs(comment_, k, v, &NotifieeConst::onComment); } Ptr<Xact> xactIs(U32 id) { return
//   instantiateChild(xact_, id, &NotifieeConst::onXact, xactFactory, id); }
#pragma once

#include <Zel/AllocTrack.h>
#include <Zel/Exception.h>
#include <Zel/GenericIf.h>
#include <Zel/Notifiee.h>
#include <Zel/Ptr.h>
#include <Zel/Strep.h>

#include <functional>
#include <new>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Zel {

// The most-derived class of every object that allocate<T>() makes: it keeps the allocation
// tracking of T balanced and reports T's reflection record.
template <class T>
class Allocated final : public T {
public:
  template <class... A>
  explicit Allocated(A&&... args) : T(std::forward<A>(args)...) {}
  ~Allocated() override { AllocTrackTypeInfo::of<T>().trackDeallocation(); }

  std::type_info const& zelClass() const noexcept override { return typeid(T); }

  GenericIf const* fwkType() const noexcept override {
    if constexpr (ReflectedEntity<T>) {
      return &registerType<typename decltype(T::zelAttributes())::Entity>();
    } else {
      return nullptr;
    }
  }
};

// The factory contract: track the allocation, construct (undoing the tracking if the
// constructor throws), wrap in a Ptr and switch notifications on.
template <class T, class... A>
Ptr<T> allocate(A&&... args) {
  AllocTrackTypeInfo& track = AllocTrackTypeInfo::of<T>();
  track.trackAllocation(sizeof(Allocated<T>));
  void* memory = PtrInterface::zelMemAlloc(sizeof(Allocated<T>));
  T* object;
  try {
    object = new (memory) Allocated<T>(std::forward<A>(args)...);
  } catch (...) {
    track.trackDeallocation();
    PtrInterface::zelMemFree(memory);
    throw;
  }
  Ptr<T> handle(object);
  handle->hasNotificationActiveIs(true);
  return handle;
}

// Throws RangeException "null _<attribute> parameter to mutator for <type>::<attribute> not
// allowed"" (the message ends in one double-quote character) when `value` is null.
void nullMutatorParameter(char const* typeName, char const* attribute);
template <class P>
void refuseNull(P const& value, char const* typeName, char const* attribute) {
  if (!value) nullMutatorParameter(typeName, attribute);
}

// Throws NameInUseException when a child is instantiated again with constructor arguments that
// differ from the present child's; the first differing parameter in declaration order is named.
template <class C, class... A>
void checkReinstantiation(C const& present, A const&... args) {
  auto const params = C::zelAttributes().ctorParams;
  static_assert(std::tuple_size_v<std::remove_const_t<decltype(params)>> == sizeof...(A),
                "one argument per constructor parameter");
  auto compare = [&](auto const& param, auto const& arg) {
    auto const& current = std::invoke(param.get, present);
    if (current == arg) return true;
    throw NameInUseException(
        std::string(
            "Reinstantiating the pointer interface where constructor parameter attribute _") +
        param.name + " has a different value of " + valueToStrep(arg).str() +
        " than the current value of " + valueToStrep(current).str() + " not allowed");
  };
  std::apply([&](auto const&... p) { (compare(p, args) && ...); }, params);
}

class ActivityManager;

class Notifier : public PtrInterface {
public:
  NotifieeList& zelNotifiees() const noexcept { return notifiees_; }
  // The activity (event loop) this entity's handlers run on: the calling thread's.
  Ptr<ActivityManager> zelFwkActivity() const;

protected:
  Notifier() = default;

  // Calls `handler` with `args` on every registered notifiee. A handler may drop the last
  // reference to the notifier: its destruction waits until the visit is over.
  template <class N, class... P, class... A>
  void notify(void (N::*handler)(P...), A const&... args) const {
    if (notifiees_.empty() || !hasNotificationActive()) return;
    DeferredDestruction guard(*this);
    notifiees_.doVisit(
        [&](PtrInterface::NotifieeConst& n) { (static_cast<N&>(n).*handler)(args...); });
  }

  void handleZeroRef() const noexcept override;

  template <class V, class N>
  void attributeIs(V& field, V const& value, void (N::*handler)()) {
    if (field == value) return;
    field = value;
    notify(handler);
  }
  // Adds `delta`, wrapping in the attribute's width.
  template <class V, class N>
  void attributeInc(V& field, V delta, void (N::*handler)()) {
    attributeIs(field, static_cast<V>(field + delta), handler);
  }

  template <class Map, class N, class P>
  void entryIs(Map& map, typename Map::key_type const& key, typename Map::mapped_type const& value,
               void (N::*handler)(P)) {
    if (map.valueIs(key, value)) notify(handler, key);
  }
  template <class Map, class N, class P>
  void entryDel(Map& map, typename Map::key_type const& key, void (N::*handler)(P)) {
    if (map.del(key)) notify(handler, key);
  }
  // A handler may drop the last outside reference midway, so the notifier holds one of its own
  // until every key is reported (unless it is being made or destroyed and so has none).
  template <class Map, class N, class P>
  void entryDelAll(Map& map, void (N::*handler)(P)) {
    Ptr<Notifier const> const self(references() > 0 ? this : nullptr);
    for (auto const& key : map.delAll()) notify(handler, key);
  }

  // Finds the child under `key` (checking that `args` match its constructor parameters) or
  // makes it with factory(args...), stores it and notifies.
  template <class Map, class N, class P, class Factory, class... A>
  typename Map::mapped_type instantiateChild(Map& map, typename Map::key_type const& key,
                                             void (N::*handler)(P), Factory&& factory,
                                             A const&... args) {
    if (auto const* present = map.find(key)) {
      checkReinstantiation(**present, args...);
      return *present;
    }
    typename Map::mapped_type child = std::invoke(std::forward<Factory>(factory), args...);
    map.valueIs(key, child);
    notify(handler, key);
    return child;
  }

private:
  class DeferredDestruction {
  public:
    explicit DeferredDestruction(Notifier const& notifier) noexcept : notifier_(notifier) {}
    ~DeferredDestruction() { notifier_.endVisit(); }

  private:
    Notifier const& notifier_;
  };

  void endVisit() const noexcept;

  mutable NotifieeList notifiees_;
  mutable bool zeroRefDuringVisit_ = false;
};

}  // namespace Zel
