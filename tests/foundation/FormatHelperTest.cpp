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

std::string si(double value, char const* unit) {
  std::ostringstream out;
  formatValueSi(out, value, unit);
  return out.str();
}

TEST(FormatValueSi, PrefixBoundariesAndUnscaledValues) {
  EXPECT_EQ(si(0, "B"), "0 B");
  // Stays unscaled below 1000, even when four digits round it up to 1000.
  EXPECT_EQ(si(999.99, "s"), "1000 s");
  EXPECT_EQ(si(1000, "s"), "1 ks");
  EXPECT_EQ(si(1234567, "B"), "1.235 MB");
  EXPECT_EQ(si(2.5e9, "Hz"), "2.5 GHz");
  EXPECT_EQ(si(999.9e12, "B"), "999.9 TB");
  EXPECT_EQ(si(1e15, "B"), "1e+15 B");
  EXPECT_EQ(si(-1234567, "B"), "-1.23457e+06 B");
  EXPECT_EQ(si(std::nan(""), "B"), "nan B");

  // Scaling leaves the precision at four for what follows; a null unit sets the bad bit.
  std::ostringstream out;
  formatValueSi(out, 1000, "s");
  out << ';';
  formatValueSi(out, -1234567, "B");
  EXPECT_EQ(out.str(), "1 ks;-1.235e+06 B");
  EXPECT_TRUE(out.good());
  formatValueSi(out, 2000, nullptr);
  EXPECT_TRUE(out.bad());
}

TEST(FormatTimeInterval, ClockAndDayFormsAtEveryWidth) {
  EXPECT_EQ(formatTimeInterval(59l), "00:00:59");
  EXPECT_EQ(formatTimeInterval(-59l), "-00:00:59");
  EXPECT_EQ(formatTimeInterval(86399l), "23:59:59");
  EXPECT_EQ(formatTimeInterval(86400l), "1d00h");
  EXPECT_EQ(formatTimeInterval(-90061l), "-1d01h");
  EXPECT_EQ(formatTimeInterval(100 * 86400l + 23 * 3600), "100d23h");
  std::string const extreme = formatTimeInterval(LONG_MIN);
  EXPECT_LE(extreme.size(), 19u);
  EXPECT_EQ(extreme[0], '-');

  for (std::string const& text :
       {formatTimeInterval(90061), formatTimeInterval(90061u), formatTimeInterval(90061ll),
        formatTimeInterval(90061ul), formatTimeInterval(90061ull), formatTimeInterval(90061.9)}) {
    EXPECT_EQ(text, "1d01h");
  }
  EXPECT_EQ(formatTimeInterval(-59.9), "-00:00:59");
  EXPECT_EQ(formatTimeInterval(std::nan("")), "00:00:00");
  EXPECT_EQ(formatTimeInterval(1e300), formatTimeInterval(LONG_MAX));
  EXPECT_EQ(formatTimeInterval(-1e300), formatTimeInterval(LONG_MIN));
}

// The address as the dump writes it, made independently of the dump.
std::string address(void const* p) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%08jx", std::uintmax_t(std::uintptr_t(p)));
  return text;
}

TEST(Hexdump, FullAndPartialLines) {
  char const data[] = "ABCDEFGHIJKLMNOP\x00\x01qr";
  EXPECT_EQ(hexdump(data, 20, 0),
            "Dumping 20 bytes from " + address(data) + "\n" + address(data) +
                ": 41 42 43 44 45 46 47 48  49 4a 4b 4c 4d 4e 4f 50 |ABCDEFGHIJKLMNOP|\n" +
                address(data + 16) + ": 00 01 71 72" + std::string(12 * 3 + 1, ' ') +
                " |  qr|\n");
  EXPECT_EQ(hexdump(data, 20, 8),
            "Dumping 8 (limited from 20) bytes from " + address(data) + "\n" + address(data) +
                ": 41 42 43 44 45 46 47 48 " + std::string(8 * 3, ' ') + " |ABCDEFGH|\n");
  EXPECT_EQ(hexdump(data, 20, 20), hexdump(data, 20, 0));
  EXPECT_EQ(hexdump(data, 0, 0), "Dumping 0 bytes from " + address(data) + "\n");
}

// Every body line, whatever its length, has its text column in the same place, and the dump
// shows exactly the bytes asked for.
TEST(Hexdump, TextColumnLinesUpForEveryLength) {
  unsigned char data[48];
  for (unsigned i = 0; i < sizeof data; ++i) data[i] = static_cast<unsigned char>(i * 37);
  std::size_t const column = address(data).size() + 1 + 16 * 3 + 1;
  for (unsigned count = 1; count <= sizeof data; ++count) {
    std::istringstream dump(hexdump(data, sizeof data, count));
    std::string line;
    std::getline(dump, line);
    unsigned shown = 0;
    while (std::getline(dump, line)) {
      ASSERT_EQ(line.find(" |"), column) << "count " << count << ": " << line;
      ASSERT_EQ(line.back(), '|');
      shown += unsigned(line.size() - column - 3);
    }
    ASSERT_EQ(shown, count);
  }
}

}  // namespace
}  // namespace Kiv
