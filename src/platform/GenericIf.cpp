#include <Zel/AllocTrack.h>
#include <Zel/Assert.h>
#include <Zel/GenericIf.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <typeinfo>

namespace Zel {

namespace {

struct Registry {
  std::mutex mutex;
  std::map<std::string, std::unique_ptr<GenericIf>, std::less<>> records;
};

Registry& registry() {
  static Registry* instance = new Registry;  // records stay valid through static teardown
  return *instance;
}

}  // namespace

std::string pointerStrep(PtrInterface const* object) {
  if (!object) return "None";
  GenericIf const* type = object->fwkType();
  return "<" + (type ? type->name() : demangledName(object->zelClass())) + ">";
}

GenericIf const* GenericIf::type(std::string_view name) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.records.find(name);
  return it == r.records.end() ? nullptr : it->second.get();
}

std::vector<std::string> GenericIf::typeNames() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  std::vector<std::string> names;
  for (auto const& entry : r.records) names.push_back(entry.first);
  return names;
}

GenericIf const& GenericIf::typeIs(std::unique_ptr<GenericIf> record) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto [it, inserted] = r.records.try_emplace(record->name(), nullptr);
  ZEL_CHECK(inserted, "two classes registered the type name " << record->name());
  it->second = std::move(record);
  return *it->second;
}

std::size_t GenericIf::attributeIndex(std::string_view name) const {
  for (std::size_t i = 0; i < attributes_.size(); ++i) {
    if (attributes_[i].name == name) return i;
  }
  throw RangeException("Unknown attribute " + name_ + "::" + std::string(name));
}

GenericIf::Attribute const& GenericIf::attribute(std::string_view name) const {
  return attributes_[attributeIndex(name)];
}

void GenericIf::unsupported(std::string_view operation, std::string_view attribute) const {
  throw OperationNotSupportedException(std::string(operation) + " not supported for " + name_ +
                                       "::" + std::string(attribute));
}

void GenericIf::unsupported(std::string_view operation) const {
  throw OperationNotSupportedException(std::string(operation) + " not supported for " + name_);
}

void const* GenericIf::object(PtrInterface const& object) const {
  GenericIf const* actual = object.fwkType();
  if (actual != this) {
    throw RangeException("Object of type " + (actual ? actual->name() : std::string("unknown")) +
                         " is not a " + name_);
  }
  return &object;
}

String GenericIf::attributeValue(PtrInterface const& o, std::string_view name) const {
  return operation(attribute(name).read, "Read", name)(object(o));
}

void GenericIf::attributeValueIs(PtrInterface& o, std::string_view name, String const& text) const {
  operation(attribute(name).write, "Write", name)(const_cast<void*>(object(o)), text);
}

void GenericIf::attributeDel(PtrInterface& o, std::string_view name) const {
  operation(attribute(name).erase, "Delete", name)(const_cast<void*>(object(o)));
}

bool GenericIf::attributeHolds(PtrInterface const& o, std::string_view name,
                               String const& text) const {
  return operation(attribute(name).holds, "Comparison", name)(object(o), text);
}

GenericIf::Entries GenericIf::attributeEntries(PtrInterface const& o, std::string_view name) const {
  return operation(attribute(name).entries, "Iteration", name)(object(o));
}

String GenericIf::attributeEntry(PtrInterface const& o, std::string_view name,
                                 String const& key) const {
  return operation(attribute(name).entry, "Entry read", name)(object(o), key);
}

void GenericIf::attributeEntryIs(PtrInterface& o, std::string_view name, String const& key,
                                 String const& text) const {
  operation(attribute(name).entryIs, "Entry write", name)(const_cast<void*>(object(o)), key, text);
}

void GenericIf::attributeEntryDel(PtrInterface& o, std::string_view name, String const& key) const {
  operation(attribute(name).entryDel, "Entry delete", name)(const_cast<void*>(object(o)), key);
}

Ptr<PtrInterface> GenericIf::genericIfFromCtorArgs(std::vector<std::any> const& args) const {
  return typeOperation(construct_, "Construction")(args);
}

String GenericIf::defaultStrep() const {
  return typeOperation(forms_.defaultStrep, "Default value")();
}

String GenericIf::valueStrep(String const& text) const {
  return typeOperation(forms_.strep, "String form")(text);
}

std::string GenericIf::strepRoundTripFault(std::string_view text) const {
  return fault(typeOperation(forms_.strepRoundTripFault, "String form round trip")(text));
}

std::string GenericIf::logRoundTripFault(std::span<U8 const> log) const {
  return fault(typeOperation(forms_.logRoundTripFault, "Attribute log round trip")(log));
}

std::string GenericIf::fault(std::string const& found) const {
  return found.empty() ? found : name_ + " " + found;
}

namespace detail {

std::string logText(std::span<U8 const> log) {
  std::string text = "[";
  for (U8 byte : log) {
    char hex[4];
    std::snprintf(hex, sizeof hex, " %02x", unsigned(byte));
    text += hex;
  }
  return text + " ]";
}

}  // namespace detail

}  // namespace Zel
