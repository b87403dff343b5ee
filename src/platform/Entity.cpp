#include <Zel/Entity.h>

namespace Zel {

void nullMutatorParameter(char const* typeName, char const* attribute) {
  throw RangeException(std::string("null _") + attribute + " parameter to mutator for " + typeName +
                       "::" + attribute + " not allowed\"");
}

}  // namespace Zel
