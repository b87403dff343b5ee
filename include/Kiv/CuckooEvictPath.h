// The record of one insert attempt of a cuckoo table: the slot writes of its eviction walk.
//
// Each step of the walk writes one slot of the table's shadow and records it as an EvictCmd: the
// item written and the item it displaced, which the next step must place. An EvictCmdPath stacks
// the steps of one attempt, the latest on top. From a path that ends in a free slot the table
// queues the writer's writes, latest first; from one that fails it restores every slot it touched.
#pragma once

#include <Kiv/CuckooHashItem.h>

#include <Zel/Collections.h>
#include <Zel/Entity.h>
#include <Zel/Types.h>

#include <utility>

namespace Kiv::Cuckoo {

// One slot write of the model: newItem replaced oldItem (null: the slot was free) in location.
class EvictCmd : public Zel::PtrInterface {
public:
  Zel::Ptr<HashItem const> const& oldItem() const noexcept { return oldItem_; }
  Zel::Ptr<HashItem const> const& newItem() const noexcept { return newItem_; }
  CuckooLocation const& location() const noexcept { return location_; }

  static auto zelAttributes();

protected:
  EvictCmd(Zel::Ptr<HashItem const> oldItem, Zel::Ptr<HashItem const> newItem,
           CuckooLocation location) noexcept
      : oldItem_(std::move(oldItem)), newItem_(std::move(newItem)), location_(location) {}

private:
  // The table reuses the commands that nobody holds any more.
  friend class HashTable;

  Zel::Ptr<HashItem const> oldItem_;
  Zel::Ptr<HashItem const> newItem_;
  CuckooLocation location_;
};

Zel::Ptr<EvictCmd> evictCmdFactory(Zel::Ptr<HashItem const> oldItem,
                                   Zel::Ptr<HashItem const> newItem, CuckooLocation location);

// The slot writes of one insert attempt, as a stack: the latest write is on top.
class EvictCmdPath : public Zel::PtrInterface {
public:
  U32 cmdLogs() const noexcept { return U32(cmdLog_.size()); }
  // The latest write, or null.
  Zel::Ptr<EvictCmd> cmdLog() const { return cmdLog_.empty() ? nullptr : cmdLog_.head(); }
  // Pushes a write on top.
  void cmdLogIs(Zel::Ptr<EvictCmd> cmd) { cmdLog_.push(std::move(cmd)); }
  // Pops and returns the latest write, or null when the path is empty.
  Zel::Ptr<EvictCmd> cmdLogDel() { return cmdLog_.empty() ? nullptr : cmdLog_.pop(); }
  void cmdLogDelAll() noexcept { cmdLog_.delAll(); }

  static auto zelAttributes();

protected:
  EvictCmdPath() = default;

private:
  Zel::LinkStack<Zel::Ptr<EvictCmd>> cmdLog_;
};

Zel::Ptr<EvictCmdPath> evictCmdPathFactory();

inline auto EvictCmd::zelAttributes() {
  return Zel::entityAttributes<EvictCmd>(
      "Kiv::Cuckoo::EvictCmd", &evictCmdFactory,
      Zel::ctorParams(Zel::ctorParam("oldItem", &EvictCmd::oldItem),
                      Zel::ctorParam("newItem", &EvictCmd::newItem),
                      Zel::ctorParam("location", &EvictCmd::location)));
}

inline auto EvictCmdPath::zelAttributes() {
  return Zel::entityAttributes<EvictCmdPath>("Kiv::Cuckoo::EvictCmdPath", &evictCmdPathFactory,
                                             Zel::ctorParams(),
                                             Zel::computed("cmdLogs", &EvictCmdPath::cmdLogs));
}

}  // namespace Kiv::Cuckoo
