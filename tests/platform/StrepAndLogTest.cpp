// String forms and attribute-log forms of value types: exact text and bytes, randomized round
// trips, and refusal of malformed input without touching the target.
#include "Model.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace Kiv::Test {
namespace {

Stamp stamp(U32 timestamp, U16 pid, U16 seq) {
  Stamp s;
  s.timestampIs(timestamp);
  s.pidIs(pid);
  s.seqIs(seq);
  return s;
}

// Bytes that the string form must escape are drawn far more often than by chance.
std::string randomText(std::mt19937_64& rng) {
  static constexpr char special[] = {'\'', '\\', '\n', '\t', '\r', '\0', '\x01', '\x7f',
                                     '\x80', '\xff', ' ',  'x',  ',',  '}',  ')'};
  std::string text(rng() % 12, ' ');
  for (char& c : text) c = rng() % 2 ? special[rng() % sizeof special] : char(rng());
  return text;
}

double randomDouble(std::mt19937_64& rng) {
  using L = std::numeric_limits<double>;
  static constexpr double extremes[] = {L::infinity(), -L::infinity(), L::max(),      L::lowest(),
                                        L::min(),      L::denorm_min(), -L::denorm_min(), -0.0,
                                        0.0,           1.0 / 3};
  if (rng() % 3 == 0) return extremes[rng() % std::size(extremes)];
  double d;
  do d = std::bit_cast<double>(U64(rng()));
  while (std::isnan(d));
  return d;
}

Record randomRecord(std::mt19937_64& rng) {
  Record r;
  r.noteIs(randomText(rng));
  r.tagIs(randomText(rng));
  r.ratioIs(randomDouble(rng));
  static constexpr S64 offsets[] = {std::numeric_limits<S64>::min(),
                                    std::numeric_limits<S64>::max(), -1, 0};
  r.offsetIs(rng() % 2 ? offsets[rng() % 4] : S64(rng()));
  r.flagIs(rng() % 2);
  r.moodIs(Mood(rng() % 3));
  return r;
}

bool sameBits(Record const& a, Record const& b) {
  return a == b && std::bit_cast<U64>(a.ratio()) == std::bit_cast<U64>(b.ratio());
}

TEST(ValueForms, RandomValuesRoundTripThroughTextAndLog) {
  std::mt19937_64 rng(3);
  Record const sentinel = randomRecord(rng);
  for (int i = 0; i < 3000; ++i) {
    Record const r = randomRecord(rng);
    Zel::String const text = Zel::valueToStrep(r);
    SCOPED_TRACE(text.str());
    Record const parsed = Zel::strepToValue<Record>(text.view());
    ASSERT_TRUE(sameBits(parsed, r));
    EXPECT_EQ(Zel::Hash<Record>()(parsed), Zel::Hash<Record>()(r));
    std::ostringstream streamed;
    streamed << r;
    EXPECT_EQ(streamed.str(), text.str());

    // Every proper prefix of the text is malformed and leaves the target alone.
    std::size_t const textCut = rng() % text.size();
    Record target = sentinel;
    EXPECT_THROW(Zel::sequenceToValue(text.begin(), text.begin() + textCut, &target),
                 Zel::RangeException);
    EXPECT_TRUE(sameBits(target, sentinel));

    Zel::NboAttrLog::Out out;
    out << r;
    Zel::NboAttrLog::In in(out.bytes());
    Record logged = sentinel;
    in >> logged;
    ASSERT_TRUE(sameBits(logged, r));
    EXPECT_EQ(in.remaining(), 0u);

    std::size_t const logCut = rng() % out.bytes().size();
    Zel::NboAttrLog::In shortIn(std::span(out.bytes().data(), logCut));
    target = sentinel;
    EXPECT_EQ(thrownMessage<Zel::RangeException>([&] { shortIn >> target; }),
              "Attribute log ended early");
    EXPECT_TRUE(sameBits(target, sentinel));
  }
}

TEST(ValueForms, ExactText) {
  Seq seq;
  seq.valueIs(17);
  EXPECT_EQ(Zel::valueToStrep(seq), "17");
  EXPECT_EQ(Zel::strepToValue<Seq>("4294967295").value(), 4294967295u);

  EXPECT_EQ(Zel::valueToStrep(stamp(1, 2, 3)),
            "Value('Kiv::Test::Stamp', ** {'timestamp': 1, 'pid': 2, 'seq': 3})");
  Record r;
  r.noteIs("it's");
  r.tagIs("t");
  r.ratioIs(0.5);
  r.offsetIs(-3);
  r.flagIs(true);
  r.moodIs(Mood::busy);
  EXPECT_EQ(Zel::valueToStrep(r),
            "Value('Kiv::Test::Record', ** {'note': 'it\\'s', 'tag': 't', 'ratio': 0.5, "
            "'offset': -3, 'flag': True, 'mood': busy})");

  EXPECT_EQ(Zel::valueToStrep(Zel::String(std::string("a\\b\n\t\r\0\x7f\xff'", 10))),
            R"('a\\b\n\t\r\x00\x7f\xff\'')");
  EXPECT_EQ(Zel::valueToStrep(Zel::endOfTime), "inf");
  EXPECT_EQ(Zel::valueToStrep(Zel::beginningOfTime), "-inf");
  // Blanks between tokens are accepted; the printed form is canonical.
  EXPECT_EQ(
      Zel::strepToValue<Stamp>("Value( 'Kiv::Test::Stamp',**{'timestamp':1 ,'pid':  2,'seq':3})"),
      stamp(1, 2, 3));
}

TEST(ValueForms, MalformedTextThrowsAndLeavesTheTargetUnchanged) {
  Stamp const before = stamp(9, 9, 9);
  std::string const malformed[] = {
      "",
      "Value('Kiv::Test::Stamp', ** {'timestamp': 12x, 'pid': 2, 'seq': 3})",
      "Value('Kiv::Test::Seq', ** {'timestamp': 1, 'pid': 2, 'seq': 3})",
      "Value('Kiv::Test::Stamp', ** {'time': 1, 'pid': 2, 'seq': 3})",
      "Value('Kiv::Test::Stamp', ** 'timestamp': 1, 'pid': 2, 'seq': 3})",
      "Value('Kiv::Test::Stamp', ** {'timestamp': 1, 'pid': 2})",
      "Value('Kiv::Test::Stamp', ** {'timestamp': -1, 'pid': 2, 'seq': 3})",
      "Value('Kiv::Test::Stamp', ** {'timestamp': 1, 'pid': 70000, 'seq': 3})",
      "Value('Kiv::Test::Stamp', ** {'timestamp': 1, 'pid': 5000, 'seq': 3})",
  };
  for (std::string const& text : malformed) {
    Stamp target = before;
    EXPECT_THROW(Zel::sequenceToValue(text.data(), text.data() + text.size(), &target),
                 Zel::RangeException)
        << text;
    EXPECT_EQ(target, before) << text;
  }
  // The field's own range check runs while parsing.
  EXPECT_EQ(thrownMessage<Zel::RangeException>([] {
              Zel::strepToValue<Stamp>(
                  "Value('Kiv::Test::Stamp', ** {'timestamp': 1, 'pid': 5000, 'seq': 3})");
            }),
            "Stamp::pid > 1000 not allowed");

  EXPECT_EQ(thrownMessage<Zel::RangeException>([] { Zel::strepToValue<Seq>("12x"); }),
            "Invalid Kiv::Test::Seq");
  EXPECT_EQ(thrownMessage<Zel::RangeException>([] {
              Zel::strepToValue<Stamp>(
                  "Value('Kiv::Test::Stamp', ** {'timestamp': 1, 'pid': 2, 'seq': 3}) ");
            }),
            "Invalid Kiv::Test::Stamp");
  // An enumerator is a whole word: a longer word is not read as its prefix.
  EXPECT_EQ(thrownMessage<Zel::RangeException>([] { Zel::strepToValue<Mood>("busy2"); }),
            "Error deserializing Kiv::Test::Mood");
  EXPECT_EQ(thrownMessage<Zel::RangeException>([] { Zel::strepToValue<Zel::U8>("256"); }),
            "Error deserializing U8");
  EXPECT_EQ(thrownMessage<Zel::RangeException>([] { Zel::strepToValue<Zel::String>("'open"); }),
            "Error deserializing String");
}

TEST(AttributeLog, ExactBytesBigEndianAtDeclaredWidths) {
  Zel::NboAttrLog::Out out;
  out << stamp(0x01020304, 0x0305, 0x0708);
  EXPECT_EQ(out.bytes(), (std::vector<U8>{1, 2, 3, 4, 3, 5, 7, 8}));

  Record r;
  r.noteIs("ab");
  r.ratioIs(1.0);
  r.offsetIs(-2);
  r.flagIs(true);
  r.moodIs(Mood::lost);
  out.clear();
  out << r;
  std::vector<U8> const expected{
      0,    0,    0,    2,    'a',  'b',               // note: length, then the bytes
      0,    0,    0,    0,                             // tag: empty
      0x3f, 0xf0, 0,    0,    0,    0,    0,    0,     // ratio: 1.0
      0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe,  // offset: -2
      1,                                               // flag
      2};                                              // mood: lost
  EXPECT_EQ(out.bytes(), expected);
}

TEST(AttributeLog, FieldRangeChecksRunWhileReading) {
  Stamp target = stamp(9, 9, 9);
  std::vector<U8> const pid5000{0, 0, 0, 1, 0x13, 0x88, 0, 3};
  Zel::NboAttrLog::In in(pid5000);
  EXPECT_EQ(thrownMessage<Zel::RangeException>([&] { in >> target; }),
            "Stamp::pid > 1000 not allowed");
  EXPECT_EQ(target, stamp(9, 9, 9));
}

}  // namespace
}  // namespace Kiv::Test
