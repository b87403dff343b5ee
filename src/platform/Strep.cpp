#include <Zel/Strep.h>

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstring>

namespace Zel {

void throwDeserializing(std::string const& typeName) {
  throw RangeException("Error deserializing " + typeName);
}

void printStrep(std::string& out, bool value) { out += value ? "True" : "False"; }

namespace {

template <class F>
void printFloat(std::string& out, F value) {
  char buffer[64];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, result.ptr);
}

template <class T>
char const* parseNumber(char const* begin, char const* end, T* out) {
  if (begin >= end) throwDeserializing(scalarTypeName<T>());
  T value{};
  char const* first = begin;
  // from_chars takes no leading plus; accept it for floating point to read C-style forms.
  if constexpr (std::is_floating_point_v<T>) {
    if (*first == '+') ++first;
  }
  auto [ptr, ec] = std::from_chars(first, end, value);
  if (ec != std::errc()) throwDeserializing(scalarTypeName<T>());
  *out = value;
  return ptr;
}

char const* const hexDigits = "0123456789abcdef";

}  // namespace

void printStrep(std::string& out, double value) { printFloat(out, value); }
void printStrep(std::string& out, float value) { printFloat(out, value); }

void printStrep(std::string& out, std::string_view value) {
  out += '\'';
  for (unsigned char c : value) {
    switch (c) {
      case '\'': out += "\\'"; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      default:
        if (std::isprint(c)) {
          out += char(c);
        } else {
          out += "\\x";
          out += hexDigits[c >> 4];
          out += hexDigits[c & 15];
        }
    }
  }
  out += '\'';
}

char const* sequenceToValue(char const* begin, char const* end, bool* out) {
  for (auto [text, value] : {std::pair{std::string_view("True"), true}, {"False", false}}) {
    if (std::size_t(end - begin) >= text.size() &&
        std::memcmp(begin, text.data(), text.size()) == 0) {
      *out = value;
      return begin + text.size();
    }
  }
  throwDeserializing("bool");
}

char const* sequenceToValue(char const* b, char const* e, U8* out) {
  return parseNumber(b, e, out);
}
char const* sequenceToValue(char const* b, char const* e, U16* out) {
  return parseNumber(b, e, out);
}
char const* sequenceToValue(char const* b, char const* e, U32* out) {
  return parseNumber(b, e, out);
}
char const* sequenceToValue(char const* b, char const* e, U64* out) {
  return parseNumber(b, e, out);
}
char const* sequenceToValue(char const* b, char const* e, S8* out) {
  return parseNumber(b, e, out);
}
char const* sequenceToValue(char const* b, char const* e, S16* out) {
  return parseNumber(b, e, out);
}
char const* sequenceToValue(char const* b, char const* e, S32* out) {
  return parseNumber(b, e, out);
}
char const* sequenceToValue(char const* b, char const* e, S64* out) {
  return parseNumber(b, e, out);
}
char const* sequenceToValue(char const* b, char const* e, float* out) {
  return parseNumber(b, e, out);
}
char const* sequenceToValue(char const* b, char const* e, double* out) {
  return parseNumber(b, e, out);
}

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

char const* parseQuoted(char const* at, char const* end, std::string* out, char const* typeName) {
  if (at >= end || *at != '\'') throwDeserializing(typeName);
  std::string text;
  for (++at; at < end; ++at) {
    char c = *at;
    if (c == '\'') {
      *out = std::move(text);
      return at + 1;
    }
    if (c != '\\') {
      text += c;
      continue;
    }
    if (++at >= end) break;
    switch (*at) {
      case 'n': text += '\n'; break;
      case 't': text += '\t'; break;
      case 'r': text += '\r'; break;
      case '\'':
      case '\\': text += *at; break;
      case 'x': {
        int high = at + 1 < end ? hexValue(at[1]) : -1;
        int low = at + 2 < end ? hexValue(at[2]) : -1;
        if (high < 0 || low < 0) throwDeserializing(typeName);
        text += char(high * 16 + low);
        at += 2;
        break;
      }
      default: throwDeserializing(typeName);
    }
  }
  throwDeserializing(typeName);  // no closing quote
}

}  // namespace

char const* sequenceToValue(char const* begin, char const* end, String* out) {
  std::string text;
  char const* after = parseQuoted(begin, end, &text, "String");
  *out = String(std::move(text));
  return after;
}

char const* sequenceToValue(char const* begin, char const* end, Name* out) {
  std::string text;
  char const* after = parseQuoted(begin, end, &text, "Name");
  *out = Name(text);
  return after;
}

void StrepReader::skipSpace() noexcept {
  while (at_ < end_ && *at_ == ' ') ++at_;
}

bool StrepReader::accept(std::string_view literal) noexcept {
  char const* start = at_;
  skipSpace();
  if (std::size_t(end_ - at_) >= literal.size() &&
      std::memcmp(at_, literal.data(), literal.size()) == 0) {
    at_ += literal.size();
    return true;
  }
  at_ = start;
  return false;
}

void StrepReader::expect(std::string_view literal) {
  if (!accept(literal)) fail();
}

}  // namespace Zel
