// Renders numbers, time spans and memory for people: traces and status output. Pure functions
// of their arguments apart from the stream they write to.
#pragma once

#include <ostream>
#include <string>

namespace Kiv {

// Writes `value` scaled to an SI prefix (none, k, M, G, T) with four significant digits, one
// blank, the prefix and `unit`: 1234567 and "B" give "1.235 MB", 1000 and "s" give "1 ks".
// A value outside [0, 1000 T) (negative, NaN, infinite or too large) is written unscaled with
// the stream's current settings and no prefix: "-5 x". Scaling leaves the stream's precision at
// 4. A null `unit` writes the number and prefix without a unit and sets the stream's bad bit, as
// writing a null string would.
void formatValueSi(std::ostream& out, double value, char const* unit);

// A time span as "[-]HH:MM:SS", or "[-]<days>d<HH>h" once it reaches a day, dropping minutes and
// seconds: 3725 gives "01:02:05", -59 gives "-00:00:59", 90061 gives "1d01h". At most 19
// characters; longer texts (spans of about 10^14 days) are cut.
std::string formatTimeInterval(long seconds);
// The other integer widths convert to long as a cast does (values beyond long wrap).
std::string formatTimeInterval(int seconds);
std::string formatTimeInterval(unsigned int seconds);
std::string formatTimeInterval(long long seconds);
std::string formatTimeInterval(unsigned long seconds);
std::string formatTimeInterval(unsigned long long seconds);
// Truncates toward zero; NaN counts as 0 and values beyond long are clamped to its range.
std::string formatTimeInterval(double seconds);

// A hexadecimal dump of the first `limit` bytes at `data` (all `length` bytes when `limit` is 0
// or not below `length`). The header reads "Dumping <n> bytes from <address>", with
// " (limited from <length>)" after <n> when the limit cut the dump. Each body line reads
// "<address>:" followed by 16 bytes as " xx" (an extra blank after the eighth) and
// " |<printable text>|", where non-printable bytes show as blanks; a last partial line is padded
// so that its text column lines up. Addresses are "0x" and at least eight hexadecimal digits.
std::string hexdump(void const* data, unsigned int length, unsigned int limit = 0);

}  // namespace Kiv
