// vantor_count_instructions: connects 8 slots to one signal and emits it a given number of times, and
// does nothing else, so that valgrind --tool=callgrind can count the instructions of an emission.
// scripts/bench.sh runs it twice per contender, with N emissions and with 0, and divides the difference
// of the two totals by N: start-up, connection and exit cancel out, and what is left is the emission
// (plus the loop around it, a few instructions alike for every contender).
//
//   vantor_count_instructions CONTENDER EMISSIONS
//
// CONTENDER is vantor (Signal<bool>), vantor_13_1 (release 13.1's walk), floor (a vector of
// std::function under a std::mutex) or sigslot (when built with it; see bench/CMakeLists.txt). Prints
// the number of callback calls made. Exit status 2 for unknown arguments.
//
// As in vantor_bench, one idle extra thread lives throughout: glibc and libstdc++ skip atomic
// instructions (mutexes, shared_ptr counts) while a process has a single thread, which no host has.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>

#include "count_true.hpp"
#include "signal_contenders.hpp"
#include "vantor/tessel/signal.hpp"

namespace {

constexpr int kSlots = 8;

template <typename SignalType>
long emitMany(long emissions) {
  long count = 0;
  SignalType signal;
  for (int i = 0; i < kSlots; ++i) signal.connect(vantor_bench::CountTrue{&count});
  bool value = true;
  for (long i = 0; i < emissions; ++i) vantor_bench::emitOnce(signal, value, 0);
  return count;
}

// The emissions of `contender`, or -1 when this build has no such contender.
long run(const char* contender, long emissions) {
  if (std::strcmp(contender, "vantor") == 0) return emitMany<vantor::tessel::Signal<bool>>(emissions);
  if (std::strcmp(contender, "vantor_13_1") == 0) return emitMany<vantor_bench::Signal131>(emissions);
  if (std::strcmp(contender, "floor") == 0) return emitMany<vantor_bench::FloorSignal>(emissions);
#if VANTOR_MESSAGE_BOARD_BENCH_SIGSLOT
  if (std::strcmp(contender, "sigslot") == 0) return emitMany<sigslot::signal<bool>>(emissions);
#endif
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  char* end = nullptr;
  const long emissions = argc == 3 ? std::strtol(argv[2], &end, 10) : -1;
  if (argc != 3 || *end != '\0' || emissions < 0) {
    std::fprintf(stderr, "usage: vantor_count_instructions vantor|vantor_13_1|floor|sigslot EMISSIONS\n");
    return 2;
  }
  std::promise<void> stop;
  std::thread idle([done = stop.get_future()] { done.wait(); });
  const long calls = run(argv[1], emissions);
  stop.set_value();
  idle.join();
  if (calls < 0) {
    std::fprintf(stderr, "vantor_count_instructions: no contender '%s' in this build\n", argv[1]);
    return 2;
  }
  std::printf("%ld callback calls\n", calls);
  return 0;
}
