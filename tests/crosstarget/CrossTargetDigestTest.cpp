// The product runs on 32-bit x86 and is developed on x86-64: what the library computes from its
// fixed-width data must come out the same on both. Each section runs a seeded workload, renders
// everything it produced as text and compares a digest of that text with the one recorded on
// x86-64. A mismatch on one target only is a width or floating-point bug; a mismatch on both is a
// change of behaviour, to be recorded anew here only if it is intended.
//
// KIV_DIGEST_DIR=<dir> writes each section's text to <dir>/<section>.txt, so that the texts of
// the two targets can be compared line by line.
#include <Kiv/BestFitAllocator.h>
#include <Kiv/CuckooHashTable.h>
#include <Kiv/HBitmap.h>
#include <Kiv/HTimerWheel.h>
#include <Kiv/IdSet.h>
#include <Kiv/MaybeU63.h>
#include <Kiv/NumAllocator.h>
#include <Kiv/Seqno.h>
#include <Kiv/TristateBool.h>
#include <Kiv/UniqueId.h>
#include <Kiv/XactLib.h>

#include <Zel/Activity.h>
#include <Zel/System.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace Kiv {
namespace {

// The workloads draw from this rather than from <random>, whose distributions compute in the
// width of std::size_t and so differ between the targets.
class SplitMix64 {
public:
  explicit SplitMix64(U64 seed) : state_(seed) {}
  U64 next() {
    U64 z = state_ += 0x9e3779b97f4a7c15ull;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
  }
  // Uniform enough below n for a workload (n much smaller than 2^64).
  U32 below(U32 n) { return U32(next() % n); }

private:
  U64 state_;
};

U64 fnv1a(std::string const& text) {
  U64 hash = 0xcbf29ce484222325ull;
  for (char c : text) hash = (hash ^ U8(c)) * 0x100000001b3ull;
  return hash;
}

// Renders doubles exactly, so that a difference in the last bit shows.
std::ostringstream textStream() {
  std::ostringstream out;
  out << std::setprecision(std::numeric_limits<double>::max_digits10);
  return out;
}

void expectDigest(std::string const& section, std::string const& text, U64 recorded) {
  if (char const* dir = std::getenv("KIV_DIGEST_DIR")) {
    std::ofstream(std::string(dir) + "/" + section + ".txt") << text;
  }
  EXPECT_EQ(fnv1a(text), recorded) << section << ": 0x" << std::hex << fnv1a(text) << " over "
                                   << std::dec << text.size() << " bytes";
}

// The string form, the hash and the log bytes, and a check that the bytes read back to the value.
template <class T>
void logLine(std::ostream& out, T const& value) {
  Zel::NboAttrLog::Out log;
  log << value;
  out << T::zelTypeName() << ' ' << Zel::valueToStrep(value) << " #" << Zel::Hash<T>()(value)
      << " ->";
  for (U8 byte : log.bytes()) out << ' ' << std::hex << std::setw(2) << std::setfill('0') << +byte;
  out << std::dec << std::setfill(' ') << '\n';
  T back;
  Zel::NboAttrLog::In in(log.bytes());
  in >> back;
  EXPECT_TRUE(back == value) << Zel::valueToStrep(value);
  EXPECT_EQ(in.remaining(), 0u);
}

// Every value type at its edges, and the hashes of text that keyed collections use.
TEST(CrossTarget, ValueTypesLogTheSameBytes) {
  auto out = textStream();
  for (char const* text : {"", "fabric1", "a longer name, with punctuation: \xe9"}) {
    out << Zel::Hash<Zel::String>()(Zel::String(text)) << ' ' << Zel::Hash<Zel::Name>()(text)
        << '\n';
  }
  for (U16 v : {0, 1, 0x7fff, 0x8000, 0xffff}) logLine(out, Seqno16(v));
  for (U32 v : {0u, 1u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) logLine(out, Seqno32(v));
  for (U64 v : {U64(0), U64(1) << 32, (U64(1) << 63) - 1}) logLine(out, MaybeU63(v));
  logLine(out, MaybeU63::none());
  logLine(out, TristateBool());
  logLine(out, TristateBool(true));
  logLine(out, TristateBool(false));
  UniqueId id;
  id.timestampIs(0x80000001);
  id.pidIs(0xbeef);
  id.countIs(7);
  logLine(out, id);
  logLine(out, UniqueId());
  for (U16 v : {0, 4094, 65535}) logLine(out, Id(v));
  IdSet set(16320, Id(70));
  set.idSetRange(64, 200);
  set.idIs(16319, true);
  logLine(out, set);
  logLine(out, Range(0, 0xffffffff));
  logLine(out, TimedU32(1.0e9 + 0.1, 0xfffffffe));
  logLine(out, TimedRange(-0.0, Range(5, 9)));
  logLine(out, TimedRange(Zel::endOfTime, Range(1, 1)));
  for (U32 v : {2u, 64u, 0xfffffffeu}) logLine(out, BucketSize(v));
  logLine(out, Cuckoo::TableId(0));
  logLine(out, Cuckoo::TableId(9));
  logLine(out, Cuckoo::CuckooLocation(Cuckoo::TableId(3), 2, 0xfffffff0));
  logLine(out, BFA::JumboFreeBlk(0x10000, 0xfffe0000));
  logLine(out, XactConfig(0xffffffff, 0x80000000));
  logLine(out, XactStatus(3, XactResult::xactFailure, Zel::String("worker 'b' failed\n"), 9));
  logLine(out, ExecResult(XactResult::xactSuccess, Zel::String()));
  out << Zel::valueToStrep(BFA::PendingCmd(0xffffff00, BFA::blkFactory(16, 0x80))) << '\n';
  expectDigest("valueLogs", out.str(), 0xde2e1bbd88e8bdf9ull);
}

// Inserts and removals on small crowded tables, so that long eviction paths, cycles and failures
// occur; every call's queued writes are rendered in order.
TEST(CrossTarget, SeededCuckooRunQueuesTheSameWrites) {
  using namespace Cuckoo;
  auto config = configFactory("digest", 3);
  for (U8 t = 0; t < 3; ++t) config->tableDescListIs(TableId(t), 13, 2);
  config->hitlessIs(true);
  config->maxLoopIs(40);
  config->randomSeedIs(7);
  config->reviewPendingItemSupportIs(false);
  auto status = statusFactory("digest");
  auto table = hashTableFactory(config, status);
  table->handleInitialized();

  SplitMix64 random(1);
  std::vector<Zel::Ptr<HashItem const>> items;
  for (U32 key = 0; key < 100; ++key) {
    // One draw per statement: the order in which arguments are evaluated differs by compiler.
    U32 const hash0 = random.below(1000);
    U32 const hash1 = random.below(1000);
    items.push_back(intHashItemFactory(key, hash0, hash1, random.below(1000)));
  }
  auto out = textStream();
  for (int call = 0; call < 2000; ++call) {
    auto const& item = items[random.below(U32(items.size()))];
    bool const inserting = random.below(3) != 0;
    bool const done = inserting ? table->insertItem(item) : table->deleteItem(item);
    out << (inserting ? "insert " : "delete ") << item->toStrep() << ' ' << done << ':';
    for (Zel::Ptr<CuckooItem> const& write : status->cuckooCmds()->itemSeqIteratorConst()) {
      out << ' ' << write->location() << '=';
      if (write->item()) out << write->item()->toStrep();
    }
    out << '\n';
    config->cmdReadCompletedInc(1);
  }
  out << "retries " << status->retryCount() << " cycles " << status->cycleCount() << " longest "
      << status->longestCycle() << " occupancy " << status->occupancy() << '\n';
  expectDigest("cuckoo", out.str(), 0x5879302854cb4e4full);
}

// Allocations by best fit among classes and jumbo blocks, releases, a compaction and a shrink.
TEST(CrossTarget, BestFitMovesTheSameBlocks) {
  auto allocator = bestFitAllocatorFactory(4096, 0x1000, 48);
  SplitMix64 random(2);
  std::vector<Zel::Ptr<BFA::Blk>> held;
  auto out = textStream();
  for (int step = 0; step < 3000; ++step) {
    if (held.empty() || random.below(5) < 3) {
      auto blk = allocator->alloc(1 + random.below(48));
      out << "alloc " << (blk ? blk->index() : 0) << '+' << (blk ? blk->size() : 0) << '\n';
      if (blk) held.push_back(blk);
    } else {
      U32 const victim = random.below(U32(held.size()));
      std::swap(held[victim], held.back());
      held.pop_back();
    }
  }
  auto const renderMoves = [&](Zel::Ptr<BFA::PendingCmds> const& moves) {
    if (!moves) return;
    for (BFA::PendingCmd const& move : moves->pendingCmdLogIteratorConst()) {
      out << "move " << move.oldIndex() << " -> " << move.blk()->index() << '+'
          << move.blk()->size() << '\n';
    }
  };
  renderMoves(allocator->defragment());
  for (U32 i = 0; i < held.size(); i += 2) held[i] = nullptr;
  renderMoves(allocator->resizeMemory(allocator->memSz() - allocator->numFreeEntries() / 2));
  out << "memSz " << allocator->memSz() << " free " << allocator->numFreeEntries() << '\n';
  expectDigest("bestFit", out.str(), 0xb66038624be3e67eull);
}

IdSet randomIdSet(SplitMix64& random, U16 size) {
  IdSet set(size);
  for (U32 run = random.below(6); run > 0; --run) {
    U16 const first = U16(random.below(size - 1));
    set.idSetRange(first, U16(first + 1 + random.below(std::min<U32>(200, size - first - 1))));
  }
  return set;
}

TEST(CrossTarget, IdSetsPrintTheSameRuns) {
  SplitMix64 random(3);
  auto out = textStream();
  for (int i = 0; i < 200; ++i) {
    U16 const size = U16(64 + random.below(2000));
    IdSet const a = randomIdSet(random, size), b = randomIdSet(random, size);
    out << a << ' ' << b << ' ' << (a | b) << ' ' << (a & b) << ' ' << (a - b) << ' ' << (a ^ b)
        << ' ' << ~a << ' ' << (a == b) << '\n';
  }
  expectDigest("idSet", out.str(), 0x7e8dc5852761de6aull);
}

// Timers armed, moved and disarmed between turns of a virtual-time loop; the firing order and
// instants.
TEST(CrossTarget, TimerWheelFiresInTheSameOrder) {
  Zel::System::VirtualTimeScope virtualTime(1.0e9);
  auto wheel = timerWheelFactory(Zel::activityManager()->clock(), 7, 20000, true, 16);
  auto out = textStream();
  struct Timer : TimerWheel::NotifieeConst {
    Timer(std::ostream& out, U32 id) : out(out), id(id) {}
    void onTimeMin() override { out << id << '@' << Zel::System::currentTime() << '\n'; }
    std::ostream& out;
    U32 id;
  };
  std::vector<std::unique_ptr<Timer>> timers;
  for (U32 id = 0; id < 400; ++id) {
    timers.push_back(std::make_unique<Timer>(out, id));
    timers.back()->notifierIs(wheel);
  }
  SplitMix64 random(4);
  for (int turn = 0; turn < 300; ++turn) {
    for (int change = 0; change < 8; ++change) {
      Timer& timer = *timers[random.below(U32(timers.size()))];
      Seconds delay = random.below(200000) / 1000.0;
      delay += random.below(1000) * 1e-7;
      timer.timeMinIs(random.below(10) ? Zel::System::currentTime() + delay : Zel::endOfTime);
    }
    Zel::activityManager()->runUntil(Zel::System::currentTime() + random.below(2000) / 1000.0);
  }
  Zel::activityManager()->runUntil(Zel::System::currentTime() + 300.0);
  expectDigest("timerWheel", out.str(), 0x6522a80687ef3cd0ull);
}

// Hold-down expiry instants come from a float granularity times the expiry time: the numbers
// come back at the same instants on both targets only if the arithmetic rounds the same.
TEST(CrossTarget, NumbersComeBackAtTheSameInstants) {
  Zel::System::VirtualTimeScope virtualTime(100.5);
  auto config = numAllocatorConfigFactory(Range(1, 40));
  config->expiryTimeIs(7.3);
  config->expiryTimeGranularityIs(0.3f);
  auto status = numAllocatorStatusFactory();
  auto allocator = numAllocatorFactory(config, status);
  SplitMix64 random(5);
  std::vector<U32> active;
  auto out = textStream();
  for (int step = 0; step < 3000; ++step) {
    if (step == 1500) config->expiryTimeIs(30.0);
    if (active.empty() || random.below(2)) {
      S64 const got = allocator->getNumber();
      out << Zel::System::currentTime() << " get " << got << '\n';
      if (got != NumAllocator::invalidNumber) active.push_back(U32(got));
    } else {
      U32 const victim = random.below(U32(active.size()));
      std::swap(active[victim], active.back());
      allocator->releaseNumber(active.back());
      out << Zel::System::currentTime() << " release " << active.back() << " until "
          << allocator->holdDownPool()->getEarliest().timestamp() << '\n';
      active.pop_back();
    }
    Zel::activityManager()->runUntil(Zel::System::currentTime() + random.below(700) / 1000.0);
  }
  expectDigest("numAllocator", out.str(), 0x20df630befcc2592ull);
}

// Range updates and searches over a bitmap several levels high, near the top of its size too.
TEST(CrossTarget, BitmapSearchesFindTheSameBits) {
  using enum HBitmap::IndexPreference;
  U32 const size = (1u << 22) + 37;
  auto bitmap = hBitmapFactory(1, size, HBitmap::BitState::bitClear);
  SplitMix64 random(6);
  auto out = textStream();
  for (int step = 0; step < 2000; ++step) {
    U32 const start = random.below(size);
    U32 const end = start + random.below(std::min(size - start, 5000u));
    switch (random.below(4)) {
      case 0: bitmap->setBitsInRange(start, end); break;
      case 1: bitmap->clearBitsInRange(start, end); break;
      case 2: bitmap->setBit(start); break;
      default: bitmap->clearBit(start); break;
    }
    out << bitmap->numBitsInSetState() << ' ' << bitmap->findBitInSetState(preferLo) << ' '
        << bitmap->findBitInSetState(preferHi) << ' '
        << bitmap->findClearBitInRange(start, end, preferHi) << ' '
        << bitmap->findSetBitInRange(start / 2, end, preferLo) << '\n';
  }
  expectDigest("hBitmap", out.str(), 0xb7f241a129eab4ffull);
}

// A worker that fails the transactions whose id its name's length divides, and notes what it ran.
class Worker : public XactExecutorSm {
public:
  std::ostream* out = nullptr;

protected:
  using XactExecutorSm::XactExecutorSm;
  ExecResult doExecute(XactConfig const& config) override {
    *out << Zel::System::currentTime() << ' ' << name() << " runs " << config << '\n';
    Zel::System::sleep(0.004);
    if (config.id() % name().size() != 0) return ExecResult(XactResult::xactSuccess, "");
    return ExecResult(XactResult::xactFailure, "no room on " + name().str());
  }
};

// Transactions over workers that answer at once or in time slices, several failing each: the
// order in which the workers ran them, and each transaction's result and comments. The
// aggregator walks its directories, and a transaction its comments, in hash order.
TEST(CrossTarget, TransactionsRunInTheSameOrder) {
  Zel::System::VirtualTimeScope virtualTime(1000.0);
  Zel::Ptr<Zel::Clock> const& clock = Zel::activityManager()->clock();
  auto aggregator = xactAggregatorSmFactory("coordinator", clock);
  auto xacts = xactDirFactory("xacts");
  auto out = textStream();
  std::vector<Zel::Ptr<Worker>> workers;
  for (char const* name : {"lc1", "lc2", "fabric1", "fabric2", "supervisor", "sup2", "mgmt"}) {
    auto configDir = xactConfigDirFactory(name);
    auto statusDir = xactStatusDirFactory(name);
    bool const sliced = workers.size() % 2 != 0;
    workers.push_back(xactExecutorSmFactory<Worker>(Zel::String(name), configDir, statusDir,
                                                    sliced ? clock : Zel::Ptr<Zel::Clock>()));
    workers.back()->out = &out;
    aggregator->xactConfigDirIs(configDir);
    aggregator->xactStatusDirIs(statusDir);
  }
  SplitMix64 random(7);
  for (U32 id = 1; id <= 60; ++id) {
    aggregator->doStartXact(xacts->xactIs(id));
    Zel::activityManager()->runUntil(Zel::System::currentTime() + random.below(30) / 1000.0);
  }
  Zel::activityManager()->runUntil(Zel::System::currentTime() + 100.0);
  for (U32 id = 1; id <= 60; ++id) {
    Zel::Ptr<Xact> const x = xacts->xact(id);
    out << id << ' ' << x->result();
    for (auto const& [source, text] : x->commentIteratorConst())
      out << ' ' << source << '=' << text;
    out << '\n';
  }
  expectDigest("xact", out.str(), 0x2bbc52f50ef82271ull);
}

}  // namespace
}  // namespace Kiv
