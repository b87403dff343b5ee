// The identifier set's run text, checked against its rules: "(", the members in increasing order
// as runs of consecutive ids (one id alone, a longer run as first-last), separated by ",", ")".
//
// By contract the parser aborts on malformed text rather than throwing, so arbitrary text cannot
// be fed to it: every input would end in an assertion. Instead the input bytes describe a text
// that the contract accepts, and the fuzzer writes it: a size, an initial member, then runs and
// single ids below the size, in any order and overlapping (which the parser accepts), followed by
// whatever bytes are left, which the parser must leave alone: it stops after the ")". Each set is
// compared with a reference model of its members, its printed text with a reference printer of
// the rules, and its text and attribute log must read back to an equal set that prints and logs
// the same. A set with a member in 0 .. 63 has no attribute log (the writer aborts by contract),
// so the log is only checked without one.
#include <Kiv/IdSet.h>

#include <Zel/Assert.h>
#include <Zel/NboAttrLog.h>
#include <Zel/Types.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using Zel::U16;
using Zel::U8;

// The input as numbers; an exhausted input reads as zeros.
class Input {
public:
  Input(std::uint8_t const* data, std::size_t size) : at_(data), end_(data + size) {}
  bool empty() const { return at_ == end_; }
  U8 byte() { return empty() ? 0 : *at_++; }
  U16 word() { return static_cast<U16>(byte() << 8 | byte()); }
  std::string_view rest() const {
    return {reinterpret_cast<char const*>(at_), std::size_t(end_ - at_)};
  }

private:
  std::uint8_t const* at_;
  std::uint8_t const* end_;
};

// The text the rules give for `members`.
std::string runText(std::vector<bool> const& members) {
  std::string out = "(";
  for (std::size_t id = 0; id < members.size(); ++id) {
    if (!members[id]) continue;
    std::size_t last = id;
    while (last + 1 < members.size() && members[last + 1]) ++last;
    if (out.size() > 1) out += ',';
    out += std::to_string(id);
    if (last != id) out += '-' + std::to_string(last);
    id = last;
  }
  return out + ")";
}

std::vector<bool> membersOf(Kiv::IdSet const& set) {
  std::vector<bool> members(set.size());
  for (Kiv::Id id : set) members[id.value()] = true;
  return members;
}

// Writes the text that `input` describes into `text` and its members into `members`: a control
// byte per piece, whose low bit asks for a run, then one or two ids taken modulo the size.
void describedText(Input& input, std::string& text, std::vector<bool>& members) {
  U16 const size = static_cast<U16>(members.size());
  text = "(";
  for (U8 pieces = input.byte() % 32; pieces > 0 && !input.empty(); --pieces) {
    bool const run = input.byte() & 1;
    U16 first = input.word() % size;
    U16 last = run ? input.word() % size : first;
    if (first > last) std::swap(first, last);
    if (text.size() > 1) text += ',';
    text += std::to_string(first);
    if (last != first) text += '-' + std::to_string(last);
    std::fill(members.begin() + first, members.begin() + last + 1, true);
  }
  text += ')';
}

void checkLog(Kiv::IdSet const& set) {
  if (set.bucketHas(0)) return;
  Zel::NboAttrLog::Out out;
  out << set;
  Kiv::IdSet back;
  Zel::NboAttrLog::In in(out.bytes());
  in >> back;
  ZEL_ASSERT(in.remaining() == 0);
  ZEL_ASSERT(back.size() == set.size() && back == set && back.initialId() == set.initialId());
  Zel::NboAttrLog::Out again;
  again << back;
  ZEL_ASSERT(again.bytes() == out.bytes());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  Input input(data, size);
  U16 const setSize = static_cast<U16>(1 + input.word() % 16320);
  U16 const initial = input.word();
  Kiv::Id const initialId = initial < setSize ? Kiv::Id(initial) : Kiv::Id::null();
  std::vector<bool> members(setSize);
  if (initialId != Kiv::Id::null()) members[initialId.value()] = true;

  std::string text;
  describedText(input, text, members);
  std::size_t const closed = text.size();
  text += input.rest();
  Kiv::IdSet set(setSize, initialId);
  char const* const after = Kiv::sequenceToValue(text.data(), text.data() + text.size(), &set);
  ZEL_ASSERT(after == text.data() + closed);
  ZEL_ASSERT(membersOf(set) == members);

  std::string const printed = set.stringValue().str();
  ZEL_ASSERT(printed == runText(members));
  Kiv::IdSet back(setSize);
  ZEL_ASSERT(Kiv::sequenceToValue(printed.data(), printed.data() + printed.size(), &back) ==
             printed.data() + printed.size());
  ZEL_ASSERT(back == set && back.stringValue().str() == printed);
  checkLog(set);
  return 0;
}
