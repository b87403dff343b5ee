// Every type registered with the runtime, checked through its reflection record alone, so that a
// class whose rows disagree with its accessors, or whose forms do not round trip, fails here
// without a test of its own. Entities are made from generic constructor arguments; every row is
// read, compared with the accessor and written back with its own text, which must change nothing.
// Value types run the round trips of their string form and attribute log on their default value
// and on the values of random logs. What could not be checked is listed in the test's output.
#include <Zel/Exception.h>
#include <Zel/GenericIf.h>
#include <Zel/Ptr.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <any>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace Kiv::Test {
namespace {

using Zel::GenericIf;
using Readings = std::map<std::string, std::string>;

std::vector<GenericIf const*> registered(bool valueTypes) {
  std::vector<GenericIf const*> types;
  for (std::string const& name : GenericIf::typeNames()) {
    GenericIf const* type = GenericIf::type(name);
    if (type->isValueType() == valueTypes) types.push_back(type);
  }
  return types;
}

// A line of the test's output: what the checks had to leave out, and why.
void note(std::string const& what) { std::cout << "[   NOTE   ] " << what << '\n'; }

// The message of the exception that `f` throws, or an empty string.
std::string thrown(std::function<void()> const& f) {
  try {
    f();
  } catch (std::exception const& e) {
    return e.what();
  }
  return {};
}

// A valid text for a value of `type`, the i-th of its kind: a number 16 >> i (at least 1),
// distinct for the first few so that a row reading another one shows, and decreasing so that a
// size given first exceeds the offsets and block sizes given after it; text 'p<i>'; a flag, an
// enumeration or a value type its default. Empty for a pointer or a type without a string form.
Zel::String sampleText(GenericIf::Type const& type, std::size_t i) {
  if (type.kind == Zel::TypeKind::number) {
    return Zel::valueToStrep(std::max(16u >> std::min<std::size_t>(i, 31), 1u));
  }
  if (type.kind == Zel::TypeKind::text) return "'p" + std::to_string(i) + "'";
  return type.defaultStrep;
}

// Makes entities through their records' generic construction: parameter i gets sampleText(i),
// and a pointer an object of its class made the same way.
class Maker {
public:
  struct Argument {
    std::string parameter;
    Zel::String text;  // its string form; for a pointer, how the pointer prints
    bool pointer;
  };
  struct Made {
    Zel::Ptr<Zel::PtrInterface> object;
    std::vector<Argument> arguments;
  };

  // The object, or a null one with the reason in `why`.
  Made make(GenericIf const& type, std::string& why) {
    if (!making_.insert(type.name()).second) {
      why = "it needs an object of its own class";
      return {};
    }
    std::vector<std::any> values;
    Made made = makeArguments(type, values, why);
    making_.erase(type.name());
    if (!why.empty()) return {};
    why = thrown([&] { made.object = type.genericIfFromCtorArgs(values); });
    if (!why.empty()) why = "the factory refuses the arguments: " + why;
    return made;
  }

private:
  Made makeArguments(GenericIf const& type, std::vector<std::any>& values, std::string& why) {
    Made made;
    for (GenericIf::Attribute const& p : type.attributes()) {
      if (p.kind != Zel::AttributeKind::constructorParameter) continue;
      Argument argument{p.name, sampleText(p.type, made.arguments.size()), false};
      if (p.type.kind == Zel::TypeKind::entity) {
        GenericIf const* pointee = GenericIf::type(p.type.name);
        Zel::Ptr<Zel::PtrInterface> object;
        if (!pointee) why = "no record of " + p.type.name;
        if (pointee) object = make(*pointee, why).object;
        if (!why.empty()) {
          why = "parameter " + p.name + ": " + why;
          return {};
        }
        argument = {p.name, Zel::pointerStrep(object.ptr()), true};
        values.emplace_back(object);
      }
      if (argument.text.empty()) {
        why = "parameter " + p.name + ": no string form of " + p.type.name;
        return {};
      }
      if (!argument.pointer) values.emplace_back(argument.text);
      made.arguments.push_back(argument);
    }
    return made;
  }

