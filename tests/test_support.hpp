#pragma once

// Helpers shared by the test suites: a start line for threading tests, and a callable that counts its
// own constructions and destructions.

#include <atomic>
#include <ostream>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>
#include <vector>

#include <boost/optional.hpp>
#include <gtest/gtest-printers.h>

// Lets GoogleTest print boost::optional values in failure messages (found by argument-dependent lookup).
namespace boost {
template <typename T>
void PrintTo(const optional<T>& value, std::ostream* out) {
  if (value) {
    *out << "engaged ";
    ::testing::internal::UniversalPrint(*value, out);
  } else {
    *out << "none";
  }
}
}  // namespace boost

namespace vantor::testing {

// A one-shot latch: every thread calls arriveAndWait(), and all of them leave together once `count`
// have arrived, so that the racing parts of a test start as close together as possible.
class StartLine {
 public:
  explicit StartLine(std::size_t count) : waiting_(count) {}

  void arriveAndWait() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (--waiting_ == 0) {
      open_.notify_all();
      return;
    }
    open_.wait(lock, [this] { return waiting_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable open_;
  std::size_t waiting_;  // guarded by mutex_
};

// Runs `body(index)` on `count` threads that start together, and joins them.
template <typename Body>
void runTogether(std::size_t count, Body body) {
  StartLine start(count);
  std::vector<std::thread> threads;
  threads.reserve(count);
  for (std::size_t index = 0; index < count; ++index) {
    threads.emplace_back([&start, &body, index] {
      start.arriveAndWait();
      body(index);
    });
  }
  for (auto& thread : threads) thread.join();
}

// Counts how many objects of the callable exist, and how many were ever destroyed.
struct LifeCount {
  std::atomic<int> alive{0};
  std::atomic<int> destroyed{0};
};

// A callable of any signature returning R (default-constructed) that records its lifetime in a
// LifeCount.
template <typename R = void>
class Counted {
 public:
  explicit Counted(LifeCount& count) : count_(&count) { ++count_->alive; }
  Counted(const Counted& other) : count_(other.count_) { ++count_->alive; }
  Counted& operator=(const Counted&) = delete;
  ~Counted() {
    --count_->alive;
    ++count_->destroyed;
  }

  template <typename... Args>
  R operator()(Args&&...) const {
    return R();
  }

 private:
  LifeCount* count_;
};

}  // namespace vantor::testing
