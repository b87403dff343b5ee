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

// Pairs drawn at random, half of them near the wrap point or the half-range distance where
// faults hide, both through the Seqno operand and through the plain word.
template <class Word>
void checkAgainstReference(std::mt19937_64& random) {
  Word const top = Word(Word(~Word(0)) ^ Word(Word(~Word(0)) >> 1));
  Word const edges[] = {0, Word(~Word(0)), Word(top - 1), top};
  std::uniform_int_distribution<U64> any(0, Word(~Word(0)));
  std::uniform_int_distribution<int> near(-3, 3);
  for (int i = 0; i < 20000; ++i) {
    Word const a = i % 3 == 0 ? edges[i / 3 % 4] : Word(any(random));
    Word const b = i % 2 ? Word(any(random)) : Word(a + (i % 4 == 0 ? top : 0) + near(random));
    bool const expected = aheadWithinHalf<Word>(a, b);
    ASSERT_EQ(Seqno<Word>(a) < Seqno<Word>(b), expected) << a << " < " << b;
    ASSERT_EQ(Seqno<Word>(a) < b, expected) << a << " < plain " << b;
  }
}

TEST(Seqno, RandomPairsFollowTheCircularReference) {
  std::mt19937_64 random(4);
  checkAgainstReference<U16>(random);
  checkAgainstReference<U32>(random);
  // The contract's own examples.
  EXPECT_TRUE(Seqno32(0xffffffff) < Seqno32(0));
  EXPECT_TRUE(Seqno32(0) < Seqno32(0x80000000) && Seqno32(0x80000000) < Seqno32(0));
}

}  // namespace
}  // namespace Kiv
