// Emission and connection cost of vantor::tessel::Signal<bool>, against:
//  - the floor (FloorSignal in signal_contenders.hpp);
//  - sigslot::signal<bool> of palacaze/sigslot, the fastest thread-safe signal we know of, when the
//    build found it (VANTOR_MESSAGE_BOARD_BENCH_SIGSLOT);
//  - boost::signals2::signal<void(bool)>, the thread-safe signal most hosts already know;
//  - sigc::signal<void(bool)> of libsigc++ 3, which takes no lock at all (it is not thread-safe), so it
//    shows what a signal costs when it skips the mutex;
//  - the emission of release 13.1, frozen (Signal131), so that every run shows what re-entrancy and
//    eager release cost plain slots beside the walk they replaced, measured in the same rounds.
// Every contender calls the same one-pointer callback (CountTrue). Tracked slots (each connected with an
// owner that the slot may not outlive) are measured for vantor and Boost.Signals2 beside the plain ones.

#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/signals2/signal.hpp>
#if VANTOR_MESSAGE_BOARD_BENCH_SIGCPP
#include <sigc++/sigc++.h>
#endif

#include "bench_support.hpp"
#include "signal_contenders.hpp"
#include "vantor/tessel/signal.hpp"

namespace vantor_bench {
namespace {

const std::vector<int> kSlotCounts = {1, 8, 64};

// The emission benchmark of every contender with plain slots: `range(0)` slots, then one emission of
// `true` per iteration.
template <typename SignalType>
void emitPlain(benchmark::State& state) {
  long count = 0;
  SignalType signal;
  for (int i = 0; i < state.range(0); ++i) signal.connect(CountTrue{&count});
  bool value = true;
  for (auto _ : state) emitOnce(signal, value, 0);
  benchmark::DoNotOptimize(count);
}

void emitVantorTracked(benchmark::State& state) {
  long count = 0;
  vantor::tessel::Signal<bool> signal;
  const auto owner = std::make_shared<int>();
  for (int i = 0; i < state.range(0); ++i) signal.connect(CountTrue{&count}, owner);
  bool value = true;
  for (auto _ : state) signal.emit(value);
  benchmark::DoNotOptimize(count);
}

void emitBoostTracked(benchmark::State& state) {
  long count = 0;
  using BoostSignal = boost::signals2::signal<void(bool)>;
  BoostSignal signal;
  const auto owner = std::make_shared<int>();
  for (int i = 0; i < state.range(0); ++i)
    signal.connect(BoostSignal::slot_type(CountTrue{&count}).track_foreign(owner));
  bool value = true;
  for (auto _ : state) signal(value);
  benchmark::DoNotOptimize(count);
}

// connect, then disconnect through the handle, so that the signal holds at most one slot in the steady
// state (whether it lets go of it at disconnect() or at the next connect). The callback is built once,
// as a host keeps its own, and each library copies it into its slot.
void connectDisconnectVantor(benchmark::State& state) {
  long count = 0;
  const std::function<void(bool)> callback = CountTrue{&count};
  vantor::tessel::Signal<bool> signal;
  for (auto _ : state) {
    const vantor::tessel::Connection connection = signal.connect(callback);
    connection.disconnect();
  }
  benchmark::DoNotOptimize(count);
}

#if VANTOR_MESSAGE_BOARD_BENCH_SIGSLOT
// sigslot lets go of the slot in disconnect(), under the signal's mutex.
void connectDisconnectSigslot(benchmark::State& state) {
  long count = 0;
  const std::function<void(bool)> callback = CountTrue{&count};
  sigslot::signal<bool> signal;
  for (auto _ : state) {
    sigslot::connection connection = signal.connect(callback);
    connection.disconnect();
  }
  benchmark::DoNotOptimize(count);
}
#endif

// The floor takes the mutex for each of the two operations, as a thread-safe vector of callbacks must.
void connectDisconnectFloor(benchmark::State& state) {
  long count = 0;
  const std::function<void(bool)> callback = CountTrue{&count};
  std::mutex mutex;
  std::vector<std::function<void(bool)>> callbacks;
  for (auto _ : state) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      callbacks.push_back(callback);
    }
    {
      std::lock_guard<std::mutex> lock(mutex);
      callbacks.erase(callbacks.end() - 1);
    }
  }
  benchmark::DoNotOptimize(count);
}

}  // namespace

