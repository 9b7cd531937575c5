// vantor_bench: every benchmark of the library in one process, so that each figure has its baseline
// measured beside it, on the same machine state. After the usual table it prints each ratio (this
// machine is shared and absolute times drift; ratios drift far less).
//
// It measures as a host runs:
//  - one extra, idle thread lives from before the first benchmark to the end. glibc skips the locked
//    instructions of its mutexes and of malloc while a process has a single thread, which would make
//    every lock and allocation look cheaper than in any real host;
//  - the board holds about 100 other keys for every board case (see board_cases.cpp).
//
// Flags, besides Google Benchmark's own:
//   --rounds=N          measure each group of compared benchmarks N times over, in turn (see Group in
//                       bench_support.hpp); each time is then the median over its rounds, and each
//                       ratio the median of its per-round ratios
//   --ratios_out=FILE   also write the ratio table as tab-separated lines (section, label, value,
//                       target, verdict, note), for scripts/bench.sh
// Colour is off unless stdout is a terminal (--benchmark_color=true forces it). With
// --benchmark_repetitions as well, the medians take in every repetition. The exit status is 1 when a benchmark reported
// an error.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.hpp"

namespace vantor_bench {
namespace {

// Blocks on a condition variable from construction to destruction; it only has to exist.
class IdleThread {
 public:
  IdleThread()
      : thread_([this] {
          std::unique_lock<std::mutex> lock(mutex_);
          wake_.wait(lock, [this] { return stop_; });
        }) {}
  IdleThread(const IdleThread&) = delete;
  IdleThread& operator=(const IdleThread&) = delete;
  ~IdleThread() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_one();
    thread_.join();
  }

 private:
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::thread thread_;  // last: starts once the members it uses exist
};

double nanosecondsPerUnit(benchmark::TimeUnit unit) {
  switch (unit) {
    case benchmark::kSecond: return 1e9;
    case benchmark::kMillisecond: return 1e6;
    case benchmark::kMicrosecond: return 1e3;
    case benchmark::kNanosecond: return 1.0;
  }
  return 1.0;
}

// The console table, plus the time per iteration of every run that completed, by name: the median
// of all the runs of that name (rounds and repetitions), or of their medians when only aggregates are
// reported. Single-threaded cases count the CPU time of
// their thread: on a shared machine the scheduler sometimes runs another process instead, which
// inflates wall time but not CPU time. Cases that use real time (the multi-threaded ones, whose
// threads sleep while they wait for a lock) count wall time.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  explicit RatioReporter(OutputOptions options) : ConsoleReporter(options) {}

  bool ReportContext(const Context& context) override {
    // The base prints the machine context to the error stream, with a warning when the Google
    // Benchmark library itself was compiled without NDEBUG. Debian ships it that way, and a reader
    // cannot tell what the warning is about, so it is caught here and explained.
    std::ostream& errors = GetErrorStream();
    std::ostringstream captured;
    SetErrorStream(&captured);
    const bool proceed = ConsoleReporter::ReportContext(context);
    SetErrorStream(&errors);
    errors << captured.str();
    if (captured.str().find("Library was built as DEBUG") != std::string::npos) {
      errors << "(That warning is about the Google Benchmark library as Debian builds it, without NDEBUG; the "
                "timed loops and libvantor_message_board are compiled optimised in this program.)\n";
    }
    errors << "vantor_bench: one idle extra thread runs throughout; board cases keep about 100 other keys on "
              "the board.\n";
    errors.flush();
    return proceed;
  }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) {
        ++errors_;
        continue;
      }
      const std::string name = run.run_name.str();
      const bool wallClock = run.run_name.time_type == "real_time";
      const double nanoseconds =
          (wallClock ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime()) * nanosecondsPerUnit(run.time_unit);
      if (run.run_type == Run::RT_Aggregate) {
        if (run.aggregate_name == "median") medians_[name].push_back(nanoseconds);
      } else {
        samples_[name].push_back(nanoseconds);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // The figure called `name`, or NAN when this run has none.
  double figure(const std::string& name) const {
    if (const auto found = samples_.find(name); found != samples_.end()) return median(found->second);
    if (const auto found = medians_.find(name); found != medians_.end()) return median(found->second);
    const auto& extra = extraFigures();
    if (const auto found = extra.find(name); found != extra.end()) return found->second;
    return NAN;
  }

  // Every sample of `name` in the order measured (one per round and repetition), or none.
  std::vector<double> samples(const std::string& name) const {
    const auto found = samples_.find(name);
    return found == samples_.end() ? std::vector<double>() : found->second;
  }

  static double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2.0;
  }

  // Runs that ended in an error (Google Benchmark prints each one in the table).
  int errors() const { return errors_; }

 private:
  int errors_ = 0;
  std::map<std::string, std::vector<double>> samples_;
  std::map<std::string, std::vector<double>> medians_;
};

