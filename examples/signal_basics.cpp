// The header-only signal/slot template on its own. A thermostat announces each temperature it reads
// through a Signal, and three listeners hold their slots in the three ways the library offers:
//
//   display  owns a ScopedConnection: the slot stays connected while the display exists;
//   alarm    keeps a Connection, and is silenced for a while by a ConnectionBlocker;
//   logger   is connected with connectExtended(), so that it receives its own Connection, and
//            disconnects itself once it has logged two readings;
//   a member function of a component held by a std::shared_ptr, which tracks the slot.
//
// Last, slots that call their own signal: a countdown that emits itself again, and a slot that connects a
// one-shot slot, which the next emission (not the running one) calls once.

#include <vantor/tessel/signal.hpp>

#include <cstdio>
#include <memory>

namespace {

class Thermostat {
 public:
  // Slots run on the thread that calls measured(), one emission at a time, in connection order.
  vantor::tessel::Connection onReading(const vantor::tessel::Signal<double>::Callback& slot) {
    return readings_.connect(slot);
  }
  vantor::tessel::Signal<double>& readings() { return readings_; }
  void measured(double celsius) { readings_(celsius); }

 private:
  vantor::tessel::Signal<double> readings_;
};

class Display {
 public:
  explicit Display(Thermostat& thermostat)
      : slot_(thermostat.onReading([](double celsius) { std::printf("  display  %.1f C\n", celsius); })) {}

 private:
  vantor::tessel::ScopedConnection slot_;  // disconnects when the display goes away
};

struct Statistics {
  void add(double celsius) { std::printf("  stats    reading %d: %.1f C\n", ++count, celsius); }
  int count = 0;
};

}  // namespace

int main() try {
  Thermostat thermostat;
  int logged = 0;
  thermostat.readings().connectExtended([&logged](const vantor::tessel::Connection& self, double celsius) {
    std::printf("  logger   %.1f C\n", celsius);
    if (++logged == 2) self.disconnect();  // its own Connection, handed to it before any call
  });
  auto statistics = std::make_shared<Statistics>();
  thermostat.readings().connect(&Statistics::add, statistics);  // tracked: gone with the last reference
  const vantor::tessel::Connection alarm = thermostat.onReading([](double celsius) {
    if (celsius > 25.0) std::printf("  alarm    too warm: %.1f C\n", celsius);
  });

  {
    Display display(thermostat);
    std::printf("21.5 C, everyone listens:\n");
    thermostat.measured(21.5);
    std::printf("26.0 C, the alarm blocked while a ConnectionBlocker lives:\n");
    const vantor::tessel::ConnectionBlocker quiet(alarm);
    thermostat.measured(26.0);
  }
  std::printf("27.0 C, the display gone, the logger done after two readings, the alarm back:\n");
  thermostat.measured(27.0);
  const bool statisticsSawAll = statistics->count == 3;
  statistics.reset();  // its slot is never called again
  std::printf("28.0 C, the statistics gone too:\n");
  thermostat.measured(28.0);

  vantor::tessel::Signal<int> countdown;
  countdown.connect([&countdown](int remaining) {
    std::printf("countdown %d\n", remaining);
    if (remaining > 0) countdown.emit(remaining - 1);  // a nested emission, on this thread
  });
  countdown.connectExtended([&countdown](const vantor::tessel::Connection& self, int remaining) {
    if (remaining != 3) return;
    self.disconnect();
    countdown.connectExtended([](const vantor::tessel::Connection& once, int value) {  // a one-shot slot
      std::printf("one-shot slot called with %d\n", value);
      once.disconnect();
    });
  });
  countdown.emit(3);  // 3 2 1 0; the one-shot slot is not called by the emissions already running
  countdown.emit(9);  // 9 ... 0, and the one-shot slot once, by the innermost emission (0), which reaches it first
  return statisticsSawAll && countdown.slotCount() == 1 ? 0 : 1;
} catch (const std::exception& error) {  // any other error
  std::printf("failed: %s\n", error.what());
  return 1;
}
