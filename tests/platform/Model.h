// The test model of the runtime suite: value types and entities declared exactly the way library
// classes declare theirs, so that the tests exercise what the runtime derives from the tables.
#pragma once

#include <Zel/Collections.h>
#include <Zel/Entity.h>
#include <Zel/Value.h>

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

namespace Kiv::Test {

// Three fixed-width fields, so its attribute log is exactly 8 bytes.
class Stamp : public Zel::Value<Stamp> {
public:
  static constexpr U16 maxPid = 1000;

  U32 timestamp() const { return timestamp_; }
  void timestampIs(U32 v) { timestamp_ = v; }
  U16 pid() const { return pid_; }
  void pidIs(U16 v) {
    if (v > maxPid) throw Zel::RangeException("Stamp::pid > 1000 not allowed");
    pid_ = v;
  }
  U16 seq() const { return seq_; }
  void seqIs(U16 v) { seq_ = v; }

  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::Test::Stamp",
                            Zel::field("timestamp", &Stamp::timestamp, &Stamp::timestampIs),
                            Zel::field("pid", &Stamp::pid, &Stamp::pidIs),
                            Zel::field("seq", &Stamp::seq, &Stamp::seqIs));
  }

private:
  U32 timestamp_ = 0;
  U16 pid_ = 0;
  U16 seq_ = 0;
};

enum class Mood : U8 { calm, busy, lost };
constexpr auto zelEnumInfo(Mood) {
  return Zel::enumInfo<Mood>("Kiv::Test::Mood",
                             {{Mood::calm, "calm"}, {Mood::busy, "busy"}, {Mood::lost, "lost"}});
}

// One field of every kind that the string form and the log treat differently.
class Record : public Zel::Value<Record> {
public:
  Zel::String note() const { return note_; }
  void noteIs(Zel::String v) { note_ = std::move(v); }
  Zel::Name tag() const { return tag_; }
  void tagIs(Zel::Name v) { tag_ = v; }
  double ratio() const { return ratio_; }
  void ratioIs(double v) { ratio_ = v; }
  S64 offset() const { return offset_; }
  void offsetIs(S64 v) { offset_ = v; }
  bool flag() const { return flag_; }
  void flagIs(bool v) { flag_ = v; }
  Mood mood() const { return mood_; }
  void moodIs(Mood v) { mood_ = v; }

  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::Test::Record", Zel::field("note", &Record::note, &Record::noteIs),
                            Zel::field("tag", &Record::tag, &Record::tagIs),
                            Zel::field("ratio", &Record::ratio, &Record::ratioIs),
                            Zel::field("offset", &Record::offset, &Record::offsetIs),
                            Zel::field("flag", &Record::flag, &Record::flagIs),
                            Zel::field("mood", &Record::mood, &Record::moodIs));
  }

private:
  Zel::String note_;
  Zel::Name tag_;
  double ratio_ = 0;
  S64 offset_ = 0;
  bool flag_ = false;
  Mood mood_ = Mood::calm;
};

// A single field named "value": its string form is the bare number.
class Seq : public Zel::Value<Seq> {
public:
  U32 value() const { return value_; }
  void valueIs(U32 v) { value_ = v; }
  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::Test::Seq", Zel::field("value", &Seq::value, &Seq::valueIs));
  }

private:
  U32 value_ = 0;
};

class Leaf;
inline Zel::Ptr<Leaf> leafFactory(U32 id, U32 size, Zel::Name shade);

// A child entity: three constructor parameters, two mutable scalars of different widths and a
// computed attribute.
class Leaf : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<Leaf> {
  public:
    virtual void onCount() {}
    virtual void onLevel() {}
  };

  U32 id() const { return id_; }
  U32 size() const { return size_; }
  Zel::Name shade() const { return shade_; }
  U32 area() const { return id_ * size_; }

  U32 count() const { return count_; }
  void countIs(U32 v) { attributeIs(count_, v, &NotifieeConst::onCount); }
  void countInc(U32 d) { attributeInc(count_, d, &NotifieeConst::onCount); }
  U8 level() const { return level_; }
  void levelIs(U8 v) { attributeIs(level_, v, &NotifieeConst::onLevel); }
  void levelInc(U8 d) { attributeInc(level_, d, &NotifieeConst::onLevel); }

  static auto zelAttributes() {
    return Zel::entityAttributes<Leaf>(
        "Kiv::Test::Leaf", &leafFactory,
        Zel::ctorParams(Zel::ctorParam("id", &Leaf::id), Zel::ctorParam("size", &Leaf::size),
                        Zel::ctorParam("shade", &Leaf::shade)),
        Zel::scalar("count", &Leaf::count, &Leaf::countIs),
        Zel::scalar("level", &Leaf::level, &Leaf::levelIs),
        Zel::computed("area", &Leaf::area));
  }

