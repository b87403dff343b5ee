// The runtime's collections against the standard containers they adapt (the hashed map through
// the model's comment collection), and the interning and ordering of names and strings.
#include "Model.h"

namespace Kiv::Test {
namespace {

using namespace std::literals;

// Mutators report whether they changed anything, absent entries and reads past the end give the
// default, delAll returns the keys it removed in order.
TEST(Collections, RandomOperationsMatchStandardContainers) {
  std::mt19937 rng(17);
  Zel::RbTreeMap<U32, U32> map;
  std::map<U32, U32> mapModel;
  Zel::DynArray<U32, U16> array;
  std::vector<U32> arrayModel;
  for (int step = 0; step < 30000; ++step) {
    U32 const key = rng() % 48, value = rng() % 3;
    U16 const index = U16(rng() % 96);
    switch (rng() % 5) {
      case 0:
        ASSERT_EQ(map.valueIs(key, value), !mapModel.contains(key) || mapModel[key] != value);
        mapModel[key] = value;
        break;
      case 1: ASSERT_EQ(map.del(key), mapModel.erase(key) == 1); break;
      case 2: {
        if (rng() % 40 != 0) break;
        std::vector<U32> keys;
        for (auto const& entry : mapModel) keys.push_back(entry.first);
        ASSERT_EQ(map.delAll(), keys);
        mapModel.clear();
        break;
      }
      case 3:
        ASSERT_EQ(array.valueIs(index, value),
                  index >= arrayModel.size() || arrayModel[index] != value);
        arrayModel.resize(std::max<std::size_t>(arrayModel.size(), index + 1));
        arrayModel[index] = value;
        break;
      case 4:
        if (rng() % 100 != 0) break;
        array.delAll();
        arrayModel.clear();
        break;
    }
    ASSERT_EQ(std::pair(map.has(key), map.value(key)),
              std::pair(mapModel.contains(key), mapModel.contains(key) ? mapModel[key] : 0));
    U16 const probe = index + 32;
    ASSERT_EQ(array.value(probe), probe < arrayModel.size() ? arrayModel[probe] : 0);
    ASSERT_EQ(array.size(), arrayModel.size());
    if (step % 500 == 0) {
      ASSERT_TRUE(std::ranges::equal(map, mapModel));
      ASSERT_TRUE(std::ranges::equal(array, arrayModel));
    }
  }
}

// Names with equal text share one interned entry; names and strings order by their bytes,
// unsigned, embedded NUL bytes included; string copies share one buffer.
TEST(NamesAndStrings, InterningAndOrderFollowTheBytes) {
  std::string const sorted[] = {"", "\0"s, "a", "a\0"s, "a\xe9", "b", "\xe9"};
  for (std::size_t i = 0; i < std::size(sorted); ++i) {
    for (std::size_t j = 0; j < std::size(sorted); ++j) {
      Zel::Name const a(sorted[i]), b{Zel::String(sorted[j])};
      ASSERT_EQ(std::pair(&a.str() == &b.str(), a == b), std::pair(i == j, i == j));
      ASSERT_EQ(a <=> b, i <=> j);
      ASSERT_EQ(Zel::String(sorted[i]) <=> Zel::String(sorted[j]), i <=> j);
    }
  }
  Zel::String const text(sorted[3]);
  EXPECT_EQ(Zel::String(text).begin(), text.begin());
  EXPECT_EQ(std::pair(std::string_view(Zel::String().c_str()), Zel::Name()),
            std::pair(""sv, Zel::Name("")));
}

}  // namespace
}  // namespace Kiv::Test
