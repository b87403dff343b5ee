// Reflection by name: finding records, reading and writing attributes through their string
// forms (writes go through the mutators, so they notify), collections, and construction from
// generic arguments.
#include "Model.h"

#include <any>

namespace Kiv::Test {
namespace {

class Reflection : public testing::Test {
protected:
  Zel::GenericIf const& leafType = Zel::registerType<Leaf>();
  Zel::GenericIf const& treeType = Zel::registerType<Tree>();
  Zel::GenericIf const& recordType = Zel::registerType<Record>();
  Events events;
};

// "name:kind ..." in declaration order.
std::string layout(Zel::GenericIf const& type) {
  std::string out;
  for (auto const& a : type.attributes()) out += a.name + ":" + Zel::enumName(a.kind) + " ";
  return out;
}

TEST_F(Reflection, FindsTypesByFullNameAndReadsAndWritesScalarsThroughTheirMutators) {
  EXPECT_EQ(Zel::GenericIf::type("Kiv::Test::Tree"), &treeType);
  EXPECT_EQ(Zel::GenericIf::type("Tree"), nullptr);
  EXPECT_EQ(layout(leafType), "id:constructorParameter size:constructorParameter "
                              "shade:constructorParameter count:scalar area:computed ");
  EXPECT_EQ(layout(recordType),
            "note:field tag:field ratio:field offset:field flag:field mood:field pid:field ");
  std::string const canonical = Zel::valueToStrep(sampleRecord()).str();
  std::string compact = canonical;
  std::erase(compact, ' ');
  EXPECT_EQ(recordType.valueStrep(compact), canonical);  // parsed and printed back canonical
  auto leaf = leafFactory(3, 4, "red");
  EXPECT_EQ(leaf->fwkType(), &leafType);
  LeafLog log(events, leaf);
  EXPECT_EQ(leafType.attributeValue(*leaf, "shade"), "'red'");
  EXPECT_EQ(leafType.attributeValue(*leaf, "area"), "12");
  leafType.attributeValueIs(*leaf, "count", "9");
  leafType.attributeValueIs(*leaf, "count", "9");
  EXPECT_EQ(leafType.attributeValue(*leaf, "count"), "9");
  EXPECT_THROW(leafType.attributeValueIs(*leaf, "count", "5x"), Zel::RangeException);
  EXPECT_THROW(leafType.attributeValueIs(*leaf, "id", "4"), Zel::OperationNotSupportedException);
  EXPECT_THROW(leafType.attributeValueIs(*leaf, "area", "1"), Zel::OperationNotSupportedException);
  EXPECT_THROW(leafType.attributeDel(*leaf, "count"), Zel::OperationNotSupportedException);
  EXPECT_EQ(std::pair(events, leaf->id()), std::pair(Events{"count 9"}, 3u));
  EXPECT_THAT([&] { leafType.attributeValue(*leaf, "nope"); },
              ThrowsMessage<Zel::RangeException>("Unknown attribute Kiv::Test::Leaf::nope"));
  auto tree = treeFactory();
  EXPECT_THAT([&] { leafType.attributeValue(*tree, "count"); },
              ThrowsMessage<Zel::RangeException>(
                  "Object of type Kiv::Test::Tree is not a Kiv::Test::Leaf"));
}

TEST_F(Reflection, IteratesAndEditsCollections) {
  auto tree = treeFactory();
  for (U32 id : {2u, 1u}) tree->leafIs(id, 1, "plain");
  TreeLog log(events, tree);
  EXPECT_EQ(treeType.attributeEntries(*tree, "leaf"),
            (Zel::GenericIf::Entries{{"1", "<Kiv::Test::Leaf>"}, {"2", "<Kiv::Test::Leaf>"}}));
  treeType.attributeEntryIs(*tree, "comment", "'k'", "'v'");
  treeType.attributeEntryIs(*tree, "comment", "'k'", "'v'");
  EXPECT_EQ(treeType.attributeEntry(*tree, "comment", "'k'"), "'v'");
  treeType.attributeEntryDel(*tree, "comment", "'k'");
  EXPECT_THROW(treeType.attributeEntryIs(*tree, "leaf", "3", "None"),
               Zel::OperationNotSupportedException);
  treeType.attributeEntryDel(*tree, "leaf", "1");
  tree->commentIs("a", "1");
  treeType.attributeDel(*tree, "comment");
  EXPECT_EQ(events, (Events{"comment k=v", "comment k=", "leaf 1", "comment a=1", "comment a="}));
}

// Each argument is the parameter's own type or its string form (as a String or a char const*);
// a refused call makes nothing.
TEST_F(Reflection, ConstructsEntitiesFromGenericArguments) {
  auto leaf = leafType.genericIfFromCtorArgs({Zel::String("7"), U32(2), "'green'"});
  EXPECT_EQ(leafType.attributeValue(*leaf, "area"), "14");
  auto& leaves = Zel::AllocTrackTypeInfo::of<Leaf>();
  U64 const live = leaves.live();
  EXPECT_THAT([&] { leafType.genericIfFromCtorArgs({U32(1)}); },
              ThrowsMessage<Zel::RangeException>("Wrong number of constructor arguments"));
  EXPECT_THAT([&] { leafType.genericIfFromCtorArgs({1, U32(2), "''"}); },
              ThrowsMessage<Zel::RangeException>(
                  "Generic argument is neither U32 nor its string form"));
  EXPECT_EQ(leaves.live(), live);
}

}  // namespace
}  // namespace Kiv::Test
