#include <Kiv/FormatHelper.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <iomanip>
#include <sstream>

namespace Kiv {
namespace {

constexpr std::array<char const*, 5> siPrefixes{"", "k", "M", "G", "T"};

constexpr unsigned bytesPerLine = 16;
constexpr unsigned bytesPerHalfLine = 8;

// "0x" and the address zero-filled to eight hexadecimal digits (more when the address needs
// them). The stream's flags and fill are restored afterwards.
void displayPointer(std::ostream& out, void const* pointer) {
  std::ios_base::fmtflags const flags = out.flags();
  char const fill = out.fill('0');
  out << "0x" << std::hex << std::noshowbase << std::setw(8)
      << reinterpret_cast<std::uintptr_t>(pointer);
  out.flags(flags);
  out.fill(fill);
}

// " |", the bytes as text with every non-printable byte as a blank, "|" and a newline.
void displayPrintable(std::ostream& out, unsigned char const* bytes, unsigned count) {
  out << " |";
  for (unsigned i = 0; i < count; ++i) out << (std::isprint(bytes[i]) ? char(bytes[i]) : ' ');
  out << "|\n";
}

void displayByte(std::ostream& out, unsigned char byte) {
  static constexpr char digits[] = "0123456789abcdef";
  out << ' ' << digits[byte >> 4] << digits[byte & 15];
}

}  // namespace

void formatValueSi(std::ostream& out, double value, char const* unit) {
  std::size_t index = 0;
  double scaled = value;
  while (scaled >= 1000 && index < siPrefixes.size() - 1) {
    scaled /= 1000;
    ++index;
  }
  if (scaled >= 0 && scaled < 1000) {
    out.precision(4);
    out << scaled << ' ' << siPrefixes[index];
  } else {
    out << value << ' ';
  }
  if (unit) {
    out << unit;
  } else {
    out.setstate(std::ios_base::badbit);
  }
}

std::string formatTimeInterval(long seconds) {
  bool const negative = seconds < 0;
  // Negating in unsigned arithmetic keeps LONG_MIN defined.
  unsigned long const magnitude =
      negative ? 0ul - static_cast<unsigned long>(seconds) : static_cast<unsigned long>(seconds);
  char const* const sign = negative ? "-" : "";
  unsigned long const days = magnitude / 86400;
  int const hours = int(magnitude / 3600 % 24);
  int const minutes = int(magnitude / 60 % 60);
  int const secs = int(magnitude % 60);
  // The text is cut to what a 20-character buffer holds; only spans of some 10^14 days reach
  // that. It is formatted whole first, so the cut is explicit rather than snprintf's.
  constexpr std::size_t cut = 19;
  char text[48];
  int const length =
      days != 0 ? std::snprintf(text, sizeof text, "%s%lud%02dh", sign, days, hours)
                : std::snprintf(text, sizeof text, "%s%02d:%02d:%02d", sign, hours, minutes, secs);
  return std::string(text, std::min(std::size_t(length), cut));
}

std::string formatTimeInterval(int seconds) { return formatTimeInterval(long(seconds)); }
std::string formatTimeInterval(unsigned int seconds) { return formatTimeInterval(long(seconds)); }
std::string formatTimeInterval(long long seconds) { return formatTimeInterval(long(seconds)); }
std::string formatTimeInterval(unsigned long seconds) { return formatTimeInterval(long(seconds)); }
std::string formatTimeInterval(unsigned long long seconds) {
  return formatTimeInterval(long(seconds));
}

std::string formatTimeInterval(double seconds) {
  if (std::isnan(seconds)) return formatTimeInterval(0l);
  // LONG_MAX is not exact in a double; its rounding, 2^63 (2^31 for a 32-bit long), is the
  // first value out of range.
  constexpr double longLimit = -double(LONG_MIN);
  if (seconds >= longLimit) return formatTimeInterval(LONG_MAX);
  if (seconds < -longLimit) return formatTimeInterval(LONG_MIN);
  return formatTimeInterval(long(seconds));
}

std::string hexdump(void const* data, unsigned int length, unsigned int limit) {
  unsigned const count = limit == 0 || limit >= length ? length : limit;
  auto const* const bytes = static_cast<unsigned char const*>(data);
  std::ostringstream out;
  out << "Dumping " << count;
  if (count < length) out << " (limited from " << length << ")";
  out << " bytes from ";
  displayPointer(out, data);
  out << '\n';
  for (unsigned line = 0; line < count; line += bytesPerLine) {
    unsigned const inLine = std::min(bytesPerLine, count - line);
    displayPointer(out, bytes + line);
    out << ':';
    for (unsigned i = 0; i < inLine; ++i) {
      displayByte(out, bytes[line + i]);
      if (i + 1 == bytesPerHalfLine) out << ' ';
    }
    for (unsigned i = inLine; i < bytesPerLine; ++i) out << "   ";
    if (inLine < bytesPerHalfLine) out << ' ';
    displayPrintable(out, bytes + line, inLine);
  }
  return out.str();
}

}  // namespace Kiv
