// The activity runtime: the clock's schedule under virtual time checked against a reference
// model, the turns of the loop, virtual sleep, descriptor readability, and one wall-time run.
#include <Zel/Activity.h>
#include <Zel/Clock.h>
#include <Zel/Exception.h>
#include <Zel/FileDescriptor.h>
#include <Zel/System.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <compare>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Zel::endOfTime;
using Zel::Seconds;
using Zel::U64;
using Zel::System::currentTime;

constexpr Seconds start = 1000.0;

Zel::Ptr<Zel::ActivityManager> activity() { return Zel::activityManager(); }
Zel::Ptr<Zel::Clock> const& loopClock() { return Zel::activityManager()->clock(); }

// A notifiee of the loop's clock that counts its firings and then runs the test's action.
class Alarm : public Zel::Clock::NotifieeConst {
public:
  explicit Alarm(std::function<void(Alarm&)> action = {}) : action_(std::move(action)) {
    notifierIs(loopClock());
  }
  void onTime() override {
    ++fired;
    firedAt = currentTime();
    if (action_) action_(*this);
  }

  int fired = 0;
  Seconds firedAt = std::nan("");

private:
  std::function<void(Alarm&)> action_;
};

class ActivityTest : public testing::Test {
protected:
  void SetUp() override {
    Zel::System::virtualTimeIs(start);
    ASSERT_EQ(loopClock()->armedCount(), 0u) << "an earlier test left notifiees armed";
  }
  void TearDown() override { Zel::System::virtualTimeDel(); }
};
using ClockTest = ActivityTest;
using FileDescriptorTest = ActivityTest;
using VirtualTimeTest = ActivityTest;

// Notifiees armed (ties included), moved, disarmed and destroyed at random, from the test and
// from inside their handlers, against the reference: the armed set keyed by (timeMin, order of
// arming). The loop must always fire the least key, at max(timeMin, time of the previous
// firing), exactly once, and runUntil(t) must end at t with only later keys left.
class RandomSchedule {
public:
  static constexpr int size = 48;

  explicit RandomSchedule(unsigned seed) : random_(seed), probes_(size), keyOf_(size) {
    for (int id = 0; id < size; ++id) probes_[id] = std::make_unique<Probe>(*this, id);
  }

  void act(int self = -1) {
    int const id = pick(size);
    switch (pick(8)) {
      case 0: timeMinIs(id, endOfTime); break;
      case 1: replace(id); break;
      case 2: if (self >= 0) timeMinIs(self, currentTime() - pick(3)); break;
      default: timeMinIs(id, currentTime() + 0.5 * (pick(40) - 4)); break;
    }
  }

  void runUntil(Seconds t) {
    lastFiring_ = currentTime();
    activity()->runUntil(t);
    EXPECT_EQ(currentTime(), t);
    if (!armed_.empty()) {
      EXPECT_GT(armed_.begin()->first.time, t);
    }
  }

  void checkInvariants() const {
    ASSERT_EQ(loopClock()->armedCount(), armed_.size());
    EXPECT_EQ(loopClock()->nextTime(), armed_.empty() ? endOfTime : armed_.begin()->first.time);
    for (int id = 0; id < size; ++id) {
      EXPECT_EQ(probes_[id]->armed(), keyOf_[id].has_value()) << id;
      EXPECT_EQ(probes_[id]->timeMin(), keyOf_[id] ? keyOf_[id]->time : endOfTime) << id;
    }
  }

  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }
  std::string const& firstFault() const { return firstFault_; }
  int firings() const { return firings_; }
  bool empty() const { return armed_.empty(); }

