#include <Kiv/Seqno.h>

#include <gtest/gtest.h>

#include <random>

namespace Kiv {
namespace {

// Reference order: a is before b when b lies 1 to half the range ahead of a, going forward
// around the circle of 2^bits numbers. The half-range pair is thus before each other.
template <class Word>
bool aheadWithinHalf(U64 a, U64 b) {
  constexpr U64 range = U64(1) << (8 * sizeof(Word));
  U64 const forward = (b + range - a) % range;
  return forward != 0 && forward <= range / 2;
}

template <class Word>
void expectOrder(Word a, Word b, bool aBeforeB, bool bBeforeA) {
  Seqno<Word> const sa(a), sb(b);
  EXPECT_EQ(sa < sb, aBeforeB) << a << " < " << b;
  EXPECT_EQ(sb < sa, bBeforeA) << b << " < " << a;
  EXPECT_EQ(sa < b, aBeforeB) << a << " < plain " << b;
  EXPECT_EQ(sb < a, bBeforeA) << b << " < plain " << a;
}

TEST(Seqno, OrderWrapsAroundAtBothWidths) {
  expectOrder<U32>(5, 6, true, false);
  expectOrder<U32>(0xffffffff, 0, true, false);
  expectOrder<U32>(0x7fffffff, 0xfffffffe, true, false);
  expectOrder<U32>(0, 0x80000000, true, true);
  expectOrder<U32>(0x12345678, 0x92345678, true, true);
  expectOrder<U32>(7, 7, false, false);
  expectOrder<U16>(5, 6, true, false);
  expectOrder<U16>(0xffff, 0, true, false);
  expectOrder<U16>(0x7fff, 0xfffe, true, false);
  expectOrder<U16>(0, 0x8000, true, true);
  expectOrder<U16>(0x1234, 0x9234, true, true);
  expectOrder<U16>(7, 7, false, false);
}

template <class Word>
void checkAgainstReference(std::mt19937_64& random) {
  Word const top = Word(Word(~Word(0)) ^ Word(Word(~Word(0)) >> 1));
  std::uniform_int_distribution<U64> any(0, Word(~Word(0)));
  // Half the draws land near the wrap point or the half-range distance, where faults hide.
  std::uniform_int_distribution<int> near(-3, 3);
  for (int i = 0; i < 20000; ++i) {
    Word const a = Word(any(random));
    Word const b = i % 2 ? Word(any(random)) : Word(a + (i % 4 == 0 ? top : 0) + near(random));
    ASSERT_EQ(Seqno<Word>(a) < Seqno<Word>(b), aheadWithinHalf<Word>(a, b)) << a << " < " << b;
  }
}

TEST(Seqno, RandomPairsFollowTheCircularReference) {
  std::mt19937_64 random(4);
  checkAgainstReference<U16>(random);
  checkAgainstReference<U32>(random);
}

}  // namespace
}  // namespace Kiv
