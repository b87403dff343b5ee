#include <Kiv/UniqueId.h>

#include <Zel/GenericIf.h>
#include <Zel/System.h>
#include <Zel/Trace.h>

#include <unistd.h>

namespace Kiv {
namespace {

[[maybe_unused]] Zel::GenericIf const& uniqueIdType = Zel::registerType<UniqueId>();

constexpr auto trace = Zel::traceHandle<"UniqueId">;

constexpr U16 maxCount = 0xffff;

// The generator's state: the second of the last id made and the count used in it.
U32 lastTimestamp = 0;
U16 lastCount = 0;

U32 currentSecond() { return static_cast<U32>(static_cast<S64>(Zel::System::currentTime())); }

}  // namespace

void UniqueId::doInit() {
  if (isSet()) return;
  U32 now = currentSecond();
  if (now == lastTimestamp) {
    if (lastCount < maxCount) {
      ++lastCount;
    } else {
      if (auto t = Zel::TraceHelper(trace(), 1)) {
        t << "UniqueId: all counts of second " << now << " used, waiting for the next";
      }
      while (now == lastTimestamp) {
        Zel::System::sleep(1);
        now = currentSecond();
      }
    }
  }
  if (now != lastTimestamp) lastCount = 0;
  timestamp_ = now;
  pid_ = static_cast<U16>(getpid());
  count_ = lastCount;
  lastTimestamp = now;
}

Zel::String UniqueId::toStrep() const { return Zel::valueToStrep(*this); }

}  // namespace Kiv
