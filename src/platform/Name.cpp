#include <Zel/Name.h>

#include <mutex>
#include <ostream>
#include <unordered_set>

namespace Zel {

namespace {

// Entries are never freed: a name handed out stays valid for the life of the process.
class InternTable {
public:
  Name::Entry const* intern(std::string_view text) {
    std::lock_guard lock(mutex_);
    // Looked up by view first, so naming an existing entry copies no text.
    if (auto it = entries_.find(text); it != entries_.end()) return &*it;
    return &*entries_.insert(Name::Entry{std::string(text), hashText(text)}).first;
  }

private:
  struct ByText {
    using is_transparent = void;
    std::size_t operator()(Name::Entry const& e) const noexcept { return e.hash; }
    std::size_t operator()(std::string_view text) const noexcept { return hashText(text); }
    static std::string_view text(Name::Entry const& e) noexcept { return e.text; }
    static std::string_view text(std::string_view t) noexcept { return t; }
    template <class A, class B>
    bool operator()(A const& a, B const& b) const noexcept {
      return text(a) == text(b);
    }
  };

  std::mutex mutex_;
  std::unordered_set<Name::Entry, ByText, ByText> entries_;
};

InternTable& table() {
  static InternTable* instance = new InternTable;
  return *instance;
}

}  // namespace

Name::Name() noexcept : entry_(table().intern("")) {}

Name::Name(std::string_view text) : entry_(table().intern(text)) {}

std::ostream& operator<<(std::ostream& out, Name const& n) { return out << n.view(); }

}  // namespace Zel
