// The runtime's assertion: on failure it prints the condition's source text and aborts. It is
// active in every build type, because it guards misuse, not only development mistakes.
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

#define ZEL_ASSERT(condition)                                                                   \
  (__builtin_expect(static_cast<bool>(condition), 1)                                            \
       ? void(0)                                                                                \
       : ::Zel::assertionFailed(#condition, __FILE__, __LINE__, __func__))

// Like ZEL_ASSERT, but first prints the Failed line; `detail` is streamed only on failure.
#define ZEL_CHECK(condition, detail)                                                            \
  (__builtin_expect(static_cast<bool>(condition), 1)                                            \
       ? void(0)                                                                                \
       : ::Zel::checkFailed(#condition, (std::ostringstream() << detail).str(), __FILE__,      \
                            __LINE__, __func__))
