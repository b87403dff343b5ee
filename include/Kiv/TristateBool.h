// A boolean that may also be unset: one byte holding 0 (not set), 1 (true) or 2 (false).
//
// String form "notSet", "true" or "false", and the parser reads those three words back. The
// attribute log holds the byte as one U8; a logged byte above 2 is refused with
// Zel::RangeException "TristateBool::state > 0x02 not allowed". Equality compares the byte.
#pragma once

#include <Zel/String.h>
#include <Zel/Value.h>

#include <string>

namespace Kiv {

class TristateBool : public Zel::Value<TristateBool> {
public:
  static constexpr U8 valueNotSet = 0;
  static constexpr U8 valueTrue = 1;
  static constexpr U8 valueFalse = 2;

  constexpr TristateBool() noexcept = default;
  constexpr explicit TristateBool(bool value) noexcept { valueIs(value); }

  constexpr bool isSet() const noexcept { return state_ != valueNotSet; }
  // The boolean; asserts isSet().
  bool value() const noexcept;
  constexpr void valueIs(bool value) noexcept { state_ = value ? valueTrue : valueFalse; }
  constexpr void valueClear() noexcept { state_ = valueNotSet; }

  // One of valueNotSet, valueTrue, valueFalse.
  constexpr U8 state() const noexcept { return state_; }
  Zel::String toStrep() const;

  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::TristateBool",
                            Zel::field("state", &TristateBool::state, &TristateBool::stateIs));
  }

private:
  // Reached only through the field table, by the attribute-log reader.
  void stateIs(U8 state);

  U8 state_ = valueNotSet;
};

// The string form, found by the runtime's printing templates.
void printStrep(std::string& out, TristateBool const& value);

// Parses "notSet", "true" or "false" at the start of [begin, end) and returns the position after
// it. Throws Zel::RangeException "Error deserializing Kiv::TristateBool" otherwise; `out` is then
// unchanged.
char const* sequenceToValue(char const* begin, char const* end, TristateBool* out);

}  // namespace Kiv
