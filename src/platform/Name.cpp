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
    auto [it, inserted] = entries_.insert(Name::Entry{std::string(text), 0});
    if (inserted) const_cast<Name::Entry&>(*it).hash = std::hash<std::string_view>()(text);
    return &*it;
  }

private:
  struct ByText {
    using is_transparent = void;
    std::size_t operator()(Name::Entry const& e) const noexcept {
      return std::hash<std::string_view>()(e.text);
    }
    bool operator()(Name::Entry const& a, Name::Entry const& b) const noexcept {
      return a.text == b.text;
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
