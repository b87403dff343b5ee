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

#include <concepts>
#include <string>
#include <string_view>
#include <type_traits>

namespace Zel {

// The type name used in messages: "U32", "S64", "bool", "double", "String", "Name".
template <class T>
constexpr char const* scalarTypeName() {
  if constexpr (std::is_same_v<T, bool>) return "bool";
  else if constexpr (std::is_same_v<T, U8>) return "U8";
  else if constexpr (std::is_same_v<T, U16>) return "U16";
  else if constexpr (std::is_same_v<T, U32>) return "U32";
  else if constexpr (std::is_same_v<T, U64>) return "U64";
  else if constexpr (std::is_same_v<T, S8>) return "S8";
  else if constexpr (std::is_same_v<T, S16>) return "S16";
  else if constexpr (std::is_same_v<T, S32>) return "S32";
  else if constexpr (std::is_same_v<T, S64>) return "S64";
  else if constexpr (std::is_same_v<T, float>) return "float";
  else if constexpr (std::is_same_v<T, double>) return "double";
  else if constexpr (std::is_same_v<T, String>) return "String";
  else if constexpr (std::is_same_v<T, Name>) return "Name";
  else return "value";
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

// The string form of any value that has a printStrep overload (scalars, value types, enums).
template <class T>
String valueToStrep(T const& value) {
  std::string out;
  printStrep(out, value);
  return String(std::move(out));
}

// The name used in parse messages: the scalar name, or the type's own zelTypeName().
template <class T>
std::string strepTypeName() {
  if constexpr (requires { T::zelTypeName(); }) {
    return T::zelTypeName();
  } else {
    return scalarTypeName<T>();
  }
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

[[noreturn]] void throwDeserializing(std::string const& typeName);

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
  template <class T>
  T read() {
    skipSpace();
    T value{};
    at_ = sequenceToValue(at_, end_, &value);
    return value;
  }
  [[noreturn]] void fail() const { throwDeserializing(typeName_); }

private:
  char const* at_;
  char const* end_;
  std::string typeName_;
};

}  // namespace Zel
