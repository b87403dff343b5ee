// Reflection: every reflectable class registers one GenericIf record (its full type name, its
// attributes in declaration order and what each allows), which lets tools find a type by name,
// read and write attributes through their string forms, iterate collections and construct
// entities from generic arguments.
//
// An entity declares its attributes once in a static table, constructor parameters first:
//
//   static auto zelAttributes() {
//     return Zel::entityAttributes<Xact>("Kiv::Xact", &xactFactory,
//         Zel::ctorParams(Zel::ctorParam("id", &Xact::id)),
//         Zel::scalar("configVersion", &Xact::configVersion, &Xact::configVersionIs),
//         Zel::collection("comment", &Xact::comment_, &Xact::commentIs, &Xact::commentDel,
//                         &Xact::commentDelAll),
//         Zel::computed("finished", &Xact::finished));
//   }
//
// The record is built from that table on first use; registerType<T>() builds it ahead of time so
// that GenericIf::type() can find it by name. Operations the attribute's kind forbids (writing a
// constructor parameter or a computed attribute, deleting without a delete mutator) throw
// OperationNotSupportedException.
#pragma once

#include <Zel/Exception.h>
#include <Zel/Ptr.h>
#include <Zel/Strep.h>
#include <Zel/Value.h>

#include <any>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace Zel {

// Pointers print as None when null and as <type> otherwise.
std::string pointerStrep(PtrInterface const* object);
template <class T>
void printStrep(std::string& out, Ptr<T> const& value) {
  out += pointerStrep(value.ptr());
}

enum class AttributeKind { constructorParameter, scalar, collection, computed, field };
constexpr auto zelEnumInfo(AttributeKind) {
  return enumInfo<AttributeKind>("Zel::AttributeKind",
                                 {{AttributeKind::constructorParameter, "constructorParameter"},
                                  {AttributeKind::scalar, "scalar"},
                                  {AttributeKind::collection, "collection"},
                                  {AttributeKind::computed, "computed"},
                                  {AttributeKind::field, "field"}});
}

class GenericIf {
public:
  using Entries = std::vector<std::pair<String, String>>;

  struct Attribute {
    Attribute(std::string attributeName, AttributeKind attributeKind)
        : name(std::move(attributeName)), kind(attributeKind) {}

    std::string name;
    AttributeKind kind;
    // Entities pass a PtrInterface, value types their own object; each operation casts back.
    std::function<String(void const*)> read;
    std::function<void(void*, String const&)> write;
    std::function<void(void*)> erase;
    std::function<Entries(void const*)> entries;
    std::function<String(void const*, String const&)> entry;
    std::function<void(void*, String const&, String const&)> entryIs;
    std::function<void(void*, String const&)> entryDel;
  };

  GenericIf(std::string name, bool isValueType) : name_(std::move(name)), isValueType_(isValueType) {}

  // The record registered under a full type name ("Kiv::Xact"), or null.
  static GenericIf const* type(std::string_view name);
  // Every registered type name, sorted.
  static std::vector<std::string> typeNames();
  // Registers `record`; a second record under one name is a fatal error, since two classes
  // would then answer to one type name.
  static GenericIf const& typeIs(std::unique_ptr<GenericIf> record);

  std::string const& name() const noexcept { return name_; }
  bool isValueType() const noexcept { return isValueType_; }
  std::vector<Attribute> const& attributes() const noexcept { return attributes_; }
  // Throws RangeException "Unknown attribute <type>::<name>" for a name the type lacks.
  Attribute const& attribute(std::string_view name) const;
  std::size_t attributeIndex(std::string_view name) const;

  // Entities: read, write and delete attributes by name through their string forms.
  String attributeValue(PtrInterface const& object, std::string_view name) const;
  void attributeValueIs(PtrInterface& object, std::string_view name, String const& text) const;
  void attributeDel(PtrInterface& object, std::string_view name) const;
  // Collections: every (key, value) in the collection's order, one entry, insert, remove.
  Entries attributeEntries(PtrInterface const& object, std::string_view name) const;
  String attributeEntry(PtrInterface const& object, std::string_view name, String const& key) const;
  void attributeEntryIs(PtrInterface& object, std::string_view name, String const& key,
                        String const& text) const;
  void attributeEntryDel(PtrInterface& object, std::string_view name, String const& key) const;

  // Calls the factory with `args` in constructor-parameter order. Each argument is either the
  // parameter's own type or its string form, as a String or a char const*.
  Ptr<PtrInterface> genericIfFromCtorArgs(std::vector<std::any> const& args) const;

