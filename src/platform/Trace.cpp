#include <Zel/Trace.h>

#include <charconv>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>

namespace Zel {

namespace {

// The level that KIV_TRACE gives the handle `name`: its own entry, else the "*" entry.
int configuredLevel(std::string_view name) {
  char const* setting = std::getenv("KIV_TRACE");
  if (!setting) return TraceHandle::disabled;
  int forAll = TraceHandle::disabled;
  int forName = TraceHandle::disabled;
  bool named = false;
  std::string_view rest(setting);
  while (!rest.empty()) {
    std::string_view entry = rest.substr(0, rest.find(','));
    rest.remove_prefix(std::min(rest.size(), entry.size() + 1));
    auto equals = entry.find('=');
    if (equals == std::string_view::npos) continue;
    int level = TraceHandle::disabled;
    auto value = entry.substr(equals + 1);
    if (std::from_chars(value.data(), value.data() + value.size(), level).ec != std::errc()) {
      continue;
    }
    level = std::clamp(level, TraceHandle::disabled, TraceHandle::maxLevel);
    auto key = entry.substr(0, equals);
    if (key == "*") {
      forAll = level;
    } else if (key == name) {
      forName = level;
      named = true;
    }
  }
  return named ? forName : forAll;
}

struct Sink {
  std::mutex mutex;
  std::ostream* chosen = nullptr;
  std::unique_ptr<std::ofstream> file;

  std::ostream& stream() {
    if (chosen) return *chosen;
    if (!file) {
      if (char const* path = std::getenv("KIV_TRACE_FILE")) {
        file = std::make_unique<std::ofstream>(path, std::ios::app);
      }
    }
    return file && *file ? static_cast<std::ostream&>(*file) : std::cerr;
  }
};

Sink& sink() {
  static Sink* instance = new Sink;  // usable from destructors at exit
  return *instance;
}

std::string_view baseName(char const* path) {
  std::string_view p(path);
  auto slash = p.rfind('/');
  return slash == std::string_view::npos ? p : p.substr(slash + 1);
}

}  // namespace

int TraceHandle::readLevel() const noexcept {
  int const level = configuredLevel(name_);
  level_.store(level, std::memory_order_relaxed);
  return level;
}

bool TraceHandle::levelRead(int level) const noexcept {
  return level_.load(std::memory_order_relaxed) != unread || level <= readLevel();
}

void TraceHandle::trace(int level, std::string_view text, char const* file, unsigned line,
                        char const* function) const {
  Sink& s = sink();
  std::lock_guard lock(s.mutex);
  std::ostream& out = s.stream();
  out << name_ << '[' << level << "] " << text << " (" << baseName(file) << ':' << line << ' '
      << function << ")\n";
  out.flush();
}

TraceHelper::Line* TraceHelper::start(TraceHandle const& handle, int level, char const* file,
                                      unsigned line, char const* function) {
  return new Line{{}, &handle, level, file, line, function};
}

void TraceHelper::finish() noexcept {
  std::unique_ptr<Line> const done(line_);
  try {
    done->handle->trace(done->level, done->text.view(), done->file, done->line, done->function);
  } catch (...) {
    // A trace line that cannot be written is dropped; tracing never fails the traced code.
  }
}

void traceSinkIs(std::ostream* chosen) {
  Sink& s = sink();
  std::lock_guard lock(s.mutex);
  s.chosen = chosen;
}

}  // namespace Zel
