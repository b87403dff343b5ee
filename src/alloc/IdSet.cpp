#include <Kiv/IdSet.h>

#include <Zel/Assert.h>
#include <Zel/Bits.h>
#include <Zel/Exception.h>
#include <Zel/GenericIf.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <memory>
#include <ostream>
#include <string_view>
#include <utility>
#include <vector>

namespace Kiv {
namespace {

constexpr U64 allOnes = ~U64{0};

U8 bucketOf(Id id) { return static_cast<U8>(id.value() / 64); }
U64 maskOf(Id id) { return U64{1} << (id.value() % 64); }

// The reflection record. IdSet is a value type with a collection and a hand-written text form,
// which the runtime's field-table record cannot describe, so the record is written out here.
// The text form holds no size: it is normalised through a set of the largest size the type
// serves.
std::unique_ptr<Zel::GenericIf> idSetRecord() {
  using Kind = Zel::AttributeKind;
  auto self = [](void const* object) -> IdSet const& { return *static_cast<IdSet const*>(object); };
  auto record = std::make_unique<Zel::GenericIf>(IdSet::zelTypeName(), true);
  Zel::GenericIf::Attribute size("size", Kind::field);
  size.read = [self](void const* o) { return Zel::valueToStrep(self(o).size()); };
  Zel::GenericIf::Attribute initialId("initialId", Kind::field);
  initialId.read = [self](void const* o) { return Zel::valueToStrep(self(o).initialId()); };
  Zel::GenericIf::Attribute bucket("bucket", Kind::collection);
  bucket.entries = [self](void const* o) {
    Zel::GenericIf::Entries entries;
    for (auto const& [k, word] : self(o).bucketIteratorConst()) {
      entries.emplace_back(Zel::valueToStrep(k), Zel::valueToStrep(word));
    }
    return entries;
  };
  Zel::GenericIf::Attribute maxBuckets("maxBuckets", Kind::computed);
  maxBuckets.read = [self](void const* o) { return Zel::valueToStrep(self(o).maxBuckets()); };
  record->attributeIs(std::move(size));
  record->attributeIs(std::move(initialId));
  record->attributeIs(std::move(bucket));
  record->attributeIs(std::move(maxBuckets));
  record->valueStrepIs([](Zel::String const& text) {
    IdSet set(16320);
    if (sequenceToValue(text.begin(), text.end(), &set) != text.end()) {
      throw Zel::RangeException("Invalid " + IdSet::zelTypeName());
    }
    return set.stringValue();
  });
  return record;
}

[[maybe_unused]] Zel::TypeRegistration<Id> const registration;
[[maybe_unused]] Zel::GenericIf const& idSetType = Zel::GenericIf::typeIs(idSetRecord());

// One id of the text form: 1 to 5 decimal digits naming an id other than null.
bool isIdText(std::string_view text) {
  if (text.empty() || text.size() > 5) return false;
  U32 value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + U32(c - '0');
  }
  return value < Id::null().value();
}

Id readId(std::string_view text) {
  ZEL_CHECK_AS(isIdText(text), "isIdText(text)", "'" << text << "' is not an identifier");
  U16 value = 0;
  for (char c : text) value = static_cast<U16>(value * 10 + (c - '0'));
  return Id(value);
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (std::size_t from = 0;;) {
    std::size_t const at = text.find(separator, from);
    parts.push_back(text.substr(from, at - from));
    if (at == std::string_view::npos) return parts;
    from = at + 1;
  }
}

void addPiece(IdSet& set, std::string_view piece) {
  if (piece.find('-') == std::string_view::npos) {
    set.idIs(readId(piece), true);
    return;
  }
  std::vector<std::string_view> const range = split(piece, '-');
  ZEL_ASSERT_AS(range.size() == 2, "range.size() == 2");
  U16 const start = readId(range[0]).value();
  U16 const stop = readId(range[1]).value();
  ZEL_CHECK_AS(start < stop, "start < stop", "Invalid range");
  set.idSetRange(start, static_cast<U16>(stop + 1));
}

}  // namespace

// ---- Iterator ---------------------------------------------------------------------------------

Id IdSet::IdIteratorConst::key() const {
  ZEL_ASSERT_AS(curId_ != Id::null(), "curId_ != Id::null()");
  return curId_;
}

IdSet::IdIteratorConst& IdSet::IdIteratorConst::operator++() {
  ZEL_ASSERT_AS(curId_ != Id::null(), "curId_ != Id::null()");
  curId_ = set_->nextId(curId_);
  return *this;
}

// ---- Members ----------------------------------------------------------------------------------

IdSet::IdSet(U16 size, Id initialId) : size_(size), initialId_(initialId) {
  if (initialId != Id::null()) idIs(initialId, true);
}

bool IdSet::id(Id bitPos) const {
  ZEL_CHECK_AS(bitPos.value() < size_, "bitPos.value() < size()",
               "id " << bitPos << " exceeds limit of " << size_);
  return (bucket(bucketOf(bitPos)) & maskOf(bitPos)) != 0;
}

