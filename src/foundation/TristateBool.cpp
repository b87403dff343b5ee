#include <Kiv/TristateBool.h>

#include <Zel/Assert.h>
#include <Zel/GenericIf.h>

#include <array>
#include <cstring>
#include <string_view>

namespace Kiv {
namespace {

[[maybe_unused]] Zel::GenericIf const& tristateBoolType = Zel::registerType<TristateBool>();

struct Form {
  std::string_view text;
  TristateBool value;
};
// In state order: forms[state] is that state's form.
constexpr std::array<Form, 3> forms{
    {{"notSet", TristateBool()}, {"true", TristateBool(true)}, {"false", TristateBool(false)}}};

}  // namespace

bool TristateBool::value() const noexcept {
  ZEL_ASSERT_AS(isSet(), "isSet()");
  return state_ == valueTrue;
}

void TristateBool::stateIs(U8 state) {
  if (state > valueFalse) throw Zel::RangeException("TristateBool::state > 0x02 not allowed");
  state_ = state;
}

Zel::String TristateBool::toStrep() const {
  // stateIs() keeps the byte in range, so anything else is memory gone bad.
  ZEL_ASSERT_AS(state_ < forms.size(), "false");
  return Zel::String(forms[state_].text);
}

void printStrep(std::string& out, TristateBool const& value) { out += value.toStrep().view(); }

char const* sequenceToValue(char const* begin, char const* end, TristateBool* out) {
  for (Form const& form : forms) {
    if (std::size_t(end - begin) >= form.text.size() &&
        std::memcmp(begin, form.text.data(), form.text.size()) == 0) {
      *out = form.value;
      return begin + form.text.size();
    }
  }
  Zel::throwDeserializing(TristateBool::zelTypeName());
}

}  // namespace Kiv
