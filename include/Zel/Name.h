// Zel::Name: an interned name, used as a collection key. Names with the same text share one
// entry, so copying and equality are pointer operations; ordering is by text, so ordered
// collections keyed by names list them alphabetically.
#pragma once

#include <Zel/String.h>

#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Zel {

class Name {
public:
  Name() noexcept;  // the empty name
  Name(std::string_view text);
  Name(char const* text) : Name(std::string_view(text)) {}
  Name(std::string const& text) : Name(std::string_view(text)) {}
  Name(String const& text) : Name(text.view()) {}

  std::string const& str() const noexcept { return entry_->text; }
  std::string_view view() const noexcept { return entry_->text; }
  bool empty() const noexcept { return entry_->text.empty(); }
  // Zel::hashText of the name, kept with it.
  U32 hash() const noexcept { return entry_->hash; }

  friend bool operator==(Name const& a, Name const& b) noexcept { return a.entry_ == b.entry_; }
  friend std::strong_ordering operator<=>(Name const& a, Name const& b) noexcept {
    return a.entry_ == b.entry_ ? std::strong_ordering::equal : a.view() <=> b.view();
  }
  friend std::ostream& operator<<(std::ostream& out, Name const& n);

  struct Entry {
    std::string text;
    U32 hash;
  };

private:
  Entry const* entry_;
};

}  // namespace Zel

template <>
struct std::hash<Zel::Name> {
  std::size_t operator()(Zel::Name const& n) const noexcept { return n.hash(); }
};
