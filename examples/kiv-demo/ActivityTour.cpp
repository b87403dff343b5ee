// The activity tour: clock notifiees and a socket reader sharing one event loop, run in virtual
// time so that ten simulated seconds pass at once and print the same every run.

#include "Tour.h"

#include <Zel/Activity.h>
#include <Zel/FileDescriptor.h>
#include <Zel/System.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <ostream>
#include <string>

namespace KivDemo {
namespace {

constexpr Zel::Seconds epoch = 1700000000;

std::string at() {
  char text[32];
  std::snprintf(text, sizeof text, "t+%5.2f", Zel::System::currentTime() - epoch);
  return text;
}

// Fires every `period` seconds, four times.
class Heartbeat : public Zel::Clock::NotifieeConst {
public:
  Heartbeat(std::ostream& out, Zel::Seconds period) : out_(out), period_(period) {}
  void onTime() override {
    out_ << "   " << at() << "  heartbeat " << ++beats_ << '\n';
    if (beats_ < 4) timeMinIs(Zel::System::currentTime() + period_);
  }

private:
  std::ostream& out_;
  Zel::Seconds period_;
  int beats_ = 0;
};

// Sends a message down the socket when it fires; the reader on the other end wakes up for it.
class Sender : public Zel::Clock::NotifieeConst {
public:
  Sender(std::ostream& out, int socket, std::string message)
      : out_(out), socket_(socket), message_(std::move(message)) {}
  void onTime() override {
    out_ << "   " << at() << "  sender writes \"" << message_ << "\"\n";
    if (write(socket_, message_.data(), message_.size()) < 0) out_ << "   write failed\n";
  }

private:
  std::ostream& out_;
  int socket_;
  std::string message_;
};

class Reader : public Zel::FileDescriptor::NotifieeConst {
public:
  explicit Reader(std::ostream& out) : out_(out) {}
  void onReadableCount() override {
    char buffer[64];
    ssize_t const n = read(notifier()->descriptor(), buffer, sizeof buffer);
    out_ << "   " << at() << "  reader wakes (readable " << notifier()->readableCount()
         << "), reads \"" << std::string(buffer, n > 0 ? std::size_t(n) : 0) << "\"\n";
  }

private:
  std::ostream& out_;
};

// A handler that re-arms for a time already past runs again on the next turn of the loop,
// after the notifiees already due, never inside its own call.
class Retry : public Zel::Clock::NotifieeConst {
public:
  explicit Retry(std::ostream& out) : out_(out) {}
  void onTime() override {
    out_ << "   " << at() << "  retry attempt " << ++attempts_ << '\n';
    if (attempts_ < 3) timeMinIs(Zel::System::currentTime() - 1);
  }

private:
  std::ostream& out_;
  int attempts_ = 0;
};

void activityTour(std::ostream& out) {
  Zel::System::VirtualTimeScope const time(epoch);
  auto loop = Zel::activityManager();
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) {
    out << "   socketpair failed\n";
    return;
  }
  {
    auto socket = Zel::fileDescriptorFactory("demo socket");
    socket->descriptorIs(sockets[0]);
    socket->nonBlockingIs(true);
    Reader reader(out);
    reader.notifierIs(socket);

    Heartbeat heartbeat(out, 2.5);
    Sender hello(out, sockets[1], "hello"), again(out, sockets[1], "again");
    Retry retry(out);
    for (Zel::Clock::NotifieeConst* n :
         std::initializer_list<Zel::Clock::NotifieeConst*>{&heartbeat, &hello, &again, &retry}) {
      n->notifierIs(loop->clock());
    }
    heartbeat.timeMinIs(epoch + 2.5);
    hello.timeMinIs(epoch + 1);
    again.timeMinIs(epoch + 5);  // due with the second heartbeat, which is armed later (at t+2.5)
    retry.timeMinIs(epoch + 7);

    out << "Four notifiees and a socket reader on one loop; runUntil(t+10) in virtual time:\n";
    loop->runUntil(epoch + 10);
    out << "   runUntil returns at " << at() << " with " << loop->clock()->armedCount()
        << " notifiees armed\n";
    socket->descriptorIs(-1);
  }
  close(sockets[0]);
  close(sockets[1]);
}

TourRegistrar const registrar(20, "activity",
                              "Event loop: clock notifiees and a socket reader in virtual time",
                              &activityTour);

}  // namespace
}  // namespace KivDemo
