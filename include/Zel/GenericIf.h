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
//
// A record also describes the type of each attribute, so that a tool can choose constructor
// arguments for a class it does not know, and a value type's record runs the round trips that its
// string form and attribute log promise, so that one test and one fuzzer check every registered
// value type without knowing any of them.
#pragma once

#include <Zel/AllocTrack.h>
#include <Zel/Exception.h>
#include <Zel/NboAttrLog.h>
#include <Zel/Ptr.h>
#include <Zel/Strep.h>
#include <Zel/Value.h>

#include <algorithm>
#include <any>
#include <functional>
#include <memory>
#include <span>
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

// What an attribute holds; `entity` is a pointer to an entity.
enum class TypeKind { number, boolean, text, enumeration, value, entity, other };
constexpr auto zelEnumInfo(TypeKind) {
  return enumInfo<TypeKind>("Zel::TypeKind", {{TypeKind::number, "number"},
                                              {TypeKind::boolean, "boolean"},
                                              {TypeKind::text, "text"},
                                              {TypeKind::enumeration, "enumeration"},
                                              {TypeKind::value, "value"},
                                              {TypeKind::entity, "entity"},
                                              {TypeKind::other, "other"}});
}

class GenericIf {
public:
  using Entries = std::vector<std::pair<String, String>>;

  // The type of an attribute's values or keys: its kind, its name ("U32", "Kiv::Seqno32", an
  // enumeration's name; for a pointer, the record name of the class pointed to, or its C++ name
  // when it has no record) and the string form of its default value (empty when the type has no
  // string form).
  struct Type {
    TypeKind kind = TypeKind::other;
    std::string name;
    String defaultStrep;
  };

  struct Attribute {
    Attribute(std::string attributeName, AttributeKind attributeKind)
        : name(std::move(attributeName)), kind(attributeKind) {}

    std::string name;
    AttributeKind kind;
    // The type of the attribute (of a collection, of its entries) and of a collection's keys.
    Type type;
    Type key;
    // Entities pass a PtrInterface, value types their own object; each operation casts back.
    std::function<String(void const*)> read;
    // Whether a text parses, in the attribute's type, to the value that the accessor returns.
    std::function<bool(void const*, String const&)> holds;
    std::function<void(void*, String const&)> write;
    std::function<void(void*)> erase;
    std::function<Entries(void const*)> entries;
    std::function<String(void const*, String const&)> entry;
    std::function<void(void*, String const&, String const&)> entryIs;
    std::function<void(void*, String const&)> entryDel;
  };

  // A value type's operations on its own values; a record written by hand may lack some.
  struct ValueForms {
    std::function<String()> defaultStrep;
    std::function<String(String const&)> strep;
    std::function<std::string(std::string_view)> strepRoundTripFault;
    std::function<std::string(std::span<U8 const>)> logRoundTripFault;
  };

  GenericIf(std::string name, bool isValueType)
      : name_(std::move(name)), isValueType_(isValueType) {}

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
  // Whether `text` parses to the value that the accessor of `name` returns, checked with the
  // type's own equality: how a tool confirms that a row reads what the class holds. Throws
  // RangeException when the text does not parse.
  bool attributeHolds(PtrInterface const& object, std::string_view name, String const& text) const;
  // Collections: every (key, value) in the collection's order, one entry, insert, remove.
  Entries attributeEntries(PtrInterface const& object, std::string_view name) const;
  String attributeEntry(PtrInterface const& object, std::string_view name, String const& key) const;
  void attributeEntryIs(PtrInterface& object, std::string_view name, String const& key,
                        String const& text) const;
  void attributeEntryDel(PtrInterface& object, std::string_view name, String const& key) const;

  // Calls the factory with `args` in constructor-parameter order. Each argument is either the
  // parameter's own type or its string form, as a String or a char const*; a pointer parameter
  // also takes a Ptr<PtrInterface> to an object of its class, or a null one.
  Ptr<PtrInterface> genericIfFromCtorArgs(std::vector<std::any> const& args) const;

  // Value types: the string form of the default value.
  String defaultStrep() const;
  // Value types: parses `text` and prints the value back in its string form.
  String valueStrep(String const& text) const;
  // Value types: checks what the forms promise on the value that `text` parses to. Its attribute
  // log reads back, all of it, to an equal value that writes the same bytes. Its string form
  // parses to a value that prints the same, and which in turn parses back to itself and gives
  // its log back (several values may print alike: a form may show less than a value holds).
  // A value that is not equal to itself (it holds a NaN) is held to its texts and bytes only.
  // Returns the first broken promise, described, or an empty string; throws RangeException when
  // the type refuses `text`.
  std::string strepRoundTripFault(std::string_view text) const;
  // Value types: the same checks on the value that `log` starts with, which must also write the
  // bytes it was read from. Throws RangeException when the type refuses the log.
  std::string logRoundTripFault(std::span<U8 const> log) const;

