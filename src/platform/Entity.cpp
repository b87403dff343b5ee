#include <Zel/Entity.h>

namespace Zel {

void nullMutatorParameter(char const* typeName, char const* attribute) {
  throw RangeException(std::string("null _") + attribute + " parameter to mutator for " + typeName +
                       "::" + attribute + " not allowed\"");
}

void Notifier::handleZeroRef() const noexcept {
  if (notifiees_.visiting()) {
    zeroRefDuringVisit_ = true;
    return;
  }
  PtrInterface::handleZeroRef();
}

// A reference taken again during the visit cancels the deferred destruction; the object is then
// destroyed normally when that reference goes.
void Notifier::endVisit() const noexcept {
  if (!zeroRefDuringVisit_ || notifiees_.visiting()) return;
  zeroRefDuringVisit_ = false;
  if (references() == 0) PtrInterface::handleZeroRef();
}

}  // namespace Zel