protected:
  Leaf(U32 id, U32 size, Zel::Name shade) : id_(id), size_(size), shade_(shade) {}

private:
  U32 id_;
  U32 size_;
  Zel::Name shade_;
  U32 count_ = 0;
  U8 level_ = 0;
};

inline Zel::Ptr<Leaf> leafFactory(U32 id, U32 size, Zel::Name shade) {
  return Zel::allocate<Leaf>(id, size, shade);
}

class Tree;
inline Zel::Ptr<Tree> treeFactory(Zel::Name name);

// A parent entity: a hashed value collection, an ordered child collection and a pointer
// attribute that refuses null.
class Tree : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<Tree> {
  public:
    virtual void onComment(Zel::String const&) {}
    virtual void onLeaf(U32) {}
    virtual void onChild() {}
  };

  Zel::Name name() const { return name_; }

  Zel::String comment(Zel::String const& k) const { return comment_.value(k); }
  std::size_t comments() const { return comment_.size(); }
  void commentIs(Zel::String const& k, Zel::String const& v) {
    entryIs(comment_, k, v, &NotifieeConst::onComment);
  }
  void commentDel(Zel::String const& k) { entryDel(comment_, k, &NotifieeConst::onComment); }
  void commentDelAll() { entryDelAll(comment_, &NotifieeConst::onComment); }

  Zel::Ptr<Leaf> leaf(U32 id) const { return leaf_.value(id); }
  Zel::Ptr<Leaf> leafIs(U32 id, U32 size, Zel::Name shade) {
    return instantiateChild(leaf_, id, &NotifieeConst::onLeaf, leafFactory, id, size, shade);
  }
  void leafDel(U32 id) { entryDel(leaf_, id, &NotifieeConst::onLeaf); }
  void leafDelAll() { entryDelAll(leaf_, &NotifieeConst::onLeaf); }

  Zel::Ptr<Leaf> child() const { return child_; }
  void childIs(Zel::Ptr<Leaf> const& v) {
    Zel::refuseNull(v, "Kiv::Test::Tree", "child");
    attributeIs(child_, v, &NotifieeConst::onChild);
  }

  static auto zelAttributes() {
    return Zel::entityAttributes<Tree>(
        "Kiv::Test::Tree", &treeFactory, Zel::ctorParams(Zel::ctorParam("name", &Tree::name)),
        Zel::collection("comment", &Tree::comment_, &Tree::commentIs, &Tree::commentDel,
                        &Tree::commentDelAll),
        Zel::collection("leaf", &Tree::leaf_, nullptr, &Tree::leafDel, &Tree::leafDelAll));
  }

protected:
  explicit Tree(Zel::Name name) : name_(name) {}

private:
  Zel::Name name_;
  Zel::HashMap2018<Zel::String, Zel::String> comment_;
  Zel::RbTreeMap<U32, Zel::Ptr<Leaf>> leaf_;
  Zel::Ptr<Leaf> child_;
};

inline Zel::Ptr<Tree> treeFactory(Zel::Name name) { return Zel::allocate<Tree>(name); }

// Counts its destructions in a counter the test owns; refuses construction when told to.
class Probe : public Zel::PtrInterface {
public:
  ~Probe() override { ++*destroyed_; }

protected:
  explicit Probe(int* destroyed, bool refuse = false) : destroyed_(destroyed) {
    if (refuse) throw std::runtime_error("Probe refused");
  }

private:
  int* destroyed_;
};

// Notifiees whose handlers are mock methods, for exact expectations on notifications.
class LeafWatch : public Leaf::NotifieeConst {
public:
  MOCK_METHOD(void, onCount, (), (override));
  MOCK_METHOD(void, onLevel, (), (override));
};

class TreeWatch : public Tree::NotifieeConst {
public:
  MOCK_METHOD(void, onComment, (Zel::String const&), (override));
  MOCK_METHOD(void, onLeaf, (U32), (override));
  MOCK_METHOD(void, onChild, (), (override));
};

// The message of the E that `operation` throws; another exception type propagates and fails
// the test.
template <class E, class F>
std::string thrownMessage(F&& operation) {
  try {
    operation();
  } catch (E const& e) {
    return e.what();
  }
  return "<nothing thrown>";
}

}  // namespace Kiv::Test
