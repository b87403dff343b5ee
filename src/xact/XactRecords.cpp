#include <Kiv/XactRecords.h>

#include <Zel/Exception.h>
#include <Zel/GenericIf.h>
#include <Zel/Strep.h>

#include <ostream>

namespace Kiv {
namespace {

[[maybe_unused]] Zel::TypeRegistration<XactConfig, XactStatus, ExecResult, Xact> const registration;

}  // namespace

XactResult XactResultInstance(U32 value) {
  if (value > 2) throw Zel::RangeException("XactResult::value > 2 not allowed");
  return static_cast<XactResult>(value);
}

XactResult XactResultInstance(Zel::String const& name) {
  return Zel::strepToValue<XactResult>(name.view());
}

Zel::String stringValue(XactResult result) { return Zel::valueToStrep(result); }

std::ostream& operator<<(std::ostream& out, XactResult result) {
  return out << Zel::enumName(result);
}

Zel::Ptr<Xact> xactFactory(U32 id) { return Zel::allocate<Xact>(id); }

void Xact::blockingXactIs(Zel::Ptr<Xact const> const& blocking) {
  Zel::refuseNull(blocking, "Kiv::Xact", "blockingXact");
  entryIs(blockingXact_, blocking->id(), blocking, &NotifieeConst::onBlockingXact);
}

}  // namespace Kiv
