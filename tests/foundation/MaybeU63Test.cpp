#include <Kiv/MaybeU63.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string_view>

namespace Kiv {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

TEST(MaybeU63, StringFormsAndTheirWords) {
  struct Case {
    std::string_view text;
    U64 word;
    std::string_view printed;
  };
  Case const cases[] = {
      {"9223372036854775807", MaybeU63::noneBit - 1, "9223372036854775807"},
      // A decimal with bit 63 set is stored as it is, and so reads as None.
      {"9223372036854775809", MaybeU63::noneBit + 1, "None"},
      {"18446744073709551615", ~U64(0), "None"},
  };
  for (Case const& c : cases) {
    MaybeU63 value;
    value.stringValueIs(Zel::String(c.text));
    EXPECT_EQ(value.value(), c.word) << c.text;
    EXPECT_EQ(value.isNone(), c.word >= MaybeU63::noneBit) << c.text;
    EXPECT_EQ(value.stringValue(), Zel::String(c.printed)) << c.text;
  }
  EXPECT_EQ(MaybeU63(), MaybeU63(0));
  EXPECT_EQ(Zel::strepToValue<MaybeU63>("None"), MaybeU63::none());
}

TEST(MaybeU63, MalformedTextIsRefusedAndLeavesTheValue) {
  MaybeU63 value(5);
  for (char const* text : {"", "Non", "none", "-1", " 1", "18446744073709551616"}) {
    EXPECT_THAT([&] { value.stringValueIs(text); },
                ThrowsMessage<Zel::RangeException>(StrEq("Error deserializing Kiv::MaybeU63")))
        << '"' << text << '"';
  }
  for (char const* text : {"12x", "None ", "NoneNone"}) {
    EXPECT_THAT([&] { value.stringValueIs(text); },
                ThrowsMessage<Zel::RangeException>(StrEq("Invalid Kiv::MaybeU63")))
        << '"' << text << '"';
  }
  EXPECT_EQ(value.value(), 5u);
}

}  // namespace
}  // namespace Kiv
