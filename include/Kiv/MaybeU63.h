// An optional 63-bit unsigned number in one 64-bit word: bit 63 set means "no value", bits 0 to
// 62 hold the number. The default is a present 0.
//
// String form: the number in decimal, or "None" when bit 63 is set. Parsing reads "None" or an
// unsigned 64-bit decimal, which is stored as the word unchanged: a decimal of 2^63 or more
// therefore reads as None (its low bits kept in the word, and dropped again by the string form).
// The attribute log holds the word as one U64. Equality and the hash are those of the word.
#pragma once

#include <Zel/String.h>
#include <Zel/Value.h>

#include <string>

namespace Kiv {

class MaybeU63 : public Zel::Value<MaybeU63> {
public:
  static constexpr U64 noneBit = U64(1) << 63;

  constexpr MaybeU63() noexcept = default;
  constexpr explicit MaybeU63(U64 word) noexcept : value_(word) {}
  static constexpr MaybeU63 none() noexcept { return MaybeU63(noneBit); }

  // The stored word; for a present value it is the number itself.
  constexpr U64 value() const noexcept { return value_; }
  // Stores `word` unchanged, bit 63 included.
  constexpr void valueIs(U64 word) noexcept { value_ = word; }
  constexpr bool isNone() const noexcept { return (value_ & noneBit) != 0; }

  Zel::String stringValue() const;
  // Parses the whole of `text`. Throws Zel::RangeException "Error deserializing Kiv::MaybeU63"
  // for empty or malformed text and "Invalid Kiv::MaybeU63" when text is left over; on failure
  // the value is unchanged.
  void stringValueIs(Zel::String const& text);

  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::MaybeU63",
                            Zel::field("value", &MaybeU63::value, &MaybeU63::valueIs));
  }

private:
  U64 value_ = 0;
};

// The string form, found by the runtime's printing templates.
void printStrep(std::string& out, MaybeU63 const& value);

// Parses "None" or a decimal at the start of [begin, end) and returns the position after it.
// Throws Zel::RangeException "Error deserializing Kiv::MaybeU63" when the input is empty or does
// not start with either form; `out` is then unchanged.
char const* sequenceToValue(char const* begin, char const* end, MaybeU63* out);

}  // namespace Kiv
