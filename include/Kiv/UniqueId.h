// A process-unique identifier: the second it was made (U32 seconds since the epoch), the low 16
// bits of the process id and a count within that second.
//
// A default id is unset (every bit set); doInit() gives it a value. The generator is process-wide
// and unlocked, so ids are made on one thread. It hands out counts 0 to 65535 within a second;
// the 65537th request in one second sleeps (Zel::System::sleep, so virtual time just advances)
// until the next second and starts again at count 0. If time moves backwards, counts restart
// and an earlier id may repeat. A process whose id ends in 0xffff makes, as its count 65535 of
// a second, an id that reads as unset.
//
// Order: timestamp, then pid, then count, each unsigned. String form:
// "Value('Kiv::UniqueId', ** {'timestamp': <n>, 'pid': <n>, 'count': <n>})"; the attribute log
// holds U32, U16, U16.
#pragma once

#include <Zel/String.h>
#include <Zel/Value.h>

#include <tuple>

namespace Kiv {

class UniqueId : public Zel::Value<UniqueId> {
public:
  constexpr U32 timestamp() const noexcept { return timestamp_; }
  constexpr void timestampIs(U32 v) noexcept { timestamp_ = v; }
  constexpr U16 pid() const noexcept { return pid_; }
  constexpr void pidIs(U16 v) noexcept { pid_ = v; }
  constexpr U16 count() const noexcept { return count_; }
  constexpr void countIs(U16 v) noexcept { count_ = v; }

  // Unset exactly when pid and count are both 0xffff, whatever the timestamp.
  constexpr bool isSet() const noexcept { return pid_ != 0xffff || count_ != 0xffff; }
  // Gives an unset id the next value of the generator; leaves a set id unchanged.
  void doInit();

  constexpr bool operator<(UniqueId const& other) const noexcept {
    return std::tie(timestamp_, pid_, count_) <
           std::tie(other.timestamp_, other.pid_, other.count_);
  }
  Zel::String toStrep() const;

  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::UniqueId",
                            Zel::field("timestamp", &UniqueId::timestamp, &UniqueId::timestampIs),
                            Zel::field("pid", &UniqueId::pid, &UniqueId::pidIs),
                            Zel::field("count", &UniqueId::count, &UniqueId::countIs));
  }

private:
  U32 timestamp_ = 0xffffffff;
  U16 pid_ = 0xffff;
  U16 count_ = 0xffff;
};

}  // namespace Kiv
