// The property every parser fuzz target checks: arbitrary bytes either parse into a value whose
// string form parses back to the same value (and prints the same), or are refused with
// Zel::RangeException. The bytes are also read as an attribute log, with the same alternative.
//
// The input is copied into a buffer of exactly its size, so that AddressSanitizer reports any
// read past its end.
#pragma once

#include <Zel/Assert.h>
#include <Zel/NboAttrLog.h>
#include <Zel/Strep.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>

namespace KivFuzz {

// The value a parsed value must come back as; types with several words for one string form
// map them to the one their string form reads as.
template <class T>
T canonical(T const& value) {
  return value;
}

template <class T>
void checkStringForm(std::string_view text) {
  T value;
  try {
    value = Zel::strepToValue<T>(text);
  } catch (Zel::RangeException const&) {
    return;
  }
  Zel::String const printed = Zel::valueToStrep(value);
  T const back = Zel::strepToValue<T>(printed.view());
  ZEL_ASSERT(back == canonical(value));
  ZEL_ASSERT(Zel::valueToStrep(back) == printed);
}

template <class T>
void checkLogForm(std::span<Zel::U8 const> bytes) {
  T value;
  try {
    Zel::NboAttrLog::In in(bytes);
    in >> value;
  } catch (Zel::RangeException const&) {
    return;
  }
  Zel::NboAttrLog::Out out;
  out << value;
  ZEL_ASSERT(out.bytes().size() <= bytes.size());
  ZEL_ASSERT(std::memcmp(out.bytes().data(), bytes.data(), out.bytes().size()) == 0);
}

template <class T>
int roundTrip(std::uint8_t const* data, std::size_t size) {
  auto const exact = std::make_unique<char[]>(size);
  if (size != 0) std::memcpy(exact.get(), data, size);
  checkStringForm<T>(std::string_view(exact.get(), size));
  checkLogForm<T>(std::span(reinterpret_cast<Zel::U8 const*>(exact.get()), size));
  return 0;
}

}  // namespace KivFuzz