std::string formatValue(double value, const std::string& unit) {
  char text[64];
  if (unit == "x") {
    std::snprintf(text, sizeof text, "%.2fx", value);
  } else if (unit == "B") {
    std::snprintf(text, sizeof text, "%.0f B", value);
  } else if (unit == "per call") {
    std::snprintf(text, sizeof text, "%.2f per call", value);
  } else {
    std::snprintf(text, sizeof text, "%+.2f %s", value, unit.c_str());
  }
  return text;
}

std::string formatTarget(const RatioLine& ratio) {
  if (ratio.goal == Goal::None) return "";
  char text[64];
  std::snprintf(text, sizeof text, "%s %.2g%s", ratio.goal == Goal::AtMost ? "<=" : ">=", ratio.limit,
                ratio.unit == "x" ? "x" : "");
  return text;
}

// Prints every ratio whose figures all ran, grouped by section; returns how many it printed.
int printRatios(const RatioReporter& reporter, std::ostream* tsv) {
  std::printf("\nRatios (same run; below 1 means the first named is faster):\n");
  std::string section;
  int printed = 0;
  for (const RatioLine& ratio : ratioLines()) {
    const double numerator = reporter.figure(ratio.numerator);
    const double denominator = ratio.denominator.empty() ? 1.0 : reporter.figure(ratio.denominator);
    if (!std::isfinite(numerator) || !std::isfinite(denominator)) continue;
    if (!ratio.difference && !(denominator > 0.0)) continue;
    double value = ratio.difference ? numerator - denominator : numerator / denominator;
    // With rounds, both sides were measured once per round, close together. The machine's speed
    // changes from one round to another (other users' load), and within a round it changes both
    // sides alike, so the median of the per-round ratios cancels it where a ratio of medians may
    // pair a fast round with a slow one.
    const std::vector<double> top = reporter.samples(ratio.numerator);
    const std::vector<double> bottom =
        ratio.denominator.empty() ? std::vector<double>() : reporter.samples(ratio.denominator);
    if (top.size() > 1 && top.size() == bottom.size()) {
      std::vector<double> perRound;
      for (std::size_t round = 0; round < top.size(); ++round) {
        if (ratio.difference) {
          perRound.push_back(top[round] - bottom[round]);
        } else if (bottom[round] > 0.0) {
          perRound.push_back(top[round] / bottom[round]);
        }
      }
      if (!perRound.empty()) value = RatioReporter::median(perRound);
    }
    const bool met = ratio.goal == Goal::AtMost ? value <= ratio.limit : value >= ratio.limit;
    const std::string verdict = ratio.goal == Goal::None ? "" : (met ? "meets" : "MISSES");
    const std::string target = formatTarget(ratio);
    if (ratio.section != section) {
      section = ratio.section;
      std::printf("  %s\n", section.c_str());
    }
    std::string line = "    " + ratio.label + ": " + formatValue(value, ratio.unit);
    if (!target.empty()) line += "   (target " + target + ": " + verdict + ")";
    if (!ratio.note.empty()) line += "   [" + ratio.note + "]";
    std::printf("%s\n", line.c_str());
    if (tsv != nullptr) {
      *tsv << ratio.section << '\t' << ratio.label << '\t' << formatValue(value, ratio.unit) << '\t' << target << '\t'
           << verdict << '\t' << ratio.note << '\n';
    }
    ++printed;
  }
  if (printed == 0) std::printf("  none: each ratio needs both of its benchmarks in this run\n");
  return printed;
}

