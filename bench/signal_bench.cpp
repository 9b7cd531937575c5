// Cost of an emission on vantor::tessel::Signal, against two baselines measured in the same run:
//  - the floor: a plain loop over std::vector<std::function<void(bool)>> under a std::mutex, which is
//    what any thread-safe signal must at least do;
//  - boost::signals2::signal<void(bool)>, the thread-safe signal most hosts already know.
// Plus the price of the self-deadlock check: TrackedLock against a bare std::lock_guard.
// After the usual table it prints each ratio, since this machine is shared and absolute times drift.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <boost/signals2/signal.hpp>

#include "vantor/tessel/detail/tracked_lock.hpp"
#include "vantor/tessel/signal.hpp"

namespace {

// The same callback for every contender: a call through std::function that the optimiser cannot drop.
struct Sink {
  long count = 0;
  void operator()(bool value) { count += value; }
};

void TesselEmit(benchmark::State& state) {
  vantor::tessel::Signal<bool> signal;
  Sink sink;
  for (int i = 0; i < state.range(0); ++i) signal.connect(std::ref(sink));
  bool value = true;
  for (auto _ : state) signal.emit(value);
  benchmark::DoNotOptimize(sink.count);
}

void FloorVectorUnderMutex(benchmark::State& state) {
  std::mutex mutex;
  std::vector<std::function<void(bool)>> callbacks;
  Sink sink;
  for (int i = 0; i < state.range(0); ++i) callbacks.emplace_back(std::ref(sink));
  bool value = true;
  for (auto _ : state) {
    std::lock_guard<std::mutex> lock(mutex);
    for (auto& callback : callbacks) callback(value);
  }
  benchmark::DoNotOptimize(sink.count);
}

void BoostSignals2Emit(benchmark::State& state) {
  boost::signals2::signal<void(bool)> signal;
  Sink sink;
  for (int i = 0; i < state.range(0); ++i) signal.connect(std::ref(sink));
  bool value = true;
  for (auto _ : state) signal(value);
  benchmark::DoNotOptimize(sink.count);
}

void LockGuard(benchmark::State& state) {
  std::mutex mutex;
  for (auto _ : state) {
    std::lock_guard<std::mutex> lock(mutex);
    benchmark::ClobberMemory();
  }
}

void TrackedLock(benchmark::State& state) {
  vantor::tessel::detail::TrackedMutex mutex("a mutex");
  for (auto _ : state) {
    vantor::tessel::detail::TrackedLock lock(mutex, "bench");
    benchmark::ClobberMemory();
  }
}

BENCHMARK(TesselEmit)->Arg(1)->Arg(8)->Arg(64);
BENCHMARK(FloorVectorUnderMutex)->Arg(1)->Arg(8)->Arg(64);
BENCHMARK(BoostSignals2Emit)->Arg(1)->Arg(8)->Arg(64);
BENCHMARK(LockGuard);
BENCHMARK(TrackedLock);

// Prints the usual console table and remembers each benchmark's time per iteration.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
        nanoseconds_[run.benchmark_name()] = run.GetAdjustedRealTime() * toNanoseconds(run.time_unit);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void printRatios() const {
    std::printf("\nRatios (same run; below 1 means faster than the baseline):\n");
    for (const char* slots : {"1", "8", "64"}) {
      const double tessel = at(std::string("TesselEmit/") + slots);
      std::printf("  %2s slots: Signal / floor = %.2f   Signal / Boost.Signals2 = %.3f  (Boost is %.1fx slower)\n",
                  slots, tessel / at(std::string("FloorVectorUnderMutex/") + slots),
                  tessel / at(std::string("BoostSignals2Emit/") + slots),
                  at(std::string("BoostSignals2Emit/") + slots) / tessel);
    }
    std::printf("  self-deadlock check: TrackedLock - lock_guard = %.2f ns per lock/unlock\n",
                at("TrackedLock") - at("LockGuard"));
  }

 private:
  static double toNanoseconds(benchmark::TimeUnit unit) {
    switch (unit) {
      case benchmark::kSecond: return 1e9;
      case benchmark::kMillisecond: return 1e6;
      case benchmark::kMicrosecond: return 1e3;
      default: return 1.0;
    }
  }
  double at(const std::string& name) const {
    const auto found = nanoseconds_.find(name);
    return found == nanoseconds_.end() ? 0.0 : found->second;
  }

  std::map<std::string, double> nanoseconds_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios();
  benchmark::Shutdown();
  return 0;
}