  std::set<std::string> making_;
};

// Gives each empty collection that takes values one entry of sample texts, so that entries are
// read by key and written back there too.
void fillCollections(GenericIf const& type, Zel::PtrInterface& object) {
  for (GenericIf::Attribute const& a : type.attributes()) {
    if (!a.entryIs || !type.attributeEntries(object, a.name).empty()) continue;
    Zel::String const key = sampleText(a.key, 0);
    Zel::String const value = sampleText(a.type, 1);
    if (key.empty() || value.empty()) continue;
    std::string const refused = thrown([&] { type.attributeEntryIs(object, a.name, key, value); });
    if (!refused.empty()) {
      note(type.name() + "::" + a.name + " refuses the entry " + key.str() + ": " + refused);
    }
  }
}

// Each readable row, and each collection entry as "<name>[<key>]".
Readings readings(GenericIf const& type, Zel::PtrInterface const& object) {
  Readings out;
  for (GenericIf::Attribute const& a : type.attributes()) {
    if (a.read) out[a.name] = type.attributeValue(object, a.name).str();
    if (!a.entries) continue;
    for (auto const& [key, value] : type.attributeEntries(object, a.name)) {
      out[a.name + "[" + key.str() + "]"] = value.str();
    }
  }
  return out;
}

// "<reading>: <before> -> <after>" for each reading that differs.
std::string changes(Readings const& before, Readings const& after) {
  std::string out;
  Readings all = before;
  all.insert(after.begin(), after.end());
  for (auto const& [name, ignored] : all) {
    auto const b = before.find(name);
    auto const a = after.find(name);
    std::string const was = b == before.end() ? "(none)" : b->second;
    std::string const is = a == after.end() ? "(none)" : a->second;
    if (was != is) out += name + ": " + was + " -> " + is + "; ";
  }
  return out;
}

// Whether the accessor of `name` returns what `text` parses to, or why not.
std::string holdsFault(GenericIf const& type, Zel::PtrInterface const& object,
                       std::string const& name, Zel::String const& text) {
  bool holds = false;
  std::string const refused = thrown([&] { holds = type.attributeHolds(object, name, text); });
  if (!refused.empty()) return text.str() + " does not parse back: " + refused;
  return holds ? "" : "the accessor does not hold " + text.str();
}

void checkConstructorParameters(GenericIf const& type, Maker::Made const& made) {
  for (Maker::Argument const& argument : made.arguments) {
    SCOPED_TRACE("constructor parameter " + argument.parameter);
    Zel::String const read = type.attributeValue(*made.object, argument.parameter);
    if (argument.pointer) {
      EXPECT_EQ(read, argument.text);
    } else {
      EXPECT_EQ(holdsFault(type, *made.object, argument.parameter, argument.text), "")
          << "it reads " << read;
    }
  }
}

// Reads every row and compares it with the accessor; writes every writable row and entry back
// with its own text, which must not throw nor change any reading. Each change is reported once.
void checkRows(GenericIf const& type, Zel::PtrInterface& object) {
  Readings now = readings(type, object);
  auto expectUnchanged = [&](std::string const& after) {
    Readings const then = readings(type, object);
    EXPECT_EQ(changes(now, then), "") << after;
    now = then;
  };
  for (GenericIf::Attribute const& a : type.attributes()) {
    SCOPED_TRACE("attribute " + a.name);
    if (a.read) {
      Zel::String const text = type.attributeValue(object, a.name);
      if (a.holds) {
        EXPECT_EQ(holdsFault(type, object, a.name, text), "");
      }
      if (a.write) {
        EXPECT_EQ(thrown([&] { type.attributeValueIs(object, a.name, text); }), "");
        expectUnchanged("after writing back " + text.str());
      }
    }
    if (!a.entries) continue;
    for (auto const& entry : type.attributeEntries(object, a.name)) {
      Zel::String const& key = entry.first;
      EXPECT_EQ(type.attributeEntry(object, a.name, key), entry.second) << "entry " << key;
      if (!a.entryIs) continue;
      EXPECT_EQ(thrown([&] { type.attributeEntryIs(object, a.name, key, entry.second); }), "");
      expectUnchanged("after writing back entry " + key.str());
    }
  }
  expectUnchanged("after reading");
}

TEST(ReflectionRegistry, EveryEntityReadsWhatItsAccessorsHoldAndTakesItsOwnValuesBack) {
  Maker maker;
  std::size_t made = 0;
  for (GenericIf const* type : registered(false)) {
    SCOPED_TRACE(type->name());
    std::string why;
    Maker::Made const m = maker.make(*type, why);
    if (!m.object) {
      note(type->name() + " is not made generically: " + why);
      continue;
    }
    ++made;
    checkConstructorParameters(*type, m);
    fillCollections(*type, *m.object);
    checkRows(*type, *m.object);
  }
  EXPECT_GT(made, 0u);
}

// Random attribute logs whose bytes are mostly zero, so that short texts, small numbers and the
// first enumerators are common and every type accepts some of them.
std::vector<Zel::U8> randomLog(std::mt19937& random) {
  std::vector<Zel::U8> log(random() % 32);
  for (Zel::U8& byte : log) byte = random() % 4 ? 0 : Zel::U8(random());
  return log;
}

// The first fault that the values of random logs show, or an empty string; `accepted` counts
// the logs that the type reads.
std::string randomLogFault(GenericIf const& type, std::mt19937& random, std::size_t& accepted) {
  for (int i = 0; i < 400; ++i) {
    try {
      std::string fault = type.logRoundTripFault(randomLog(random));
      ++accepted;
      if (!fault.empty()) return fault;
    } catch (Zel::RangeException const&) {
    }
  }
  return {};
}

// The default and every value read from a random log must come back through both forms. Each
// type reports its first fault only.
TEST(ReflectionRegistry, EveryValueTypeRoundTripsItsDefaultAndTheValuesOfRandomLogs) {
  std::mt19937 random(17);
  for (GenericIf const* type : registered(true)) {
    std::string fault;
    std::string const noStrep = thrown([&] {
      try {
        fault = type->strepRoundTripFault(type->defaultStrep());
      } catch (Zel::RangeException const& e) {
        fault = type->name() + " refuses the string form of its default: " + e.what();
      }
    });
    if (!noStrep.empty()) {
      note(type->name() + " has no round trips: " + noStrep);
      continue;
    }
    EXPECT_EQ(fault, "");
    std::size_t accepted = 0;
    std::string const noLog = thrown([&] { fault = randomLogFault(*type, random, accepted); });
    EXPECT_EQ(fault, "");
    if (!noLog.empty()) {
      note(type->name() + " has no attribute log round trip: " + noLog);
    } else if (accepted == 0) {
      note(type->name() + " accepted none of the random logs");
    }
  }
}

}  // namespace
}  // namespace Kiv::Test