void IdSet::idIs(Id bitPos, bool member) { updateId(bitPos, member); }

void IdSet::updateId(Id bitPos, bool member) {
  ZEL_CHECK_AS(bitPos.value() < size_, "bitPos.value() < size()",
               "id " << bitPos << " exceeds limit of " << size_);
  U8 const k = bucketOf(bitPos);
  U64 const word = bucket(k);
  updateBucket(k, member ? word | maskOf(bitPos) : word & ~maskOf(bitPos));
}

void IdSet::idSetRange(Id begin, Id end) {
  ZEL_CHECK_AS(begin.value() < end.value(), "begin.value() < end.value()",
               "range should be of at least length 1");
  ZEL_CHECK_AS(end.value() <= size_, "end.value() <= size()",
               "end can't be greater than bitmap limit");
  Id const last(static_cast<U16>(end.value() - 1));
  U8 const first = bucketOf(begin);
  U8 const final = bucketOf(last);
  U64 const firstMask = allOnes << (begin.value() % 64);
  U64 const finalMask = allOnes >> (63 - last.value() % 64);
  if (first == final) {
    updateBucket(first, bucket(first) | (firstMask & finalMask));
    return;
  }
  updateBucket(first, bucket(first) | firstMask);
  for (U8 k = first + 1; k != final; ++k) updateBucket(k, allOnes);
  updateBucket(final, bucket(final) | finalMask);
}

void IdSet::idSetAll() {
  U8 const count = maxBuckets();
  if (count == 0) return;
  for (U8 k = 0; k + 1 < count; ++k) updateBucket(k, allOnes);
  updateBucket(count - 1, allOnes >> (63 - (size_ - 1) % 64));
}

IdSet::Buckets::const_iterator IdSet::lowerBucket(U8 k) const {
  return std::lower_bound(buckets_.begin(), buckets_.end(), k,
                          [](auto const& stored, U8 index) { return stored.first < index; });
}

U64 IdSet::bucket(U8 k) const {
  auto it = lowerBucket(k);
  return it != buckets_.end() && it->first == k ? it->second : 0;
}

void IdSet::bucketIs(U8 k, U64 value) { updateBucket(k, value); }

void IdSet::updateBucket(U8 k, U64 value) {
  auto it = buckets_.begin() + (lowerBucket(k) - buckets_.begin());
  bool const stored = it != buckets_.end() && it->first == k;
  if (value == 0) {
    if (stored) buckets_.erase(it);
  } else if (stored) {
    it->second = value;
  } else {
    buckets_.emplace(it, k, value);
  }
}

// ---- Set algebra ------------------------------------------------------------------------------
//
// Each operator combines bucket k of both operands for every k below maxBuckets. Merging the
// stored buckets of both sides gives the same result as visiting every index, in one pass over
// the buckets stored: every operator maps two absent (zero) words to zero, so an index absent
// from both stays absent.

template <class Op>
void IdSet::combine(IdSet const& other, Op op, Buckets& out) const {
  ZEL_ASSERT_AS(size_ == other.size_, "size() == other.size()");
  auto a = buckets_.begin();
  auto b = other.buckets_.begin();
  auto const aEnd = lowerBucket(maxBuckets());
  auto const bEnd = other.lowerBucket(maxBuckets());
  out.clear();
  out.reserve(std::size_t(aEnd - a) + std::size_t(bEnd - b) + std::size_t(buckets_.end() - aEnd));
  while (a != aEnd || b != bEnd) {
    U8 k;
    U64 word;
    if (b == bEnd || (a != aEnd && a->first < b->first)) {
      k = a->first;
      word = op(a++->second, U64{0});
    } else if (a == aEnd || b->first < a->first) {
      k = b->first;
      word = op(U64{0}, b++->second);
    } else {
      k = a->first;
      word = op(a++->second, b++->second);
    }
    if (word != 0) out.emplace_back(k, word);
  }
  out.insert(out.end(), aEnd, buckets_.end());
}

template <class Op>
IdSet& IdSet::combineInPlace(IdSet const& other, Op op) {
  Buckets result;
  combine(other, op, result);
  buckets_ = std::move(result);
  return *this;
}

template <class Op>
IdSet IdSet::combined(IdSet const& other, Op op) const {
  IdSet result(size_);
  result.initialId_ = initialId_;
  combine(other, op, result.buckets_);
  return result;
}

namespace {
constexpr auto unionOf = [](U64 a, U64 b) { return a | b; };
constexpr auto intersectionOf = [](U64 a, U64 b) { return a & b; };
constexpr auto differenceOf = [](U64 a, U64 b) { return a & ~b; };
constexpr auto symDifferenceOf = [](U64 a, U64 b) { return a ^ b; };
}  // namespace

