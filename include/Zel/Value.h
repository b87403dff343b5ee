// The value-type frame.
//
// A value type lists its fields once, in declaration order, as a static table of name, accessor
// and mutator:
//
//   class UniqueId : public Zel::Value<UniqueId> {
//   public:
//     U32 timestamp() const { return timestamp_; }
//     void timestampIs(U32 v) { timestamp_ = v; }
//     ...
//     static constexpr auto zelFields() {
//       return Zel::valueFields("Kiv::UniqueId",
//                               Zel::field("timestamp", &UniqueId::timestamp,
//                               &UniqueId::timestampIs),
//                               ...);
//     }
//   };
//
// From that table the runtime derives equality, the hash, the string form and its parser, the
// attribute-log reader and writer, and the reflection record. Fields are written through their
// mutators, so a parsed or logged value passes the same range checks as a set one.
//
// Fields that constrain one another (min <= max) cannot be checked one at a time: such a type
// lists setters that store without the cross check and declares a public
// `void zelValidate() const` that throws when the fields disagree. The parser and the log reader
// call it once every field is read, and leave their target unchanged when it throws.
//
// String form: a type whose only field is named "value" prints as that field alone; any other
// prints as Value('<type>', ** {'<field>': <value>, ...}) with each field in its own form.
#pragma once

#include <Zel/Hash.h>
#include <Zel/NboAttrLog.h>
#include <Zel/Strep.h>

#include <bit>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Zel {

template <class Get, class Set>
struct Field {
  char const* name;
  Get get;
  Set set;
};

// One field: its name, its accessor and its mutator (member function pointers).
template <class Get, class Set>
constexpr Field<Get, Set> field(char const* name, Get get, Set set) {
  return {name, get, set};
}

template <class... F>
struct ValueFields {
  char const* typeName;
  std::tuple<F...> fields;
  static constexpr std::size_t size = sizeof...(F);
};

template <class... F>
constexpr ValueFields<F...> valueFields(char const* typeName, F... fields) {
  return {typeName, {fields...}};
}

template <class T>
concept ValueType = requires {
  T::zelFields().typeName;
};

template <class T, class F>
using FieldType =
    std::remove_cvref_t<std::invoke_result_t<std::remove_cv_t<decltype(F::get)>, T const&>>;

// Field I of T as compile-time constants, so that calls through its accessor and mutator
// pointers inline like direct calls.
template <class T, std::size_t I>
struct FieldAt {
  static constexpr auto field = std::get<I>(T::zelFields().fields);
  static constexpr char const* name = field.name;
  static constexpr auto get = field.get;
  static constexpr auto set = field.set;
};

// Calls visit(field) for each field of T in declaration order; the field offers name, get, set.
template <ValueType T, class Visitor>
constexpr void forEachField(Visitor&& visit) {
  [&]<std::size_t... I>(std::index_sequence<I...>) { (visit(FieldAt<T, I>{}), ...); }
  (std::make_index_sequence<T::zelFields().size>());
}

template <ValueType T>
constexpr bool printsAsSingleValue() {
  constexpr auto declared = T::zelFields();
  return declared.size == 1 && std::string_view(std::get<0>(declared.fields).name) == "value";
}

// Hash of any key, the same on every target (Zel/Hash.h): value types combine the hashes of their
// fields; numbers hash their value (floating-point ones their bits, both zeros alike); text its
// characters. Other keys (pointers, handles) use std::hash.
template <class T>
struct Hash {
  std::size_t operator()(T const& value) const noexcept {
    if constexpr (ValueType<T>) {
      U32 seed = 0;
      forEachField<T>([&](auto const& f) {
        using V = FieldType<T, std::remove_cvref_t<decltype(f)>>;
        seed = hashCombine(seed, U32(Hash<V>()(std::invoke(f.get, value))));
      });
      return seed;
    } else if constexpr (std::is_enum_v<T>) {
      return Hash<std::underlying_type_t<T>>()(static_cast<std::underlying_type_t<T>>(value));
    } else if constexpr (std::is_integral_v<T>) {
      return hashWord(U64(value));
    } else if constexpr (std::is_floating_point_v<T>) {
      return value == 0 ? 0 : hashWord(std::bit_cast<U64>(double(value)));
    } else if constexpr (std::is_convertible_v<T const&, std::string_view>) {
      return hashText(value);
    } else {
      return std::hash<T>()(value);
    }
  }
};

