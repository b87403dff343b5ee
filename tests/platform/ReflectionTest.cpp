// Reflection by name: finding records, reading and writing attributes through their string
// forms (writes go through the mutators, so they notify), collections, and construction from
// generic arguments.
#include "Model.h"

#include <gtest/gtest.h>

#include <any>
#include <string>
#include <utility>
#include <vector>

namespace Kiv::Test {
namespace {

using testing::StrictMock;
using Kind = Zel::AttributeKind;

class Reflection : public testing::Test {
protected:
  Zel::GenericIf const& leafType = Zel::registerType<Leaf>();
  Zel::GenericIf const& treeType = Zel::registerType<Tree>();
  Zel::GenericIf const& stampType = Zel::registerType<Stamp>();
};

std::vector<std::pair<std::string, Kind>> layout(Zel::GenericIf const& type) {
  std::vector<std::pair<std::string, Kind>> out;
  for (auto const& a : type.attributes()) out.emplace_back(a.name, a.kind);
  return out;
}

TEST_F(Reflection, FindsTypesByFullNameWithAttributesInDeclarationOrder) {
  EXPECT_EQ(Zel::GenericIf::type("Kiv::Test::Leaf"), &leafType);
  EXPECT_EQ(Zel::GenericIf::type("Kiv::Test::Tree"), &treeType);
  EXPECT_EQ(Zel::GenericIf::type("Kiv::Test::Nope"), nullptr);
  EXPECT_EQ(Zel::GenericIf::type("Leaf"), nullptr);
  EXPECT_EQ(layout(leafType), (std::vector<std::pair<std::string, Kind>>{
                                  {"id", Kind::constructorParameter},
                                  {"size", Kind::constructorParameter},
                                  {"shade", Kind::constructorParameter},
                                  {"count", Kind::scalar},
                                  {"level", Kind::scalar},
                                  {"area", Kind::computed}}));
  EXPECT_EQ(layout(stampType), (std::vector<std::pair<std::string, Kind>>{
                                   {"timestamp", Kind::field}, {"pid", Kind::field},
                                   {"seq", Kind::field}}));
  EXPECT_TRUE(stampType.isValueType());
  EXPECT_FALSE(leafType.isValueType());
  EXPECT_EQ(leafFactory(1, 1, "plain")->fwkType(), &leafType);

  EXPECT_EQ(stampType.valueStrep("Value('Kiv::Test::Stamp',**{'timestamp':1,'pid':2,'seq':3})"),
            "Value('Kiv::Test::Stamp', ** {'timestamp': 1, 'pid': 2, 'seq': 3})");
  EXPECT_THROW(stampType.valueStrep("Value('Kiv::Test::Stamp', ** {'timestamp': 1, 'pid': 5000, "
                                    "'seq': 3})"),
               Zel::RangeException);
}

TEST_F(Reflection, ReadsAndWritesScalarsThroughTheirMutators) {
  auto leaf = leafFactory(3, 4, "red");
  StrictMock<LeafWatch> watch;
  watch.notifierIs(leaf);
  EXPECT_EQ(leafType.attributeValue(*leaf, "id"), "3");
  EXPECT_EQ(leafType.attributeValue(*leaf, "shade"), "'red'");
  EXPECT_EQ(leafType.attributeValue(*leaf, "area"), "12");

  EXPECT_CALL(watch, onCount()).WillOnce([&] { EXPECT_EQ(leaf->count(), 9u); });
  leafType.attributeValueIs(*leaf, "count", "9");
  leafType.attributeValueIs(*leaf, "count", "9");
  EXPECT_EQ(leafType.attributeValue(*leaf, "count"), "9");

  EXPECT_THROW(leafType.attributeValueIs(*leaf, "level", "256"), Zel::RangeException);
  EXPECT_THROW(leafType.attributeValueIs(*leaf, "count", "5x"), Zel::RangeException);
  EXPECT_THROW(leafType.attributeValueIs(*leaf, "id", "4"), Zel::OperationNotSupportedException);
  EXPECT_THROW(leafType.attributeValueIs(*leaf, "area", "1"), Zel::OperationNotSupportedException);
  EXPECT_THROW(leafType.attributeDel(*leaf, "count"), Zel::OperationNotSupportedException);
  EXPECT_EQ(leaf->level(), 0);
  EXPECT_EQ(leaf->count(), 9u);
  EXPECT_EQ(leaf->id(), 3u);

  EXPECT_EQ(thrownMessage<Zel::RangeException>([&] { leafType.attributeValue(*leaf, "nope"); }),
            "Unknown attribute Kiv::Test::Leaf::nope");
  auto tree = treeFactory("other");
  EXPECT_EQ(thrownMessage<Zel::RangeException>([&] { leafType.attributeValue(*tree, "count"); }),
            "Object of type Kiv::Test::Tree is not a Kiv::Test::Leaf");
}

TEST_F(Reflection, IteratesAndEditsCollections) {
  auto tree = treeFactory("t");
  tree->leafIs(2, 1, "plain");
  tree->leafIs(1, 1, "plain");
  StrictMock<TreeWatch> watch;
  watch.notifierIs(tree);
  EXPECT_EQ(treeType.attributeEntries(*tree, "leaf"),
            (Zel::GenericIf::Entries{{"1", "<Kiv::Test::Leaf>"}, {"2", "<Kiv::Test::Leaf>"}}));

  EXPECT_CALL(watch, onComment(Zel::String("k"))).Times(2);
  treeType.attributeEntryIs(*tree, "comment", "'k'", "'v'");
  treeType.attributeEntryIs(*tree, "comment", "'k'", "'v'");
  EXPECT_EQ(tree->comment("k"), "v");
  EXPECT_EQ(treeType.attributeEntry(*tree, "comment", "'k'"), "'v'");
  EXPECT_EQ(treeType.attributeEntry(*tree, "comment", "'absent'"), "''");
  treeType.attributeEntryDel(*tree, "comment", "'k'");
  EXPECT_EQ(tree->comments(), 0u);

  EXPECT_THROW(treeType.attributeEntryIs(*tree, "leaf", "3", "None"),
               Zel::OperationNotSupportedException);
  EXPECT_CALL(watch, onLeaf(1u));
  treeType.attributeEntryDel(*tree, "leaf", "1");
  EXPECT_EQ(tree->leaf(1), nullptr);

  EXPECT_CALL(watch, onComment(Zel::String("a"))).Times(2);
  EXPECT_CALL(watch, onComment(Zel::String("b"))).Times(2);
  tree->commentIs("a", "1");
  tree->commentIs("b", "2");
  treeType.attributeDel(*tree, "comment");
  EXPECT_TRUE(treeType.attributeEntries(*tree, "comment").empty());
}

TEST_F(Reflection, ConstructsEntitiesFromGenericArguments) {
  auto made = treeType.genericIfFromCtorArgs({std::any(Zel::String("'made'"))});
  ASSERT_TRUE(made);
  EXPECT_EQ(made->fwkType(), &treeType);
  EXPECT_EQ(treeType.attributeValue(*made, "name"), "'made'");
  EXPECT_EQ(made->references(), 1u);

  auto leaf = leafType.genericIfFromCtorArgs(
      {std::any(Zel::String("7")), std::any(U32(2)), std::any("'green'")});
  EXPECT_TRUE(leaf->hasNotificationActive());
  EXPECT_EQ(leafType.attributeValue(*leaf, "area"), "14");
  EXPECT_EQ(leafType.attributeValue(*leaf, "shade"), "'green'");

  auto& leaves = Zel::AllocTrackTypeInfo::of<Leaf>();
  U64 const live = leaves.live();
  EXPECT_EQ(thrownMessage<Zel::RangeException>(
                [&] { leafType.genericIfFromCtorArgs({std::any(U32(1))}); }),
            "Wrong number of constructor arguments");
  EXPECT_EQ(thrownMessage<Zel::RangeException>([&] {
              leafType.genericIfFromCtorArgs({std::any(1), std::any(U32(2)), std::any("''")});
            }),
            "Generic argument is neither U32 nor its string form");
  EXPECT_THROW(leafType.genericIfFromCtorArgs(
                   {std::any(Zel::String("7x")), std::any(U32(2)), std::any(Zel::Name())}),
               Zel::RangeException);
  EXPECT_EQ(leaves.live(), live);
}

}  // namespace
}  // namespace Kiv::Test
