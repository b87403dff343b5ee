// Kiv::IdSet against std::bitset: randomized algebra, ranges and complements with an invariant
// checker after every step, the contract's examples, the forms, and the misuse that aborts.
#include <Kiv/IdSet.h>

#include <Zel/GenericIf.h>
#include <Zel/NboAttrLog.h>

#include <gtest/gtest.h>

#include <bitset>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace Kiv {
namespace {

// Wide enough for every bucket word a set of the largest supported size stores (255 x 64 bits),
// the complement's bits beyond the size included.
using Bits = std::bitset<16384>;
constexpr U64 kAllOnes = ~U64{0};

U64 wordOf(Bits const& bits, U32 k) {
  U64 word = 0;
  for (U32 b = 0; b < 64; ++b) word |= U64{bits[k * 64 + b]} << b;
  return word;
}

std::vector<U16> membersOf(IdSet const& set) {
  std::vector<U16> ids;
  for (Id id : set) ids.push_back(id.value());
  return ids;
}

// The representation and every view of it against the reference: no zero bucket and none at or
// beyond maxBuckets, each word equal to the reference's, equality and hash against a set rebuilt
// from the reference, membership below size, iteration, and the text form parsed back.
testing::AssertionResult matches(IdSet const& set, Bits const& ref) {
  IdSet rebuilt(set.size());
  for (U32 k = 0; k < set.maxBuckets(); ++k) {
    if (set.bucket(U8(k)) != wordOf(ref, k)) return testing::AssertionFailure() << "bucket " << k;
    rebuilt.bucketIs(U8(k), wordOf(ref, k));
  }
  for (auto const& [k, word] : set.bucketIteratorConst()) {
    if (word == 0 || k >= set.maxBuckets()) {
      return testing::AssertionFailure() << "stored bucket " << int(k);
    }
  }
  if (!(set == rebuilt) || set.hash() != rebuilt.hash()) {
    return testing::AssertionFailure() << "equality or hash";
  }
  std::vector<U16> expected;
  for (U32 i = 0; i < set.size(); ++i) {
    if (set.id(U16(i)) != ref[i]) return testing::AssertionFailure() << "membership of " << i;
    if (ref[i]) expected.push_back(U16(i));
  }
  if (membersOf(set) != expected) return testing::AssertionFailure() << "iteration";
  if (set.firstId() != (expected.empty() ? Id::null() : Id(expected.front()))) {
    return testing::AssertionFailure() << "firstId";
  }
  std::string const text = set.stringValue().str();
  IdSet parsed(set.size());
  char const* const end = text.data() + text.size();
  if (sequenceToValue(text.data(), end, &parsed) != end || membersOf(parsed) != expected) {
    return testing::AssertionFailure() << "text form " << text;
  }
  return testing::AssertionSuccess();
}

// Each binary operator in place, in its copying form (through the scripting names, which call
// the copying operators), and on the reference.
struct Algebra {
  IdSet& (IdSet::*inPlace)(IdSet const&);
  IdSet (IdSet::*copying)(IdSet const&) const;
  Bits (*model)(Bits const&, Bits const&);
};
Algebra const kAlgebra[] = {
    {&IdSet::operator|=, &IdSet::union_py, [](Bits const& a, Bits const& b) { return a | b; }},
    {&IdSet::operator&=, &IdSet::intersection_py,
     [](Bits const& a, Bits const& b) { return a & b; }},
    {&IdSet::operator-=, &IdSet::difference_py,
     [](Bits const& a, Bits const& b) { return a & ~b; }},
    {&IdSet::operator^=, &IdSet::symDifference_py,
     [](Bits const& a, Bits const& b) { return a ^ b; }},
};

class IdSetRandomRun : public testing::TestWithParam<U16> {};

TEST_P(IdSetRandomRun, MatchesBitsetReference) {
  U16 const size = GetParam();
  std::mt19937 rng(size);
  auto below = [&](U32 n) { return U32(std::uniform_int_distribution<U32>(0, n - 1)(rng)); };
  IdSet set(size);
  Bits ref;
  Bits const inSize = ~Bits() >> (ref.size() - size);
  Bits const inBuckets = ~Bits() >> (ref.size() - 64 * set.maxBuckets());
  // A random operand: a sparse or a dense scatter of ids, sometimes complemented.
  auto operand = [&](Bits& bits) {
    IdSet other(size);
    U32 const count = below(2) ? below(8) : below(size) + 1;
    for (U32 i = 0; i < count; ++i) {
      U16 const id = U16(below(size));
      other.idIs(id, true);
      bits.set(id);
    }
    if (below(4) == 0) {
      other = ~other;
      bits = ~bits & inBuckets;
    }
    return other;
  };
  int const steps = size > 4096 ? 40 : 200;  // the checker costs a lookup per id
  for (int step = 0; step < steps; ++step) {
    Bits bits;
    U32 const op = below(6);
    switch (op) {
      case 0: {
        U16 const id = U16(below(size));
        bool const member = below(3) != 0;
        set.idIs(id, member);
        ref[id] = member;
        break;
      }
      case 1: {
        U16 const begin = U16(below(size));
        U16 const end = U16(begin + 1 + below(size - begin));
        set.idSetRange(begin, end);
        for (U32 i = begin; i < end; ++i) ref.set(i);
        break;
      }
      case 2: {
        Algebra const& algebra = kAlgebra[below(4)];
        IdSet const other = operand(bits);
        if (below(2)) {
          (set.*algebra.inPlace)(other);
        } else {
          set = (set.*algebra.copying)(other);
        }
        ref = algebra.model(ref, bits);
        break;
      }
      case 3:
        set = ~set;
        ref = ~ref & inBuckets;
        break;
      case 4:
        set.idSetAll();  // the last bucket is written whole: the complement's extra bits go
        ref = inSize;
        break;
      default: {
        U8 const k = U8(below(set.maxBuckets()));
        set.bucketDel(k);
        for (U32 b = 0; b < 64; ++b) ref.reset(k * 64 + b);
      }
    }
    ASSERT_TRUE(matches(set, ref)) << "step " << step << " op " << op;
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, IdSetRandomRun, testing::Values(1, 63, 64, 70, 128, 1000, 16320));

// The forms: the run text (parsed into a prototype, in any order), the complement's whole buckets,
// the attribute log byte for byte and through a short read, and the hand-written reflection record.
TEST(IdSet, FormsAndReflection) {
  EXPECT_EQ(IdSet(100, Id::null()).stringValue(), "()");
  IdSet set(100, 5);
  for (U16 id : {1, 2, 3, 7, 9, 10}) set.idIs(id, true);
  EXPECT_EQ(Zel::valueToStrep(set), "(1-3,5,7,9-10)");
  std::string const text = "(3,50-52,0)";
  char const* const end = text.data() + text.size();
  EXPECT_EQ(sequenceToValue(text.data(), end, &set), end);
  EXPECT_EQ(set.stringValue(), "(0-3,5,7,9-10,50-52)");
  IdSet const complement = ~IdSet(70);
  EXPECT_EQ(complement.bucket(1), kAllOnes);
  EXPECT_EQ(complement.stringValue(), "(0-69)");
  EXPECT_TRUE(!IdSet(0, Id::null()));

  Zel::NboAttrLog::Out out;
  out << IdSet(100, 70);
  EXPECT_EQ(out.bytes(), (std::vector<U8>{0, 100, 0, 70, 1, 0, 0, 0, 0, 0, 0, 0, 0x40, 0}));
  IdSet written(1000, 700);
  written.idDel(700);  // the reader keeps initialId without making it a member again
  written.idSetRange(64, 300);
  Zel::NboAttrLog::Out log;
  log << written;
  Zel::NboAttrLog::In in(log.bytes());
  IdSet read;
  in >> read;
  EXPECT_TRUE(read.size() == 1000 && read.initialId() == Id(700) && read == written);
  Zel::NboAttrLog::In shortLog(std::span(log.bytes()).first(log.bytes().size() - 1));
  EXPECT_THROW(shortLog >> read, Zel::RangeException);
  EXPECT_EQ(read, written);

  Zel::GenericIf const* type = Zel::GenericIf::type("Kiv::IdSet");
  ASSERT_NE(type, nullptr);
  EXPECT_EQ(type->attribute("maxBuckets").kind, Zel::AttributeKind::computed);
  EXPECT_EQ(type->attribute("bucket").entries(&written).back(),
            (std::pair<Zel::String, Zel::String>("4", "17592186044415")));  // ids 256 .. 299
  EXPECT_EQ(type->valueStrep("(9,1-2,3)"), "(1-3,9)");
  EXPECT_THROW(type->valueStrep("(1)x"), Zel::RangeException);
  EXPECT_EQ(Zel::GenericIf::type("Kiv::Id")->valueStrep("42"), "42");
}

TEST(IdSetDeathTest, MisuseAborts) {
  IdSet set(100, 5);
  EXPECT_DEATH(set.id(100), R"re(Failed\(bitPos.value\(\) < size\(\)\) id 100 exceeds limit of 100
Assertion failed: !"bitPos.value\(\) < size\(\)" \()re");
  EXPECT_DEATH(set.idIs(100, true), R"re(Failed\(bitPos.value\(\) < size\(\)\) id 100 exceeds)re");
  EXPECT_DEATH(set.idSetRange(10, 10),
               R"re(Failed\(begin.value\(\) < end.value\(\)\) range should be of at least)re");
  EXPECT_DEATH(set.idSetRange(0, 101),
               R"re(Failed\(end.value\(\) <= size\(\)\) end can't be greater than bitmap limit)re");
  EXPECT_DEATH(set.nextId(100),
               R"re(Failed\(bitPos.value\(\) < size\(\) \|\| bitPos.value\(\) == Id::null\(\)\) )re"
               R"re(current bit can't be greater than bitmap limit)re");
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
  EXPECT_DEATH(parse("3)"), R"re(Assertion failed: \*p == '\(' && strepEnd != end)re");
  EXPECT_DEATH(parse("(3"), R"re(Assertion failed: \*p == '\(' && strepEnd != end)re");
  EXPECT_DEATH(parse("(3-3)"), R"re(Failed\(start < stop\) Invalid range)re");
  EXPECT_DEATH(parse("(1-2-3)"), R"re(Assertion failed: range.size\(\) == 2)re");
  EXPECT_DEATH(parse("(1,,2)"), R"re(Failed\(isIdText\(text\)\) '' is not an identifier)re");
  EXPECT_DEATH(parse("(65535)"), R"re('65535' is not an identifier)re");
  EXPECT_DEATH(parse("(100)"), R"re(id 100 exceeds limit of 100)re");
}

}  // namespace
}  // namespace Kiv