  // Value types: parses `text` and prints the value back in its string form.
  String valueStrep(String const& text) const;

  // Filled in by registerType<T>().
  void attributeIs(Attribute attribute) { attributes_.push_back(std::move(attribute)); }
  void constructorIs(std::function<Ptr<PtrInterface>(std::vector<std::any> const&)> make) {
    construct_ = std::move(make);
  }
  void valueStrepIs(std::function<String(String const&)> normalize) {
    normalize_ = std::move(normalize);
  }

private:
  [[noreturn]] void unsupported(std::string_view operation, std::string_view attribute) const;
  template <class F>
  F const& operation(F const& f, std::string_view operationName, std::string_view name) const {
    if (!f) unsupported(operationName, name);
    return f;
  }
  void const* object(PtrInterface const& object) const;

  std::string name_;
  bool isValueType_;
  std::vector<Attribute> attributes_;
  std::function<Ptr<PtrInterface>(std::vector<std::any> const&)> construct_;
  std::function<String(String const&)> normalize_;
};

// ---- Attribute descriptors of entities --------------------------------------------------------

template <class Get>
struct CtorParamAttr {
  char const* name;
  Get get;
};
template <class Get>
constexpr CtorParamAttr<Get> ctorParam(char const* name, Get get) {
  return {name, get};
}
template <class... P>
constexpr std::tuple<P...> ctorParams(P... params) {
  return {params...};
}

template <class Get, class Set, class Del>
struct ScalarAttr {
  char const* name;
  Get get;
  Set set;
  Del del;
};
// A mutable scalar; `del` (xDel, reset to the default) is optional.
template <class Get, class Set, class Del = std::nullptr_t>
constexpr ScalarAttr<Get, Set, Del> scalar(char const* name, Get get, Set set, Del del = nullptr) {
  return {name, get, set, del};
}

template <class Member, class Set, class Del, class DelAll>
struct CollectionAttr {
  char const* name;
  Member member;
  Set set;
  Del del;
  DelAll delAll;
};
// A collection held in a map adapter member. A child collection passes nullptr for `set`:
// children are instantiated by their constructor arguments, not written as values; a read-only
// collection passes nullptr for all three mutators.
template <class Member, class Set, class Del, class DelAll>
constexpr CollectionAttr<Member, Set, Del, DelAll> collection(char const* name, Member member,
                                                              Set set, Del del, DelAll delAll) {
  return {name, member, set, del, delAll};
}

template <class Get>
struct ComputedAttr {
  char const* name;
  Get get;
};
template <class Get>
constexpr ComputedAttr<Get> computed(char const* name, Get get) {
  return {name, get};
}

template <class T, class Factory, class CtorParams, class... A>
struct EntityAttributes {
  using Entity = T;
  char const* typeName;
  Factory factory;
  CtorParams ctorParams;
  std::tuple<A...> attributes;
};

template <class T, class Factory, class CtorParams, class... A>
constexpr EntityAttributes<T, Factory, CtorParams, A...> entityAttributes(
    char const* typeName, Factory factory, CtorParams ctorParams, A... attributes) {
  return {typeName, factory, ctorParams, {attributes...}};
}

template <class T>
concept ReflectedEntity = requires { typename decltype(T::zelAttributes())::Entity; };

// ---- Building records ---------------------------------------------------------------------------

