// Price of the self-deadlock check: vantor::tessel::detail::TrackedLock against a bare
// std::lock_guard on the same uncontended mutex. Kept in a file of its own because TrackedLock is an
// internal type whose constructor changes with the library; only the marked line depends on it.

#include <benchmark/benchmark.h>

#include <mutex>

#include "bench_support.hpp"

#if __has_include("vantor/tessel/detail/tracked_lock.hpp")
#include "vantor/tessel/detail/tracked_lock.hpp"
#define VANTOR_BENCH_TRACKED_LOCK 1
#endif

namespace vantor_bench {
namespace {

void lockGuard(benchmark::State& state) {
  std::mutex mutex;
  for (auto _ : state) {
    std::lock_guard<std::mutex> lock(mutex);
    benchmark::ClobberMemory();
  }
}

#ifdef VANTOR_BENCH_TRACKED_LOCK
void trackedLock(benchmark::State& state) {
  vantor::tessel::detail::TrackedMutex mutex("a mutex");
  for (auto _ : state) {
    vantor::tessel::detail::TrackedLock lock(mutex, "bench");
    benchmark::ClobberMemory();
  }
}
#endif

}  // namespace

void registerTrackedLockBenchmarks() {
  Group locks;
  locks.add("lock/std_lock_guard", lockGuard);
#ifdef VANTOR_BENCH_TRACKED_LOCK
  locks.add("lock/tracked_lock", trackedLock);
#endif
  locks.registerRounds();
  addDifference("Self-deadlock check", "TrackedLock - std::lock_guard, per lock and unlock", "lock/tracked_lock",
                "lock/std_lock_guard", "ns");
  addRatio("Self-deadlock check", "TrackedLock / std::lock_guard", "lock/tracked_lock", "lock/std_lock_guard");
}

}  // namespace vantor_bench
