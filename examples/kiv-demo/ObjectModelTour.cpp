// The object-model tour: a toy linecard model, declared once, and what the runtime derives from
// that declaration (notification on change, child re-instantiation checks, string and log forms,
// reflection by name).
#include "Tour.h"

#include <Zel/Collections.h>
#include <Zel/Entity.h>
#include <Zel/GenericIf.h>
#include <Zel/Value.h>

#include <array>
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

namespace KivDemo {
namespace {

using Zel::U16;
using Zel::U32;
using Zel::U64;
using Zel::U8;

// An 802.1Q tag. The mutators check the ranges, so a parsed or logged tag is checked too.
class VlanTag : public Zel::Value<VlanTag> {
public:
  U16 vlan() const { return vlan_; }
  void vlanIs(U16 v) {
    if (v < 1 || v > 4094) throw Zel::RangeException("VlanTag::vlan must be 1 to 4094");
    vlan_ = v;
  }
  U8 priority() const { return priority_; }
  void priorityIs(U8 p) {
    if (p > 7) throw Zel::RangeException("VlanTag::priority must be 0 to 7");
    priority_ = p;
  }

  static constexpr auto zelFields() {
    return Zel::valueFields("KivDemo::VlanTag",
                            Zel::field("vlan", &VlanTag::vlan, &VlanTag::vlanIs),
                            Zel::field("priority", &VlanTag::priority, &VlanTag::priorityIs));
  }

private:
  U16 vlan_ = 1;
  U8 priority_ = 0;
};

class Port;
Zel::Ptr<Port> portFactory(Zel::Name name, U8 lanes);

// A front-panel port: its speed in Mb/s, the tag of untagged traffic, named counters.
class Port : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<Port> {
  public:
    virtual void onSpeed() {}
    virtual void onNativeVlan() {}
    virtual void onCounter(Zel::Name) {}
  };

  Zel::Name name() const { return name_; }
  U8 lanes() const { return lanes_; }
  U32 speed() const { return speed_; }
  void speedIs(U32 mbps) { attributeIs(speed_, mbps, &NotifieeConst::onSpeed); }
  VlanTag nativeVlan() const { return nativeVlan_; }
  void nativeVlanIs(VlanTag const& tag) {
    attributeIs(nativeVlan_, tag, &NotifieeConst::onNativeVlan);
  }
  U64 counter(Zel::Name const& name) const { return counter_.value(name); }
  void counterIs(Zel::Name const& name, U64 v) {
    entryIs(counter_, name, v, &NotifieeConst::onCounter);
  }
  void counterDel(Zel::Name const& name) { entryDel(counter_, name, &NotifieeConst::onCounter); }
  void counterDelAll() { entryDelAll(counter_, &NotifieeConst::onCounter); }
  U32 laneSpeed() const { return speed_ / lanes_; }

  static auto zelAttributes() {
    return Zel::entityAttributes<Port>(
        "KivDemo::Port", &portFactory,
        Zel::ctorParams(Zel::ctorParam("name", &Port::name), Zel::ctorParam("lanes", &Port::lanes)),
        Zel::scalar("speed", &Port::speed, &Port::speedIs),
        Zel::scalar("nativeVlan", &Port::nativeVlan, &Port::nativeVlanIs),
        Zel::collection("counter", &Port::counter_, &Port::counterIs, &Port::counterDel,
                        &Port::counterDelAll),
        Zel::computed("laneSpeed", &Port::laneSpeed));
  }

protected:
  Port(Zel::Name name, U8 lanes) : name_(name), lanes_(lanes) {}

private:
  Zel::Name name_;
  U8 lanes_;
  U32 speed_ = 0;
  VlanTag nativeVlan_;
  Zel::RbTreeMap<Zel::Name, U64> counter_;
};

Zel::Ptr<Port> portFactory(Zel::Name name, U8 lanes) { return Zel::allocate<Port>(name, lanes); }

class Linecard;
Zel::Ptr<Linecard> linecardFactory(U8 slot);

class Linecard : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<Linecard> {
  public:
    virtual void onPort(Zel::Name) {}
  };

