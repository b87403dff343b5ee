// The mutator contract as entities see it: notify only on change and only after the store, per
// key for collections, and robustly against handlers that change the notifiee list or drop the
// notifier while it is notifying.
#include "Model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace Kiv::Test {
namespace {

using testing::StrictMock;

// Records the value each handler reads, which must already be the new one.
class LeafRecorder : public Leaf::NotifieeConst {
public:
  std::vector<U32> counts;
  std::vector<U8> levels;
  void onCount() override { counts.push_back(notifier()->count()); }
  void onLevel() override { levels.push_back(notifier()->level()); }
};

TEST(MutatorContract, RandomMutationsNotifyExactlyOnChangeAfterTheStore) {
  std::mt19937 rng(11);
  auto leaf = leafFactory(1, 1, "plain");
  LeafRecorder recorder;
  recorder.notifierIs(leaf);
  // Few distinct values, so equal writes are common; the extremes make the increments wrap.
  U32 const counts[] = {0, 1, 2, std::numeric_limits<U32>::max()};
  U8 const levels[] = {0, 1, 254, 255};
  U32 count = 0;
  U8 level = 0;
  std::vector<U32> expectedCounts;
  std::vector<U8> expectedLevels;
  for (int step = 0; step < 4000; ++step) {
    U32 const c = counts[rng() % 4];
    U8 const l = levels[rng() % 4];
    U32 const before = count;
    U8 const levelBefore = level;
    switch (rng() % 4) {
      case 0: leaf->countIs(c); count = c; break;
      case 1: leaf->countInc(c); count = U32(count + c); break;
      case 2: leaf->levelIs(l); level = l; break;
      case 3: leaf->levelInc(l); level = U8(level + l); break;
    }
    if (count != before) expectedCounts.push_back(count);
    if (level != levelBefore) expectedLevels.push_back(level);
    ASSERT_EQ(leaf->count(), count);
    ASSERT_EQ(leaf->level(), level);
  }
  EXPECT_EQ(recorder.counts, expectedCounts);
  EXPECT_EQ(recorder.levels, expectedLevels);
}

TEST(MutatorContract, SilentWhileNotificationIsInactive) {
  auto leaf = leafFactory(1, 1, "plain");
  EXPECT_TRUE(leaf->hasNotificationActive());
  StrictMock<LeafWatch> watch;
  watch.notifierIs(leaf);
  leaf->hasNotificationActiveIs(false);
  leaf->countIs(7);
  EXPECT_EQ(leaf->count(), 7u);
  EXPECT_EQ(leaf->references(), 2u);  // the flag shares the word with the count
  leaf->hasNotificationActiveIs(true);
  EXPECT_CALL(watch, onCount());
  leaf->countInc(1);
}

// Records (key, value the handler sees) for each comment notification.
class CommentRecorder : public Tree::NotifieeConst {
public:
  std::vector<std::pair<std::string, std::string>> events;
  void onComment(Zel::String const& key) override {
    events.emplace_back(key.str(), notifier()->comment(key).str());
  }
};

TEST(CollectionNotifications, RandomEditsNotifyOncePerChangedKey) {
  std::mt19937 rng(5);
  auto tree = treeFactory("random");
  CommentRecorder recorder;
  recorder.notifierIs(tree);
  std::map<std::string, std::string> model;
  for (int step = 0; step < 4000; ++step) {
    std::string const key(1, char('a' + rng() % 6));
    std::string const value(1, char('0' + rng() % 3));
    std::vector<std::pair<std::string, std::string>> expected;
    recorder.events.clear();
    U32 const op = rng() % 20;
    if (op < 11) {
      tree->commentIs(key, value);
      auto [it, inserted] = model.try_emplace(key, value);
      if (inserted || it->second != value) expected.emplace_back(key, value);
      it->second = value;
    } else if (op < 19) {
      tree->commentDel(key);
      if (model.erase(key) != 0) expected.emplace_back(key, "");
    } else {
      tree->commentDelAll();
      for (auto const& entry : model) expected.emplace_back(entry.first, "");
      model.clear();
      // A hashed collection deletes in its own order; each key must come exactly once.
      std::sort(recorder.events.begin(), recorder.events.end());
    }
    ASSERT_EQ(recorder.events, expected) << "step " << step;
    ASSERT_EQ(tree->comments(), model.size());
  }
}

// Runs a one-shot action from inside its handler and logs every call.
class Actor : public Leaf::NotifieeConst {
public:
  Actor(std::string name, std::vector<std::string>* log) : name_(std::move(name)), log_(log) {}
  std::function<void()> action;
  void onCount() override {
    log_->push_back(name_);
    if (auto act = std::exchange(action, nullptr)) act();
  }

private:
  std::string name_;
  std::vector<std::string>* log_;
};

TEST(Notification, HandlersMayChangeTheNotifieeListDuringAVisit) {
  auto leaf = leafFactory(1, 1, "plain");
  std::vector<std::string> log;
  Actor a("a", &log), b("b", &log), c("c", &log), d("d", &log);
  auto e = std::make_unique<Actor>("e", &log);
  for (Actor* n : {&a, &b, &c, e.get()}) n->notifierIs(leaf);
  a.action = [&] {
    a.notifierIs(nullptr);
    c.notifierIs(nullptr);
    d.notifierIs(leaf);
    e.reset();
  };
  leaf->countIs(1);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b"}));  // d joined too late for this visit
  EXPECT_FALSE(a.isRegisteredNotifiee());
  EXPECT_TRUE(d.isRegisteredNotifiee());

  log.clear();
  b.action = [&] { leaf->countInc(1); };  // a nested visit of the same list
  leaf->countInc(1);
  EXPECT_EQ(log, (std::vector<std::string>{"b", "b", "d", "d"}));
  EXPECT_EQ(leaf->count(), 3u);
  EXPECT_EQ(leaf->zelNotifiees().size(), 2u);
}

// Unregisters and drops the test's handle from inside the handler: the notifier's only
// reference left is the one it holds on itself for the visit.
class Dropper : public Tree::NotifieeConst {
public:
  explicit Dropper(Zel::Ptr<Tree>* outside) : outside_(outside) {}
  int calls = 0;
  U64 liveAfterDrop = 0;
  void onComment(Zel::String const&) override { drop(); }
  void onLeaf(U32) override { drop(); }

private:
  void drop() {
    ++calls;
    notifierIs(nullptr);
    *outside_ = nullptr;
    liveAfterDrop = Zel::AllocTrackTypeInfo::of<Tree>().live();
  }
  Zel::Ptr<Tree>* outside_;
};

TEST(Notification, HandlerMayDropTheLastReferenceToItsNotifier) {
  auto& trees = Zel::AllocTrackTypeInfo::of<Tree>();
  U64 const live = trees.live();

  auto tree = treeFactory("dropped");
  Dropper byEntry(&tree);
  byEntry.notifierIs(tree);
  tree->commentIs("k", "v");
  EXPECT_EQ(byEntry.calls, 1);
  EXPECT_EQ(byEntry.liveAfterDrop, live + 1);  // still there for the rest of the visit
  EXPECT_EQ(trees.live(), live);

  tree = treeFactory("dropped");
  Dropper byChild(&tree);
  byChild.notifierIs(tree);
  Zel::Ptr<Leaf> const leaf = tree->leafIs(4, 1, "plain");
  EXPECT_EQ(byChild.calls, 1);
  EXPECT_EQ(byChild.liveAfterDrop, live + 1);
  EXPECT_EQ(trees.live(), live);
  EXPECT_EQ(leaf->references(), 1u);  // the parent and its collection are gone

  // Emptying a collection reports every key, even after the first report dropped the notifier.
  tree = treeFactory("dropped");
  tree->commentIs("a", "1");
  tree->commentIs("b", "2");
  Dropper byDelAll(&tree);
  byDelAll.notifierIs(tree);
  Tree* const raw = tree.ptr();
  raw->commentDelAll();
  EXPECT_EQ(byDelAll.calls, 1);
  EXPECT_EQ(trees.live(), live);
}

TEST(ChildInstantiation, IdempotentWhenEqualRefusedWhenDifferent) {
  auto& leaves = Zel::AllocTrackTypeInfo::of<Leaf>();
  auto tree = treeFactory("parent");
  StrictMock<TreeWatch> watch;
  watch.notifierIs(tree);
  EXPECT_CALL(watch, onLeaf(3u));
  auto const leaf = tree->leafIs(3, 10, "blue");
  U64 const live = leaves.live();
  EXPECT_EQ(tree->leafIs(3, 10, "blue"), leaf);

  EXPECT_EQ(thrownMessage<Zel::NameInUseException>([&] { tree->leafIs(3, 11, "red"); }),
            "Reinstantiating the pointer interface where constructor parameter attribute _size "
            "has a different value of 11 than the current value of 10 not allowed");
  EXPECT_EQ(thrownMessage<Zel::NameInUseException>([&] { tree->leafIs(3, 10, "red"); }),
            "Reinstantiating the pointer interface where constructor parameter attribute _shade "
            "has a different value of 'red' than the current value of 'blue' not allowed");
  EXPECT_EQ(tree->leaf(3), leaf);
  EXPECT_EQ(leaf->size(), 10u);
  EXPECT_EQ(leaves.live(), live);

  EXPECT_CALL(watch, onLeaf(3u));
  tree->leafDel(3);
  tree->leafDel(3);
  EXPECT_EQ(tree->leaf(3), nullptr);
  EXPECT_EQ(leaf->references(), 1u);
}

TEST(NullRefusal, ThrowsBeforeAnythingIsStored) {
  auto tree = treeFactory("parent");
  auto const leaf = leafFactory(1, 1, "plain");
  StrictMock<TreeWatch> watch;
  watch.notifierIs(tree);
  EXPECT_CALL(watch, onChild());
  tree->childIs(leaf);
  EXPECT_EQ(thrownMessage<Zel::RangeException>([&] { tree->childIs(nullptr); }),
            "null _child parameter to mutator for Kiv::Test::Tree::child not allowed\"");
  EXPECT_EQ(tree->child(), leaf);
}

}  // namespace
}  // namespace Kiv::Test
