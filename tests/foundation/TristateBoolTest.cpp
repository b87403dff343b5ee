#include <Kiv/TristateBool.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Kiv {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

TEST(TristateBool, ThreeWordsOutAndBackAndNothingElse) {
  TristateBool b(false);
  EXPECT_EQ(b.toStrep(), "false");
  b.valueIs(true);
  EXPECT_EQ(b.toStrep(), "true");
  b.valueClear();
  EXPECT_EQ(b, TristateBool());
  EXPECT_EQ(b.toStrep(), "notSet");
  for (bool value : {true, false}) {
    EXPECT_EQ(Zel::strepToValue<TristateBool>(value ? "true" : "false"), TristateBool(value));
  }
  EXPECT_EQ(Zel::strepToValue<TristateBool>("notSet"), TristateBool());
  for (char const* text : {"", "True", "1", "notset", "fals", " true"}) {
    EXPECT_THAT([&] { Zel::strepToValue<TristateBool>(text); },
                ThrowsMessage<Zel::RangeException>(StrEq("Error deserializing Kiv::TristateBool")))
        << '"' << text << '"';
  }
  EXPECT_THAT([] { Zel::strepToValue<TristateBool>("truex"); },
              ThrowsMessage<Zel::RangeException>(StrEq("Invalid Kiv::TristateBool")));
}

TEST(TristateBool, LogByteOutOfRangeIsRefused) {
  U8 const bytes[] = {3};
  Zel::NboAttrLog::In in(bytes);
  TristateBool b(true);
  EXPECT_THAT([&] { in >> b; },
              ThrowsMessage<Zel::RangeException>(StrEq("TristateBool::state > 0x02 not allowed")));
  EXPECT_EQ(b, TristateBool(true));
}

TEST(TristateBoolDeathTest, ValueOfUnsetAsserts) {
  EXPECT_DEATH(TristateBool().value(), "Assertion failed: isSet\\(\\)");
}

}  // namespace
}  // namespace Kiv