  U8 slot() const { return slot_; }
  // The port under `name`, made on first use; asking again with other lanes is refused.
  Zel::Ptr<Port> portIs(Zel::Name const& name, U8 lanes) {
    return instantiateChild(port_, name, &NotifieeConst::onPort, portFactory, name, lanes);
  }

protected:
  explicit Linecard(U8 slot) : slot_(slot) {}

private:
  U8 slot_;
  Zel::RbTreeMap<Zel::Name, Zel::Ptr<Port>> port_;
};

Zel::Ptr<Linecard> linecardFactory(U8 slot) { return Zel::allocate<Linecard>(slot); }

// Reprograms a port's lanes whenever its speed changes.
class PortSm {
public:
  PortSm(Zel::Ptr<Port const> const& port, std::ostream& out) : out_(out) {
    zelSpeed_.notifierIs(port);
  }
  U32 speedChanges() const { return speedChanges_; }

private:
  class ZelSpeed : public Port::NotifieeConst {
  public:
    explicit ZelSpeed(PortSm& owner) : owner_(owner) {}
    void onSpeed() override { owner_.handleSpeed(); }

  private:
    PortSm& owner_;
  };

  void handleSpeed() {
    Port const& port = *zelSpeed_.notifier();
    ++speedChanges_;
    out_ << "PortSm: " << port.name() << " now " << port.speed() << " Mb/s, "
         << unsigned(port.lanes()) << " lanes at " << port.laneSpeed() << " Mb/s\n";
  }

  std::ostream& out_;
  U32 speedChanges_ = 0;
  ZelSpeed zelSpeed_{*this};
};

void notificationOnChange(std::ostream& out, Zel::Ptr<Port> const& port) {
  out << "1. A reactor follows a port's speed; an unchanged value notifies no one.\n";
  PortSm sm(port, out);
  std::array<U32, 3> const writes{100000, 100000, 40000};
  for (U32 mbps : writes) {
    out << "   speedIs(" << mbps << ") -> ";
    U32 const before = sm.speedChanges();
    port->speedIs(mbps);
    if (sm.speedChanges() == before) out << "no notification\n";
  }
  out << "   " << writes.size() << " writes, " << sm.speedChanges() << " notifications\n\n";
}

void childReinstantiation(std::ostream& out, Linecard& card) {
  out << "2. A child is found again by its key; other constructor arguments are refused.\n";
  Zel::Ptr<Port> const first = card.portIs("Ethernet1", 4);
  bool const same = card.portIs("Ethernet1", 4) == first;
  out << "   linecard " << unsigned(card.slot()) << ": portIs('Ethernet1', 4) again returns "
      << (same ? "the same port" : "a new port") << '\n';
  try {
    card.portIs("Ethernet1", 2);
  } catch (Zel::NameInUseException const& e) {
    out << "   linecard " << unsigned(card.slot())
        << ": portIs('Ethernet1', 2) throws NameInUseException\n     " << e.what() << "\n\n";
  }
}

std::string hexBytes(std::vector<U8> const& bytes) {
  std::string text;
  for (U8 byte : bytes) {
    char digits[4];
    std::snprintf(digits, sizeof digits, "%02x ", unsigned(byte));
    text += digits;
  }
  if (!text.empty()) text.pop_back();
  return text;
}

