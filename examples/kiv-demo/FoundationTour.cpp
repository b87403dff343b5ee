// The foundation tour: wrapping sequence numbers, an optional number through its forms, a burst
// of unique ids that outruns its second, and the formatters for people.
#include "Tour.h"

#include <Kiv/FormatHelper.h>
#include <Kiv/MaybeU63.h>
#include <Kiv/Seqno.h>
#include <Kiv/UniqueId.h>

#include <Zel/NboAttrLog.h>
#include <Zel/System.h>

#include <cstdint>
#include <cstdio>
#include <ostream>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace KivDemo {
namespace {

using Kiv::U8;

void sequenceNumbers(std::ostream& out) {
  out << "1. A 16-bit sequence number runs on past 65535; the order follows it around.\n   ";
  Kiv::Seqno16 s(65533);
  for (int i = 0; i < 5; ++i) {
    Kiv::Seqno16 next = s;
    next.valueInc(1);
    out << s << (s < next ? " < " : " !< ");
    s = next;
  }
  out << s << '\n';
  Kiv::Seqno16 const zero(0), half(0x8000);
  out << "   exactly half the range apart, each is less than the other: 0 < 32768 is "
      << (zero < half ? "true" : "false") << ", 32768 < 0 is " << (half < zero ? "true" : "false")
      << "\n\n";
}

std::string hexBytes(std::vector<U8> const& bytes) {
  std::string text;
  for (U8 byte : bytes) {
    char digits[4];
    std::snprintf(digits, sizeof digits, " %02x", unsigned(byte));
    text += digits;
  }
  return text;
}

void optionalNumber(std::ostream& out) {
  out << "2. MaybeU63: a number or None, through its string form and attribute log.\n";
  for (Kiv::MaybeU63 const value : {Kiv::MaybeU63(1234), Kiv::MaybeU63::none()}) {
    Kiv::MaybeU63 parsed;
    parsed.stringValueIs(value.stringValue());
    Zel::NboAttrLog::Out log;
    log << value;
    out << "   " << value.stringValue() << ": parsed back "
        << (parsed == value ? "equal" : "different") << ", log" << hexBytes(log.bytes()) << '\n';
  }
  for (char const* text : {"12x", ""}) {
    try {
      Kiv::MaybeU63().stringValueIs(text);
    } catch (Zel::RangeException const& e) {
      out << "   \"" << text << "\": RangeException: " << e.what() << '\n';
    }
  }
  out << '\n';
}

void uniqueIds(std::ostream& out) {
  constexpr unsigned burst = 65538;
  out << "3. A burst of " << burst << " unique ids from one second of virtual time.\n";
  Zel::System::VirtualTimeScope const scope(1'700'000'000.5);
  std::vector<Kiv::UniqueId> ids(burst);
  for (Kiv::UniqueId& id : ids) id.doInit();
  bool increasing = true;
  for (unsigned i = 1; i < burst; ++i) increasing = increasing && ids[i - 1] < ids[i];
  auto show = [&](unsigned i, char const* note) {
    char line[96];
    std::snprintf(line, sizeof line, "   id %-6u timestamp %u, count %-6u %s\n", i,
                  unsigned(ids[i].timestamp()), unsigned(ids[i].count()), note);
    out << line;
  };
  show(0, "(a new second starts at count 0)");
  show(65535, "(the last count of a second)");
  show(65536, "(the generator slept to the next second)");
  out << "   every id " << (increasing ? "greater than the one before" : "NOT in order")
      << "; pid is the process id's low 16 bits\n\n";
}

// hexdump prints real addresses, which change from run to run; the tour rewrites them relative
// to the buffer, keeping the layout.
std::string relativeToBuffer(std::string const& dump, void const* buffer) {
  std::regex const address("0x[0-9a-f]+");
  std::string text;
  auto last = dump.cbegin();
  for (std::sregex_iterator it(dump.begin(), dump.end(), address), end; it != end; ++it) {
    std::uintptr_t const at = std::stoull(it->str(), nullptr, 16);
    char relative[32];
    std::snprintf(relative, sizeof relative, "0x%08jx",
                  std::uintmax_t(at - reinterpret_cast<std::uintptr_t>(buffer)));
    text.append(last, (*it)[0].first).append(relative);
    last = (*it)[0].second;
  }
  return text.append(last, dump.cend());
}

void formatters(std::ostream& out) {
  out << "4. Formatting for people.\n   formatValueSi       ";
  char const* separator = "";
  for (auto [value, unit] :
       {std::pair{999.0, "pps"}, {1234567.0, "B"}, {2.5e9, "Hz"}, {1e16, "B"}}) {
    // A stream of its own: formatValueSi leaves the precision it sets.
    std::ostringstream text;
    Kiv::formatValueSi(text, value, unit);
    out << separator << text.str();
    separator = " | ";
  }
  out << "\n   formatTimeInterval  ";
  separator = "";
  for (long seconds : {59l, 3725l, 86400l, 90061l, -59l}) {
    out << separator << seconds << " -> " << Kiv::formatTimeInterval(seconds);
    separator = " | ";
  }
  char const record[] = "port\0Ethernet1\0\x01\x02\x7f\xff speed";
  unsigned const length = sizeof record - 1;
  out << "\n   hexdump of a " << length
      << "-byte record, limited to 24 bytes (addresses shown relative to the record):\n";
  std::string const dump = relativeToBuffer(Kiv::hexdump(record, length, 24), record);
  std::istringstream lines(dump);
  for (std::string line; std::getline(lines, line);) out << "     " << line << '\n';
}

void foundationTour(std::ostream& out) {
  sequenceNumbers(out);
  optionalNumber(out);
  uniqueIds(out);
  formatters(out);
}

TourRegistrar const registrar(
    30, "foundation", "Core value types: sequence numbers, MaybeU63, unique ids; formatters",
    &foundationTour);

}  // namespace
}  // namespace KivDemo
