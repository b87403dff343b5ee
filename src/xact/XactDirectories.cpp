#include <Kiv/XactDirectories.h>

#include <Zel/GenericIf.h>

namespace Kiv {
namespace {

[[maybe_unused]] Zel::TypeRegistration<XactConfigDir, XactStatusDir, XactDir> const registration;

}  // namespace

Zel::Ptr<XactConfigDir> xactConfigDirFactory(Zel::Name const& name) {
  return Zel::allocate<XactConfigDir>(name);
}

Zel::Ptr<XactStatusDir> xactStatusDirFactory(Zel::Name const& name) {
  return Zel::allocate<XactStatusDir>(name);
}

Zel::Ptr<XactDir> xactDirFactory(Zel::Name const& name) { return Zel::allocate<XactDir>(name); }

}  // namespace Kiv