private:
  struct Key {
    Seconds time;
    U64 order;
    auto operator<=>(Key const&) const = default;
  };

  class Probe : public Zel::Clock::NotifieeConst {
  public:
    Probe(RandomSchedule& schedule, int id) : schedule_(schedule), id_(id) {
      notifierIs(loopClock());
    }
    // May destroy this probe: touches nothing after the call.
    void onTime() override { schedule_.fired(id_); }

  private:
    RandomSchedule& schedule_;
    int id_;
  };

  void forget(int id) {
    if (keyOf_[id]) armed_.erase(*keyOf_[id]);
    keyOf_[id].reset();
  }
  void timeMinIs(int id, Seconds t) {
    probes_[id]->timeMinIs(t);
    forget(id);
    if (t == endOfTime) return;
    keyOf_[id] = Key{t, nextOrder_++};
    armed_.emplace(*keyOf_[id], id);
  }
  void replace(int id) {
    probes_[id] = std::make_unique<Probe>(*this, id);
    forget(id);
  }

  // A turn fires every notifiee due when it began, in key order; one armed during the turn
  // waits for the next. So a firing is wrong when it is not due, or when an entry armed before
  // it with a time no later is still waiting: that entry was in the same turn, ahead of it.
  void fired(int id) {
    ++firings_;
    Seconds const now = currentTime();
    std::optional<Key> const key = keyOf_[id];
    bool const due = key && now == std::max(key->time, lastFiring_);
    bool const overtook = key && std::any_of(armed_.begin(), armed_.end(), [&](auto const& e) {
      return e.second != id && e.first.time <= key->time && e.first.order < key->order;
    });
    if (firstFault_.empty() && (!due || overtook || probes_[id]->armed())) {
      firstFault_ = "probe " + std::to_string(id) + " fired out of turn, or armed, at " +
                    std::to_string(now);
    }
    forget(id);
    lastFiring_ = now;
    for (int actions = pick(3); actions > 0; --actions) act(id);
  }

  std::mt19937 random_;
  std::vector<std::unique_ptr<Probe>> probes_;
  std::vector<std::optional<Key>> keyOf_;
  std::map<Key, int> armed_;
  U64 nextOrder_ = 0;
  Seconds lastFiring_ = start;
  std::string firstFault_;
  int firings_ = 0;
};

