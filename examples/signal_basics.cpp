// The header-only signal/slot template on its own. A thermostat announces each temperature it reads
// through a Signal, and three listeners hold their slots in the three ways the library offers:
//
//   display  owns a ScopedConnection: the slot stays connected while the display exists;
//   alarm    keeps a Connection, and is silenced for a while by a ConnectionBlocker;
//   logger   keeps a Connection too, and disconnects itself once it has logged two readings.
//
// Last, it shows the one thing a slot must not do: call into its own signal, which the signal refuses
// with an error instead of deadlocking.

#include <vantor/tessel/signal.hpp>

#include <cstdio>
#include <system_error>

namespace {

class Thermostat {
 public:
  // Slots run on the thread that calls measured(), one emission at a time, in connection order.
  vantor::tessel::Connection onReading(const vantor::tessel::Signal<double>::Callback& slot) {
    return readings_.connect(slot);
  }
  void measured(double celsius) { readings_.emit(celsius); }

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

}  // namespace

int main() try {
  Thermostat thermostat;
  vantor::tessel::Connection logger;
  int logged = 0;
  logger = thermostat.onReading([&logger, &logged](double celsius) {
    std::printf("  logger   %.1f C\n", celsius);
    if (++logged == 2) logger.disconnect();  // a Connection may be used from inside its own slot
  });
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

  vantor::tessel::Signal<int> countdown;
  countdown.connect([&countdown](int remaining) {
    if (remaining > 0) countdown.emit(remaining - 1);  // refused: the signal is emitting on this thread
  });
  try {
    countdown.emit(3);
  } catch (const std::system_error& error) {
    std::printf("refused: %s\n", error.what());
  }
  return 0;
} catch (const std::exception& error) {  // any other error
  std::printf("failed: %s\n", error.what());
  return 1;
}
