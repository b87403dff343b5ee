// Kiv::Id and Kiv::IdSet: a value type holding a set of small identifiers below a fixed limit,
// stored sparsely as 64-bit words, with set algebra, ordered iteration and a text form of runs.
//
//   Kiv::IdSet ports(64, Kiv::Id::null());
//   ports.idSetRange(1, 6);                       // adds 1 .. 5
//   ports.idIs(7, true);
//   for (Kiv::Id id : ports) use(id);             // 1, 2, 3, 4, 5, 7
//   std::cout << ports;                           // (1-5,7)
//
// Buckets. Id i is bit i % 64 of bucket i / 64. Only non-zero buckets are stored, as (index,
// word) pairs ordered by index, so memory follows the number of non-empty 64-id blocks (16 bytes
// each on x86-64, 12 on 32-bit x86). They are kept in one sorted array rather than a tree: there
// are at most 255 of them, so a membership test is one binary search, an update shifts at most a
// few kilobytes, and copying a set, or computing a union or an intersection in one merging pass
// over both operands, costs a single allocation. The bucket index is 8 bits wide and so is
// maxBuckets = (size + 63) / 64: the type serves sizes up to 16320 (255 buckets). For a larger
// size the indexes wrap and the whole-set operations cover only maxBuckets mod 256 buckets; this
// limit belongs to the type.
//
// Complement. ~s inverts every bucket below maxBuckets as a whole word, without masking the last
// one to the size: the complement of a set whose size is not a multiple of 64 also holds the ids
// from size up to 64 * maxBuckets - 1. Those ids show in the bucket words, in equality and in
// the attribute log; firstId, nextId, iteration and the text form stop at size.
//
// Equality compares the stored buckets only (initialId takes no part). It first asserts
// "size() == other.size()", as do the four in-place operators and their copying forms.
// operator! compares with an empty set of size 0, so it answers true for a set of size 0 and
// aborts for any other.
//
// Text form: "(", the members in increasing order grouped into runs of consecutive ids, ")". A
// run of one id prints as the id, a longer one as first-last; runs are separated by ","; no
// blanks; the empty set prints as "()". The parser adds the ids of such a text to an existing
// set (the prototype, which gives the size); it also accepts runs in any order and overlapping,
// but a run must name two different ids in increasing order: "(3-3)" is refused, "(3)" is not.
//
// Attribute log: U16 size, U16 initialId, then for each stored bucket in increasing index order
// its U8 index and its U64 word, then a U8 0. Since index 0 ends the list, a set with a member in
// 0 .. 63 cannot be written: the writer prints "Default key not supported in collection inside
// nominal" to standard error and fails the assertion "false". The reader restores size,
// initialId and buckets as written, without adding initialId again.
//
// Misuse aborts the process: an id at or beyond size, an empty or oversized range and malformed
// ids or runs in the text write "Failed(<condition>) <detail>" to standard error, then fail the
// assertion !"<condition>"; sets of different sizes combined, text without its parentheses or a
// run of more than two parts, and reading an exhausted iterator fail an assertion directly.
// Nothing is reported by return value.
//
// A plain value; callers serialise access.
#pragma once

#include <Zel/NboAttrLog.h>
#include <Zel/String.h>
#include <Zel/Types.h>
#include <Zel/Value.h>

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace Kiv {

// A 16-bit identifier; 65535 is Id::null(), no identifier, and the default.
class Id : public Zel::Value<Id> {
public:
  constexpr Id() noexcept = default;
  constexpr Id(U16 value) noexcept : value_(value) {}
  static constexpr Id null() noexcept { return Id(); }

  constexpr U16 value() const noexcept { return value_; }
  constexpr void valueIs(U16 value) noexcept { value_ = value; }
  // Also compares an id with a plain number: id.value() == Id::null().
  constexpr bool operator==(Id other) const noexcept { return value_ == other.value_; }
  constexpr bool operator<(Id other) const noexcept { return value_ < other.value_; }

  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::Id", Zel::field("value", &Id::value, &Id::valueIs));
  }

private:
  U16 value_ = 0xffff;
};

class IdSet {
public:
  using Buckets = std::vector<std::pair<U8, U64>>;

  // Walks the members in increasing order; key() is the current id. An iterator whose current
  // id is null (past the last member) must not be read or advanced: assertion
  // "curId_ != Id::null()". Changing the set while walking it is allowed: the walk goes on from
  // the current id.
  class IdIteratorConst {
  public:
    using value_type = Id;
    using difference_type = std::ptrdiff_t;

    IdIteratorConst() = default;
    IdIteratorConst(IdSet const& set, Id current) noexcept : set_(&set), curId_(current) {}

    Id key() const;
    Id operator*() const { return key(); }
    IdIteratorConst& operator++();
    IdIteratorConst operator++(int) {
      IdIteratorConst before = *this;
      ++*this;
      return before;
    }
    explicit operator bool() const noexcept { return curId_ != Id::null(); }
    bool operator==(std::default_sentinel_t) const noexcept { return curId_ == Id::null(); }
    bool operator==(IdIteratorConst const& other) const noexcept {
      return set_ == other.set_ && curId_ == other.curId_;
    }

  private:
    IdSet const* set_ = nullptr;
    Id curId_;
  };
  using IdIterator = IdIteratorConst;

