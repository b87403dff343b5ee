// The activity runtime: the clock's schedule under virtual time checked against a reference
// model, the end of a run, descriptor readability, and one wall-time run.
#include "Model.h"

#include <Zel/Exception.h>
#include <Zel/FileDescriptor.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>

namespace {

using Zel::endOfTime;
using Zel::Seconds;
using Zel::System::currentTime;

constexpr Seconds start = 1000.0;

Zel::Ptr<Zel::ActivityManager> activity() { return Zel::activityManager(); }
Zel::Ptr<Zel::Clock> const& loopClock() { return Zel::activityManager()->clock(); }

// A notifiee of the loop's clock, armed for `at`, that counts its firings and then runs the
// test's action.
struct Alarm : Zel::Clock::NotifieeConst {
  explicit Alarm(Seconds at = endOfTime, std::function<void(Alarm&)> action = {})
      : action(std::move(action)) {
    notifierIs(loopClock());
    timeMinIs(at);
  }
  void onTime() override {
    ++fired;
    firedAt = currentTime();
    if (action) action(*this);
  }
  std::function<void(Alarm&)> action;
  int fired = 0;
  Seconds firedAt = std::nan("");
};

class ActivityTest : public testing::Test {
protected:
  void SetUp() override {
    Zel::System::virtualTimeIs(start);
    ASSERT_EQ(loopClock()->armedCount(), 0u) << "an earlier test left notifiees armed";
  }
  void TearDown() override { Zel::System::virtualTimeDel(); }
};

// Notifiees armed (ties included), re-armed, disarmed, destroyed and passed through another clock
// at random, from the test and from their handlers, against the reference: the armed set keyed by
// (timeMin, order of arming), where a move between clocks keeps timeMin and arms anew. A turn
// fires, in key order, every notifiee due when it began and not disarmed or moved since; one
// armed during the turn, even for the past, waits for the next. Time moves to the least key only
// once nothing is due.
struct RandomSchedule {
  static constexpr int size = 256;
  int firings = 0;

  explicit RandomSchedule(unsigned seed) : random_(seed), probes_(size), keyOf_(size) {
    for (int id = 0; id < size; ++id) replace(id);
  }
  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }

  void act(int self = -1) {
    int const id = pick(size);
    switch (pick(9)) {
      case 0: timeMinIs(id, endOfTime); break;
      case 1: replace(id); break;
      case 2:
        if (self >= 0) timeMinIs(self, currentTime() - pick(3));
        break;
      case 3:
        probes_[id]->notifierIs(other_);
        probes_[id]->notifierIs(pick(2) ? loopClock() : nullptr);
        probes_[id]->notifierIs(loopClock());
        model(id, keyOf_[id] ? keyOf_[id]->time : endOfTime);
        break;
      default: timeMinIs(id, currentTime() + 0.5 * (pick(100) - 4)); break;
    }
  }

  // Runs the loop to `t`, then checks the clock and every probe against the model.
  void runUntil(Seconds t) {
    lastFiring_ = currentTime();
    activity()->runUntil(t);
    EXPECT_EQ(currentTime(), t);
    EXPECT_TRUE(std::ranges::none_of(turn_, [&](auto const& e) { return current(e); }));
    turn_.clear();
    ASSERT_EQ(loopClock()->armedCount(), armed_.size());
    EXPECT_EQ(loopClock()->nextTime(), armed_.empty() ? endOfTime : armed_.begin()->first.time);
    EXPECT_GT(loopClock()->nextTime(), t);
    EXPECT_EQ(other_->armedCount(), 0u);
    std::vector<std::pair<Seconds, bool>> seen, expected;
    for (int id = 0; id < size; ++id) {
      seen.emplace_back(probes_[id]->timeMin(), probes_[id]->armed());
      expected.emplace_back(keyOf_[id] ? keyOf_[id]->time : endOfTime, keyOf_[id].has_value());
    }
    EXPECT_EQ(seen, expected);
  }

  struct Key {
    Seconds time;
    Zel::U64 order;
    auto operator<=>(Key const&) const = default;
  };
  using Entry = std::pair<Key const, int>;

