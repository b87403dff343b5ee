// The attribute-log form: values written field by field in network byte order, each at its
// declared width. Out appends to a byte buffer; In reads from one and refuses to read past its
// end with RangeException "Attribute log ended early". In takes only what Out writes: a bool is
// the byte 0 or 1, an enumeration with named enumerators the number of one of them; anything else
// is refused with RangeException "Error deserializing <type>", since it would not write the same
// bytes back (nor, for an enumeration, print a form that parses).
#pragma once

#include <Zel/Name.h>
#include <Zel/String.h>
#include <Zel/Types.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Zel::NboAttrLog {

namespace detail {
template <class T>
constexpr T toBigEndian(T value) noexcept {
  if constexpr (std::endian::native == std::endian::little && sizeof(T) > 1) {
    if constexpr (sizeof(T) == 2)
      return __builtin_bswap16(value);
    else if constexpr (sizeof(T) == 4)
      return __builtin_bswap32(value);
    else
      return __builtin_bswap64(value);
  } else {
    return value;
  }
}
}  // namespace detail

class Out {
public:
  std::vector<U8> const& bytes() const noexcept { return bytes_; }
  void clear() noexcept { bytes_.clear(); }
  void reserve(std::size_t size) { bytes_.reserve(size); }

  template <class T>
  requires std::is_integral_v<T> Out& operator<<(T value) {
    using Unsigned = std::make_unsigned_t<T>;
    auto const wire = detail::toBigEndian(static_cast<Unsigned>(value));
    std::size_t const at = bytes_.size();
    bytes_.resize(at + sizeof wire);
    std::memcpy(bytes_.data() + at, &wire, sizeof wire);
    return *this;
  }
  Out& operator<<(bool value) { return *this << U8(value ? 1 : 0); }
  Out& operator<<(float value) { return *this << std::bit_cast<U32>(value); }
  Out& operator<<(double value) { return *this << std::bit_cast<U64>(value); }
  // Strings are a U32 length followed by the bytes.
  Out& operator<<(std::string_view value);
  Out& operator<<(String const& value) { return *this << value.view(); }
  Out& operator<<(Name const& value) { return *this << value.view(); }

private:
  std::vector<U8> bytes_;
};

class In {
public:
  explicit In(std::span<U8 const> bytes) noexcept : at_(bytes.data()), end_(at_ + bytes.size()) {}

  std::size_t remaining() const noexcept { return std::size_t(end_ - at_); }
  // Throws the refusal of a value of `typeName` that no writer writes.
  [[noreturn]] static void refused(std::string_view typeName);

  template <class T>
  requires std::is_integral_v<T> In& operator>>(T& value) {
    std::make_unsigned_t<T> wire;
    take(&wire, sizeof wire);
    value = static_cast<T>(detail::toBigEndian(wire));
    return *this;
  }
  In& operator>>(bool& value);
  In& operator>>(float& value);
  In& operator>>(double& value);
  In& operator>>(String& value);
  In& operator>>(Name& value);

private:
  void take(void* to, std::size_t size) {
    if (remaining() < size) [[unlikely]]
      endedEarly();
    std::memcpy(to, at_, size);
    at_ += size;
  }
  [[noreturn]] static void endedEarly();
  std::string takeText();

  U8 const* at_;
  U8 const* end_;
};

// Enumerations travel as their underlying integer.
template <class E>
requires std::is_enum_v<E> Out& operator<<(Out& out, E value) {
  return out << static_cast<std::underlying_type_t<E>>(value);
}
template <class E>
requires std::is_enum_v<E> In& operator>>(In& in, E& value) {
  std::underlying_type_t<E> raw;
  in >> raw;
  if constexpr (requires { zelEnumInfo(E{}).names; }) {
    auto const named = [&](auto const& entry) { return entry.first == static_cast<E>(raw); };
    if (std::ranges::none_of(zelEnumInfo(E{}).names, named)) In::refused(zelEnumInfo(E{}).typeName);
  }
  value = static_cast<E>(raw);
  return in;
}

}  // namespace Zel::NboAttrLog
