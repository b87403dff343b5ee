// The items a cuckoo table places and the slots they occupy.
//
// TableId names a table (way) of the model: 0..8, or the null id 9 meaning no table.
// CuckooLocation names one slot: a bin of a bucket (index) of a table. Both are value types.
//
// HashItem is what the table places: an immutable entity that knows its hash for each table and
// whether another item is the same. The caller supplies the hashes; the table never computes one,
// and it reduces each modulo the table's size. IntHashItem is the ready-made item: an integer key
// with caller-chosen hashes.
#pragma once

#include <Zel/Entity.h>
#include <Zel/String.h>
#include <Zel/Types.h>
#include <Zel/Value.h>

#include <compare>
#include <iosfwd>

namespace Kiv::Cuckoo {

// A table of the model, or the null id. The string form is the number; the stream form is
// "( n )". Constructing or setting a value above null throws RangeException
// "TableId::value < TableId::min or > TableId::null not allowed".
class TableId : public Zel::Value<TableId> {
public:
  static constexpr U8 min = 0;
  static constexpr U8 null = 9;

  constexpr TableId() noexcept = default;
  explicit TableId(U8 value) { valueIs(value); }

  U8 value() const noexcept { return value_; }
  void valueIs(U8 value) {
    if (value > null) outOfRange();
    value_ = value;
  }
  bool isNull() const noexcept { return value_ == null; }

  friend std::strong_ordering operator<=>(TableId a, TableId b) noexcept {
    return a.value_ <=> b.value_;
  }
  friend std::ostream& operator<<(std::ostream& out, TableId id);

  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::Cuckoo::TableId",
                            Zel::field("value", &TableId::value, &TableId::valueIs));
  }

private:
  [[noreturn]] static void outOfRange();

  U8 value_ = null;
};

// One slot. Ordered by table, bin, then index; the stream form is
// "TableId/BinId/Index: ( t, b, i )".
class CuckooLocation : public Zel::Value<CuckooLocation> {
public:
  CuckooLocation() noexcept = default;
  CuckooLocation(TableId tableId, U8 binId, U32 index) noexcept
      : tableId_(tableId), binId_(binId), index_(index) {}

  TableId tableId() const noexcept { return tableId_; }
  void tableIdIs(TableId tableId) noexcept { tableId_ = tableId; }
  U8 binId() const noexcept { return binId_; }
  void binIdIs(U8 binId) noexcept { binId_ = binId; }
  U32 index() const noexcept { return index_; }
  void indexIs(U32 index) noexcept { index_ = index; }

  friend std::strong_ordering operator<=>(CuckooLocation const& a,
                                          CuckooLocation const& b) noexcept {
    if (auto c = a.tableId_ <=> b.tableId_; c != 0) return c;
    if (auto c = a.binId_ <=> b.binId_; c != 0) return c;
    return a.index_ <=> b.index_;
  }
  friend std::ostream& operator<<(std::ostream& out, CuckooLocation const& location);

  static constexpr auto zelFields() {
    return Zel::valueFields(
        "Kiv::Cuckoo::CuckooLocation",
        Zel::field("tableId", &CuckooLocation::tableId, &CuckooLocation::tableIdIs),
        Zel::field("binId", &CuckooLocation::binId, &CuckooLocation::binIdIs),
        Zel::field("index", &CuckooLocation::index, &CuckooLocation::indexIs));
  }

private:
  TableId tableId_;
  U8 binId_ = 0;
  U32 index_ = 0;
};

// An item the table places. Items are immutable once handed to the table; two items that are
// isEqual must return the same hash for every table. The base versions fail the assertion
// "(!(\"not implemented\"))": a derived class supplies all three.
class HashItem : public Zel::PtrInterface {
public:
  // Whether `other` (never null) is the same item as this one.
  virtual bool isEqual(Zel::Ptr<HashItem const> const& other) const;
  // The item's hash for `tableId`.
  virtual U32 getHash(TableId tableId) const;
  // A short text naming the item, for traces and dumps.
  virtual Zel::String toStrep() const;

protected:
  HashItem() = default;
};

// An item named by an integer key with caller-chosen hashes: hashIndex0 for table 0, hashIndex1
// for table 1 and hashIndex2 for every other table. Equality compares the key only.
class IntHashItem : public HashItem {
public:
  U32 key() const noexcept { return key_; }
  U32 hashIndex0() const noexcept { return hashIndex0_; }
  U32 hashIndex1() const noexcept { return hashIndex1_; }
  U32 hashIndex2() const noexcept { return hashIndex2_; }

  bool isEqual(Zel::Ptr<HashItem const> const& other) const override;
  U32 getHash(TableId tableId) const override;
  // "IntHashItem(<key>)".
  Zel::String toStrep() const override;

  static auto zelAttributes();

protected:
  IntHashItem(U32 key, U32 hashIndex0, U32 hashIndex1, U32 hashIndex2) noexcept
      : key_(key), hashIndex0_(hashIndex0), hashIndex1_(hashIndex1), hashIndex2_(hashIndex2) {}

private:
  U32 key_;
  U32 hashIndex0_;
  U32 hashIndex1_;
  U32 hashIndex2_;
};

Zel::Ptr<IntHashItem> intHashItemFactory(U32 key, U32 hashIndex0, U32 hashIndex1, U32 hashIndex2);

inline auto IntHashItem::zelAttributes() {
  return Zel::entityAttributes<IntHashItem>(
      "Kiv::Cuckoo::IntHashItem", &intHashItemFactory,
      Zel::ctorParams(Zel::ctorParam("key", &IntHashItem::key),
                      Zel::ctorParam("hashIndex0", &IntHashItem::hashIndex0),
                      Zel::ctorParam("hashIndex1", &IntHashItem::hashIndex1),
                      Zel::ctorParam("hashIndex2", &IntHashItem::hashIndex2)));
}

}  // namespace Kiv::Cuckoo
