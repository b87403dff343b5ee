// Zel::String: an immutable string whose copies share one buffer.
#pragma once

#include <Zel/Hash.h>

#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

namespace Zel {

class String {
public:
  using const_iterator = char const*;
  static constexpr std::size_t npos = std::string::npos;

  String() noexcept = default;
  String(char const* text) : String(std::string_view(text)) {}
  String(std::string_view text);
  String(std::string text);
  String(char const* begin, char const* end) : String(std::string_view(begin, end - begin)) {}

  char const* begin() const noexcept { return view().data(); }
  char const* end() const noexcept { return begin() + size(); }
  std::size_t size() const noexcept { return text_ ? text_->size() : 0; }
  bool empty() const noexcept { return size() == 0; }
  char operator[](std::size_t index) const noexcept { return view()[index]; }
  char const* c_str() const noexcept { return text_ ? text_->c_str() : ""; }

  std::string_view view() const noexcept { return text_ ? std::string_view(*text_) : ""; }
  operator std::string_view() const noexcept { return view(); }
  std::string str() const { return std::string(view()); }

  std::size_t find(std::string_view what, std::size_t from = 0) const noexcept {
    return view().find(what, from);
  }
  String substr(std::size_t from, std::size_t count = npos) const {
    return String(view().substr(from, count));
  }

  friend String operator+(String const& a, std::string_view b);
  friend bool operator==(String const& a, String const& b) noexcept { return a.view() == b.view(); }
  friend bool operator==(String const& a, char const* b) noexcept { return a.view() == b; }
  friend std::strong_ordering operator<=>(String const& a, String const& b) noexcept {
    return a.view() <=> b.view();
  }
  friend std::ostream& operator<<(std::ostream& out, String const& s);

private:
  std::shared_ptr<std::string const> text_;  // null for the empty string
};

}  // namespace Zel

template <>
struct std::hash<Zel::String> {
  std::size_t operator()(Zel::String const& s) const noexcept { return Zel::hashText(s.view()); }
};
