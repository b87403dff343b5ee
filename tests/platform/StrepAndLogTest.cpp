// String forms and attribute-log forms of value types: exact text and bytes, randomized round
// trips, and refusal of malformed input without touching the target.
#include "Model.h"

#include <bit>
#include <cmath>

namespace Kiv::Test {
namespace {

// A single field named "value": its string form is the bare number.
struct Seq : Zel::Value<Seq> {
  U32 value() const { return v; }
  void valueIs(U32 x) { v = x; }
  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::Test::Seq", Zel::field("value", &Seq::value, &Seq::valueIs));
  }
  U32 v = 0;
};

// Bytes that the string form must escape are drawn far more often than by chance.
std::string randomText(std::mt19937_64& rng) {
  static constexpr char special[] = {'\'',   '\\',   '\n', '\t', '\r', '\0', '\x01', '\x7f',
                                     '\x80', '\xff', ' ',  'x',  ',',  '}',  ')'};
  std::string text(rng() % 12, ' ');
  for (char& c : text) c = rng() % 2 ? special[rng() % sizeof special] : char(rng());
  return text;
}

Record randomRecord(std::mt19937_64& rng) {
  using D = std::numeric_limits<double>;
  using L = std::numeric_limits<S64>;
  static constexpr double ratios[] = {D::infinity(),    -D::infinity(), D::max(),
                                      D::lowest(),      D::min(),       D::denorm_min(),
                                      -D::denorm_min(), -0.0,           0.0};
  static constexpr S64 offsets[] = {L::min(), L::max(), -1, 0};
  double ratio = rng() % 3 ? std::bit_cast<double>(U64(rng())) : ratios[rng() % std::size(ratios)];
  return Record(randomText(rng), randomText(rng), std::isnan(ratio) ? 0.5 : ratio,
                rng() % 2 ? offsets[rng() % 4] : S64(rng()), rng() % 2, Mood(rng() % 3),
                U16(rng() % 1001));
}

bool sameBits(Record const& a, Record const& b) {  // NaN aside, == would miss -0.0 against 0.0
  return a == b && std::bit_cast<U64>(a.ratio()) == std::bit_cast<U64>(b.ratio());
}

// Both forms read back bit for bit; every proper prefix of either is refused and leaves the
// target alone.
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
    EXPECT_EQ(testing::PrintToString(r), text.str());  // through operator<<
    Record target = sentinel;
    EXPECT_THROW(Zel::sequenceToValue(text.begin(), text.begin() + rng() % text.size(), &target),
                 Zel::RangeException);
    EXPECT_TRUE(sameBits(target, sentinel));
    Zel::NboAttrLog::Out out;
    out << r;
    Zel::NboAttrLog::In in(out.bytes());
    in >> target;
    ASSERT_TRUE(sameBits(target, r));
    EXPECT_EQ(in.remaining(), 0u);
    Zel::NboAttrLog::In shortIn(std::span(out.bytes().data(), rng() % out.bytes().size()));
    target = sentinel;
    EXPECT_THAT([&] { shortIn >> target; },
                ThrowsMessage<Zel::RangeException>("Attribute log ended early"));
    EXPECT_TRUE(sameBits(target, sentinel));
  }
}

std::string const canonical =
    "Value('Kiv::Test::Record', ** {'note': 'it\\'s', 'tag': 't', 'ratio': 0.5, 'offset': -3, "
    "'flag': True, 'mood': busy, 'pid': 2})";

// Each edit of the canonical text makes it malformed: parsing throws the message and leaves
// the target as it was. The field's own range check runs while parsing; an enumerator is a
// whole word, not the prefix of a longer one.
TEST(ValueForms, MalformedTextThrowsAndLeavesTheTargetUnchanged) {
  std::string const error = "Error deserializing Kiv::Test::Record";
  std::tuple<std::string, std::string, std::string> const edits[] = {
      {canonical, "", error},
      {"'pid': 2", "'pid': 2x", error},
      {"Record", "Seq", error},
      {"'pid'", "'pod'", error},
      {"{", "", error},
      {", 'pid': 2", "", error},
      {"'pid': 2", "'pid': -1", error},
      {"'pid': 2", "'pid': 70000", error},
      {"True", "Tru", error},
      {"busy", "busy2", error},
      {"'t'", "'t", error},
      {"2})", "5000})", "Record::pid > 1000 not allowed"}};
  Record const sentinel("x", "y", 1, 2, false, Mood::lost, 3);
  for (auto const& [from, to, message] : edits) {
    std::string text = canonical;
    text.replace(text.find(from), from.size(), to);
    Record target = sentinel;
    EXPECT_THAT([&] { Zel::sequenceToValue(text.data(), text.data() + text.size(), &target); },
                ThrowsMessage<Zel::RangeException>(message))
        << text;
    EXPECT_EQ(target, sentinel) << text;
  }
  EXPECT_THAT([] { Zel::strepToValue<Record>(canonical + " "); },
              ThrowsMessage<Zel::RangeException>("Invalid Kiv::Test::Record"));
  EXPECT_THAT([] { Zel::strepToValue<Zel::U8>("256"); },
              ThrowsMessage<Zel::RangeException>("Error deserializing U8"));
}

// The printed forms, blanks between tokens being optional when read. In the log, fields come
// at their declared widths, big-endian, and the field's range check runs while reading.
TEST(ValueForms, ExactTextAndBytes) {
  EXPECT_EQ(Zel::valueToStrep(sampleRecord()), canonical);
  std::string compact = canonical;
  std::erase(compact, ' ');
  EXPECT_EQ(Zel::strepToValue<Record>(compact), sampleRecord());
  EXPECT_EQ(Zel::valueToStrep(Zel::strepToValue<Seq>("4294967295")), "4294967295");
  EXPECT_EQ(Zel::valueToStrep(Zel::String(std::string("a\\b\n\t\r\0\x7f\xff'", 10))),
            R"('a\\b\n\t\r\x00\x7f\xff\'')");
  EXPECT_EQ(std::pair(Zel::valueToStrep(Zel::endOfTime), Zel::valueToStrep(Zel::beginningOfTime)),
            std::pair(Zel::String("inf"), Zel::String("-inf")));

  Zel::NboAttrLog::Out out;
  out << Record("ab", "", 1.0, -2, true, Mood::lost, 0x0305);
  std::vector<U8> bytes{0,    0,    0,    2,    'a',  'b',  // note: length, then the bytes
                        0,    0,    0,    0,                // tag: empty
                        0x3f, 0xf0, 0,    0,    0,    0,    0,    0,     // ratio: 1.0
                        0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe,  // offset: -2
                        1,    2,    3,    5};                            // flag, mood: lost, pid
  EXPECT_EQ(out.bytes(), bytes);
  bytes.end()[-2] = 0x13;  // pid: 5000
  bytes.end()[-1] = 0x88;
  Zel::NboAttrLog::In in(bytes);
  Record target = sampleRecord();
  EXPECT_THAT([&] { in >> target; },
              ThrowsMessage<Zel::RangeException>("Record::pid > 1000 not allowed"));
  EXPECT_EQ(target, sampleRecord());
}

}  // namespace
}  // namespace Kiv::Test