  // An empty set of members 0 .. size - 1, holding initialId unless it is null.
  explicit IdSet(U16 size = 0, Id initialId = Id::null());

  U16 size() const noexcept { return size_; }
  Id initialId() const noexcept { return initialId_; }
  // (size + 63) / 64 taken as 8 bits.
  U8 maxBuckets() const noexcept { return static_cast<U8>((U32{size_} + 63) / 64); }

  // Membership of an id below size().
  bool id(Id bitPos) const;
  // Adds or removes an id below size().
  void idIs(Id bitPos, bool member);
  void idDel(Id bitPos) { idIs(bitPos, false); }
  // Adds begin .. end - 1: begin < end <= size().
  void idSetRange(Id begin, Id end);
  // Adds every id 0 .. size() - 1.
  void idSetAll();

  // The word of bucket k, 0 when absent. bucketIs stores a word as given (0 removes the bucket),
  // without checking it against size().
  U64 bucket(U8 k) const;
  bool bucketHas(U8 k) const { return bucket(k) != 0; }
  void bucketIs(U8 k, U64 value);
  void bucketDel(U8 k) { updateBucket(k, 0); }
  void bucketDelAll() noexcept { buckets_.clear(); }
  // The stored buckets, in increasing index order, as (index, word) pairs.
  auto const& bucketIteratorConst() const noexcept { return buckets_; }
  std::size_t bucketCount() const noexcept { return buckets_.size(); }

  // In place, each on equal sizes: union, intersection, difference, symmetric difference.
  IdSet& operator|=(IdSet const& other);
  IdSet& operator&=(IdSet const& other);
  IdSet& operator-=(IdSet const& other);
  IdSet& operator^=(IdSet const& other);
  // Copying forms: the left operand's size and initialId with the combined members.
  IdSet operator|(IdSet const& other) const;
  IdSet operator&(IdSet const& other) const;
  IdSet operator-(IdSet const& other) const;
  IdSet operator^(IdSet const& other) const;
  // Bucket-wise complement, of this set's size with no initialId; see the file comment.
  IdSet operator~() const;

  bool operator==(IdSet const& other) const;
  bool operator!() const;
  // Equal for equal sets.
  std::size_t hash() const noexcept;

  // The names scripting uses for the operators.
  IdSet union_py(IdSet const& other) const { return *this | other; }
  IdSet intersection_py(IdSet const& other) const { return *this & other; }
  IdSet difference_py(IdSet const& other) const { return *this - other; }
  IdSet symDifference_py(IdSet const& other) const { return *this ^ other; }
  bool equal_py(IdSet const& other) const { return *this == other; }

  // The lowest member, or null when there is none.
  Id firstId() const { return nextId(Id::null()); }
  // The lowest member above bitPos (below size() or null, which asks for the lowest), or null.
  Id nextId(Id bitPos) const;
  IdIteratorConst idIteratorConst() const { return IdIteratorConst(*this, firstId()); }
  // Starts at `start` itself, whether or not it is a member.
  IdIteratorConst idIteratorConst(Id start) const { return IdIteratorConst(*this, start); }
  IdIterator idIterator() const { return idIteratorConst(); }
  IdIteratorConst begin() const { return idIteratorConst(); }
  std::default_sentinel_t end() const noexcept { return {}; }

  // The text form, as printed by operator<< and Zel::valueToStrep.
  Zel::String stringValue() const;

  static std::string zelTypeName() { return "Kiv::IdSet"; }

private:
  friend Zel::NboAttrLog::In& operator>>(Zel::NboAttrLog::In& in, IdSet& set);

  void updateId(Id bitPos, bool member);
  // Stores `value` as bucket k, or removes the bucket when value is 0.
  void updateBucket(U8 k, U64 value);
  // The first stored bucket whose index is k or more.
  Buckets::const_iterator lowerBucket(U8 k) const;
  // Writes into `out` the buckets of `*this` with bucket k of both operands combined by `op` for
  // every k below maxBuckets; `*this`'s buckets from maxBuckets on are kept, `other`'s ignored.
  template <class Op>
  void combine(IdSet const& other, Op op, Buckets& out) const;
  template <class Op>
  IdSet& combineInPlace(IdSet const& other, Op op);
  template <class Op>
  IdSet combined(IdSet const& other, Op op) const;

  U16 size_;
  Id initialId_;
  Buckets buckets_;
};

void printStrep(std::string& out, IdSet const& set);
std::ostream& operator<<(std::ostream& out, IdSet const& set);

// Parses the text form at the start of [begin, end), adds its ids to *set and returns the
// position after the closing ")". Malformed text aborts (see the file comment).
char const* sequenceToValue(char const* begin, char const* end, IdSet* set);

Zel::NboAttrLog::Out& operator<<(Zel::NboAttrLog::Out& out, IdSet const& set);
// Reads every part before storing any, so a short log throws and leaves `set` unchanged.
Zel::NboAttrLog::In& operator>>(Zel::NboAttrLog::In& in, IdSet& set);

}  // namespace Kiv

template <>
struct std::hash<Kiv::IdSet> {
  std::size_t operator()(Kiv::IdSet const& set) const noexcept { return set.hash(); }
};