TEST_F(ClockTest, RandomArmMoveDisarmAndDestroyMatchTheReferenceModel) {
  for (unsigned seed : {1u, 2u, 3u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Zel::System::virtualTimeIs(start);
    RandomSchedule schedule(seed);
    for (int round = 0; round < 3000; ++round) {
      for (int i = 0; i < 3; ++i) schedule.act();
      schedule.runUntil(currentTime() + 0.5 * schedule.pick(7));
      schedule.checkInvariants();
      ASSERT_EQ(schedule.firstFault(), "") << "round " << round;
    }
    schedule.runUntil(currentTime() + 1e6);
    EXPECT_TRUE(schedule.empty());
    EXPECT_GT(schedule.firings(), 5000);  // the run is not vacuous
  }
}

TEST_F(ClockTest, RearmingInAHandlerFiresOnTheNextTurnNeverRecursively) {
  std::string fired;
  Alarm other([&](Alarm&) { fired += 'o'; });
  Alarm repeater([&](Alarm& self) {
    fired += 'r';
    EXPECT_EQ(self.timeMin(), endOfTime);
    EXPECT_FALSE(self.armed());
    if (self.fired < 3) self.timeMinIs(currentTime() - 5);
    if (self.fired == 1) other.timeMinIs(currentTime());
  });
  repeater.timeMinIs(start + 1);
  Zel::System::virtualTimeIs(start + 1);
  EXPECT_EQ(activity()->runOnce(0), 1u);
  EXPECT_EQ(fired, "r");
  for (int turn = 2; turn <= 3; ++turn) {
    EXPECT_GE(activity()->runOnce(0), 1u);
    EXPECT_EQ(repeater.fired, turn);
  }
  for (int turn = 4; turn <= 6; ++turn) activity()->runOnce(0);
  // Turn 2 fires the repeater (its past timeMin orders it first) and then the other; the
  // repeater's third firing, armed during turn 2, waits for turn 3.
  EXPECT_EQ(fired, "rror");
  EXPECT_EQ(other.firedAt, start + 1);
  EXPECT_EQ(repeater.firedAt, start + 1);
  EXPECT_EQ(loopClock()->armedCount(), 0u);
}

// A notifiee that keeps re-arming for the past must not starve the others that are due.
TEST_F(ClockTest, ABusyRearmingNotifieeDoesNotStarveTheOthers) {
  Alarm busy([](Alarm& self) { self.timeMinIs(0); });
  Alarm poll;
  poll.timeMinIs(start - 50);
  busy.timeMinIs(0);
  activity()->runOnce(0);
  EXPECT_EQ(poll.fired, 1);
  EXPECT_EQ(busy.fired, 1);
  busy.timeMinIs(endOfTime);
}

TEST_F(ClockTest, DetachingOrMovingToAnotherClockCarriesTheArming) {
  Alarm alarm;
  alarm.timeMinIs(start + 1);
  alarm.notifierIs(nullptr);
  EXPECT_FALSE(alarm.armed());
  EXPECT_EQ(alarm.timeMin(), start + 1);
  auto other = Zel::clockFactory();
  alarm.notifierIs(other);
  EXPECT_EQ(other->nextTime(), start + 1);

  activity()->runUntil(start + 2);
  EXPECT_EQ(alarm.fired, 0);
  EXPECT_EQ(other->doFireDue(currentTime()), 1u);

  alarm.timeMinIs(start + 1.5);
  alarm.notifierIs(loopClock());  // armed for a time already past: fires at once
  EXPECT_EQ(other->armedCount(), 0u);
  activity()->runUntil(start + 4);
  EXPECT_EQ(alarm.fired, 2);
  EXPECT_EQ(alarm.firedAt, start + 2);
}

TEST_F(ClockTest, AMillionArmedNotifieesFireInOrder) {
  constexpr std::size_t count = 1'000'000;
  struct Logged : Zel::Clock::NotifieeConst {
    std::vector<Logged const*>* log;
    void onTime() override { log->push_back(this); }
  };
  std::vector<Logged const*> log;
  log.reserve(count);
  auto notifiees = std::make_unique<Logged[]>(count);
  std::vector<Seconds> times(count);
  std::mt19937 random(7);
  for (std::size_t i = 0; i < count; ++i) {
    times[i] = start + 1 + std::uniform_int_distribution<int>(0, 9999)(random) * 0.25;
    notifiees[i].log = &log;
    notifiees[i].notifierIs(loopClock());
    notifiees[i].timeMinIs(times[i]);
  }
  for (std::size_t i = 0; i < count; i += 3) notifiees[i].timeMinIs(endOfTime);
  EXPECT_EQ(loopClock()->armedCount(), count - (count + 2) / 3);

  activity()->runUntil(start + 3000);
  ASSERT_EQ(log.size(), count - (count + 2) / 3);
  std::size_t misordered = 0;
  for (std::size_t k = 0; k < log.size(); ++k) {
    std::size_t const i = log[k] - notifiees.get();
    if (i % 3 == 0) ++misordered;
    if (k == 0) continue;
    std::size_t const previous = log[k - 1] - notifiees.get();
    if (times[previous] > times[i] || (times[previous] == times[i] && previous > i)) ++misordered;
  }
  EXPECT_EQ(misordered, 0u);
}

TEST_F(ActivityTest, RunEndsWhenNothingIsArmedOrOnStop) {
  ASSERT_EQ(activity()->descriptorCount(), 0u);
  Alarm ticker([](Alarm& self) {
    if (self.fired < 5) self.timeMinIs(currentTime() + 1.5);
  });
  ticker.timeMinIs(start + 1);
  activity()->run();
  EXPECT_EQ(ticker.fired, 5);
  EXPECT_EQ(currentTime(), start + 7);

  Alarm later;
  later.timeMinIs(start + 9);
  Alarm stopper([](Alarm&) { Zel::activityManager()->stop(); });
  stopper.timeMinIs(start + 8);
  activity()->runUntil(start + 20);
  EXPECT_EQ(currentTime(), start + 8);
  stopper.timeMinIs(start + 8.5);
  activity()->run();
  EXPECT_EQ(currentTime(), start + 8.5);
  EXPECT_EQ(later.fired, 0);
  activity()->runUntil(start + 20);  // a new run starts afresh
  EXPECT_EQ(later.fired, 1);
}

TEST_F(VirtualTimeTest, SleepMovesTheVirtualTimeAndTheLoopFiresWhatBecameDue) {
  Alarm alarm;
  alarm.timeMinIs(start + 1);
  Zel::System::sleep(2.5);
  Zel::System::sleep(-1);
  EXPECT_EQ(currentTime(), start + 2.5);
  EXPECT_EQ(alarm.fired, 0);
  EXPECT_EQ(activity()->runOnce(0), 1u);
  EXPECT_EQ(alarm.firedAt, start + 2.5);
}

// Both ends of a stream socketpair, closed when it goes out of scope.
class SocketPair {
public:
  SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_), 0); }
  ~SocketPair() {
    close(ends_[0]);
    close(ends_[1]);
  }
  int reader() const { return ends_[0]; }
  void send(std::string_view bytes) const {
    EXPECT_EQ(write(ends_[1], bytes.data(), bytes.size()), ssize_t(bytes.size()));
  }

