#include <Zel/Assert.h>
#include <Zel/Notifiee.h>

#include <algorithm>

namespace Zel {

void NotifieeList::notifieeIs(Entry* notifiee) {
  ZEL_ASSERT(notifiee != nullptr);
  entries_.push_back(notifiee);
  ++live_;
}

void NotifieeList::notifieeDel(Entry* notifiee) noexcept {
  auto it = std::find(entries_.begin(), entries_.end(), notifiee);
  if (it == entries_.end()) return;
  --live_;
  if (visiting_ != 0) {
    *it = nullptr;
  } else {
    entries_.erase(it);
  }
}

void NotifieeList::compact() noexcept {
  entries_.erase(std::remove(entries_.begin(), entries_.end(), nullptr), entries_.end());
}

}  // namespace Zel