void registerSignalBenchmarks() {
  using Vantor = vantor::tessel::Signal<bool>;
  for (const int slots : kSlotCounts) {
    const auto withSlots = [slots](benchmark::internal::Benchmark* benchmark) { benchmark->Arg(slots); };
    Group emission;
    emission.add("emit/vantor", emitPlain<Vantor>, withSlots)
        .add("emit/vantor_13_1", emitPlain<Signal131>, withSlots)
        .add("emit/floor", emitPlain<FloorSignal>, withSlots);
#if VANTOR_MESSAGE_BOARD_BENCH_SIGSLOT
    emission.add("emit/sigslot", emitPlain<sigslot::signal<bool>>, withSlots);
#endif
    emission.add("emit/boost_signals2", emitPlain<boost::signals2::signal<void(bool)>>, withSlots)
        .add("emit/vantor_tracked", emitVantorTracked, withSlots)
        .add("emit/boost_signals2_tracked", emitBoostTracked, withSlots);
#if VANTOR_MESSAGE_BOARD_BENCH_SIGCPP
    emission.add("emit/sigc3_unlocked", emitPlain<sigc::signal<void(bool)>>, withSlots);
#endif
    emission.registerRounds();
  }
  Group connection;
  connection.add("connect_disconnect/vantor", connectDisconnectVantor)
      .add("connect_disconnect/floor", connectDisconnectFloor);
#if VANTOR_MESSAGE_BOARD_BENCH_SIGSLOT
  connection.add("connect_disconnect/sigslot", connectDisconnectSigslot);
#endif
  connection.registerRounds();

  // A ratio whose benchmarks did not run (sigslot or sigc++ not built, or a filter) is left out.
  const std::string section = "Emission, Signal<bool>::emit";
  for (const int slots : kSlotCounts) {
    const std::string suffix = "/" + std::to_string(slots);
    const std::string what = std::to_string(slots) + (slots == 1 ? " slot" : " slots");
    const std::string ours = "emit/vantor" + suffix;
    if (slots < 64) {
      addRatio(section, "sigslot / vantor, " + what, "emit/sigslot" + suffix, ours, Goal::AtLeast, 1.0,
               "at least as fast as the fastest thread-safe peer");
    } else {
      addRatio(section, "vantor / sigslot, " + what, ours, "emit/sigslot" + suffix, Goal::AtMost, 1.2);
    }
    const Goal floorGoal = slots == 64 ? Goal::None : Goal::AtMost;
    addRatio(section, "vantor / floor, " + what, ours, "emit/floor" + suffix, floorGoal, slots == 1 ? 1.2 : 1.1);
    addRatio(section, "vantor / release 13.1's walk, " + what, ours, "emit/vantor_13_1" + suffix, Goal::AtMost, 1.05,
             "before/after: what re-entrancy and eager release cost plain slots");
    addRatio(section, "Boost.Signals2 / vantor, " + what, "emit/boost_signals2" + suffix, ours, Goal::AtLeast, 5.0);
    addRatio(section, "sigc++ 3 / vantor, " + what, "emit/sigc3_unlocked" + suffix, ours, Goal::None, 0.0,
             "sigc++ is not thread-safe: it takes no lock");
    addRatio(section, "vantor tracked / vantor, " + what, "emit/vantor_tracked" + suffix, ours, Goal::None, 0.0,
             "each slot keeps its owner alive while it runs");
    addRatio(section, "Boost.Signals2 tracked / vantor tracked, " + what, "emit/boost_signals2_tracked" + suffix,
             "emit/vantor_tracked" + suffix, Goal::AtLeast, 5.0);
  }
  addRatio("Connection", "connect + disconnect: vantor / sigslot", "connect_disconnect/vantor",
           "connect_disconnect/sigslot", Goal::AtMost, 1.25);
  addRatio("Connection", "connect + disconnect: vantor / floor", "connect_disconnect/vantor",
           "connect_disconnect/floor");
}

}  // namespace vantor_bench
