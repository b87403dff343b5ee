// Reflection by name: finding records, reading and writing attributes through their string
// forms (writes go through the mutators, so they notify), collections, construction from
// generic arguments, the description of each attribute's type, and the round trips that value
// records run.
#include "Model.h"

#include <any>
#include <cmath>

namespace Kiv::Test {
namespace {

class Twig;
Zel::Ptr<Twig> twigFactory(Zel::Ptr<Leaf const> leaf);

// An entity made from a pointer to another.
class Twig : public Zel::PtrInterface {
public:
  Zel::Ptr<Leaf const> const& leaf() const { return leaf_; }
  static auto zelAttributes() {
    return Zel::entityAttributes<Twig>("Kiv::Test::Twig", &twigFactory,
                                       Zel::ctorParams(Zel::ctorParam("leaf", &Twig::leaf)));
  }

protected:
  explicit Twig(Zel::Ptr<Leaf const> leaf) : leaf_(std::move(leaf)) {}

private:
  Zel::Ptr<Leaf const> leaf_;
};

Zel::Ptr<Twig> twigFactory(Zel::Ptr<Leaf const> leaf) { return Zel::allocate<Twig>(leaf); }

// A value type whose mutator changes what it is given, so that a log of a larger number reads
// as a value that writes another log. Its record is not registered: the registry holds sound
// types only.
class Clamped : public Zel::Value<Clamped> {
public:
  U32 value() const { return value_; }
  void valueIs(U32 v) { value_ = std::min(v, 255u); }
  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::Test::Clamped",
                            Zel::field("value", &Clamped::value, &Clamped::valueIs));
  }

private:
  U32 value_ = 0;
};

class Reflection : public testing::Test {
protected:
  Zel::GenericIf const& leafType = Zel::registerType<Leaf>();
  Zel::GenericIf const& treeType = Zel::registerType<Tree>();
  Zel::GenericIf const& recordType = Zel::registerType<Record>();
  Zel::GenericIf const& twigType = Zel::registerType<Twig>();
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
  EXPECT_EQ(layout(leafType),
            "id:constructorParameter size:constructorParameter "
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
  EXPECT_THAT(
      [&] {
        leafType.genericIfFromCtorArgs({1, U32(2), "''"});
      },
      ThrowsMessage<Zel::RangeException>("Generic argument is neither U32 nor its string form"));
  EXPECT_EQ(leaves.live(), live);
}

// A pointer parameter takes a Ptr<PtrInterface> to an object of its class, or a null one.
TEST_F(Reflection, ConstructsEntitiesFromPointersToOtherEntities) {
  auto leaf = leafFactory(1, 2, "red");
  auto twig = twigType.genericIfFromCtorArgs({Zel::Ptr<Zel::PtrInterface>(leaf)});
  EXPECT_EQ(Zel::dynamicPtrCast<Twig>(twig)->leaf(), leaf);
  twig = twigType.genericIfFromCtorArgs({Zel::Ptr<Zel::PtrInterface>()});
  EXPECT_EQ(twigType.attributeValue(*twig, "leaf"), "None");
  EXPECT_THAT([&] { twigType.genericIfFromCtorArgs({Zel::Ptr<Zel::PtrInterface>(treeFactory())}); },
              ThrowsMessage<Zel::RangeException>("Generic argument is not a Kiv::Test::Leaf"));
}

std::string text(Zel::GenericIf::Type const& type) {
  return Zel::enumName(type.kind) + ":" + type.name + ":" + type.defaultStrep.str();
}

// "name:kind:type:default ..." in declaration order, with a collection's key type after "@".
std::string types(Zel::GenericIf const& type) {
  std::string out;
  for (auto const& a : type.attributes()) {
    out += a.name + ":" + text(a.type);
    if (a.kind == Zel::AttributeKind::collection) out += "@" + text(a.key);
    out += " ";
  }
  return out;
}

// What a tool needs to choose arguments, and to compare a row with its accessor.
TEST_F(Reflection, DescribesEachAttributesTypeAndComparesTextsWithTheAccessor) {
  EXPECT_EQ(types(recordType),
            "note:text:String:'' tag:text:Name:'' ratio:number:double:0 offset:number:S64:0 "
            "flag:boolean:bool:False mood:enumeration:Kiv::Test::Mood:calm pid:number:U16:0 ");
  EXPECT_EQ(types(treeType),
            "comment:text:String:''@text:String:'' "
            "leaf:entity:Kiv::Test::Leaf:@number:U32:0 ");
  EXPECT_EQ(types(twigType), "leaf:entity:Kiv::Test::Leaf: ");
  auto leaf = leafFactory(3, 4, "red");
  leaf->countIs(9);
  EXPECT_TRUE(leafType.attributeHolds(*leaf, "count", "9"));
  EXPECT_FALSE(leafType.attributeHolds(*leaf, "count", "8"));
  EXPECT_TRUE(leafType.attributeHolds(*leaf, "shade", "'red'"));
  EXPECT_TRUE(leafType.attributeHolds(*leaf, "area", "12"));
  EXPECT_THROW(leafType.attributeHolds(*leaf, "count", "nine"), Zel::RangeException);
  auto twig = twigFactory(leaf);
  EXPECT_THAT([&] { twigType.attributeHolds(*twig, "leaf", "None"); },
              ThrowsMessage<Zel::OperationNotSupportedException>(
                  "Comparison not supported for Kiv::Test::Twig::leaf"));
}

// Both forms give a value back; a value holding a NaN is held to its texts and bytes; a log is
// compared with the bytes it was read from, and what no value writes is refused.
TEST_F(Reflection, ValueRecordsRunTheRoundTripsOfBothForms) {
  EXPECT_EQ(recordType.defaultStrep(), Zel::valueToStrep(Record()));
  EXPECT_EQ(recordType.strepRoundTripFault(Zel::valueToStrep(sampleRecord())), "");
  Record nan = sampleRecord();
  nan.ratioIs(std::nan(""));
  EXPECT_EQ(recordType.strepRoundTripFault(Zel::valueToStrep(nan)), "");
  EXPECT_THROW(recordType.strepRoundTripFault("Value("), Zel::RangeException);

  Zel::NboAttrLog::Out out;
  out << sampleRecord();
  std::vector<U8> log = out.bytes();
  log.push_back(9);  // past the value, not read
  EXPECT_EQ(recordType.logRoundTripFault(log), "");
  log[log.size() - 4] = 7;  // the mood, followed by the U16 pid
  EXPECT_THAT([&] { recordType.logRoundTripFault(log); },
              ThrowsMessage<Zel::RangeException>("Error deserializing Kiv::Test::Mood"));
  log[log.size() - 4] = 0;
  log[log.size() - 5] = 2;  // the flag
  EXPECT_THAT([&] { recordType.logRoundTripFault(log); },
              ThrowsMessage<Zel::RangeException>("Error deserializing bool"));

  auto const clamped = Zel::detail::valueRecord<Clamped>();
  EXPECT_EQ(clamped->strepRoundTripFault("300"), "");  // parsing clamps too
  EXPECT_EQ(clamped->logRoundTripFault(std::vector<U8>{0, 0, 1, 44}),
            "Kiv::Test::Clamped 255: read from [ 00 00 01 2c ], it is written [ 00 00 00 ff ]");
}

}  // namespace
}  // namespace Kiv::Test
