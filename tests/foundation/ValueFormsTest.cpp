// The core value types: their forms agree with each other on random values, Seqno's order follows
// its reference, and each type keeps its own texts and refusals.
#include <Kiv/MaybeU63.h>
#include <Kiv/Seqno.h>
#include <Kiv/TristateBool.h>
#include <Kiv/UniqueId.h>

#include <Zel/GenericIf.h>
#include <Zel/System.h>

#include <gtest/gtest.h>

#include <unistd.h>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace Kiv {
namespace {

// Random values: short numbers as often as long ones, and a quarter of them None, which a Seqno
// reads as 0, the wrap point.
template <class T>
T randomValue(std::mt19937_64& r) {
  U64 const bits = r();
  T value;
  if constexpr (std::is_same_v<T, UniqueId>) {
    value.timestampIs(U32(bits));
    value.pidIs(U16(bits >> 32));
    value.countIs(U16(bits >> 48));
  } else if constexpr (std::is_same_v<T, TristateBool>) {
    if (bits % 3 != 0) value.valueIs(bits % 3 == 1);
  } else {
    value.valueIs(decltype(value.value())(bits % 4 ? (bits >> 1) >> (bits % 64) : 1ull << 63));
  }
  return value;
}

// The message of the Zel::RangeException that `f` throws.
template <class F>
std::string refusal(F const& f) {
  try {
    f();
  } catch (Zel::RangeException const& e) {
    return e.what();
  }
  return "accepted";
}

template <class T>
class ValueForms : public ::testing::Test {};
using CoreValueTypes = ::testing::Types<Seqno16, Seqno32, MaybeU63, TristateBool, UniqueId>;
TYPED_TEST_SUITE(ValueForms, CoreValueTypes);

// Also: text with something left over is refused, and a log cut short leaves the value as it was.
TYPED_TEST(ValueForms, RandomValuesRoundTripThroughEveryFormAndTruncationIsRefused) {
  using T = TypeParam;
  std::mt19937_64 random(11);
  Zel::GenericIf const* type = Zel::GenericIf::type(T::zelTypeName());
  ASSERT_TRUE(type && type->isValueType());
  for (int i = 0; i < 2000; ++i) {
    T const value = randomValue<T>(random);
    Zel::String const text = Zel::valueToStrep(value);
    ASSERT_EQ(Zel::strepToValue<T>(text.view()), value) << text;
    ASSERT_EQ(type->valueStrep(text), text);
    ASSERT_EQ(testing::PrintToString(value), text.view());  // through operator<<
    ASSERT_EQ(refusal([&] { Zel::strepToValue<T>(text.str() + "x"); }),
              "Invalid " + T::zelTypeName());
    if constexpr (std::is_same_v<T, Seqno16> || std::is_same_v<T, Seqno32>) {
      // a < b when b lies 1 to half the range ahead, so a half-range pair is each before the other.
      using Word = decltype(value.value());
      U64 const range = U64(1) << 8 * sizeof(Word), a = value.value();
      Word const b = Word(i % 2 ? random() : a + (i % 4 ? 0 : range / 2) + random() % 7 - 3);
      U64 const ahead = (b + range - a) % range;
      ASSERT_EQ(value < T(b), ahead != 0 && ahead <= range / 2) << a << " < " << b;
      T advanced = value;
      advanced.valueInc(Word(b - a));
      ASSERT_EQ(advanced, T(b));
    }

    Zel::NboAttrLog::Out out;
    out << value;
    ASSERT_EQ(out.bytes().size(), sizeof(T));  // each field at its width, as the type stores it
    T logged = randomValue<T>(random);
    T const before = logged;
    std::vector<U8> const shortLog(out.bytes().begin(), out.bytes().end() - 1);
    Zel::NboAttrLog::In cut(shortLog), in(out.bytes());
    ASSERT_EQ(refusal([&] { cut >> logged; }), "Attribute log ended early");
    ASSERT_EQ(logged, before);
    in >> logged;
    ASSERT_EQ(logged, value) << text;
    ASSERT_EQ(in.remaining(), 0u);
  }
}

// The log is in network order and declaration order. A MaybeU63 decimal with bit 63 set is kept
// as the word it is, which prints as None. Refused text or log bytes leave the value as it was.
TEST(ValueForms, EachTypesOwnTextsLogAndRefusals) {
  UniqueId id;
  id.timestampIs(0x01020304);
  id.pidIs(0x0506);
  id.countIs(0x0708);
  Zel::NboAttrLog::Out out;
  out << id << Seqno16(0x0a0b) << MaybeU63::none() << TristateBool(false);
  EXPECT_EQ(out.bytes(),
            (std::vector<U8>{1, 2, 3, 4, 5, 6, 7, 8, 0x0a, 0x0b, 0x80, 0, 0, 0, 0, 0, 0, 0, 2}));

  std::string const malformed = "Error deserializing Kiv::";
  MaybeU63 value;
  for (U64 word : {MaybeU63::noneBit - 1, MaybeU63::noneBit + 1, ~U64(0)}) {
    value.stringValueIs(std::to_string(word));
    EXPECT_EQ(value.value(), word);
    EXPECT_EQ(value.stringValue(), word < MaybeU63::noneBit ? std::to_string(word) : "None");
  }
  for (char const* text : {"", "Non", "none", "-1", " 1", "18446744073709551616"}) {
    EXPECT_EQ(refusal([&] { value.stringValueIs(text); }), malformed + "MaybeU63") << text;
  }
  EXPECT_EQ(refusal([&] { value.stringValueIs("None "); }), "Invalid Kiv::MaybeU63");
  EXPECT_EQ(value.value(), ~U64(0));

  EXPECT_EQ(TristateBool().toStrep(), "notSet");
  EXPECT_EQ(TristateBool(true).toStrep(), "true");
  EXPECT_EQ(TristateBool(false).toStrep(), "false");
  EXPECT_TRUE(TristateBool(true).value() && !TristateBool(false).value());
  for (char const* text : {"", "True", "1", "notset", "fals", " true"}) {
    EXPECT_EQ(refusal([&] { Zel::strepToValue<TristateBool>(text); }), malformed + "TristateBool")
        << text;
  }
  U8 const bytes[] = {3};
  Zel::NboAttrLog::In in(bytes);
  TristateBool b(true);
  EXPECT_EQ(refusal([&] { in >> b; }), "TristateBool::state > 0x02 not allowed");
  EXPECT_EQ(b, TristateBool(true));
}

// The generator is process-wide, so one test walks it through in order: count 0 of a second,
// every count up to 65535, the wait for the next second, going on there, and the restart in a
// later one.
TEST(UniqueId, GeneratorCountsWithinASecondAndWaitsForTheNextWhenFull) {
  Seconds const start = 1'000'000'000.75;
  Zel::System::virtualTimeIs(start);
  UniqueId id;
  EXPECT_FALSE(id.isSet());
  id.doInit();
  EXPECT_EQ(id.toStrep(), "Value('Kiv::UniqueId', ** {'timestamp': 1000000000, 'pid': " +
                              std::to_string(U16(getpid())) + ", 'count': 0})");
  id.doInit();  // a set id is left as it is, so the loop starts at count 1
  UniqueId previous = id;
  for (U32 i = 1; i <= 0x10001; ++i) {
    UniqueId next;
    next.doInit();
    ASSERT_EQ(next.timestamp(), 1'000'000'000u + i / 0x10000);
    ASSERT_EQ(next.count(), i % 0x10000);
    ASSERT_TRUE(previous < next);
    previous = next;
  }
  EXPECT_EQ(Zel::System::currentTime(), start + 1) << "the wait sleeps in virtual time";
  Zel::System::virtualTimeIs(start + 1.25);
  UniqueId later;
  later.doInit();
  EXPECT_EQ(later.count(), 0u);
  Zel::System::virtualTimeDel();

  UniqueId partly;  // only pid and count decide whether an id is set
  partly.countIs(0);
  EXPECT_TRUE(partly.isSet());
}

TEST(ValueFormsDeathTest, TristateBoolValueOfUnsetAsserts) {
  EXPECT_DEATH(TristateBool().value(), "Assertion failed: isSet\\(\\)");
}

}  // namespace
}  // namespace Kiv
