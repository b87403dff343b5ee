// The runtime's assertions: on failure they print the condition and abort. They are active in
// every build type, because they guard misuse, not only development mistakes.
//
// ZEL_ASSERT prints the condition's source text. Where the contract fixes the printed text, the
// _AS forms take it as a literal of its own, so that reformatting or renaming within the condition
// never changes a message:
//
//   ZEL_ASSERT_AS(activePool_->isMember(number), "activePool()->isMember( number )");
#pragma once

#include <sstream>
#include <string>

namespace Zel {

// Writes "Assertion failed: <condition> (<file>:<line>, <function>)" to standard error and aborts.
[[noreturn]] void assertionFailed(char const* condition, char const* file, int line,
                                  char const* function) noexcept;

// Writes "Failed(<condition>) <detail>" to standard error, then fails the assertion
// !"<condition>". Misuse of the allocation structures reports its detail this way.
[[noreturn]] void checkFailed(char const* condition, std::string const& detail, char const* file,
                              int line, char const* function) noexcept;

}  // namespace Zel

#define ZEL_ASSERT(condition) ZEL_ASSERT_AS(condition, #condition)

#define ZEL_ASSERT_AS(condition, text)               \
  (__builtin_expect(static_cast<bool>(condition), 1) \
       ? void(0)                                     \
       : ::Zel::assertionFailed(text, __FILE__, __LINE__, __func__))

// An assertion that fails wherever it is reached, printing `text`: for a base version whose very
// call is the failure. It does not return.
#define ZEL_FAIL_AS(text) ::Zel::assertionFailed(text, __FILE__, __LINE__, __func__)

// Like ZEL_ASSERT, but first prints the Failed line; `detail` is streamed only on failure.
#define ZEL_CHECK(condition, detail) ZEL_CHECK_AS(condition, #condition, detail)

#define ZEL_CHECK_AS(condition, text, detail)                                                 \
  (__builtin_expect(static_cast<bool>(condition), 1)                                          \
       ? void(0)                                                                              \
       : ::Zel::checkFailed(text, (std::ostringstream() << detail).str(), __FILE__, __LINE__, \
                            __func__))
