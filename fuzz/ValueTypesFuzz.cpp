// Every value type registered with the runtime, present and future, without a target of its own.
// The first input byte picks a type by its index in the sorted list of value-type names (modulo
// the list's length); the rest is given to that type's string parser and, separately, to its
// attribute-log reader, as the bytes another process sends. Either may refuse with
// Zel::RangeException; a value that parses or reads must print, parse and log back to itself, as
// GenericIf::strepRoundTripFault and logRoundTripFault check, and a broken promise aborts with
// their description. A type whose record offers no round trip (one written by hand) is skipped.
//
// The rest of the input is copied into a buffer of exactly its size, so that AddressSanitizer
// reports any read past its end. A seed is named after the type it was written for and starts
// with that type's index at the time; types added later shift some seeds to a neighbour, where
// they are still valid input.
#include <Zel/Exception.h>
#include <Zel/GenericIf.h>
#include <Zel/Types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace {

std::vector<Zel::GenericIf const*> valueTypes() {
  std::vector<Zel::GenericIf const*> types;
  for (std::string const& name : Zel::GenericIf::typeNames()) {
    Zel::GenericIf const* type = Zel::GenericIf::type(name);
    if (type->isValueType()) types.push_back(type);
  }
  return types;
}

void check(std::function<std::string()> const& roundTrip) {
  std::string fault;
  try {
    fault = roundTrip();
  } catch (Zel::RangeException const&) {
  } catch (Zel::OperationNotSupportedException const&) {
  }
  if (fault.empty()) return;
  std::fprintf(stderr, "%s\n", fault.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static std::vector<Zel::GenericIf const*> const types = valueTypes();
  if (size == 0 || types.empty()) return 0;
  Zel::GenericIf const& type = *types[data[0] % types.size()];
  std::size_t const length = size - 1;
  auto const exact = std::make_unique<Zel::U8[]>(length);
  if (length != 0) std::memcpy(exact.get(), data + 1, length);
  std::string_view const text(reinterpret_cast<char const*>(exact.get()), length);
  check([&] { return type.strepRoundTripFault(text); });
  check([&] { return type.logRoundTripFault(std::span<Zel::U8 const>(exact.get(), length)); });
  return 0;
}
