// The mutator contract as entities see it: notify only on change and only after the store, per
// key for collections, and robustly against handlers that change the notifiee list or drop the
// notifier while it is notifying.
#include "Model.h"

namespace Kiv::Test {
namespace {

// Scalar sets and wrapping increments, collection edits, and notification switched off at
// times: a handler runs once per changed value or key, and only while notification is active.
TEST(MutatorContract, RandomMutationsNotifyExactlyOncePerChangeAfterTheStore) {
  std::mt19937 rng(11);
  auto leaf = leafFactory(1, 1, "plain");
  auto tree = treeFactory();
  Events events;
  LeafLog leafLog(events, leaf);
  TreeLog treeLog(events, tree);
  // Few distinct values, so equal writes are common; the extremes make the increments wrap.
  U32 const counts[] = {0, 1, 2, std::numeric_limits<U32>::max()};
  U32 count = 0;
  std::array<std::string, 6> comments;  // of keys "a" to "f"; empty when absent
  bool active = true;
  for (int step = 0; step < 8000; ++step) {
    U32 const c = counts[rng() % 4];
    int const k = rng() % 6;
    std::string const key(1, char('a' + k)), value(1, char('0' + rng() % 3));
    auto const was = std::pair(count, comments);
    events.clear();
    switch (rng() % 6) {
      case 0:
        leaf->countIs(c);
        count = c;
        break;
      case 1:
        leaf->countInc(c);
        count = U32(count + c);
        break;
      case 2:
        tree->commentIs(key, value);
        comments[k] = value;
        break;
      case 3:
        tree->commentDel(key);
        comments[k] = "";
        break;
      case 4:
        if (rng() % 10 != 0) break;
        tree->commentDelAll();
        comments.fill("");
        break;
      case 5:
        active = rng() % 3 != 0;
        leaf->hasNotificationActiveIs(active);
        tree->hasNotificationActiveIs(active);
        break;
    }
    Events expected;
    if (active && count != was.first) expected.push_back("count " + std::to_string(count));
    for (int i = 0; active && i < 6; ++i) {
      if (comments[i] != was.second[i]) {
        expected.push_back("comment " + std::string(1, char('a' + i)) + "=" + comments[i]);
      }
    }
    // A hashed collection deletes in its own order; each key must come exactly once.
    std::ranges::sort(events);
    ASSERT_EQ(events, expected) << "step " << step;
    // The notification flag shares the word with the reference count.
    ASSERT_EQ(std::tuple(leaf->count(), tree->comments(), leaf->hasNotificationActive(),
                         leaf->references()),
              std::tuple(count, 6 - std::size_t(std::ranges::count(comments, "")), active, 2u));
  }
}

// Notifiees that join during a visit wait for the next one; those that leave or are destroyed
// are skipped; a nested visit of the same list sees the newest value, and so does the outer one.
TEST(Notification, HandlersMayChangeTheNotifieeListOrDropTheNotifierDuringAVisit) {
  auto leaf = leafFactory(1, 1, "plain");
  Events events;
  LeafLog a(events, leaf, "a:"), b(events, leaf, "b:"), c(events, leaf, "c:");
  LeafLog d(events, nullptr, "d:");
  auto e = std::make_unique<LeafLog>(events, leaf, "e:");
  a.action = [&] {
    a.notifierIs(nullptr);
    c.notifierIs(nullptr);
    d.notifierIs(leaf);
    e.reset();
  };
  leaf->countIs(1);
  EXPECT_EQ(events, (Events{"a:count 1", "b:count 1"}));
  events.clear();
  b.action = [&] { leaf->countInc(1); };
  leaf->countInc(1);
  EXPECT_EQ(events, (Events{"b:count 2", "b:count 3", "d:count 3", "d:count 3"}));
  EXPECT_EQ(leaf->zelNotifiees().size(), 2u);

  // A handler may also drop the last outside reference to its notifier, which lives on to the
  // end of the visit: for an entry, a child, and the emptying of a collection.
  auto& trees = Zel::AllocTrackTypeInfo::of<Tree>();
  U64 const live = trees.live();
  Zel::Ptr<Leaf> child;
  std::function<void(Tree&)> const edits[] = {[](Tree& t) { t.commentIs("k", "v"); },
                                              [&](Tree& t) { child = t.leafIs(4, 1, "plain"); },
                                              [](Tree& t) { t.commentDelAll(); }};
  for (auto const& edit : edits) {
    auto tree = treeFactory();
    tree->commentIs("a", "1");
    tree->commentIs("b", "2");
    events.clear();
    TreeLog log(events, tree);
    U64 liveAfterDrop = 0;
    log.action = [&] {
      log.notifierIs(nullptr);
      tree = nullptr;
      liveAfterDrop = trees.live();
    };
    edit(*tree);
    EXPECT_EQ(std::tuple(events.size(), liveAfterDrop, trees.live()),
              std::tuple(1u, live + 1, live));
  }
  EXPECT_EQ(child->references(), 1u);  // the parent and its collection are gone
}

// Instantiating a child again with equal parameters returns it; different ones are refused
// naming the first difference, as is a null pointer, before anything is stored or notified.
TEST(ChildInstantiation, IdempotentWhenEqualRefusedWhenDifferentOrNull) {
  auto& leaves = Zel::AllocTrackTypeInfo::of<Leaf>();
  auto tree = treeFactory();
  Events events;
  TreeLog log(events, tree);
  auto const leaf = tree->leafIs(3, 10, "blue");
  tree->childIs(leaf);
  U64 const live = leaves.live();
  EXPECT_EQ(tree->leafIs(3, 10, "blue"), leaf);
  std::string const reinstantiating =
      "Reinstantiating the pointer interface where constructor parameter attribute ";
  EXPECT_THAT([&] { tree->leafIs(3, 11, "red"); },
              ThrowsMessage<Zel::NameInUseException>(
                  reinstantiating + "_size has a different value of 11 than the current value of "
                                    "10 not allowed"));
  EXPECT_THAT([&] { tree->leafIs(3, 10, "red"); },
              ThrowsMessage<Zel::NameInUseException>(
                  reinstantiating + "_shade has a different value of 'red' than the current "
                                    "value of 'blue' not allowed"));
  EXPECT_THAT([&] { tree->childIs(nullptr); },
              ThrowsMessage<Zel::RangeException>(
                  "null _child parameter to mutator for Kiv::Test::Tree::child not allowed\""));
  EXPECT_EQ(std::tuple(tree->leaf(3), tree->child(), leaf->size(), leaves.live()),
            std::tuple(leaf, leaf, 10u, live));
  tree->leafDel(3);
  tree->leafDel(3);
  EXPECT_EQ(events, (Events{"leaf 3", "child", "leaf 3"}));
  // Held by this test and the child attribute only.
  EXPECT_EQ(std::pair(tree->leaf(3), leaf->references()), std::pair(Zel::Ptr<Leaf>(), 2u));
}

}  // namespace
}  // namespace Kiv::Test
