// Tracing (levels, the exact line, nothing formatted when disabled) and the assertions that guard
// misuse, as death tests.
#include "Model.h"

#include <Zel/Trace.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>

namespace Kiv::Test {
namespace {

// Sends trace lines to a string for one scope.
class CapturedTrace {
public:
  CapturedTrace() { Zel::traceSinkIs(&out_); }
  ~CapturedTrace() { Zel::traceSinkIs(nullptr); }
  CapturedTrace(CapturedTrace const&) = delete;
  CapturedTrace& operator=(CapturedTrace const&) = delete;
  std::string text() const { return out_.str(); }

private:
  std::ostringstream out_;
};

// An operand that counts how often it is formatted.
struct Counted {
  int* formatted;
};
std::ostream& operator<<(std::ostream& out, Counted const& c) {
  ++*c.formatted;
  return out << "counted";
}

TEST(Trace, EnabledStatementWritesExactlyOneLine) {
  auto& handle = Zel::traceHandle<"TraceTest">();
  handle.levelIs(3);
  CapturedTrace sink;
  int formatted = 0;
  unsigned const line = __LINE__ + 1;
  if (auto t = Zel::TraceHelper(handle, 3)) t << "hello " << 5 << ' ' << Counted{&formatted};
  EXPECT_EQ(sink.text(), "TraceTest[3] hello 5 counted (TraceAndAssertTest.cpp:" +
                             std::to_string(line) + " " + __func__ + ")\n");
  EXPECT_EQ(formatted, 1);
}

TEST(Trace, LevelsAboveTheHandlesAreOffAndFormatNothing) {
  auto& handle = Zel::traceHandle<"TraceTest">();
  handle.levelIs(2);
  CapturedTrace sink;
  int formatted = 0;
  int evaluated = 0;
  auto operand = [&] {
    ++evaluated;
    return Counted{&formatted};
  };
  if (auto t = Zel::TraceHelper(handle, 3)) t << operand();
  EXPECT_EQ(evaluated, 0);
  // Even unguarded, a disabled statement streams nothing into its text.
  Zel::TraceHelper(handle, 3) << Counted{&formatted};
  EXPECT_EQ(formatted, 0);
  EXPECT_EQ(sink.text(), "");

  if (auto t = Zel::TraceHelper(handle, 0)) t << "zero";
  handle.levelIs(Zel::TraceHandle::disabled);
  if (auto t = Zel::TraceHelper(handle, 0)) t << "off";
  handle.levelIs(Zel::TraceHandle::maxLevel);
  if (auto t = Zel::TraceHelper(handle, 9)) t << "nine";
  std::string const text = sink.text();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;
  EXPECT_EQ(text.rfind("TraceTest[0] zero (", 0), 0u) << text;
  EXPECT_NE(text.find("\nTraceTest[9] nine ("), std::string::npos) << text;
}

TEST(Trace, HandlesTakeTheirLevelFromTheEnvironmentWhenMade) {
  char const* const old = std::getenv("KIV_TRACE");
  std::optional<std::string> const saved = old ? std::optional<std::string>(old) : std::nullopt;
  // A handle's own entry wins over "*" even when it is lower; unreadable entries are skipped.
  setenv("KIV_TRACE", "*=5,TraceEnvNamed=1,junk,TraceEnvHigh=12,TraceEnvBad=x", 1);
  EXPECT_EQ(Zel::traceHandle<"TraceEnvNamed">().level(), 1);
  EXPECT_EQ(Zel::traceHandle<"TraceEnvOther">().level(), 5);
  EXPECT_EQ(Zel::traceHandle<"TraceEnvHigh">().level(), Zel::TraceHandle::maxLevel);
  EXPECT_EQ(Zel::traceHandle<"TraceEnvBad">().level(), 5);
  saved ? setenv("KIV_TRACE", saved->c_str(), 1) : unsetenv("KIV_TRACE");
}

class Unheld : public Zel::PtrInterface {};

class Assertions : public testing::Test {
protected:
  Assertions() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(Assertions, AssertPrintsTheConditionAndWhere) {
  EXPECT_DEATH(ZEL_ASSERT(false && "x"),
               "Assertion failed: false && \"x\" \\(.*TraceAndAssertTest\\.cpp:[0-9]+, ");
}

TEST_F(Assertions, CheckPrintsTheDetailFirstAndStreamsItOnlyOnFailure) {
  EXPECT_DEATH(ZEL_CHECK(1 + 1 == 3, "detail " << 5),
               "Failed\\(1 \\+ 1 == 3\\) detail 5\nAssertion failed: .*1 \\+ 1 == 3");
  int formatted = 0;
  ZEL_CHECK(1 + 1 == 2, Counted{&formatted});
  EXPECT_EQ(formatted, 0);
}

TEST_F(Assertions, MisuseOfReferencesAndCollectionsAborts) {
  EXPECT_DEATH(
      {
        Unheld unheld;
        unheld.referencesDec();
      },
      "Assertion failed: references\\(\\) != 0");
  EXPECT_DEATH(
      {
        Zel::DynArray<U32> array;
        array.push(1);
        array[1] = 2;
      },
      "Assertion failed: index < size\\(\\)");
  EXPECT_DEATH(Zel::LinkQueue<U32>().pop(), "Assertion failed: !empty\\(\\)");
  EXPECT_DEATH(Zel::LinkStack<U32>().head(), "Assertion failed: !empty\\(\\)");
}

}  // namespace
}  // namespace Kiv::Test
