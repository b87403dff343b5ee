#include <Kiv/MaybeU63.h>

#include <Zel/GenericIf.h>

#include <cstring>
#include <string_view>

namespace Kiv {
namespace {

[[maybe_unused]] Zel::GenericIf const& maybeU63Type = Zel::registerType<MaybeU63>();

constexpr std::string_view noneText = "None";

// Reads "None" or a decimal into `word`; the caller has checked that the input is not empty.
// A malformed number is reported under this type's name rather than the scalar's.
char const* sequenceToMaybeU63(char const* begin, char const* end, U64* word) {
  if (std::size_t(end - begin) >= noneText.size() &&
      std::memcmp(begin, noneText.data(), noneText.size()) == 0) {
    *word = MaybeU63::noneBit;
    return begin + noneText.size();
  }
  try {
    return Zel::sequenceToValue(begin, end, word);
  } catch (Zel::RangeException const&) {
    Zel::throwDeserializing(MaybeU63::zelTypeName());
  }
}

}  // namespace

void printStrep(std::string& out, MaybeU63 const& value) {
  if (value.isNone()) {
    out += noneText;
  } else {
    Zel::printStrep(out, value.value());
  }
}

char const* sequenceToValue(char const* begin, char const* end, MaybeU63* out) {
  if (begin >= end) Zel::throwDeserializing(MaybeU63::zelTypeName());
  U64 word = 0;
  char const* const after = sequenceToMaybeU63(begin, end, &word);
  out->valueIs(word);
  return after;
}

Zel::String MaybeU63::stringValue() const { return Zel::valueToStrep(*this); }

void MaybeU63::stringValueIs(Zel::String const& text) {
  *this = Zel::strepToValue<MaybeU63>(text.view());
}

}  // namespace Kiv
