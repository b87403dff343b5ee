// Wrapping sequence numbers of 16 and 32 bits.
//
// Order is circular: a is less than b exactly when the top bit of a - b, taken in the number's
// own width, is set. So 0xffffffff < 0 holds, and numbers less than half the range apart compare
// as their distance suggests across a wrap. Two numbers exactly half the range apart (0 and
// 0x80000000) each compare less than the other; that asymmetry is part of the contract, so the
// order is not a strict weak order and must not key an ordered container. Equality is equality
// of the value. The string form is the decimal value; the attribute log holds one word.
#pragma once

#include <Zel/Value.h>

#include <limits>
#include <type_traits>

namespace Kiv {

template <class Word>
class Seqno : public Zel::Value<Seqno<Word>> {
  static_assert(std::is_same_v<Word, U16> || std::is_same_v<Word, U32>);

public:
  constexpr Seqno() noexcept = default;
  constexpr explicit Seqno(Word value) noexcept : value_(value) {}

  constexpr Word value() const noexcept { return value_; }
  constexpr void valueIs(Word value) noexcept { value_ = value; }
  // Advances by `delta`, wrapping in the number's width.
  constexpr void valueInc(Word delta) noexcept { value_ = Word(value_ + delta); }

  constexpr bool operator<(Seqno other) const noexcept { return *this < other.value_; }
  constexpr bool operator<(Word other) const noexcept {
    return (Word(value_ - other) & topBit) != 0;
  }

  static constexpr auto zelFields() {
    return Zel::valueFields(sizeof(Word) == 2 ? "Kiv::Seqno16" : "Kiv::Seqno32",
                            Zel::field("value", &Seqno::value, &Seqno::valueIs));
  }

private:
  static constexpr Word topBit = Word(1) << (std::numeric_limits<Word>::digits - 1);

  Word value_ = 0;
};

using Seqno16 = Seqno<U16>;
using Seqno32 = Seqno<U32>;

}  // namespace Kiv
