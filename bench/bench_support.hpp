#pragma once

// Shared pieces of vantor_bench, the one benchmark program of the library: the callback every
// contender calls, the heap accounting, and the registry of the ratios printed after the run.
//
// Everything here is used from the benchmark threads that Google Benchmark starts. The registries
// (ratios, extra figures) are filled while benchmarks are registered or run one at a time; they take
// no lock.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace vantor_bench {

// The callback body of every contender: counts the true values it is handed. It writes through a
// pointer, so the optimiser cannot drop the call, and it is one pointer wide, so every library keeps it
// in its small-object buffer and nobody pays an allocation for it.
struct CountTrue {
  long* count;
  void operator()(bool value) const { *count += value ? 1 : 0; }
};

// Net heap bytes (as malloc_usable_size counts them, so allocator rounding is included) allocated
// minus freed through operator new/delete on any thread while the window is open, and the number of
// allocations. Counting happens
// only inside a window, so that the replaced operator new costs every timed loop what the default one
// does. Windows must not overlap.
class HeapWindow {
 public:
  HeapWindow();
  ~HeapWindow();
  HeapWindow(const HeapWindow&) = delete;
  HeapWindow& operator=(const HeapWindow&) = delete;

  // Net bytes since the window opened; the window stays open until destroyed.
  long long bytes() const;
  // Allocations (calls of operator new) since the window opened.
  long long allocations() const;
};

// ---- rounds

// Benchmarks that are compared with one another. Google Benchmark runs the repetitions of one
// benchmark back to back, so on a shared machine a burst of load from elsewhere can fall on one side
// of a ratio only. A Group instead registers each of its members once per round, in turn, for
// rounds() rounds: every round measures all sides close together in time, and each figure is the
// median over its rounds.
class Group {
 public:
  using Body = std::function<void(benchmark::State&)>;
  using Configure = std::function<void(benchmark::internal::Benchmark*)>;

  Group& add(const std::string& name, Body body, Configure configure = nullptr);
  void registerRounds() const;

 private:
  struct Member {
    std::string name;
    Body body;
    Configure configure;
  };
  std::vector<Member> members_;
};

// How many rounds each Group registers (--rounds=N; 1 by default). Set before registering.
void setRounds(int rounds);
int rounds();

// ---- figures and ratios -----------------------------------------------------------------------

// A figure is a number with a name: the median time per iteration (in ns) of a benchmark, named
// as Google Benchmark names it (e.g. "emit/vantor/8"), or a figure a benchmark records itself through
// setFigure (e.g. heap bytes per stored key).
void setFigure(const std::string& name, double value);
const std::map<std::string, double>& extraFigures();

enum class Goal { None, AtMost, AtLeast };

// One line of the final table: numerator / denominator (or numerator - denominator, or the numerator
// alone when the denominator is empty). Printed only when every figure it names exists in this run,
// since a filter may leave one out.
struct RatioLine {
  std::string section;
  std::string label;
  std::string numerator;
  std::string denominator;
  Goal goal;
  double limit;
  std::string note;  // printed beside the value, e.g. "sigc++ takes no lock"
  std::string unit;  // "x" for a ratio, "B" for bytes, "ns" for a difference of times
  bool difference;
};

void addRatio(const std::string& section, const std::string& label, const std::string& numerator,
              const std::string& denominator, Goal goal = Goal::None, double limit = 0.0, const std::string& note = "");
void addDifference(const std::string& section, const std::string& label, const std::string& minuend,
                   const std::string& subtrahend, const std::string& unit);
void addValue(const std::string& section, const std::string& label, const std::string& figure, const std::string& unit,
              Goal goal = Goal::None, double limit = 0.0);
const std::vector<RatioLine>& ratioLines();

// Registration of the cases, called by main in this order, which is also the order they run in.
void registerSignalBenchmarks();
void registerTrackedLockBenchmarks();
void registerBoardBenchmarks();
void registerContentionBenchmarks();
void registerScaleBenchmarks();
void registerMailboxBenchmarks();

}  // namespace vantor_bench
