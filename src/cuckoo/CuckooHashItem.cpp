#include <Kiv/CuckooHashItem.h>

#include <Zel/Assert.h>
#include <Zel/Exception.h>
#include <Zel/GenericIf.h>

#include <ostream>
#include <string>
#include <typeinfo>

namespace Kiv::Cuckoo {

void TableId::outOfRange() {
  throw Zel::RangeException("TableId::value < TableId::min or > TableId::null not allowed");
}

std::ostream& operator<<(std::ostream& out, TableId id) {
  return out << "( " << unsigned(id.value()) << " )";
}

std::ostream& operator<<(std::ostream& out, CuckooLocation const& location) {
  return out << "TableId/BinId/Index: ( " << unsigned(location.tableId().value()) << ", "
             << unsigned(location.binId()) << ", " << location.index() << " )";
}

// The base versions have nothing to test: reaching one is the failure, with the text the
// contract names.
bool HashItem::isEqual(Zel::Ptr<HashItem const> const&) const {
  ZEL_FAIL_AS("(!(\"not implemented\"))");
}

U32 HashItem::getHash(TableId) const { ZEL_FAIL_AS("(!(\"not implemented\"))"); }

Zel::String HashItem::toStrep() const { ZEL_FAIL_AS("(!(\"not implemented\"))"); }

Zel::Ptr<IntHashItem> intHashItemFactory(U32 key, U32 hashIndex0, U32 hashIndex1, U32 hashIndex2) {
  return Zel::allocate<IntHashItem>(key, hashIndex0, hashIndex1, hashIndex2);
}

bool IntHashItem::isEqual(Zel::Ptr<HashItem const> const& other) const {
  if (!other) return false;
  // Items made by one factory share their dynamic type, so lookups, which compare with every
  // resident of a bucket, take the cheap type test before the cast's walk of the hierarchy.
  HashItem const& item = *other;
  IntHashItem const* const same = typeid(item) == typeid(*this)
                                      ? static_cast<IntHashItem const*>(other.ptr())
                                      : dynamic_cast<IntHashItem const*>(other.ptr());
  return same && same->key_ == key_;
}

U32 IntHashItem::getHash(TableId tableId) const {
  switch (tableId.value()) {
    case 0: return hashIndex0_;
    case 1: return hashIndex1_;
    default: return hashIndex2_;
  }
}

Zel::String IntHashItem::toStrep() const { return "IntHashItem(" + std::to_string(key_) + ")"; }

Zel::TypeRegistration<TableId, CuckooLocation, IntHashItem> const registration;

}  // namespace Kiv::Cuckoo