IdSet& IdSet::operator|=(IdSet const& other) { return combineInPlace(other, unionOf); }
IdSet& IdSet::operator&=(IdSet const& other) { return combineInPlace(other, intersectionOf); }
IdSet& IdSet::operator-=(IdSet const& other) { return combineInPlace(other, differenceOf); }
IdSet& IdSet::operator^=(IdSet const& other) { return combineInPlace(other, symDifferenceOf); }
IdSet IdSet::operator|(IdSet const& other) const { return combined(other, unionOf); }
IdSet IdSet::operator&(IdSet const& other) const { return combined(other, intersectionOf); }
IdSet IdSet::operator-(IdSet const& other) const { return combined(other, differenceOf); }
IdSet IdSet::operator^(IdSet const& other) const { return combined(other, symDifferenceOf); }

IdSet IdSet::operator~() const {
  IdSet complement(size_);
  complement.buckets_.reserve(maxBuckets());
  auto mine = buckets_.begin();
  for (U8 k = 0; k < maxBuckets(); ++k) {
    bool const stored = mine != buckets_.end() && mine->first == k;
    U64 const word = stored ? ~mine++->second : allOnes;
    if (word != 0) complement.buckets_.emplace_back(k, word);
  }
  return complement;
}

bool IdSet::operator==(IdSet const& other) const {
  ZEL_ASSERT_AS(size_ == other.size_, "size() == other.size()");
  return this == &other || buckets_ == other.buckets_;
}

bool IdSet::operator!() const { return *this == IdSet(0, Id::null()); }

std::size_t IdSet::hash() const noexcept {
  U32 seed = U32(buckets_.size());
  for (auto const& [k, word] : buckets_) seed = Zel::hashCombine(seed, Zel::hashWord(word) ^ k);
  return seed;
}

// ---- Iteration --------------------------------------------------------------------------------

// A hit at or beyond size() counts as none: the only bits stored there are the complement's, and
// buckets are visited in increasing order, so no member can follow.
Id IdSet::nextId(Id bitPos) const {
  ZEL_CHECK_AS(bitPos.value() < size_ || bitPos == Id::null(),
               "bitPos.value() < size() || bitPos.value() == Id::null()",
               "current bit can't be greater than bitmap limit");
  auto next = buckets_.begin();
  if (bitPos != Id::null()) {
    U8 const k = bucketOf(bitPos);
    U32 const bit = bitPos.value() % 64;
    next = lowerBucket(k);
    bool const stored = next != buckets_.end() && next->first == k;
    U64 const above = bit == 63 || !stored ? 0 : next->second >> (bit + 1);
    if (stored) ++next;
    if (above != 0) {
      U32 const id = U32{bitPos.value()} + 1 + Zel::countrZero(above);
      return id < size_ ? Id(static_cast<U16>(id)) : Id::null();
    }
  }
  if (next == buckets_.end()) return Id::null();
  U32 const id = U32{next->first} * 64 + Zel::countrZero(next->second);
  return id < size_ ? Id(static_cast<U16>(id)) : Id::null();
}

// ---- Forms ------------------------------------------------------------------------------------

Zel::String IdSet::stringValue() const { return Zel::valueToStrep(*this); }

void printStrep(std::string& out, IdSet const& set) {
  out += '(';
  bool first = true;
  for (auto it = set.idIteratorConst(); it;) {
    U16 const start = it.key().value();
    U16 last = start;
    while (++it && it.key().value() == last + 1) last = it.key().value();
    if (!first) out += ',';
    first = false;
    out += std::to_string(start);
    if (last != start) out += '-' + std::to_string(last);
  }
  out += ')';
}

std::ostream& operator<<(std::ostream& out, IdSet const& set) { return out << set.stringValue(); }

char const* sequenceToValue(char const* begin, char const* end, IdSet* set) {
  char const* const strepEnd = std::find(begin, end, ')');
  ZEL_ASSERT_AS(strepEnd != end && *begin == '(', "*p == '(' && strepEnd != end");
  std::string_view const inner(begin + 1, std::size_t(strepEnd - begin - 1));
  if (!inner.empty()) {
    for (std::string_view piece : split(inner, ',')) addPiece(*set, piece);
  }
  return strepEnd + 1;
}

Zel::NboAttrLog::Out& operator<<(Zel::NboAttrLog::Out& out, IdSet const& set) {
  out << set.size() << set.initialId().value();
  for (auto const& [k, word] : set.bucketIteratorConst()) {
    // Index 0 is the terminator, so the form cannot hold bucket 0.
    if (k == 0) std::fputs("Default key not supported in collection inside nominal\n", stderr);
    ZEL_ASSERT_AS(k != 0, "false");
    out << k << word;
  }
  return out << U8{0};
}

Zel::NboAttrLog::In& operator>>(Zel::NboAttrLog::In& in, IdSet& set) {
  U16 size = 0;
  U16 initialId = 0;
  in >> size >> initialId;
  IdSet read(size);
  read.initialId_ = Id(initialId);
  for (U8 k = 0;;) {
    in >> k;
    if (k == 0) break;
    U64 word = 0;
    in >> word;
    read.bucketIs(k, word);
  }
  set = std::move(read);
  return in;
}

}  // namespace Kiv