  bool current(Entry const& e) const { return keyOf_[e.second] == e.first; }
  // Records that probe `id` now has timeMin `t`.
  void model(int id, Seconds t) {
    if (keyOf_[id]) armed_.erase(*std::exchange(keyOf_[id], std::nullopt));
    if (t != endOfTime) armed_.emplace(*(keyOf_[id] = Key{t, nextOrder_++}), id);
  }
  // The handler may destroy its own alarm: Alarm touches nothing after the action.
  void replace(int id) {
    probes_[id] = std::make_unique<Alarm>(endOfTime, [this, id](Alarm&) { fired(id); });
    model(id, endOfTime);
  }
  void timeMinIs(int id, Seconds t) {
    probes_[id]->timeMinIs(t);
    model(id, t);
  }
  void fired(int id) {
    ++firings;
    Seconds const now = currentTime();
    while (!turn_.empty() && !current(turn_.front())) turn_.pop_front();
    if (turn_.empty() && !armed_.empty()) {  // a new turn, at the least key if time moved
      EXPECT_EQ(now, std::max(armed_.begin()->first.time, lastFiring_));
      for (auto it = armed_.begin(); it != armed_.end() && it->first.time <= now; ++it) {
        turn_.push_back(*it);
      }
    }
    ASSERT_FALSE(turn_.empty()) << "probe " << id << " fired at " << now << " while not due";
    EXPECT_EQ(turn_.front().second, id) << "at " << now;
    EXPECT_EQ(std::pair(probes_[id]->armed(), probes_[id]->timeMin()), std::pair(false, endOfTime));
    turn_.pop_front();
    model(id, endOfTime);
    lastFiring_ = now;
    for (int actions = pick(3); actions > 0; --actions) act(id);
  }

  std::mt19937 random_;
  Zel::Ptr<Zel::Clock> const other_ = Zel::clockFactory();
  std::vector<std::unique_ptr<Alarm>> probes_;
  std::vector<std::optional<Key>> keyOf_;
  std::map<Key, int> armed_;
  std::deque<Entry> turn_;  // the model of the current turn's batch
  Zel::U64 nextOrder_ = 0;
  Seconds lastFiring_ = start;
};

TEST_F(ActivityTest, RandomArmMoveDisarmAndDestroyMatchTheReferenceModel) {
  for (unsigned seed : {1u, 2u, 3u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Zel::System::virtualTimeIs(start);
    RandomSchedule schedule(seed);
    for (int round = 0; round < 3000 && !HasFailure(); ++round) {
      for (int i = 0; i < 10; ++i) schedule.act();
      schedule.runUntil(currentTime() + 0.5 * schedule.pick(7));
    }
    schedule.runUntil(currentTime() + 1e6);
    EXPECT_EQ(loopClock()->armedCount(), 0u);
    EXPECT_GT(schedule.firings, 10000);  // not vacuous; over a hundred armed make five heap levels
  }
}

// run() ends once nothing is armed; stop() ends run() or runUntil() after the current turn, and
// the next run starts afresh. Under wall time, runUntil waits and never fires early.
TEST_F(ActivityTest, RunEndsWhenNothingIsArmedOrOnStopAndNeverFiresEarly) {
  ASSERT_EQ(activity()->descriptorCount(), 0u);  // else run() would wait for them forever
  Alarm ticker(start + 1, [](Alarm& self) {
    if (self.fired < 5) self.timeMinIs(currentTime() + 1.5);
  });
  activity()->run();
  EXPECT_EQ(std::pair(ticker.fired, currentTime()), std::pair(5, start + 7));
  Alarm later(start + 9);
  Alarm stopper(start + 8, [](Alarm&) { Zel::activityManager()->stop(); });
  activity()->runUntil(start + 20);
  EXPECT_EQ(currentTime(), start + 8);
  stopper.timeMinIs(start + 8.5);
  activity()->run();
  EXPECT_EQ(currentTime(), start + 8.5);
  activity()->runUntil(start + 20);
  EXPECT_EQ(std::pair(later.fired, later.firedAt), std::pair(1, start + 9));

  Zel::System::virtualTimeDel();
  Seconds const now = currentTime();
  Alarm alarm(now + 0.02);
  activity()->runUntil(now + 0.05);
  EXPECT_EQ(std::pair(alarm.fired, alarm.firedAt >= now + 0.02), std::pair(1, true));
}

// Both ends of a stream socketpair, closed with it.
struct SocketPair {
  SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0); }
  ~SocketPair() {
    close(ends[0]);
    close(ends[1]);
  }
  void send(std::string_view bytes) const {
    EXPECT_EQ(write(ends[1], bytes.data(), bytes.size()), ssize_t(bytes.size()));
  }
  int ends[2] = {-1, -1};
};

