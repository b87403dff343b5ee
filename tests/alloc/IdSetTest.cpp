#include <Kiv/IdSet.h>

#include <Zel/GenericIf.h>
#include <Zel/NboAttrLog.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <bitset>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace Kiv {
namespace {

// Every bucket word of the largest supported size (255 x 64 bits), complemented ones included.
using Bits = std::bitset<16384>;

IdSet fromBits(U16 size, Bits const& bits) {
  IdSet set(size);
  for (U32 k = 0; k < set.maxBuckets(); ++k) {
    set.bucketIs(U8(k), (bits >> (k * 64) & Bits(~U64{0})).to_ullong());
  }
  return set;
}

// Buckets as rebuilt from the reference (none zero or past maxBuckets), equality and hash, and
// membership below size, iteration and the text form parsed back.
void matches(IdSet const& set, Bits const& ref) {
  IdSet const rebuilt = fromBits(set.size(), ref);
  ASSERT_TRUE(std::ranges::equal(set.bucketIteratorConst(), rebuilt.bucketIteratorConst()));
  ASSERT_TRUE(set == rebuilt && set.hash() == rebuilt.hash());
  std::vector<U16> expected;
  for (U32 i = 0; i < set.size(); ++i) {
    ASSERT_EQ(set.id(U16(i)), bool(ref[i])) << "membership of " << i;
    if (ref[i]) expected.push_back(U16(i));
  }
  ASSERT_TRUE(std::ranges::equal(set, expected, {}, &Id::value)) << "iteration";
  ASSERT_EQ(set.firstId(), expected.empty() ? Id::null() : Id(expected.front()));
  std::string const text = set.stringValue().str();
  IdSet parsed(set.size());
  ASSERT_EQ(sequenceToValue(text.data(), text.data() + text.size(), &parsed),
            text.data() + text.size());
  ASSERT_TRUE(std::ranges::equal(parsed, expected, {}, &Id::value)) << text;
}

// Each binary operator in place, in its copying form (through the scripting names, which call
// the copying operators), and on the reference; both forms must agree.
struct Algebra {
  IdSet& (IdSet::*inPlace)(IdSet const&);
  IdSet (IdSet::*copying)(IdSet const&) const;
  Bits (*model)(Bits, Bits);
};
Algebra const kAlgebra[] = {
    {&IdSet::operator|=, &IdSet::union_py, [](Bits a, Bits b) { return a | b; }},
    {&IdSet::operator&=, &IdSet::intersection_py, [](Bits a, Bits b) { return a & b; }},
    {&IdSet::operator-=, &IdSet::difference_py, [](Bits a, Bits b) { return a & ~b; }},
    {&IdSet::operator^=, &IdSet::symDifference_py, [](Bits a, Bits b) { return a ^ b; }},
};

class IdSetRandomRun : public testing::TestWithParam<U16> {};

// Every mutator in random order; sizes at bucket edges, up to the largest the type serves.
TEST_P(IdSetRandomRun, MatchesBitsetReference) {
  U16 const size = GetParam();
  std::mt19937 rng(size);
  auto below = [&](U32 n) { return U32(std::uniform_int_distribution<U32>(0, n - 1)(rng)); };
  IdSet set(size);
  Bits ref;
  Bits const inSize = ~Bits() >> (ref.size() - size);
  Bits const inBuckets = ~Bits() >> (ref.size() - 64 * set.maxBuckets());
  int const steps = size > 4096 ? 40 : 200;  // the checker costs a lookup per id
  for (int step = 0; step < steps; ++step) {
    U32 const op = below(6);
    if (op == 0) {
      U16 const id = U16(below(size));
      bool const member = below(3) != 0;
      set.idIs(id, member);
      ref[id] = member;
    } else if (op == 1) {
      U16 const begin = U16(below(size));
      U16 const end = U16(begin + 1 + below(size - begin));
      set.idSetRange(begin, end);
      ref |= ~Bits() >> (ref.size() - (end - begin)) << begin;
    } else if (op == 2) {
      Algebra const& algebra = kAlgebra[below(4)];
      // A sparse or a dense scatter of ids, sometimes complemented up to the last bucket's end.
      Bits bits;
      for (U32 i = below(2) ? below(8) : below(size) + 1; i > 0; --i) bits.set(below(size));
      if (below(4) == 0) bits = ~bits & inBuckets;
      IdSet const other = fromBits(size, bits);
      IdSet const copy = (set.*algebra.copying)(other);
      (set.*algebra.inPlace)(other);
      ASSERT_EQ(set, copy);
      ref = algebra.model(ref, bits);
    } else if (op == 3) {
      set = ~set;
      ref = ~ref & inBuckets;
    } else if (op == 4) {
      set.idSetAll();  // the last bucket is written whole: the complement's extra bits go
      ref = inSize;
    } else {
      U8 const k = U8(below(set.maxBuckets()));
      set.bucketDel(k);
      ref &= ~(~Bits() >> (ref.size() - 64) << (k * 64));
    }
    ASSERT_NO_FATAL_FAILURE(matches(set, ref)) << "step " << step << " op " << op;
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, IdSetRandomRun, testing::Values(1, 63, 64, 70, 128, 1000, 16320));

// The forms: the run text (parsed into a prototype, in any order), the attribute log byte for byte
// and through a short read, and the hand-written reflection record.
TEST(IdSet, FormsAndReflection) {
  EXPECT_EQ(IdSet(100, Id::null()).stringValue(), "()");
  IdSet set(100, 5);
  char const text[] = "(9,50-52,0,1-2)";
  EXPECT_EQ(sequenceToValue(text, std::end(text) - 1, &set), std::end(text) - 1);
  EXPECT_EQ(Zel::valueToStrep(set), "(0-2,5,9,50-52)");
  EXPECT_TRUE(!IdSet(0, Id::null()) && !(IdSet(100, 5) == IdSet(100, 6)));
  EXPECT_EQ((IdSet(100, 5) | IdSet(100)).initialId(), Id(5));  // the copy keeps the left's

  IdSet written(1000, 700);
  written.idDel(700);  // the reader keeps initialId without making it a member again
  written.idSetRange(64, 66);
  Zel::NboAttrLog::Out log;
  log << written;
  EXPECT_EQ(log.bytes(), (std::vector<U8>{3, 0xE8, 2, 0xBC, 1, 0, 0, 0, 0, 0, 0, 0, 3, 0}));
  Zel::NboAttrLog::In in(log.bytes());
  IdSet read;
  in >> read;
  EXPECT_TRUE(read.size() == 1000 && read.initialId() == Id(700) && read == written);
  Zel::NboAttrLog::In shortLog(std::span(log.bytes()).first(log.bytes().size() - 1));
  EXPECT_THROW(shortLog >> read, Zel::RangeException);
  EXPECT_EQ(read, written);

  Zel::GenericIf const* type = Zel::GenericIf::type("Kiv::IdSet");
  ASSERT_NE(type, nullptr);
  EXPECT_EQ(type->attribute("bucket").entries(&written).back(),
            (std::pair<Zel::String, Zel::String>("1", "3")));
  EXPECT_EQ(type->valueStrep("(9,1-2,3)"), "(1-3,9)");
  EXPECT_THROW(type->valueStrep("(1)x"), Zel::RangeException);
  EXPECT_EQ(Zel::GenericIf::type("Kiv::Id")->valueStrep("42"), "42");
}

TEST(IdSetDeathTest, MisuseAborts) {
  IdSet set(100, 5);
  EXPECT_DEATH(set.id(100), R"re(Failed\(bitPos.value\(\) < size\(\)\) id 100 exceeds limit of 100
Assertion failed: !"bitPos.value\(\) < size\(\)" \()re");
  EXPECT_DEATH(set.idIs(100, true), "id 100 exceeds limit of 100");
  EXPECT_DEATH(set.idSetRange(10, 10), "range should be of at least length 1");
  EXPECT_DEATH(set.idSetRange(0, 101), "end can't be greater than bitmap limit");
  EXPECT_DEATH(set.nextId(100), "current bit can't be greater than bitmap limit");
  char const* const exhausted = R"re(Assertion failed: curId_ != Id::null\(\))re";
  EXPECT_DEATH(++set.idIteratorConst(Id::null()), exhausted);
  EXPECT_DEATH(set.idIteratorConst(Id::null()).key(), exhausted);
  EXPECT_DEATH(set |= IdSet(50), R"re(Assertion failed: size\(\) == other.size\(\))re");
  EXPECT_DEATH((void)(set == IdSet(50)), R"re(Assertion failed: size\(\) == other.size\(\))re");
  EXPECT_DEATH((void)!set, R"re(Assertion failed: size\(\) == other.size\(\))re");
  Zel::NboAttrLog::Out out;
  EXPECT_DEATH(out << set, R"re(Default key not supported in collection inside nominal
Assertion failed: false)re");

  auto parse = [](std::string const& text) {
    IdSet into(100);
    sequenceToValue(text.data(), text.data() + text.size(), &into);
  };
  EXPECT_DEATH(parse("(3"), R"re(Assertion failed: \*p == '\(' && strepEnd != end)re");
  EXPECT_DEATH(parse("(3-3)"), R"re(Failed\(start < stop\) Invalid range)re");
  EXPECT_DEATH(parse("(1-2-3)"), R"re(Assertion failed: range.size\(\) == 2)re");
  EXPECT_DEATH(parse("(1,,2)"), R"re(Failed\(isIdText\(text\)\) '' is not an identifier)re");
  EXPECT_DEATH(parse("(65535)"), R"re('65535' is not an identifier)re");
}

}  // namespace
}  // namespace Kiv