namespace detail {

template <class T>
T const& self(void const* object) {
  if constexpr (std::is_base_of_v<PtrInterface, T>) {
    return dynamic_cast<T const&>(*static_cast<PtrInterface const*>(object));
  } else {
    return *static_cast<T const*>(object);
  }
}
template <class T>
T& self(void* object) {
  return const_cast<T&>(self<T>(static_cast<void const*>(object)));
}

template <class V>
V argument(std::any const& arg) {
  if (auto const* direct = std::any_cast<V>(&arg)) return *direct;
  if constexpr (Parsable<V>) {
    if (auto const* text = std::any_cast<String>(&arg)) return strepToValue<V>(text->view());
    if (auto const* text = std::any_cast<char const*>(&arg)) return strepToValue<V>(*text);
  }
  throw RangeException("Generic argument is neither " + strepTypeName<V>() + " nor its string form");
}

template <class T, class Get>
GenericIf::Attribute readOnly(char const* name, AttributeKind kind, Get get) {
  GenericIf::Attribute a{name, kind};
  a.read = [get](void const* o) { return valueToStrep(std::invoke(get, self<T>(o))); };
  return a;
}

template <class T, class Get, class Set, class Del>
GenericIf::Attribute describe(ScalarAttr<Get, Set, Del> const& d) {
  auto a = readOnly<T>(d.name, AttributeKind::scalar, d.get);
  using V = std::remove_cvref_t<std::invoke_result_t<Get, T const&>>;
  if constexpr (Parsable<V>) {
    a.write = [set = d.set](void* o, String const& text) {
      std::invoke(set, self<T>(o), strepToValue<V>(text.view()));
    };
  }
  if constexpr (!std::is_null_pointer_v<Del>) {
    a.erase = [del = d.del](void* o) { std::invoke(del, self<T>(o)); };
  }
  return a;
}

template <class T, class Get>
GenericIf::Attribute describe(ComputedAttr<Get> const& d) {
  return readOnly<T>(d.name, AttributeKind::computed, d.get);
}

template <class T, class Member, class Set, class Del, class DelAll>
GenericIf::Attribute describe(CollectionAttr<Member, Set, Del, DelAll> const& d) {
  using Map = std::remove_cvref_t<decltype(std::declval<T const&>().*(d.member))>;
  using K = typename Map::key_type;
  using V = typename Map::mapped_type;
  GenericIf::Attribute a{d.name, AttributeKind::collection};
  auto member = d.member;
  a.entries = [member](void const* o) {
    GenericIf::Entries out;
    for (auto const& [key, value] : self<T>(o).*member) {
      out.emplace_back(valueToStrep(key), valueToStrep(value));
    }
    return out;
  };
  a.entry = [member](void const* o, String const& key) {
    return valueToStrep((self<T>(o).*member).value(strepToValue<K>(key.view())));
  };
  if constexpr (!std::is_null_pointer_v<Set> && Parsable<V>) {
    a.entryIs = [set = d.set](void* o, String const& key, String const& text) {
      std::invoke(set, self<T>(o), strepToValue<K>(key.view()), strepToValue<V>(text.view()));
    };
  }
  if constexpr (!std::is_null_pointer_v<Del>) {
    a.entryDel = [del = d.del](void* o, String const& key) {
      std::invoke(del, self<T>(o), strepToValue<K>(key.view()));
    };
  }
  if constexpr (!std::is_null_pointer_v<DelAll>) {
    a.erase = [delAll = d.delAll](void* o) { std::invoke(delAll, self<T>(o)); };
  }
  return a;
}

template <class T, class Factory, class CtorParams, class... A>
std::unique_ptr<GenericIf> entityRecord(EntityAttributes<T, Factory, CtorParams, A...> const& declared) {
  auto record = std::make_unique<GenericIf>(declared.typeName, false);
  std::apply(
      [&](auto const&... p) {
        (record->attributeIs(readOnly<T>(p.name, AttributeKind::constructorParameter, p.get)), ...);
      },
      declared.ctorParams);
  std::apply([&](auto const&... d) { (record->attributeIs(describe<T>(d)), ...); },
             declared.attributes);
  record->constructorIs([factory = declared.factory](std::vector<std::any> const& args) {
    return [&]<class R, class... P>(R (*)(P...)) -> Ptr<PtrInterface> {
      if (args.size() != sizeof...(P)) {
        throw RangeException("Wrong number of constructor arguments");
      }
      return [&]<std::size_t... I>(std::index_sequence<I...>) {
        return factory(argument<std::remove_cvref_t<P>>(args[I])...);
      }(std::index_sequence_for<P...>());
    }(factory);
  });
  return record;
}

template <ValueType T>
std::unique_ptr<GenericIf> valueRecord() {
  auto record = std::make_unique<GenericIf>(T::zelFields().typeName, true);
  forEachField<T>([&](auto const& f) {
    record->attributeIs(readOnly<T>(f.name, AttributeKind::field, f.get));
  });
  if constexpr (Parsable<T>) {
    record->valueStrepIs(
        [](String const& text) { return valueToStrep(strepToValue<T>(text.view())); });
  }
  return record;
}

}  // namespace detail

// The record of T (an entity with zelAttributes() or a value type), registered on first call.
// A library source file registers its classes when the library loads, so that tools find them
// by name before any object exists:
//
//   Zel::TypeRegistration<Xact, XactConfig, XactStatus> const registration;
template <class T>
GenericIf const& registerType() {
  static GenericIf const& record = []() -> GenericIf const& {
    if constexpr (ValueType<T>) {
      return GenericIf::typeIs(detail::valueRecord<T>());
    } else {
      return GenericIf::typeIs(detail::entityRecord(T::zelAttributes()));
    }
  }();
  return record;
}

template <class... T>
struct TypeRegistration {
  TypeRegistration() { (registerType<T>(), ...); }
};

}  // namespace Zel
