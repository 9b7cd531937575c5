#include "bench_support.hpp"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

namespace vantor_bench {
namespace {

std::atomic<bool> counting{false};
std::atomic<long long> netBytes{0};
std::atomic<long long> allocationCount{0};

void* allocate(std::size_t size) {
  if (size == 0) size = 1;
  for (;;) {
    if (void* block = std::malloc(size)) {
      if (counting.load(std::memory_order_relaxed)) {
        netBytes.fetch_add(static_cast<long long>(malloc_usable_size(block)), std::memory_order_relaxed);
        allocationCount.fetch_add(1, std::memory_order_relaxed);
      }
      return block;
    }
    const std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) throw std::bad_alloc();
    handler();
  }
}

void release(void* block) noexcept {
  if (block == nullptr) return;
  if (counting.load(std::memory_order_relaxed)) {
    netBytes.fetch_sub(static_cast<long long>(malloc_usable_size(block)), std::memory_order_relaxed);
  }
  std::free(block);
}

int roundCount = 1;

std::map<std::string, double>& figures() {
  static std::map<std::string, double> values;
  return values;
}

std::vector<RatioLine>& lines() {
  static std::vector<RatioLine> values;
  return values;
}

}  // namespace

HeapWindow::HeapWindow() {
  netBytes.store(0, std::memory_order_relaxed);
  allocationCount.store(0, std::memory_order_relaxed);
  counting.store(true, std::memory_order_seq_cst);
}

HeapWindow::~HeapWindow() { counting.store(false, std::memory_order_seq_cst); }

long long HeapWindow::bytes() const { return netBytes.load(std::memory_order_relaxed); }

long long HeapWindow::allocations() const { return allocationCount.load(std::memory_order_relaxed); }

Group& Group::add(const std::string& name, Body body, Configure configure) {
  members_.push_back(Member{name, std::move(body), std::move(configure)});
  return *this;
}

void Group::registerRounds() const {
  for (int round = 0; round < roundCount; ++round) {
    for (const Member& member : members_) {
      benchmark::internal::Benchmark* registered = benchmark::RegisterBenchmark(
          member.name.c_str(), [body = member.body](benchmark::State& state) { body(state); });
      if (member.configure) member.configure(registered);
    }
  }
}

void setRounds(int rounds) { roundCount = rounds < 1 ? 1 : rounds; }
int rounds() { return roundCount; }

void setFigure(const std::string& name, double value) { figures()[name] = value; }
const std::map<std::string, double>& extraFigures() { return figures(); }

void addRatio(const std::string& section, const std::string& label, const std::string& numerator,
              const std::string& denominator, Goal goal, double limit, const std::string& note) {
  lines().push_back(RatioLine{section, label, numerator, denominator, goal, limit, note, "x", false});
}

void addDifference(const std::string& section, const std::string& label, const std::string& minuend,
                   const std::string& subtrahend, const std::string& unit) {
  lines().push_back(RatioLine{section, label, minuend, subtrahend, Goal::None, 0.0, "", unit, true});
}

void addValue(const std::string& section, const std::string& label, const std::string& figure, const std::string& unit,
              Goal goal, double limit) {
  lines().push_back(RatioLine{section, label, figure, "", goal, limit, "", unit, false});
}
const std::vector<RatioLine>& ratioLines() { return lines(); }

}  // namespace vantor_bench

// Replacing the global allocation functions in the executable replaces them for the whole process,
// the library included, since the dynamic linker resolves the library's calls to the executable's
// definitions first. The aligned forms stay the standard library's: nothing measured here allocates
// over-aligned memory.
void* operator new(std::size_t size) { return vantor_bench::allocate(size); }
void* operator new[](std::size_t size) { return vantor_bench::allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return vantor_bench::allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return vantor_bench::allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void operator delete(void* block) noexcept { vantor_bench::release(block); }
void operator delete[](void* block) noexcept { vantor_bench::release(block); }
void operator delete(void* block, std::size_t) noexcept { vantor_bench::release(block); }
void operator delete[](void* block, std::size_t) noexcept { vantor_bench::release(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { vantor_bench::release(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { vantor_bench::release(block); }
