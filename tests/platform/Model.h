// The suite's common header and test model: value types and entities declared exactly the way
// library classes declare theirs, so that the tests exercise what the runtime derives from them.
#pragma once

#include <Zel/Collections.h>
#include <Zel/Entity.h>
#include <Zel/Value.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Kiv::Test {

using Events = std::vector<std::string>;
using testing::ThrowsMessage;

enum class Mood : U8 { calm, busy, lost };
constexpr auto zelEnumInfo(Mood) {
  return Zel::enumInfo<Mood>("Kiv::Test::Mood",
                             {{Mood::calm, "calm"}, {Mood::busy, "busy"}, {Mood::lost, "lost"}});
}

// One field of every kind that the string form and the log treat differently; pid is fixed
// width and range checked.
class Record : public Zel::Value<Record> {
public:
  Record() = default;
  Record(Zel::String note, Zel::Name tag, double ratio, S64 offset, bool flag, Mood mood, U16 pid)
      : note_(note), tag_(tag), ratio_(ratio), offset_(offset), flag_(flag), mood_(mood) {
    pidIs(pid);
  }
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
  U16 pid() const { return pid_; }
  void pidIs(U16 v) {
    if (v > 1000) throw Zel::RangeException("Record::pid > 1000 not allowed");
    pid_ = v;
  }
  static constexpr auto zelFields() {
    return Zel::valueFields("Kiv::Test::Record", Zel::field("note", &Record::note, &Record::noteIs),
                            Zel::field("tag", &Record::tag, &Record::tagIs),
                            Zel::field("ratio", &Record::ratio, &Record::ratioIs),
                            Zel::field("offset", &Record::offset, &Record::offsetIs),
                            Zel::field("flag", &Record::flag, &Record::flagIs),
                            Zel::field("mood", &Record::mood, &Record::moodIs),
                            Zel::field("pid", &Record::pid, &Record::pidIs));
  }

private:
  Zel::String note_;
  Zel::Name tag_;
  double ratio_ = 0;
  S64 offset_ = 0;
  bool flag_ = false;
  Mood mood_ = Mood::calm;
  U16 pid_ = 0;
};

// A record whose string form has a token of every kind, one of them escaped.
inline Record sampleRecord() { return Record("it's", "t", 0.5, -3, true, Mood::busy, 2); }

class Leaf;
inline Zel::Ptr<Leaf> leafFactory(U32 id, U32 size, Zel::Name shade);

// A child entity: three constructor parameters, a mutable scalar and a computed attribute.
class Leaf : public Zel::Notifier {
public:
  class NotifieeConst : public Zel::NotifieeConstOf<Leaf> {
  public:
    virtual void onCount() {}
  };
  U32 id() const { return id_; }
  U32 size() const { return size_; }
  Zel::Name shade() const { return shade_; }
  U32 area() const { return id_ * size_; }
  U32 count() const { return count_; }
  void countIs(U32 v) { attributeIs(count_, v, &NotifieeConst::onCount); }
  void countInc(U32 d) { attributeInc(count_, d, &NotifieeConst::onCount); }
  static auto zelAttributes() {
    return Zel::entityAttributes<Leaf>(
        "Kiv::Test::Leaf", &leafFactory,
        Zel::ctorParams(Zel::ctorParam("id", &Leaf::id), Zel::ctorParam("size", &Leaf::size),
                        Zel::ctorParam("shade", &Leaf::shade)),
        Zel::scalar("count", &Leaf::count, &Leaf::countIs), Zel::computed("area", &Leaf::area));
  }

protected:
  Leaf(U32 id, U32 size, Zel::Name shade) : id_(id), size_(size), shade_(shade) {}

private:
  U32 id_, size_;
  Zel::Name shade_;
  U32 count_ = 0;
};

inline Zel::Ptr<Leaf> leafFactory(U32 id, U32 size, Zel::Name shade) {
  return Zel::allocate<Leaf>(id, size, shade);
}

class Tree;
inline Zel::Ptr<Tree> treeFactory();

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
        "Kiv::Test::Tree", &treeFactory, Zel::ctorParams(),
        Zel::collection("comment", &Tree::comment_, &Tree::commentIs, &Tree::commentDel,
                        &Tree::commentDelAll),
        Zel::collection("leaf", &Tree::leaf_, nullptr, &Tree::leafDel, &Tree::leafDelAll));
  }

protected:
  Tree() = default;

private:
  Zel::HashMap2018<Zel::String, Zel::String> comment_;
  Zel::RbTreeMap<U32, Zel::Ptr<Leaf>> leaf_;
  Zel::Ptr<Leaf> child_;
};

inline Zel::Ptr<Tree> treeFactory() { return Zel::allocate<Tree>(); }

// Logs each notification into a shared list as "<name><attribute> <what the handler reads>",
// which must already be the new value, then runs a one-shot action.
struct Log {
  Events& events;
  std::string name;
  std::function<void()> action = nullptr;
  void log(std::string const& event) {
    events.push_back(name + event);
    if (auto act = std::exchange(action, nullptr)) act();
  }
};
struct LeafLog : Leaf::NotifieeConst, Log {
  LeafLog(Events& events, Zel::Ptr<Leaf> const& leaf, std::string name = "")
      : Log{events, std::move(name)} {
    notifierIs(leaf);
  }
  void onCount() override { log("count " + std::to_string(notifier()->count())); }
};
struct TreeLog : Tree::NotifieeConst, Log {
  TreeLog(Events& events, Zel::Ptr<Tree> const& tree) : Log{events, ""} { notifierIs(tree); }
  void onComment(Zel::String const& k) override {
    log("comment " + k.str() + "=" + notifier()->comment(k).str());
  }
  void onLeaf(U32 id) override { log("leaf " + std::to_string(id)); }
  void onChild() override { log("child"); }
};

}  // namespace Kiv::Test