// CRTP base of value types: brings equality and the stream operator into the type's scope.
template <class T>
class Value {
public:
  static std::string zelTypeName() { return T::zelFields().typeName; }

  // Field-wise equality; a type that defines its own operator== takes precedence.
  friend bool operator==(Value const& a, Value const& b) {
    bool equal = true;
    forEachField<T>([&](auto const& f) {
      equal = equal && std::invoke(f.get, a.self()) == std::invoke(f.get, b.self());
    });
    return equal;
  }
  friend std::ostream& operator<<(std::ostream& out, Value const& v) {
    return out << valueToStrep(v.self());
  }

private:
  T const& self() const { return static_cast<T const&>(*this); }
};

template <ValueType T>
void printStrep(std::string& out, T const& value) {
  if constexpr (printsAsSingleValue<T>()) {
    printStrep(out, std::invoke(FieldAt<T, 0>::get, value));
  } else {
    out += "Value(";
    printStrep(out, std::string_view(T::zelFields().typeName));
    out += ", ** {";
    bool first = true;
    forEachField<T>([&](auto const& f) {
      if (!first) out += ", ";
      first = false;
      printStrep(out, std::string_view(f.name));
      out += ": ";
      printStrep(out, std::invoke(f.get, value));
    });
    out += "})";
  }
}

// Whether V has a string form that parses (pointers and other handles do not, nor value types
// with such a field).
template <class V>
concept Parsable = requires(V* v, char const* p) {
  sequenceToValue(p, p, v);
};

// Whether V has an attribute-log form (pointers and other handles do not, nor value types with
// such a field).
template <class V>
concept Loggable = requires(NboAttrLog::Out& out, NboAttrLog::In& in, V& value) {
  out << value;
  in >> value;
};

// Runs T's cross-field check, if it declares one.
template <ValueType T>
void validate(T const& value) {
  if constexpr (requires { value.zelValidate(); }) value.zelValidate();
}

template <ValueType T>
constexpr bool fieldsParsable() {
  return []<std::size_t... I>(std::index_sequence<I...>) {
    return (Parsable<FieldType<T, FieldAt<T, I>>> && ...);
  }
  (std::make_index_sequence<T::zelFields().size>());
}

template <ValueType T>
constexpr bool fieldsLoggable() {
  return []<std::size_t... I>(std::index_sequence<I...>) {
    return (Loggable<FieldType<T, FieldAt<T, I>>> && ...);
  }
  (std::make_index_sequence<T::zelFields().size>());
}

template <ValueType T>
requires(fieldsParsable<T>()) char const* sequenceToValue(char const* begin, char const* end,
                                                          T* out) {
  T value{};
  StrepReader reader(begin, end, T::zelTypeName());
  auto readField = [&](auto const& f) {
    using V = FieldType<T, std::remove_cvref_t<decltype(f)>>;
    std::invoke(f.set, value, reader.template read<V>());
  };
  // Blanks may stand between the parts of the keyed form, but not before a bare value.
  auto readKey = [&] {
    reader.skipSpace();
    return reader.template read<String>();
  };
  if constexpr (printsAsSingleValue<T>()) {
    readField(FieldAt<T, 0>{});
  } else {
    reader.expect("Value(");
    if (readKey() != T::zelFields().typeName) reader.fail();
    reader.expect(",");
    reader.expect("**");
    reader.expect("{");
    bool first = true;
    forEachField<T>([&](auto const& f) {
      if (!first) reader.expect(",");
      first = false;
      if (readKey() != f.name) reader.fail();
      reader.expect(":");
      reader.skipSpace();
      readField(f);
    });
    reader.expect("}");
    reader.expect(")");
  }
  validate(value);
  *out = std::move(value);
  return reader.position();
}

}  // namespace Zel

namespace Zel::NboAttrLog {

template <ValueType T>
requires(fieldsLoggable<T>()) Out& operator<<(Out& out, T const& value) {
  forEachField<T>([&](auto const& f) { out << std::invoke(f.get, value); });
  return out;
}

// Reads every field before storing any, so a short or refused log leaves `value` unchanged.
template <ValueType T>
requires(fieldsLoggable<T>()) In& operator>>(In& in, T& value) {
  T read{};
  forEachField<T>([&](auto const& f) {
    FieldType<T, std::remove_cvref_t<decltype(f)>> fieldValue{};
    in >> fieldValue;
    std::invoke(f.set, read, std::move(fieldValue));
  });
  validate(read);
  value = std::move(read);
  return in;
}

}  // namespace Zel::NboAttrLog
