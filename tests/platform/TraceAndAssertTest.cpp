// Tracing (levels, the exact line, nothing formatted when disabled) and the assertions that guard
// misuse, as death tests.
#include "Model.h"

#include <Zel/Trace.h>

#include <cstdlib>

namespace Kiv::Test {
namespace {

// An operand that counts how often it is formatted.
struct Counted {
  int* formatted;
  friend std::ostream& operator<<(std::ostream& out, Counted c) {
    ++*c.formatted;
    return out << "counted";
  }
};

// An enabled statement writes one exact line and formats each operand once; a disabled one
// writes nothing and, guarded, does not even evaluate its operands; level 9 is the most detail.
// A handle takes its level from the environment when first asked: its own entry wins over "*"
// even when lower, and unreadable entries are skipped; a level set by hand stays.
TEST(Trace, LevelsAndTheExactLine) {
  auto& handle = Zel::traceHandle<"TraceTest">();
  std::ostringstream sink;
  Zel::traceSinkIs(&sink);
  handle.levelIs(3);
  int formatted = 0, evaluated = 0;
  unsigned const line = __LINE__ + 1;
  if (auto t = Zel::TraceHelper(handle, 3)) t << "hello " << 5 << ' ' << Counted{&formatted};
  if (auto t = Zel::TraceHelper(handle, 4)) t << (++evaluated, Counted{&formatted});
  Zel::TraceHelper(handle, 4) << Counted{&formatted};
  handle.levelIs(Zel::TraceHandle::disabled);
  if (auto t = Zel::TraceHelper(handle, 0)) t << "off";
  EXPECT_EQ(sink.str(), "TraceTest[3] hello 5 counted (TraceAndAssertTest.cpp:" +
                            std::to_string(line) + " " + __func__ + ")\n");
  EXPECT_EQ(std::pair(formatted, evaluated), std::pair(1, 0));
  handle.levelIs(Zel::TraceHandle::maxLevel);
  if (auto t = Zel::TraceHelper(handle, 9)) t << "nine";
  EXPECT_NE(sink.str().find("\nTraceTest[9] nine ("), std::string::npos);
  Zel::traceSinkIs(nullptr);

  char const* const old = std::getenv("KIV_TRACE");
  std::optional<std::string> const saved = old ? std::optional<std::string>(old) : std::nullopt;
  Zel::traceHandle<"TraceEnvSet">().levelIs(2);
  setenv("KIV_TRACE", "*=5,TraceEnvNamed=1,junk,TraceEnvHigh=12,TraceEnvBad=x", 1);
  EXPECT_TRUE(Zel::traceHandle<"TraceEnvNamed">().enabled(1));
  EXPECT_FALSE(Zel::traceHandle<"TraceEnvNamed">().enabled(2));
  EXPECT_EQ(Zel::traceHandle<"TraceEnvSet">().level(), 2);
  EXPECT_EQ(Zel::traceHandle<"TraceEnvNamed">().level(), 1);
  EXPECT_EQ(Zel::traceHandle<"TraceEnvOther">().level(), 5);
  EXPECT_EQ(Zel::traceHandle<"TraceEnvHigh">().level(), Zel::TraceHandle::maxLevel);
  EXPECT_EQ(Zel::traceHandle<"TraceEnvBad">().level(), 5);
  saved ? setenv("KIV_TRACE", saved->c_str(), 1) : unsetenv("KIV_TRACE");
}

class Unheld : public Zel::PtrInterface {};

// The assertion texts, the _AS forms' own texts, ZEL_CHECK's detail streamed only on failure, and
// each guarded misuse.
TEST(AssertDeathTest, PrintTheConditionWhereAndDetailThenAbort) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(ZEL_ASSERT(false && "x"),
               "Assertion failed: false && \"x\" \\(.*TraceAndAssertTest\\.cpp:[0-9]+, ");
  EXPECT_DEATH(ZEL_CHECK(1 + 1 == 3, "detail " << 5),
               "Failed\\(1 \\+ 1 == 3\\) detail 5\nAssertion failed: .*1 \\+ 1 == 3");
  EXPECT_DEATH(ZEL_ASSERT_AS(1 > 2, "one( more )"), "Assertion failed: one\\( more \\) \\(");
  EXPECT_DEATH(ZEL_FAIL_AS("unreachable"), "Assertion failed: unreachable \\(");
  EXPECT_DEATH(ZEL_CHECK_AS(1 > 2, "one( more )", "by " << 1),
               "Failed\\(one\\( more \\)\\) by 1\nAssertion failed: !\"one\\( more \\)\"");
  int formatted = 0;
  ZEL_CHECK(1 + 1 == 2, Counted{&formatted});
  EXPECT_EQ(formatted, 0);
  EXPECT_DEATH(Unheld().referencesDec(), "Assertion failed: references\\(\\) != 0");
  EXPECT_DEATH(Zel::DynArray<U32>()[0] = 1, "Assertion failed: index < size\\(\\)");
  EXPECT_DEATH(Zel::LinkQueue<U32>().pop(), "Assertion failed: !empty\\(\\)");
  EXPECT_DEATH(Zel::LinkStack<U32>().head(), "Assertion failed: !empty\\(\\)");
}

}  // namespace
}  // namespace Kiv::Test