// Watches a descriptor and reads one byte each time it is readable, then acts.
struct Reader : Zel::FileDescriptor::Notifiee {
  explicit Reader(int descriptor) : fd(Zel::fileDescriptorFactory("watched")) {
    fd->descriptorIs(descriptor);
    notifierIs(fd);
  }
  void onReadableCount() override {
    char byte;
    if (read(fd->descriptor(), &byte, 1) == 1) received += byte;
    if (action) action();
  }
  Zel::Ptr<Zel::FileDescriptor> fd;
  std::function<void()> action;
  std::string received;
};

// Readability is level-triggered: bytes left unread notify again on the next turn. What a clock
// handler writes to a watched socket is read whole at the same virtual instant. A number reused
// after its first owner closed it notifies its new owner. A refused number throws its errno and the
// previous one stays watched. A handler may destroy another descriptor due in the same turn,
// which is then skipped.
TEST_F(ActivityTest, ReadabilityRegistrationsAndRefusals) {
  std::size_t const before = activity()->descriptorCount();
  auto closed = std::make_unique<SocketPair>();
  Reader first(closed->ends[0]);
  closed.reset();
  SocketPair pair;  // takes the lowest free numbers, the ones just closed
  Reader reader(pair.ends[0]);
  first.fd->descriptorIs(-1);
  pair.send("abc");
  for (std::size_t handlers : {1, 1, 1, 0}) EXPECT_EQ(activity()->runOnce(0), handlers);
  EXPECT_EQ(reader.fd->readableCount(), 3u);
  Seconds readAt = 0;
  reader.action = [&] { readAt = currentTime(); };
  Alarm writer(start + 3, [&](Alarm&) { pair.send("de"); });
  Alarm later(start + 8);
  activity()->runUntil(start + 10);
  EXPECT_EQ(std::pair(reader.received, readAt), std::pair(std::string("abcde"), start + 3));

  std::FILE* file = std::tmpfile();  // open, but regular files cannot be watched
  EXPECT_THAT([&] { reader.fd->descriptorIs(fileno(file)); },
              testing::ThrowsMessage<Zel::ErrnoException>("epoll_ctl add descriptor " +
                                                          std::to_string(fileno(file)) +
                                                          ": Operation not permitted"));
  std::fclose(file);
  EXPECT_THAT([&] { reader.fd->descriptorIs(1 << 24); },  // beyond any limit
              testing::ThrowsMessage<Zel::ErrnoException>(
                  "epoll_ctl add descriptor 16777216: Bad file descriptor"));
  EXPECT_EQ(reader.fd->descriptor(), pair.ends[0]);
  reader.fd->nonBlockingIs(true);
  EXPECT_NE(fcntl(pair.ends[0], F_GETFL) & O_NONBLOCK, 0);

  SocketPair pairs[2];
  std::unique_ptr<Reader> readers[2];
  for (int i = 0; i < 2; ++i) {
    readers[i] = std::make_unique<Reader>(pairs[i].ends[0]);
    readers[i]->action = [&readers, i] { readers[1 - i].reset(); };
    pairs[i].send("12");
  }
  for (std::size_t handlers : {1, 1, 0}) EXPECT_EQ(activity()->runOnce(0), handlers);
  ASSERT_EQ(bool(readers[0]) + bool(readers[1]), 1);
  EXPECT_EQ((readers[0] ? readers[0] : readers[1])->received, "12");
  EXPECT_EQ(activity()->descriptorCount(), before + 2);
}

TEST(ClockDeathTest, NanTimesAreRefused) {
  Alarm alarm;
  EXPECT_DEATH(alarm.timeMinIs(std::nan("")), "isnan");
  EXPECT_DEATH(activity()->runUntil(std::nan("")), "isnan");
  EXPECT_DEATH(Zel::System::virtualTimeIs(std::nan("")), "isnan");
}

}  // namespace
