// Emission and connection cost of vantor::tessel::Signal<bool>, against:
//  - the floor: a std::vector<std::function<void(bool)>> walked under a std::mutex, which is what any
//    thread-safe signal must at least do;
//  - boost::signals2::signal<void(bool)>, the thread-safe signal most hosts already know;
//  - sigc::signal<void(bool)> of libsigc++ 3, which takes no lock at all (it is not thread-safe), so it
//    shows what a signal costs when it skips the mutex.
//  - the emission of release 13.0, frozen below, so that every run shows what today's walk costs plain
//    slots beside the walk it replaced, measured in the same rounds.
// Every contender calls the same one-pointer callback (CountTrue). Tracked slots (each connected with an
// owner that the slot may not outlive) are measured for vantor and Boost.Signals2 beside the plain ones.

#include <benchmark/benchmark.h>

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <boost/signals2/signal.hpp>
#if VANTOR_MESSAGE_BOARD_BENCH_SIGCPP
#include <sigc++/sigc++.h>
#endif

#include "bench_support.hpp"
#include "vantor/tessel/signal.hpp"

namespace vantor_bench {
namespace {

const std::vector<int> kSlotCounts = {1, 8, 64};

// Signal<bool>'s emission as release 13.0 had it: the same lock and list of slots, walked before a
// delivery checked a slot's flag again right before calling it, and before slots could be tracked.
class Signal13 {
 public:
  void connect(const std::function<void(bool)>& callback) {
    vantor::tessel::detail::TrackedLock lock(mutex_, "Signal13::connect");
    slots_.emplace_back(callback, std::shared_ptr<Status>(new Status()));
  }
  void emit(bool& value) {
    vantor::tessel::detail::TrackedLock lock(mutex_, "Signal13::emit");
    auto pending = slots_.end();
    for (auto it = slots_.begin(); it != slots_.end();) {
      const Status& status = *it->second;
      if (status.disconnected.load(std::memory_order_acquire)) {
        it = slots_.erase(it);
        continue;
      }
      if (!status.blocked.load(std::memory_order_acquire)) {
        if (pending != slots_.end()) pending->first(value);
        pending = it;
      }
      ++it;
    }
    if (pending != slots_.end()) pending->first(value);
  }

 private:
  using Status = vantor::tessel::Connection::Status;
  vantor::tessel::detail::TrackedMutex mutex_{"release 13.0's signal lock"};
  std::list<std::pair<std::function<void(bool)>, std::shared_ptr<Status>>> slots_;
};

void emitVantor(benchmark::State& state) {
  long count = 0;
  vantor::tessel::Signal<bool> signal;
  for (int i = 0; i < state.range(0); ++i) signal.connect(CountTrue{&count});
  bool value = true;
  for (auto _ : state) signal.emit(value);
  benchmark::DoNotOptimize(count);
}

void emitVantor13(benchmark::State& state) {
  long count = 0;
  Signal13 signal;
  for (int i = 0; i < state.range(0); ++i) signal.connect(CountTrue{&count});
  bool value = true;
  for (auto _ : state) signal.emit(value);
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

void emitFloor(benchmark::State& state) {
  long count = 0;
  std::mutex mutex;
  std::vector<std::function<void(bool)>> callbacks;
  for (int i = 0; i < state.range(0); ++i) callbacks.emplace_back(CountTrue{&count});
  bool value = true;
  for (auto _ : state) {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& callback : callbacks) callback(value);
  }
  benchmark::DoNotOptimize(count);
}

void emitBoost(benchmark::State& state) {
  long count = 0;
  boost::signals2::signal<void(bool)> signal;
  for (int i = 0; i < state.range(0); ++i) signal.connect(CountTrue{&count});
  bool value = true;
  for (auto _ : state) signal(value);
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

#if VANTOR_MESSAGE_BOARD_BENCH_SIGCPP
void emitSigc(benchmark::State& state) {
  long count = 0;
  sigc::signal<void(bool)> signal;
  for (int i = 0; i < state.range(0); ++i) signal.connect(CountTrue{&count});
  bool value = true;
  for (auto _ : state) signal.emit(value);
  benchmark::DoNotOptimize(count);
}
#endif

// connect, then disconnect through the handle; the next connect erases the disconnected slot, so the
// list holds one slot in the steady state. The callback is built once, as a host keeps its own.
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
  for (const int slots : kSlotCounts) {
    const auto withSlots = [slots](benchmark::internal::Benchmark* benchmark) { benchmark->Arg(slots); };
    Group emission;
    emission.add("emit/vantor", emitVantor, withSlots)
        .add("emit/vantor_13_0", emitVantor13, withSlots)
        .add("emit/floor", emitFloor, withSlots)
        .add("emit/boost_signals2", emitBoost, withSlots)
        .add("emit/vantor_tracked", emitVantorTracked, withSlots)
        .add("emit/boost_signals2_tracked", emitBoostTracked, withSlots);
#if VANTOR_MESSAGE_BOARD_BENCH_SIGCPP
    emission.add("emit/sigc3_unlocked", emitSigc, withSlots);
#endif
    emission.registerRounds();
  }
  Group()
      .add("connect_disconnect/vantor", connectDisconnectVantor)
      .add("connect_disconnect/floor", connectDisconnectFloor)
      .registerRounds();

  for (const int slots : kSlotCounts) {
    const std::string suffix = "/" + std::to_string(slots);
    const std::string what = std::to_string(slots) + (slots == 1 ? " slot" : " slots");
    const std::string section = "Emission, Signal<bool>::emit";
    addRatio(section, "vantor / floor, " + what, "emit/vantor" + suffix, "emit/floor" + suffix, Goal::AtMost, 1.1);
    addRatio(section, "vantor / release 13.0's walk, " + what, "emit/vantor" + suffix, "emit/vantor_13_0" + suffix,
             Goal::AtMost, 1.1, "plain slots: the disconnection re-check; tracking adds nothing to them");
    addRatio(section, "Boost.Signals2 / vantor, " + what, "emit/boost_signals2" + suffix, "emit/vantor" + suffix,
             Goal::AtLeast, 5.0);
    addRatio(section, "sigc++ 3 / vantor, " + what, "emit/sigc3_unlocked" + suffix, "emit/vantor" + suffix, Goal::None,
             0.0, "sigc++ is not thread-safe: it takes no lock");
    addRatio(section, "vantor tracked / vantor, " + what, "emit/vantor_tracked" + suffix, "emit/vantor" + suffix,
             Goal::None, 0.0, "each slot keeps its owner alive while it runs");
    addRatio(section, "Boost.Signals2 tracked / vantor tracked, " + what, "emit/boost_signals2_tracked" + suffix,
             "emit/vantor_tracked" + suffix, Goal::AtLeast, 5.0);
  }
  addRatio("Connection", "connect + disconnect: vantor / floor", "connect_disconnect/vantor",
           "connect_disconnect/floor");
}

}  // namespace vantor_bench