private:
  int ends_[2] = {-1, -1};
};

// Reads up to bytesPerCall bytes each time its descriptor is readable, then runs the action.
class Reader : public Zel::FileDescriptor::Notifiee {
public:
  Reader(Zel::Ptr<Zel::FileDescriptor> const& fd, std::size_t bytesPerCall,
         std::function<void()> action = {})
      : bytesPerCall(bytesPerCall), action_(std::move(action)) {
    notifierIs(fd);
  }
  void onReadableCount() override {
    ++calls;
    char buffer[256];
    if (bytesPerCall > 0) {
      ssize_t const n = read(notifier()->descriptor(), buffer, bytesPerCall);
      if (n > 0) received.append(buffer, std::size_t(n));
    }
    if (action_) action_();
  }

  std::size_t bytesPerCall;
  int calls = 0;
  std::string received;

private:
  std::function<void()> action_;
};

Zel::Ptr<Zel::FileDescriptor> watched(int descriptor) {
  auto fd = Zel::fileDescriptorFactory("watched");
  fd->descriptorIs(descriptor);
  return fd;
}

template <class Operation>
void expectErrno(Operation&& operation, int expected) {
  try {
    operation();
    ADD_FAILURE() << "no ErrnoException";
  } catch (Zel::ErrnoException const& e) {
    EXPECT_EQ(e.errorNumber(), expected) << e.what();
  }
}

TEST_F(FileDescriptorTest, ReadableEndNotifiesOnEveryTurnUntilDrained) {
  SocketPair pair;
  auto fd = watched(pair.reader());
  fd->nonBlockingIs(true);
  EXPECT_NE(fcntl(pair.reader(), F_GETFL) & O_NONBLOCK, 0);
  Reader reader(fd, 1);
  EXPECT_EQ(activity()->runOnce(0), 0u);

  pair.send("abc");
  EXPECT_EQ(activity()->runOnce(0), 1u);
  EXPECT_EQ(activity()->runOnce(0), 1u);
  EXPECT_EQ(activity()->runOnce(0), 1u);
  EXPECT_EQ(activity()->runOnce(0), 0u);
  EXPECT_EQ(reader.received, "abc");
  EXPECT_EQ(fd->readableCount(), 3u);
  char byte;
  ssize_t const drained = read(pair.reader(), &byte, 1);
  int const error = errno;
  EXPECT_EQ(drained, -1);
  EXPECT_EQ(error, EAGAIN);

  reader.bytesPerCall = 64;
  pair.send("defgh");
  activity()->runUntil(start + 1);
  EXPECT_EQ(reader.received, "abcdefgh");
  EXPECT_EQ(currentTime(), start + 1);

  fd->nonBlockingIs(false);
  EXPECT_EQ(fcntl(pair.reader(), F_GETFL) & O_NONBLOCK, 0);
}

// What a clock handler writes to a watched socket is read at the same virtual instant, and a
// descriptor reused after its first owner closed it keeps notifying its new owner.
TEST_F(FileDescriptorTest, AWriteFromAHandlerIsReadAtOnceAndAReusedNumberHasItsNewOwner) {
  SocketPair pair;
  auto fd = watched(pair.reader());
  Seconds readAt = 0;
  Reader reader(fd, 64, [&] { readAt = currentTime(); });
  Alarm writer([&](Alarm&) { pair.send("now"); });
  writer.timeMinIs(start + 3);
  Alarm later;
  later.timeMinIs(start + 8);
  activity()->runUntil(start + 10);
  EXPECT_EQ(reader.received, "now");
  EXPECT_EQ(readAt, start + 3);

  int first[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, first), 0);
  auto stale = watched(first[0]);
  close(first[0]);
  close(first[1]);
  SocketPair reused;  // takes the lowest free numbers, the ones just closed
  auto fresh = watched(reused.reader());
  Reader owner(fresh, 64);
  stale->descriptorIs(-1);
  reused.send("still here");
  activity()->runOnce(0);
  EXPECT_EQ(owner.received, "still here");
}