bool startsWith(const char* text, const char* prefix) { return std::strncmp(text, prefix, std::strlen(prefix)) == 0; }

bool truthy(const std::string& value) {
  return value == "true" || value == "yes" || value == "on" || value == "1" || value == "always";
}

}  // namespace
}  // namespace vantor_bench

int main(int argc, char** argv) {
  using namespace vantor_bench;

  // Our own flags come out of argv before Google Benchmark sees it; colour is decided here because a
  // custom console reporter does not get Google Benchmark's choice.
  std::string ratiosOut;
  int rounds = 1;
  bool listOnly = false;
  bool colour = isatty(STDOUT_FILENO) != 0;
  std::vector<char*> arguments;
  for (int i = 0; i < argc; ++i) {
    if (i > 0 && startsWith(argv[i], "--ratios_out=")) {
      ratiosOut = argv[i] + std::strlen("--ratios_out=");
      continue;
    }
    if (i > 0 && startsWith(argv[i], "--rounds=")) {
      rounds = std::atoi(argv[i] + std::strlen("--rounds="));
      if (rounds < 1) {
        std::fprintf(stderr, "vantor_bench: --rounds takes a count of 1 or more\n");
        return 1;
      }
      continue;
    }
    if (i > 0 && startsWith(argv[i], "--benchmark_color=")) {
      const std::string value = argv[i] + std::strlen("--benchmark_color=");
      colour = value == "auto" ? colour : truthy(value);
    }
    if (i > 0 && startsWith(argv[i], "--benchmark_list_tests")) {
      const char* value = std::strchr(argv[i], '=');
      listOnly = value == nullptr || truthy(value + 1);
    }
    if (i > 0 && startsWith(argv[i], "--benchmark_format=") &&
        std::strcmp(argv[i], "--benchmark_format=console") != 0) {
      std::fprintf(stderr,
                   "vantor_bench: the console shows the table and the ratios; for JSON or CSV use "
                   "--benchmark_out=FILE --benchmark_out_format=json|csv\n");
      return 1;
    }
    arguments.push_back(argv[i]);
  }
  int count = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);

  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;

  setRounds(rounds);
  registerSignalBenchmarks();
  registerTrackedLockBenchmarks();
  registerBoardBenchmarks();
  registerContentionBenchmarks();
  registerScaleBenchmarks();
  registerMailboxBenchmarks();

  std::ofstream tsv;
  if (!ratiosOut.empty()) {
    tsv.open(ratiosOut);
    if (!tsv) {
      std::fprintf(stderr, "vantor_bench: cannot write %s\n", ratiosOut.c_str());
      return 1;
    }
  }

  RatioReporter reporter(colour ? benchmark::ConsoleReporter::OO_ColorTabular : benchmark::ConsoleReporter::OO_Tabular);
  {
    const IdleThread idle;
    benchmark::RunSpecifiedBenchmarks(&reporter);
  }
  std::cout.flush();
  if (!listOnly) printRatios(reporter, tsv.is_open() ? &tsv : nullptr);
  benchmark::Shutdown();
  if (reporter.errors() > 0) {
    std::fprintf(stderr, "vantor_bench: %d benchmark run(s) ended in an error (see the table)\n", reporter.errors());
    return 1;
  }
  return 0;
}
