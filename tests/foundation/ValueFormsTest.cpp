// What every core value type shares: string form, parser, stream output, attribute log, hash and
// reflection agree with each other on random values.
#include <Kiv/MaybeU63.h>
#include <Kiv/Seqno.h>
#include <Kiv/TristateBool.h>
#include <Kiv/UniqueId.h>

#include <Zel/GenericIf.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <type_traits>
#include <vector>

namespace Kiv {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

// Random values, short numbers as often as long ones and None as a quarter of MaybeU63s.
template <class T>
T randomValue(std::mt19937_64& r) {
  U64 const bits = r();
  if constexpr (std::is_same_v<T, MaybeU63>) {
    return bits % 4 == 0 ? MaybeU63::none() : MaybeU63((bits >> 1) >> (bits % 64));
  } else if constexpr (std::is_same_v<T, TristateBool>) {
    TristateBool b;
    if (bits % 3 != 0) b.valueIs(bits % 3 == 1);
    return b;
  } else if constexpr (std::is_same_v<T, UniqueId>) {
    UniqueId id;
    id.timestampIs(U32(bits));
    id.pidIs(U16(bits >> 32));
    id.countIs(U16(bits >> 48));
    return id;
  } else {
    return T(decltype(T().value())(bits));
  }
}

template <class T>
class ValueForms : public ::testing::Test {};

using CoreValueTypes = ::testing::Types<Seqno16, Seqno32, MaybeU63, TristateBool, UniqueId>;
TYPED_TEST_SUITE(ValueForms, CoreValueTypes);

TYPED_TEST(ValueForms, RandomValuesRoundTripThroughEveryForm) {
  using T = TypeParam;
  std::mt19937_64 random(11);
  Zel::GenericIf const* type = Zel::GenericIf::type(T::zelTypeName());
  ASSERT_NE(type, nullptr);
  EXPECT_TRUE(type->isValueType());
  for (int i = 0; i < 2000; ++i) {
    T const value = randomValue<T>(random);
    Zel::String const text = Zel::valueToStrep(value);
    T const parsed = Zel::strepToValue<T>(text.view());
    ASSERT_EQ(parsed, value) << text;
    ASSERT_EQ(Zel::Hash<T>()(parsed), Zel::Hash<T>()(value));
    ASSERT_EQ(type->valueStrep(text), text);
    std::ostringstream streamed;
    streamed << value;
    ASSERT_EQ(streamed.str(), text.view());

    Zel::NboAttrLog::Out out;
    out << value;
    ASSERT_EQ(out.bytes().size(), sizeof(T));  // each field at its width, as the type stores it
    T logged = randomValue<T>(random);
    Zel::NboAttrLog::In in(out.bytes());
    in >> logged;
    ASSERT_EQ(logged, value) << text;
    ASSERT_EQ(in.remaining(), 0u);
  }
}

TYPED_TEST(ValueForms, ShortLogAndTrailingTextAreRefused) {
  using T = TypeParam;
  std::mt19937_64 random(12);
  T const value = randomValue<T>(random);
  Zel::NboAttrLog::Out out;
  out << value;
  std::vector<U8> const shortLog(out.bytes().begin(), out.bytes().end() - 1);
  T kept = value;
  Zel::NboAttrLog::In in(shortLog);
  EXPECT_THAT([&] { in >> kept; },
              ThrowsMessage<Zel::RangeException>(StrEq("Attribute log ended early")));
  EXPECT_EQ(kept, value);
  std::string const trailing = Zel::valueToStrep(value).str() + "x";
  EXPECT_THAT([&] { Zel::strepToValue<T>(trailing); },
              ThrowsMessage<Zel::RangeException>(StrEq("Invalid " + T::zelTypeName())));
}

TEST(ValueForms, LogIsNetworkOrderInDeclarationOrder) {
  UniqueId id;
  id.timestampIs(0x01020304);
  id.pidIs(0x0506);
  id.countIs(0x0708);
  Zel::NboAttrLog::Out out;
  out << id << Seqno16(0x0a0b) << MaybeU63::none() << TristateBool(false);
  EXPECT_EQ(out.bytes(),
            (std::vector<U8>{1, 2, 3, 4, 5, 6, 7, 8, 0x0a, 0x0b, 0x80, 0, 0, 0, 0, 0, 0, 0, 2}));
}

TEST(ValueForms, ReflectionNormalizesText) {
  EXPECT_EQ(Zel::GenericIf::type("Kiv::UniqueId")
                ->valueStrep("Value('Kiv::UniqueId', ** {'timestamp': 1,'pid':2, 'count': 3})"),
            "Value('Kiv::UniqueId', ** {'timestamp': 1, 'pid': 2, 'count': 3})");
}

}  // namespace
}  // namespace Kiv