  // Filled in by registerType<T>(), or by hand for a type that the field tables cannot describe.
  void attributeIs(Attribute attribute) { attributes_.push_back(std::move(attribute)); }
  void constructorIs(std::function<Ptr<PtrInterface>(std::vector<std::any> const&)> make) {
    construct_ = std::move(make);
  }
  void valueFormsIs(ValueForms forms) { forms_ = std::move(forms); }
  void valueStrepIs(std::function<String(String const&)> normalize) {
    forms_.strep = std::move(normalize);
  }

private:
  [[noreturn]] void unsupported(std::string_view operation, std::string_view attribute) const;
  template <class F>
  F const& operation(F const& f, std::string_view operationName, std::string_view name) const {
    if (!f) unsupported(operationName, name);
    return f;
  }
  [[noreturn]] void unsupported(std::string_view operation) const;
  template <class F>
  F const& typeOperation(F const& f, std::string_view operationName) const {
    if (!f) unsupported(operationName);
    return f;
  }
  void const* object(PtrInterface const& object) const;
  std::string fault(std::string const& found) const;

  std::string name_;
  bool isValueType_;
  std::vector<Attribute> attributes_;
  std::function<Ptr<PtrInterface>(std::vector<std::any> const&)> construct_;
  ValueForms forms_;
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
constexpr EntityAttributes<T, Factory, CtorParams, A...> entityAttributes(char const* typeName,
                                                                          Factory factory,
                                                                          CtorParams ctorParams,
                                                                          A... attributes) {
  return {typeName, factory, ctorParams, {attributes...}};
}

template <class T>
concept ReflectedEntity = requires {
  typename decltype(T::zelAttributes())::Entity;
};

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
struct PointerTo {
  static constexpr bool value = false;
};
template <class T>
struct PointerTo<Ptr<T>> {
  static constexpr bool value = true;
  using Class = std::remove_const_t<T>;
};

// The record name of class C, or its C++ name when it has no record. The name is taken from the
// declaration rather than the registry, since a record may point to its own class.
template <class C>
std::string className() {
  if constexpr (ReflectedEntity<C>) {
    return C::zelAttributes().typeName;
  } else {
    return demangledName(typeid(C));
  }
}

template <class V>
V argument(std::any const& arg) {
  if (auto const* direct = std::any_cast<V>(&arg)) return *direct;
  if constexpr (PointerTo<V>::value) {
    if (auto const* object = std::any_cast<Ptr<PtrInterface>>(&arg)) {
      auto* const raw = dynamic_cast<typename V::element_type*>(object->ptr());
      if (raw || !*object) return V(raw);
    }
    throw RangeException("Generic argument is not a " + className<typename PointerTo<V>::Class>());
  }
  if constexpr (Parsable<V>) {
    if (auto const* text = std::any_cast<String>(&arg)) return strepToValue<V>(text->view());
    if (auto const* text = std::any_cast<char const*>(&arg)) return strepToValue<V>(*text);
  }
  throw RangeException("Generic argument is neither " + strepTypeName<V>() +
                       " nor its string form");
}

template <class V>
constexpr TypeKind typeKindOf() {
  if constexpr (std::is_same_v<V, bool>) {
    return TypeKind::boolean;
  } else if constexpr (std::is_arithmetic_v<V>) {
    return TypeKind::number;
  } else if constexpr (std::is_same_v<V, String> || std::is_same_v<V, Name>) {
    return TypeKind::text;
  } else if constexpr (EnumType<V>) {
    return TypeKind::enumeration;
  } else if constexpr (requires { V::zelTypeName(); }) {
    return TypeKind::value;
  } else if constexpr (PointerTo<V>::value) {
    return TypeKind::entity;
  } else {
    return TypeKind::other;
  }
}

template <class V>
GenericIf::Type typeOf() {
  GenericIf::Type type;
  type.kind = typeKindOf<V>();
  if constexpr (PointerTo<V>::value) {
    type.name = className<typename PointerTo<V>::Class>();
  } else if constexpr (typeKindOf<V>() == TypeKind::other) {
    type.name = demangledName(typeid(V));
  } else {
    type.name = strepTypeName<V>();
  }
  if constexpr (Parsable<V>) type.defaultStrep = valueToStrep(V{});
  return type;
}

// Equal by the type's own equality; a value that is not equal to itself (it holds a NaN) is the
// same as another that prints alike.
template <class V>
bool sameValue(V const& a, V const& b) {
  if (a == b) return true;
  return !(b == b) && valueToStrep(a) == valueToStrep(b);
}

template <class T, class Get>
GenericIf::Attribute readOnly(char const* name, AttributeKind kind, Get get) {
  using V = std::remove_cvref_t<std::invoke_result_t<Get, T const&>>;
  GenericIf::Attribute a{name, kind};
  a.type = typeOf<V>();
  a.read = [get](void const* o) { return valueToStrep(std::invoke(get, self<T>(o))); };
  if constexpr (Parsable<V>) {
    a.holds = [get](void const* o, String const& text) {
      return sameValue(strepToValue<V>(text.view()), V(std::invoke(get, self<T>(o))));
    };
  }
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
  a.type = typeOf<V>();
  a.key = typeOf<K>();
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
std::unique_ptr<GenericIf> entityRecord(
    EntityAttributes<T, Factory, CtorParams, A...> const& declared) {
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
      }
      (std::index_sequence_for<P...>());
    }(factory);
  });
  return record;
}

