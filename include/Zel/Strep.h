// String forms of the built-in scalars: valueToStrep prints, sequenceToValue parses.
//
// Forms: integers in decimal; bool as True or False; floating point in the shortest form that
// reads back exactly (inf, -inf and nan included); String and Name quoted with single quotes,
// a backslash escaping the quote, the backslash and non-printable bytes (\n, \t, \r, \xNN).
//
// sequenceToValue(begin, end, &out) parses one value at the start of [begin, end) and returns
// the position after it; on malformed text it throws RangeException "Error deserializing <type>"
// and leaves `out` unchanged. strepToValue<T>(text) parses the whole text and throws
// RangeException "Invalid <type>" when text is left over.
#pragma once

#include <Zel/Exception.h>
#include <Zel/Name.h>
#include <Zel/String.h>
#include <Zel/Types.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <concepts>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Zel {

// The type name used in messages: "U32", "S64", "bool", "double", "String", "Name".
template <class T>
constexpr char const* scalarTypeName() {
  if constexpr (std::is_same_v<T, bool>)
    return "bool";
  else if constexpr (std::is_same_v<T, U8>)
    return "U8";
  else if constexpr (std::is_same_v<T, U16>)
    return "U16";
  else if constexpr (std::is_same_v<T, U32>)
    return "U32";
  else if constexpr (std::is_same_v<T, U64>)
    return "U64";
  else if constexpr (std::is_same_v<T, S8>)
    return "S8";
  else if constexpr (std::is_same_v<T, S16>)
    return "S16";
  else if constexpr (std::is_same_v<T, S32>)
    return "S32";
  else if constexpr (std::is_same_v<T, S64>)
    return "S64";
  else if constexpr (std::is_same_v<T, float>)
    return "float";
  else if constexpr (std::is_same_v<T, double>)
    return "double";
  else if constexpr (std::is_same_v<T, String>)
    return "String";
  else if constexpr (std::is_same_v<T, Name>)
    return "Name";
  else
    return "value";
}

template <class T>
concept Scalar = std::is_arithmetic_v<T> || std::is_same_v<T, String> || std::is_same_v<T, Name>;

void printStrep(std::string& out, bool value);
void printStrep(std::string& out, std::integral auto value) { out += std::to_string(value); }
void printStrep(std::string& out, double value);
void printStrep(std::string& out, float value);
void printStrep(std::string& out, std::string_view value);  // quoted
inline void printStrep(std::string& out, String const& value) { printStrep(out, value.view()); }
inline void printStrep(std::string& out, Name const& value) { printStrep(out, value.view()); }
inline void printStrep(std::string& out, char const* value) {
  printStrep(out, std::string_view(value));
}

char const* sequenceToValue(char const* begin, char const* end, bool* out);
char const* sequenceToValue(char const* begin, char const* end, U8* out);
char const* sequenceToValue(char const* begin, char const* end, U16* out);
char const* sequenceToValue(char const* begin, char const* end, U32* out);
char const* sequenceToValue(char const* begin, char const* end, U64* out);
char const* sequenceToValue(char const* begin, char const* end, S8* out);
char const* sequenceToValue(char const* begin, char const* end, S16* out);
char const* sequenceToValue(char const* begin, char const* end, S32* out);
char const* sequenceToValue(char const* begin, char const* end, S64* out);
char const* sequenceToValue(char const* begin, char const* end, float* out);
char const* sequenceToValue(char const* begin, char const* end, double* out);
char const* sequenceToValue(char const* begin, char const* end, String* out);
char const* sequenceToValue(char const* begin, char const* end, Name* out);

// ---- Enumerations -------------------------------------------------------------------------------
//
// An enumeration takes part in string forms, parsing, the attribute log and reflection once it
// names its type and enumerators with a zelEnumInfo overload beside it (found by lookup in the
// enumeration's namespace):
//
//   enum class XactResult : U32 { xactInProgress, xactSuccess, xactFailure };
//   constexpr auto zelEnumInfo(XactResult) {
//     return Zel::enumInfo<XactResult>("Kiv::XactResult", {{XactResult::xactInProgress,
//     "xactInProgress"},
//                                                          {XactResult::xactSuccess,
//                                                          "xactSuccess"},
//                                                          {XactResult::xactFailure,
//                                                          "xactFailure"}});
//   }
//
// The string form is the enumerator's name; the attribute log holds the underlying integer.