TEST_F(FileDescriptorTest, RemovedFromItsOwnHandlerWhileStillReadable) {
  SocketPair pair;
  std::size_t const before = activity()->descriptorCount();
  auto fd = watched(pair.reader());
  Reader reader(fd, 0, [&] { fd->descriptorIs(-1); });
  pair.send("xyz");
  EXPECT_EQ(activity()->runOnce(0), 1u);
  EXPECT_EQ(fd->descriptor(), -1);
  EXPECT_EQ(activity()->descriptorCount(), before);
  EXPECT_EQ(activity()->runOnce(0), 0u);

  fd->descriptorIs(pair.reader());  // the unread data notifies again at once
  EXPECT_EQ(activity()->runOnce(0), 1u);
  EXPECT_EQ(reader.calls, 2);
}

TEST_F(FileDescriptorTest, DestroyingAnotherDescriptorInTheSameTurnSkipsIt) {
  struct Watch {
    Watch(int descriptor, std::function<void()> action)
        : fd(watched(descriptor)), reader(fd, 1, std::move(action)) {}
    Zel::Ptr<Zel::FileDescriptor> fd;
    Reader reader;
  };
  std::size_t const before = activity()->descriptorCount();
  SocketPair pairs[2];
  std::unique_ptr<Watch> watches[2];
  for (int i = 0; i < 2; ++i) {
    watches[i] = std::make_unique<Watch>(pairs[i].reader(), [&watches, i] { watches[1 - i].reset(); });
    pairs[i].send("12");
  }
  EXPECT_EQ(activity()->runOnce(0), 1u);
  ASSERT_EQ(bool(watches[0]) + bool(watches[1]), 1);
  EXPECT_EQ(activity()->descriptorCount(), before + 1);
  EXPECT_EQ(activity()->runOnce(0), 1u);
  Watch const& survivor = watches[0] ? *watches[0] : *watches[1];
  EXPECT_EQ(survivor.reader.received, "12");
  EXPECT_EQ(activity()->runOnce(0), 0u);
}

TEST_F(FileDescriptorTest, RejectedNumberThrowsItsErrnoAndTheLoopKeepsWorking) {
  SocketPair pair;
  auto fd = watched(pair.reader());
  Reader reader(fd, 1);

  int closed[2];
  ASSERT_EQ(pipe(closed), 0);
  close(closed[0]);
  close(closed[1]);
  auto bad = Zel::fileDescriptorFactory("bad");
  expectErrno([&] { bad->descriptorIs(closed[0]); }, EBADF);
  expectErrno([&] { bad->descriptorIs(1 << 24); }, EBADF);  // beyond any descriptor limit
  EXPECT_EQ(bad->descriptor(), -1);
  expectErrno([&] { bad->nonBlockingIs(true); }, EBADF);

  std::FILE* file = std::tmpfile();  // open, but regular files cannot be watched
  ASSERT_NE(file, nullptr);
  expectErrno([&] { fd->descriptorIs(fileno(file)); }, EPERM);
  std::fclose(file);
  EXPECT_EQ(fd->descriptor(), pair.reader());

  pair.send("k");
  EXPECT_EQ(activity()->runOnce(0), 1u);
  EXPECT_EQ(reader.received, "k");
}

TEST(ActivityWallTimeTest, RunUntilNeverFiresEarly) {
  ASSERT_FALSE(Zel::System::virtualTime());
  Alarm alarm;
  Seconds const now = currentTime();
  alarm.timeMinIs(now + 0.02);
  activity()->runUntil(now + 0.05);
  EXPECT_EQ(alarm.fired, 1);
  EXPECT_GE(alarm.firedAt, now + 0.02);
}

TEST(ClockDeathTest, NanTimesAreRefused) {
  Alarm alarm;
  EXPECT_DEATH(alarm.timeMinIs(std::nan("")), "isnan");
  EXPECT_DEATH(activity()->runUntil(std::nan("")), "isnan");
  EXPECT_DEATH(Zel::System::virtualTimeIs(std::nan("")), "isnan");
}

}  // namespace