// The hexadecimal bytes of an attribute log, for fault descriptions.
std::string logText(std::span<U8 const> log);

template <class T>
std::vector<U8> logOf(T const& value) {
  NboAttrLog::Out out;
  out << value;
  return out.bytes();
}

// The string form of `value` parses, into `back`, to a value that prints the same.
template <class T>
std::string strepFault(T const& value, T& back) {
  String const text = valueToStrep(value);
  try {
    back = strepToValue<T>(text.view());
  } catch (RangeException const& e) {
    return "its string form is refused: " + std::string(e.what());
  }
  String const again = valueToStrep(back);
  return again == text ? "" : "its string form parses back as " + again.str();
}

// The attribute log of `value` reads back, all of it, to an equal value written alike.
template <class T>
std::string logFault(T const& value) {
  std::vector<U8> const log = logOf(value);
  T back{};
  NboAttrLog::In in(log);
  try {
    in >> back;
  } catch (RangeException const& e) {
    return "its attribute log " + logText(log) + " is refused: " + e.what();
  }
  if (in.remaining() != 0) return "its attribute log " + logText(log) + " is read only in part";
  if (value == value && !(back == value)) {
    return "its attribute log " + logText(log) + " reads back as " + valueToStrep(back).str();
  }
  std::vector<U8> const again = logOf(back);
  if (again == log) return {};
  return "its attribute log " + logText(log) + " reads back as a value written " + logText(again);
}

// The promises of both forms, for a value that was parsed or read. Its log gives it back. Its
// string form parses to a value that prints the same; several values may print alike (a form
// may show less than the value holds), so the value parsed is the one held to parse back to
// itself and to give its log back.
template <class T>
std::string formsFault(T const& value) {
  if constexpr (Loggable<T>) {
    if (std::string fault = logFault(value); !fault.empty()) return fault;
  }
  if constexpr (Parsable<T>) {
    T parsed{};
    T again{};
    if (std::string fault = strepFault(value, parsed); !fault.empty()) return fault;
    if (std::string fault = strepFault(parsed, again); !fault.empty()) return fault;
    if (parsed == parsed && !(again == parsed)) {
      return "its string form parses to a value that does not parse back to itself";
    }
    if constexpr (Loggable<T>) return logFault(parsed);
  }
  return {};
}

template <class T>
std::string strepRoundTripFault(std::string_view text) {
  T const value = strepToValue<T>(text);
  std::string const fault = formsFault(value);
  return fault.empty() ? fault : valueToStrep(value).str() + ": " + fault;
}

// A value read from a log must also write the bytes it was read from.
template <class T>
std::string logRoundTripFault(std::span<U8 const> log) {
  T value{};
  NboAttrLog::In in(log);
  in >> value;
  auto const read = log.first(log.size() - in.remaining());
  std::string fault;
  if (!std::ranges::equal(logOf(value), read)) {
    fault = "read from " + logText(read) + ", it is written " + logText(logOf(value));
  }
  if (fault.empty()) fault = formsFault(value);
  return fault.empty() ? fault : valueToStrep(value).str() + ": " + fault;
}

template <ValueType T>
std::unique_ptr<GenericIf> valueRecord() {
  auto record = std::make_unique<GenericIf>(T::zelFields().typeName, true);
  forEachField<T>([&](auto const& f) {
    record->attributeIs(readOnly<T>(f.name, AttributeKind::field, f.get));
  });
  GenericIf::ValueForms forms;
  forms.defaultStrep = [] { return valueToStrep(T{}); };
  if constexpr (Parsable<T>) {
    forms.strep = [](String const& text) { return valueToStrep(strepToValue<T>(text.view())); };
    forms.strepRoundTripFault = &strepRoundTripFault<T>;
  }
  if constexpr (Loggable<T>) forms.logRoundTripFault = &logRoundTripFault<T>;
  record->valueFormsIs(std::move(forms));
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