template <class E, std::size_t N>
struct EnumInfo {
  char const* typeName;
  std::array<std::pair<E, char const*>, N> names;
};

template <class E, std::size_t N>
constexpr EnumInfo<E, N> enumInfo(char const* typeName,
                                  std::pair<E, char const*> const (&names)[N]) {
  EnumInfo<E, N> info{typeName, {}};
  std::copy(names, names + N, info.names.begin());
  return info;
}

template <class E>
concept EnumType = std::is_enum_v<E> && requires(E e) {
  zelEnumInfo(e).typeName;
};

// The enumerator's name, or its number when it has none.
template <EnumType E>
std::string enumName(E value) {
  for (auto const& [e, name] : zelEnumInfo(E{}).names) {
    if (e == value) return name;
  }
  return std::to_string(static_cast<std::underlying_type_t<E>>(value));
}

template <EnumType E>
void printStrep(std::string& out, E value) {
  out += enumName(value);
}

[[noreturn]] void throwDeserializing(std::string const& typeName);

// Reads an enumerator's name: the longest run of identifier characters.
template <EnumType E>
char const* sequenceToValue(char const* begin, char const* end, E* out) {
  char const* after = begin;
  while (after < end && (std::isalnum(static_cast<unsigned char>(*after)) || *after == '_')) {
    ++after;
  }
  std::string_view const word(begin, std::size_t(after - begin));
  for (auto const& [e, name] : zelEnumInfo(E{}).names) {
    if (word == name) {
      *out = e;
      return after;
    }
  }
  throwDeserializing(zelEnumInfo(E{}).typeName);
}

// The name used in parse messages: the scalar name, the enumeration's name, or the value
// type's own zelTypeName().
template <class T>
std::string strepTypeName() {
  if constexpr (requires { T::zelTypeName(); }) {
    return T::zelTypeName();
  } else if constexpr (EnumType<T>) {
    return zelEnumInfo(T{}).typeName;
  } else {
    return scalarTypeName<T>();
  }
}

// The string form of any value that has a printStrep overload (scalars, value types, enums).
template <class T>
String valueToStrep(T const& value) {
  std::string out;
  printStrep(out, value);
  return String(std::move(out));
}

template <class T>
T strepToValue(std::string_view text) {
  T value{};
  char const* const end = text.data() + text.size();
  if (sequenceToValue(text.data(), end, &value) != end) {
    throw RangeException("Invalid " + strepTypeName<T>());
  }
  return value;
}

// A cursor over string-form text for the hand-written parts of parsers.
class StrepReader {
public:
  StrepReader(char const* begin, char const* end, std::string typeName)
      : at_(begin), end_(end), typeName_(std::move(typeName)) {}

  char const* position() const noexcept { return at_; }
  void positionIs(char const* at) noexcept { at_ = at; }
  bool atEnd() const noexcept { return at_ >= end_; }
  void skipSpace() noexcept;
  // Consumes `literal` after optional blanks, or fails with "Error deserializing <type>".
  void expect(std::string_view literal);
  // Consumes `literal` after optional blanks when it is there.
  bool accept(std::string_view literal) noexcept;
  // Reads one value right at the position; a malformed one fails under the reader's type name,
  // so a value type's parse error names the value type rather than the field's scalar.
  template <class T>
  T read() {
    T value{};
    try {
      at_ = sequenceToValue(at_, end_, &value);
    } catch (RangeException const&) {
      fail();
    }
    return value;
  }
  [[noreturn]] void fail() const { throwDeserializing(typeName_); }

private:
  char const* at_;
  char const* end_;
  std::string typeName_;
};

}  // namespace Zel
