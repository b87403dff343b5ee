// Ptr lifetimes: counts against a model of who holds what, allocation tracking, constructors
// that throw, and exact counts from several threads under the thread-safe switch.
#include "Model.h"

#include <atomic>
#include <thread>

namespace Kiv::Test {

// Counts its destructions in a counter the test owns; refuses construction when told to.
struct Probe : Zel::PtrInterface {
  Probe(int* destroyed, bool refuse) : destroyed(destroyed) {
    if (refuse) throw std::runtime_error("Probe refused");
  }
  ~Probe() override { ++*destroyed; }
  int* destroyed;
};

namespace {

// Copies, moves, swaps (self ones included), resets, casts and refused allocations: each object
// is destroyed exactly once, exactly when its last holder lets go, and the live count follows.
TEST(Ptr, RandomHandleTrafficMatchesAModelOfHolders) {
  auto& track = Zel::AllocTrackTypeInfo::of<Probe>();
  U64 const live = track.live(), allocations = track.allocations();
  std::mt19937 rng(29);
  std::deque<int> destroyed;       // per object, in order of creation
  std::vector<int> holder(8, -1);  // the model: which object each slot holds
  std::vector<Probe*> raw;
  U64 refused = 0;  // attempts count as allocations, never as live
  {
    std::vector<Zel::Ptr<Probe>> slots(8);
    for (int step = 0; step < 6000; ++step) {
      std::size_t const i = rng() % slots.size(), j = rng() % slots.size();
      switch (rng() % 7) {
        case 0:
          slots[i] = Zel::allocate<Probe>(&destroyed.emplace_back(0), false);
          raw.push_back(slots[i].ptr());
          holder[i] = int(raw.size()) - 1;
          break;
        case 1:
          slots[i] = slots[j];
          holder[i] = holder[j];
          break;
        case 2:
          slots[i] = std::move(slots[j]);
          holder[i] = std::exchange(holder[j], i == j ? holder[j] : -1);
          break;
        case 3:
          slots[i].swap(slots[j]);
          std::swap(holder[i], holder[j]);
          break;
        case 4:
          slots[i] = nullptr;
          holder[i] = -1;
          break;
        case 5:
          slots[j] = Zel::dynamicPtrCast<Probe>(Zel::Ptr<Zel::PtrInterface>(slots[i]));
          holder[j] = holder[i];
          break;
        case 6:
          int never = 0;  // no destructor for an object that was never made
          EXPECT_THROW(slots[i] = Zel::allocate<Probe>(&never, true), std::runtime_error);
          ASSERT_EQ(never, 0);
          ++refused;
          break;
      }
      U64 alive = 0;
      for (std::size_t o = 0; o < raw.size(); ++o) {
        U32 const held = U32(std::ranges::count(holder, int(o)));
        alive += held > 0;
        ASSERT_EQ(destroyed[o], held == 0 ? 1 : 0) << "object " << o << " step " << step;
        ASSERT_TRUE(held == 0 || raw[o]->references() == held) << "object " << o;
      }
      ASSERT_EQ(track.live(), live + alive);
      for (std::size_t s = 0; s < slots.size(); ++s) {
        ASSERT_EQ(slots[s].ptr(), holder[s] < 0 ? nullptr : raw[holder[s]]);
      }
    }
  }
  EXPECT_EQ(std::ranges::count(destroyed, 1), std::ssize(destroyed));
  EXPECT_EQ(std::pair(track.live(), track.allocations()),
            std::pair(live, allocations + raw.size() + refused));
  EXPECT_EQ(track.typeName(), "Kiv::Test::Probe");
  EXPECT_EQ(std::ranges::count(Zel::AllocTrackTypeInfo::all(), &track), 1);
}

// With the switch on, copies and moves on several threads keep the count exact, and the last
// release may happen on another thread.
TEST(Ptr, CountsStayExactAcrossThreadsWithTheSwitchOn) {
  auto& leaves = Zel::AllocTrackTypeInfo::of<Leaf>();
  U64 const live = leaves.live();
  Zel::threadSafePointersIs(true);
  auto shared = leafFactory(1, 1, "shared");
  std::atomic<int> undercounted{0};
  std::vector<std::thread> threads(4);
  for (auto& thread : threads) {
    thread = std::thread([&] {
      for (int i = 0; i < 100000; ++i) {
        Zel::Ptr<Leaf> copy = shared;
        Zel::Ptr<Leaf> moved = std::move(copy);
        if (shared->references() < 2 || moved != shared) ++undercounted;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  // The flag that shares the word with the count survives.
  EXPECT_EQ(std::tuple(undercounted.load(), shared->references(), shared->hasNotificationActive()),
            std::tuple(0, 1u, true));
  std::thread([last = std::move(shared)]() mutable { last = nullptr; }).join();
  EXPECT_EQ(leaves.live(), live);
  Zel::threadSafePointersIs(false);
}

}  // namespace
}  // namespace Kiv::Test
