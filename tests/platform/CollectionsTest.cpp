// The runtime's collections against the standard containers they promise to behave like, and
// the interning and ordering of names.
#include "Model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace Kiv::Test {
namespace {

template <class A, class B>
bool sameSequence(A const& a, B const& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](auto const& x, auto const& y) {
    return x.first == y.first && x.second == y.second;
  });
}

TEST(Collections, RandomOperationsMatchStandardContainers) {
  std::mt19937 rng(17);
  Zel::RbTreeMap<U32, U32> ordered;
  std::map<U32, U32> orderedModel;
  Zel::HashMap2018<Zel::Name, U32> hashed;
  std::map<std::string, U32> hashedModel;
  Zel::DynArray<U32, U16> array;
  std::vector<U32> arrayModel;
  Zel::LinkQueue<U32> queue;
  std::deque<U32> queueModel;
  Zel::LinkStack<U32> stack;
  std::vector<U32> stackModel;

  auto checkMaps = [&] {
    ASSERT_TRUE(sameSequence(ordered, orderedModel));
    std::map<std::string, U32> hashedSeen;
    for (auto const& [k, v] : hashed) hashedSeen.emplace(k.str(), v);
    ASSERT_EQ(hashedSeen, hashedModel);
    ASSERT_EQ(hashed.size(), hashedModel.size());
    ASSERT_TRUE(std::equal(array.begin(), array.end(), arrayModel.begin(), arrayModel.end()));
    ASSERT_TRUE(std::equal(queue.begin(), queue.end(), queueModel.begin(), queueModel.end()));
  };

  for (int step = 0; step < 30000; ++step) {
    U32 const key = rng() % 48;
    U32 const value = rng() % 3;
    Zel::Name const name(std::to_string(key));
    switch (rng() % 9) {
      case 0: {
        auto [it, inserted] = orderedModel.try_emplace(key, value);
        ASSERT_EQ(ordered.valueIs(key, value), inserted || it->second != value);
        it->second = value;
        auto [hit, hinserted] = hashedModel.try_emplace(name.str(), value);
        ASSERT_EQ(hashed.valueIs(name, value), hinserted || hit->second != value);
        hit->second = value;
        break;
      }
      case 1:
        ASSERT_EQ(ordered.del(key), orderedModel.erase(key) == 1);
        ASSERT_EQ(hashed.del(name), hashedModel.erase(name.str()) == 1);
        break;
      case 2: {
        if (rng() % 40 != 0) break;
        std::vector<U32> keys;
        for (auto const& entry : orderedModel) keys.push_back(entry.first);
        ASSERT_EQ(ordered.delAll(), keys);
        orderedModel.clear();
        std::vector<std::string> hashedKeys;
        for (Zel::Name const& n : hashed.delAll()) hashedKeys.push_back(n.str());
        std::sort(hashedKeys.begin(), hashedKeys.end());
        std::vector<std::string> expectedKeys;
        for (auto const& entry : hashedModel) expectedKeys.push_back(entry.first);
        ASSERT_EQ(hashedKeys, expectedKeys);
        hashedModel.clear();
        break;
      }
      case 3: {
        U16 const index = U16(rng() % 96);
        bool const changed = index >= arrayModel.size() || arrayModel[index] != value;
        if (index >= arrayModel.size()) arrayModel.resize(index + 1);
        arrayModel[index] = value;
        ASSERT_EQ(array.valueIs(index, value), changed);
        break;
      }
      case 4: queue.push(step); queueModel.push_back(step); break;
      case 5:
        if (queueModel.empty()) break;
        ASSERT_EQ(queue.pop(), queueModel.front());
        queueModel.pop_front();
        break;
      case 6: stack.push(step); stackModel.push_back(step); break;
      case 7:
        if (stackModel.empty()) break;
        ASSERT_EQ(stack.pop(), stackModel.back());
        stackModel.pop_back();
        break;
      case 8:
        if (rng() % 100 == 0) {
          array.delAll();
          arrayModel.clear();
        }
        break;
    }
    // Lookups of absent entries, and reads past the end of the array, give the default.
    auto const found = orderedModel.find(key);
    ASSERT_EQ(ordered.value(key), found == orderedModel.end() ? 0 : found->second);
    ASSERT_EQ(ordered.has(key), found != orderedModel.end());
    auto const hfound = hashedModel.find(name.str());
    ASSERT_EQ(hashed.value(name), hfound == hashedModel.end() ? 0 : hfound->second);
    U16 const probe = U16(rng() % 128);
    ASSERT_EQ(array.value(probe), probe < arrayModel.size() ? arrayModel[probe] : 0);
    ASSERT_EQ(array.size(), arrayModel.size());
    ASSERT_EQ(queue.size(), queueModel.size());
    ASSERT_EQ(stack.size(), stackModel.size());
    if (!queueModel.empty()) {
      ASSERT_EQ(queue.head(), queueModel.front());
    }
    if (!stackModel.empty()) {
      ASSERT_EQ(stack.head(), stackModel.back());
    }
    if (step % 500 == 0) checkMaps();
  }
  checkMaps();
}

TEST(Names, EqualTextSharesIdentityAndOrderIsByText) {
  std::mt19937 rng(23);
  std::vector<std::string> texts{""};
  for (int i = 0; i < 200; ++i) {
    std::string text(rng() % 4, 'a');
    for (char& c : text) c = "ab\0\xe9"[rng() % 4];
    texts.push_back(text);
  }
  std::vector<Zel::Name> names(texts.begin(), texts.end());
  Zel::RbTreeMap<Zel::Name, int> byName;
  for (std::size_t i = 0; i < names.size(); ++i) {
    byName.valueIs(names[i], 0);
    for (std::size_t j = 0; j < names.size(); ++j) {
      bool const same = texts[i] == texts[j];
      ASSERT_EQ(names[i] == names[j], same);
      ASSERT_EQ(&names[i].str() == &names[j].str(), same);  // one interned entry per text
      ASSERT_EQ(names[i] <=> names[j], texts[i] <=> texts[j]);
      if (same) {
        ASSERT_EQ(names[i].hash(), names[j].hash());
      }
    }
  }
  std::set<std::string> const sorted(texts.begin(), texts.end());
  std::vector<std::string> listed;
  for (auto const& entry : byName) listed.push_back(entry.first.str());
  EXPECT_EQ(listed, std::vector<std::string>(sorted.begin(), sorted.end()));
  EXPECT_EQ(Zel::Name(), Zel::Name(""));
  EXPECT_EQ(Zel::Name(Zel::String("ab")), Zel::Name(std::string("ab")));
}

TEST(Strings, CopiesShareOneBufferAndKeepEmbeddedNulBytes) {
  Zel::String const text(std::string("a\0b", 3));
  Zel::String const copy = text;
  EXPECT_EQ(copy.begin(), text.begin());
  EXPECT_EQ(text.size(), 3u);
  EXPECT_NE(text, Zel::String("a"));
  EXPECT_EQ(text.substr(1), Zel::String(std::string("\0b", 2)));
  EXPECT_EQ(text + "c", Zel::String(std::string("a\0bc", 4)));
  EXPECT_EQ(Zel::String().c_str(), std::string_view(""));
  EXPECT_LT(Zel::String("a"), Zel::String("\xe9"));  // bytes compare unsigned
}

}  // namespace
}  // namespace Kiv::Test
