// Tracing. Each source file owns one trace handle named after the file, and names its levels
// when it uses more than one; every statement has the same form:
//
//   namespace {
//   constexpr auto trace = Zel::traceHandle<"ReviewTimer">;
//   constexpr int traceSchedule = 7;  // each review scheduled
//   }
//   ...
//   if (auto t = Zel::TraceHelper(trace(), traceSchedule)) t << "scheduling at " << now;
//
// A statement whose level is disabled costs a load and a branch: the handle is a constant-
// initialized static, so finding it costs nothing, and nothing is formatted or allocated.
// Levels run from 0 (most important) to 9 (most detail); a handle at level L writes statements
// of level L and below.
//
// Levels come from the environment variable KIV_TRACE, read by a handle when it is first asked
// for its level: a comma-separated list of name=level entries, where the name is a handle name or
// "*" for every handle (KIV_TRACE="*=1,ReviewTimer=9"). Lines go to standard error, or to the
// file named by KIV_TRACE_FILE. Each line reads "<handle>[<level>] <text> (<file>:<line>
// <function>)".
#pragma once

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstddef>
#include <iosfwd>
#include <sstream>
#include <string>
#include <string_view>

namespace Zel {

class TraceHandle {
public:
  static constexpr int disabled = -1;
  static constexpr int maxLevel = 9;

  // `name` must outlive the handle (a literal or a template parameter object).
  constexpr explicit TraceHandle(char const* name) noexcept : name_(name) {}
  TraceHandle(TraceHandle const&) = delete;
  TraceHandle& operator=(TraceHandle const&) = delete;

  std::string_view name() const noexcept { return name_; }
  int level() const noexcept {
    int const level = level_.load(std::memory_order_relaxed);
    return level != unread ? level : readLevel();
  }
  void levelIs(int level) noexcept { level_.store(level, std::memory_order_relaxed); }
  // The level not yet read is above every statement's, so the first test goes on to read it.
  // Inline, the test is one load and one compare; only a statement that passes it calls out.
  [[gnu::always_inline]] bool enabled(int level) const noexcept {
    return level <= level_.load(std::memory_order_relaxed) && levelRead(level);
  }

  // Writes one finished trace line.
  void trace(int level, std::string_view text, char const* file, unsigned line,
             char const* function) const;

private:
  static constexpr int unread = INT_MAX;

  // Takes the level KIV_TRACE gives this handle and returns it.
  int readLevel() const noexcept;
  // Whether `level` passes once the handle's level has been read.
  bool levelRead(int level) const noexcept;

  char const* name_;
  mutable std::atomic<int> level_{unread};
};

// Where trace lines go; null restores the default (KIV_TRACE_FILE or standard error).
void traceSinkIs(std::ostream* sink);

// A handle name as a template argument, so each name gets one lazily created handle.
template <std::size_t N>
struct TraceName {
  constexpr TraceName(char const (&text)[N]) { std::copy_n(text, N, chars); }
  char chars[N];
};

template <TraceName name>
TraceHandle& traceHandle() {
  static constinit TraceHandle handle(name.chars);
  return handle;
}

// One trace statement: true when its level is enabled; text streamed into it is written as one
// line when it goes out of scope.
class TraceHelper {
public:
  // The defaults capture the statement's own file, line and function. A disabled statement keeps
  // nothing but a null pointer, so it costs the level test alone: forced inline, since a function
  // with many statements would otherwise call out for each test.
  [[gnu::always_inline]] TraceHelper(TraceHandle const& handle, int level,
                                     char const* file = __builtin_FILE(),
                                     unsigned line = __builtin_LINE(),
                                     char const* function = __builtin_FUNCTION())
      : line_(handle.enabled(level) ? start(handle, level, file, line, function) : nullptr) {}
  TraceHelper(TraceHelper const&) = delete;
  TraceHelper& operator=(TraceHelper const&) = delete;
  ~TraceHelper() {
    if (line_) [[unlikely]]
      finish();
  }

  explicit operator bool() const noexcept { return line_ != nullptr; }

  template <class T>
  TraceHelper& operator<<(T const& value) {
    if (line_) line_->text << value;
    return *this;
  }

private:
  // The line being written, with where it comes from.
  struct Line {
    std::ostringstream text;
    TraceHandle const* handle;
    int level;
    char const* file;
    unsigned line;
    char const* function;
  };

  // Out of line, so that the disabled path inlines to the level test alone (the null line is
  // stored after the test, so the compiler sees it through to the statement's end); finish()
  // writes the line and frees it.
  static Line* start(TraceHandle const& handle, int level, char const* file, unsigned line,
                     char const* function);
  void finish() noexcept;

  Line* line_;
};

}  // namespace Zel
