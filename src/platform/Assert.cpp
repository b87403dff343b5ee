#include <Zel/Assert.h>

#include <cstdio>
#include <cstdlib>

namespace Zel {

void assertionFailed(char const* condition, char const* file, int line,
                     char const* function) noexcept {
  std::fprintf(stderr, "Assertion failed: %s (%s:%d, %s)\n", condition, file, line, function);
  std::fflush(stderr);
  std::abort();
}

void checkFailed(char const* condition, std::string const& detail, char const* file, int line,
                 char const* function) noexcept {
  std::fprintf(stderr, "Failed(%s) %s\n", condition, detail.c_str());
  std::string const negated = std::string("!\"") + condition + '"';
  assertionFailed(negated.c_str(), file, line, function);
}

}  // namespace Zel
