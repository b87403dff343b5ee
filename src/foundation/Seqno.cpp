#include <Kiv/Seqno.h>

#include <Zel/GenericIf.h>

namespace Kiv {
namespace {

// Registered at load, so that reflection finds the types by name before first use.
[[maybe_unused]] Zel::GenericIf const& seqno16Type = Zel::registerType<Seqno16>();
[[maybe_unused]] Zel::GenericIf const& seqno32Type = Zel::registerType<Seqno32>();

}  // namespace
}  // namespace Kiv
