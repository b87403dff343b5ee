#include <Kiv/FormatHelper.h>

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>

namespace Kiv {
namespace {

TEST(FormatValueSi, PrefixBoundariesUnscaledValuesAndStreamState) {
  std::pair<double, char const*> const cases[] = {
      {999.99, "1000 B"},     {1000, "1 kB"},    {1234567, "1.235 MB"},        {2.5e9, "2.5 GB"},
      {999.9e12, "999.9 TB"}, {1e15, "1e+15 B"}, {-1234567, "-1.23457e+06 B"}, {NAN, "nan B"}};
  for (auto [value, text] : cases) {
    std::ostringstream out;
    formatValueSi(out, value, "B");
    EXPECT_EQ(out.str(), text);
  }
  std::ostringstream out;
  formatValueSi(out, 1000, "s");
  formatValueSi(out, -1234567, ";");  // unscaled, at the precision that scaling left
  EXPECT_EQ(out.str(), "1 ks-1.235e+06 ;");
  formatValueSi(out, 2000, nullptr);
  EXPECT_TRUE(out.bad());
}

TEST(FormatTimeInterval, ClockAndDayFormsEveryOverloadAndTheExtremes) {
  std::pair<std::string, std::string> const cases[] = {
      {formatTimeInterval(59l), "00:00:59"},
      {formatTimeInterval(-59l), "-00:00:59"},
      {formatTimeInterval(86399l), "23:59:59"},
      {formatTimeInterval(86400l), "1d00h"},
      {formatTimeInterval(-90061l), "-1d01h"},
      {formatTimeInterval(8722800l), "100d23h"},
      {formatTimeInterval(90061), "1d01h"},
      {formatTimeInterval(90061u), "1d01h"},
      {formatTimeInterval(90061ll), "1d01h"},
      {formatTimeInterval(90061ul), "1d01h"},
      {formatTimeInterval(90061ull), "1d01h"},
      {formatTimeInterval(90061.9), "1d01h"},
      {formatTimeInterval(-59.9), "-00:00:59"},
      {formatTimeInterval(NAN), "00:00:00"},
      {formatTimeInterval(-double(LONG_MIN)), formatTimeInterval(LONG_MAX)},  // first beyond long
      {formatTimeInterval(-1e300), formatTimeInterval(LONG_MIN)}};
  for (auto const& [text, expected] : cases) EXPECT_EQ(text, expected);
  std::string const extreme = formatTimeInterval(LONG_MIN);  // cut to 19 characters on 64 bits
  EXPECT_TRUE(extreme.size() <= 19 && extreme[0] == '-') << extreme;
}

// The address as the dump writes it, made independently of the dump.
std::string address(void const* p) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%08jx", std::uintmax_t(std::uintptr_t(p)));
  return text;
}

// Besides the exact forms: in a dump of any length, every body line has its text column after
// the address, ':' and 16 byte columns with a blank after the eighth, and the lines show exactly
// the bytes asked for.
TEST(Hexdump, ExactFormsAndTheTextColumnLinesUpForEveryLength) {
  char data[48] = "ABCDEFGHIJKLMNOP\x00\x01qr";
  for (unsigned i = 20; i < sizeof data; ++i) data[i] = char(i * 37);
  std::string const a = address(data), b = address(data + 16);
  EXPECT_EQ(hexdump(data, 20, 0),
            "Dumping 20 bytes from " + a + "\n" + a +
                ": 41 42 43 44 45 46 47 48  49 4a 4b 4c 4d 4e 4f 50 |ABCDEFGHIJKLMNOP|\n" + b +
                ": 00 01 71 72" + std::string(12 * 3 + 1, ' ') + " |  qr|\n");
  EXPECT_EQ(hexdump(data, 20, 8), "Dumping 8 (limited from 20) bytes from " + a + "\n" + a +
                                      ": 41 42 43 44 45 46 47 48 " + std::string(8 * 3, ' ') +
                                      " |ABCDEFGH|\n");
  EXPECT_EQ(hexdump(data, 20, 20), hexdump(data, 20, 0));
  EXPECT_EQ(hexdump(data, 0, 0), "Dumping 0 bytes from " + a + "\n");
  std::size_t const column = a.size() + 1 + 16 * 3 + 1;
  for (unsigned count = 1; count <= sizeof data; ++count) {
    std::istringstream dump(hexdump(data, sizeof data, count));
    std::string line;
    unsigned shown = 0;
    for (std::getline(dump, line); std::getline(dump, line);) {
      ASSERT_TRUE(line.find(" |") == column && line.back() == '|') << count << ": " << line;
      shown += unsigned(line.size() - column - 3);
    }
    ASSERT_EQ(shown, count);
  }
}

}  // namespace
}  // namespace Kiv
