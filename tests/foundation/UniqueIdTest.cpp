#include <Kiv/UniqueId.h>

#include <Zel/System.h>

#include <gtest/gtest.h>

#include <unistd.h>

namespace Kiv {
namespace {

// The generator is process-wide, so every test starts at its own second, far from the others'.
class UniqueIdTest : public ::testing::Test {
protected:
  void TearDown() override { Zel::System::virtualTimeDel(); }
};

UniqueId made() {
  UniqueId id;
  id.doInit();
  return id;
}

TEST_F(UniqueIdTest, DefaultIsUnsetUntilInitializedAndANewSecondRestartsCounts) {
  Zel::System::virtualTimeIs(1'000'000'000.75);
  UniqueId id;
  EXPECT_FALSE(id.isSet());
  EXPECT_EQ(id.timestamp(), 0xffffffffu);
  id.doInit();
  ASSERT_TRUE(id.isSet());
  EXPECT_EQ(id.timestamp(), 1'000'000'000u);
  EXPECT_EQ(id.pid(), U16(getpid()));
  EXPECT_EQ(id.count(), 0u);
  UniqueId const first = id;
  id.doInit();
  EXPECT_EQ(id, first);

  // Only pid and count decide whether an id is set.
  UniqueId partly;
  partly.timestampIs(5);
  EXPECT_FALSE(partly.isSet());
  partly.countIs(0);
  partly.doInit();
  EXPECT_EQ(partly.timestamp(), 5u);
  EXPECT_EQ(partly.toStrep(),
            "Value('Kiv::UniqueId', ** {'timestamp': 5, 'pid': 65535, 'count': 0})");

  Zel::System::virtualTimeIs(1'000'000'000.999);
  EXPECT_EQ(made().count(), 1u);
  Zel::System::virtualTimeIs(1'000'000'001);
  UniqueId const next = made();
  EXPECT_EQ(next.timestamp(), 1'000'000'001u);
  EXPECT_EQ(next.count(), 0u);
}

TEST_F(UniqueIdTest, BurstPastOneSecondsCountsWaitsForTheNext) {
  Seconds const start = 1'100'000'000.25;
  Zel::System::virtualTimeIs(start);
  UniqueId previous;
  for (U32 i = 0; i <= 0xffff; ++i) {
    UniqueId const id = made();
    ASSERT_EQ(id.timestamp(), 1'100'000'000u);
    ASSERT_EQ(id.count(), i);
    ASSERT_TRUE(i == 0 || previous < id);
    previous = id;
  }
  UniqueId const next = made();
  EXPECT_EQ(next.timestamp(), 1'100'000'001u);
  EXPECT_EQ(next.count(), 0u);
  EXPECT_TRUE(previous < next);
  EXPECT_EQ(Zel::System::currentTime(), start + 1);
  EXPECT_EQ(made().count(), 1u);
}

}  // namespace
}  // namespace Kiv