void valueForms(std::ostream& out) {
  out << "3. A value type: string form, parser and attribute log, all from one field list.\n";
  VlanTag tag;
  tag.vlanIs(100);
  tag.priorityIs(5);
  Zel::String const text = Zel::valueToStrep(tag);
  out << "   printed:    " << text << '\n';
  bool const parsedEqual = Zel::strepToValue<VlanTag>(text.view()) == tag;
  out << "   parsed:     " << (parsedEqual ? "equal" : "different") << '\n';

  Zel::NboAttrLog::Out log;
  log << tag;
  out << "   log bytes:  " << hexBytes(log.bytes()) << "  (vlan U16, priority U8, network order)\n";
  VlanTag fromLog;
  Zel::NboAttrLog::In in(log.bytes());
  in >> fromLog;
  out << "   read back:  " << (fromLog == tag ? "equal" : "different") << '\n';

  try {
    Zel::strepToValue<VlanTag>("Value('KivDemo::VlanTag', ** {'vlan': 5000, 'priority': 5})");
  } catch (Zel::RangeException const& e) {
    out << "   vlan 5000:  RangeException: " << e.what() << "\n\n";
  }
}

char const* kindName(Zel::AttributeKind kind) {
  switch (kind) {
    case Zel::AttributeKind::constructorParameter: return "constructor parameter";
    case Zel::AttributeKind::scalar: return "scalar";
    case Zel::AttributeKind::collection: return "collection";
    case Zel::AttributeKind::computed: return "computed";
    case Zel::AttributeKind::field: return "field";
  }
  return "?";
}

// What a generic "show" command prints: every attribute, its kind and its string form.
void showGeneric(std::ostream& out, Zel::GenericIf const& type, Zel::PtrInterface const& object) {
  for (auto const& attribute : type.attributes()) {
    out << "     " << attribute.name << " (" << kindName(attribute.kind) << ") = ";
    if (attribute.kind != Zel::AttributeKind::collection) {
      out << type.attributeValue(object, attribute.name) << '\n';
      continue;
    }
    char const* separator = "";
    out << '{';
    for (auto const& [key, value] : type.attributeEntries(object, attribute.name)) {
      out << separator << key << ": " << value;
      separator = ", ";
    }
    out << "}\n";
  }
}

void reflection(std::ostream& out) {
  out << "4. Reflection: a port made and driven through its type name and string forms.\n";
  Zel::registerType<Port>();
  Zel::GenericIf const& type = *Zel::GenericIf::type("KivDemo::Port");
  Zel::Ptr<Zel::PtrInterface> const object =
      type.genericIfFromCtorArgs({Zel::String("'Ethernet9'"), Zel::String("2")});
  out << "   GenericIf::type(\"KivDemo::Port\") makes Ethernet9 from the strings 'Ethernet9'"
         " and 2;\n   a PortSm watches it\n";
  Zel::Ptr<Port const> const port = Zel::dynamicPtrCast<Port const>(object);
  PortSm sm(port, out);

  out << "   speed <- 50000 -> ";
  type.attributeValueIs(*object, "speed", "50000");
  Zel::String const tag("Value('KivDemo::VlanTag', ** {'vlan': 20, 'priority': 3})");
  out << "   nativeVlan <- " << tag << '\n';
  type.attributeValueIs(*object, "nativeVlan", tag);
  type.attributeEntryIs(*object, "counter", "'inOctets'", "1500");
  type.attributeEntryIs(*object, "counter", "'inErrors'", "0");
  out << "   counter 'inOctets' <- 1500, 'inErrors' <- 0; port->counter(\"inOctets\") is "
      << port->counter("inOctets") << '\n';
  out << "   " << type.name() << ":\n";
  showGeneric(out, type, *object);

  try {
    type.attributeValueIs(*object, "lanes", "4");
  } catch (Zel::OperationNotSupportedException const& e) {
    out << "   lanes <- 4: OperationNotSupportedException: " << e.what() << '\n';
  }
}

void objectModelTour(std::ostream& out) {
  Zel::Ptr<Linecard> const card = linecardFactory(1);
  notificationOnChange(out, card->portIs("Ethernet1", 4));
  childReinstantiation(out, *card);
  valueForms(out);
  reflection(out);
}

TourRegistrar const registrar(10, "object-model",
                              "Zel object model: notification, children, value types, reflection",
                              &objectModelTour);

}  // namespace
}  // namespace KivDemo
