#include <Zel/String.h>

#include <ostream>

namespace Zel {

String::String(std::string_view text)
    : text_(text.empty() ? nullptr : std::make_shared<std::string const>(text)) {}

String::String(std::string text)
    : text_(text.empty() ? nullptr : std::make_shared<std::string const>(std::move(text))) {}

String operator+(String const& a, std::string_view b) {
  std::string joined;
  joined.reserve(a.size() + b.size());
  joined.append(a.view()).append(b);
  return String(std::move(joined));
}

std::ostream& operator<<(std::ostream& out, String const& s) { return out << s.view(); }

}  // namespace Zel
