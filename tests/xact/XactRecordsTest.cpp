// The transaction records and directories: forms, notification on change, refusals, reflection,
// and the assertions that guard misuse.
#include "XactRig.h"

#include <Zel/GenericIf.h>
#include <Zel/NboAttrLog.h>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace XactTest {
namespace {

std::string rangeMessage(std::function<void()> const& f) {
  try {
    f();
  } catch (Zel::RangeException const& e) {
    return e.what();
  }
  return "nothing thrown";
}

TEST(XactRecords, FormsAndEmptiness) {
  for (XactResult r : {inProgress, success, failure}) {
    EXPECT_EQ(Kiv::XactResultInstance(Kiv::stringValue(r)), r);
    EXPECT_EQ(Kiv::XactResultInstance(static_cast<U32>(r)), r);
  }
  EXPECT_EQ(Kiv::stringValue(failure), "xactFailure");
  EXPECT_EQ(rangeMessage([] { Kiv::XactResultInstance(3); }), "XactResult::value > 2 not allowed");
  EXPECT_THROW(Kiv::XactResultInstance(Zel::String("xactSuccessful")), Zel::RangeException);

  XactStatus const status(7, failure, "it's gone", 3);
  Zel::String const text = Zel::valueToStrep(status);
  EXPECT_EQ(text, "Value('Kiv::XactStatus', ** {'id': 7, 'result': xactFailure, "
                  "'comment': 'it\\'s gone', 'statusVersion': 3})");
  EXPECT_EQ(Zel::strepToValue<XactStatus>(text.view()), status);
  Zel::NboAttrLog::Out log;
  log << status;
  XactStatus read;
  Zel::NboAttrLog::In in(log.bytes());
  in >> read;
  EXPECT_EQ(read, status);

  EXPECT_TRUE(!XactStatus());
  for (XactStatus const& s : {XactStatus(1, inProgress, "", 0), XactStatus(0, success, "", 0),
                             XactStatus(0, inProgress, "x", 0), XactStatus(0, inProgress, "", 1)}) {
    EXPECT_FALSE(!s) << s;
  }
  EXPECT_TRUE(!ExecResult());
  EXPECT_FALSE(!ExecResult(inProgress, "x"));
}

class ConfigWatch : public Kiv::XactConfigDir::NotifieeConst {
public:
  explicit ConfigWatch(Ptr<Kiv::XactConfigDir const> const& dir) { notifierIs(dir); }
  void onXactConfig(U32 id) override { seen.push_back(id); }
  std::vector<U32> seen;
};

TEST(XactRecords, DirectoriesNotifyOnlyOnChange) {
  auto const dir = Kiv::xactConfigDirFactory("w1");
  ConfigWatch watch(dir);
  dir->xactConfigIs(XactConfig(5, 1));
  dir->xactConfigIs(XactConfig(5, 1));
  dir->xactConfigIs(XactConfig(5, 2));
  dir->xactConfigIs(XactConfig(2, 1));
  dir->xactConfigDel(9);
  dir->xactConfigDelAll();
  EXPECT_EQ(watch.seen, (std::vector<U32>{5, 5, 2, 2, 5})) << "removal in id order";
  EXPECT_EQ(dir->xactConfig(5), XactConfig());
}

TEST(XactRecords, NullsAndOutOfRangeSettingsAreRefused) {
  EXPECT_EQ(rangeMessage([] { Kiv::xactFactory(1)->blockingXactIs(nullptr); }),
            "null _blockingXact parameter to mutator for Kiv::Xact::blockingXact not allowed\"");
  auto const aggregator = Kiv::xactAggregatorSmFactory("a", nullptr);
  std::vector<std::pair<std::string, std::function<void()>>> const mutators{
      {"xactConfigDir", [&] { aggregator->xactConfigDirIs(nullptr); }},
      {"xactStatusDir", [&] { aggregator->xactStatusDirIs(nullptr); }},
      {"pendingXact", [&] { aggregator->pendingXactIs(nullptr); }},
      {"blockedXact", [&] { aggregator->blockedXactIs(nullptr); }},
      {"inProgressXact", [&] { aggregator->inProgressXactIs(nullptr); }}};
  for (auto const& [attribute, mutator] : mutators) {
    EXPECT_EQ(rangeMessage(mutator), "null _" + attribute +
                                         " parameter to mutator for Kiv::XactAggregatorSm::" +
                                         attribute + " not allowed\"");
  }
  EXPECT_EQ(rangeMessage([&] { aggregator->pollingIntervalIs(0); }),
            "XactAggregatorSm::pollingInterval <= 0 not allowed");
  EXPECT_EQ(rangeMessage([&] { aggregator->timeoutIs(std::nan("")); }),
            "XactAggregatorSm::timeout < 0 not allowed");

  auto const dir = Kiv::xactStatusDirFactory("w1");
  EXPECT_EQ(rangeMessage([&] { Kiv::xactExecutorSmFactory<Worker>("w1", nullptr, dir, nullptr); }),
            "null _xactConfigDir parameter to mutator for Kiv::XactExecutorSm::xactConfigDir "
            "not allowed\"");
  auto const worker =
      Kiv::xactExecutorSmFactory<Worker>("w1", Kiv::xactConfigDirFactory("w1"), dir, nullptr);
  EXPECT_EQ(rangeMessage([&] { worker->backlogQuantumIs(-1); }),
            "XactExecutorSm::backlogQuantum < 0 not allowed");
}

TEST_F(XactFixture, EverythingIsFoundAndDrivenByName) {
  for (char const* name : {"Kiv::XactConfig", "Kiv::XactStatus", "Kiv::ExecResult",
                           "Kiv::XactConfigDir", "Kiv::XactStatusDir", "Kiv::XactDir"}) {
    EXPECT_NE(Zel::GenericIf::type(name), nullptr) << name;
  }
  Zel::GenericIf const& xactType = *Zel::GenericIf::type("Kiv::Xact");
  Ptr<Zel::PtrInterface> const object = xactType.genericIfFromCtorArgs({Zel::String("12")});
  xactType.attributeEntryIs(*object, "comment", "'w1'", "'Timeout'");
  xactType.attributeValueIs(*object, "result", "xactFailure");
  Ptr<Xact> const x = Zel::dynamicPtrCast<Xact>(object);
  EXPECT_EQ(x->comment("w1"), "Timeout");
  EXPECT_EQ(x->result(), failure);

  Zel::GenericIf const& type = *Zel::GenericIf::type("Kiv::XactAggregatorSm");
  Ptr<Zel::PtrInterface> const sm =
      type.genericIfFromCtorArgs({Zel::String("'coordinator'"), Ptr<Zel::Clock const>(nullptr)});
  type.attributeValueIs(*sm, "maxAllowedInProgressXacts", "0");
  auto const aggregator = Zel::dynamicPtrCast<Kiv::XactAggregatorSm>(sm);
  auto const configDir = Kiv::xactConfigDirFactory("w1");
  aggregator->xactConfigDirIs(configDir);
  aggregator->doStartXact(x);
  EXPECT_EQ(type.attributeValue(*sm, "pendingXactCount"), "1");
  EXPECT_EQ(type.attributeEntries(*sm, "xactConfigDir"),
            (Zel::GenericIf::Entries{{"'w1'", "<Kiv::XactConfigDir>"}}));

  auto const worker = Kiv::xactExecutorSmFactory<Worker>("w1", configDir,
                                                         Kiv::xactStatusDirFactory("w1"), nullptr);
  EXPECT_EQ(worker->fwkType(), Zel::GenericIf::type("Kiv::XactExecutorSm"));
  worker->fwkType()->attributeEntryIs(*worker, "backlog", "7", "True");
  EXPECT_TRUE(worker->backlogHas(7));
}

TEST(XactRecordsDeathTest, MisuseFailsItsAssertion) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  char const text[] = "{}";
  EXPECT_DEATH(Kiv::XactAggregatorSm::XactComments(text, text + 2),
               "Assertion failed: No String constructor for XactComments - has collection");
  auto const aggregator = Kiv::xactAggregatorSmFactory("a", nullptr);
  EXPECT_DEATH(aggregator->doStartXact(nullptr), "Assertion failed: x \\(");
}

}  // namespace
}  // namespace XactTest
