// vantor::tessel::Mailbox: post + drain per call against the floor, a std::deque of
// std::function<void()> behind a std::mutex, whose consumer swaps the whole queue out under the lock
// and runs it after (the cheapest thread-safe queue of calls; its deques keep their blocks, so in the
// steady state it allocates nothing for a call that fits std::function's small buffer). Each iteration
// posts a batch of calls, then drains them on the same thread: a batch of 1 pays a whole drain per
// call, a batch of 64 spreads it.
//
// And allocations per call in the steady state (batches of 64, each drained before the next): a
// Signal<bool> slot connected with connectQueued, emitted and drained (its calls reuse the mailbox's
// blocks); a token signal's, whose argument is not trivially copyable (one block per call); a plain
// post; and the floor's post of a call of a queued call's size (a shared pointer, a weak pointer and
// the argument), which outgrows std::function's small buffer.

#include <benchmark/benchmark.h>

#include <array>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <boost/optional.hpp>

#include "bench_support.hpp"
#include "vantor/tessel/mailbox.hpp"
#include "vantor/tessel/signal.hpp"

namespace vantor_bench {
namespace {

const std::vector<int> kBatches = {1, 64};
using Token = boost::optional<std::array<unsigned char, 32>>;  // not trivially copyable
constexpr int kCountedCalls = 1024;

class FloorQueue {
 public:
  template <typename F>
  void post(F&& call) {
    const std::lock_guard<std::mutex> lock(mutex_);
    queue_.emplace_back(std::forward<F>(call));
  }
  std::size_t drain() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      taken_.swap(queue_);
    }
    for (const auto& call : taken_) call();
    const std::size_t ran = taken_.size();
    taken_.clear();
    return ran;
  }

 private:
  std::mutex mutex_;
  std::deque<std::function<void()>> queue_;
  std::deque<std::function<void()>> taken_;  // the consumer's, reused
};

template <typename Queue>
void postDrain(benchmark::State& state) {
  long count = 0;
  Queue queue;
  const int batch = static_cast<int>(state.range(0));
  for (auto _ : state) {
    for (int i = 0; i < batch; ++i) queue.post([&count] { ++count; });
    benchmark::DoNotOptimize(queue.drain());
  }
  benchmark::DoNotOptimize(count);
}

// Allocations per call of `post` (which posts one call) in the steady state: batches of 64 calls, each
// drained before the next, after two such batches for whatever the first ones create (a mailbox pools
// the blocks of a drain's calls at the next drain).
template <typename Queue, typename Post>
double allocationsPerCall(Queue& queue, Post post) {
  constexpr int kBatch = 64;
  const auto batches = [&](int count) {
    for (int batch = 0; batch < count; ++batch) {
      for (int i = 0; i < kBatch; ++i) post();
      queue.drain();
    }
  };
  batches(2);
  const HeapWindow window;
  batches(kCountedCalls / kBatch);
  return static_cast<double>(window.allocations()) / (kCountedCalls / kBatch * kBatch);
}

void countAllocations(benchmark::State& state) {
  long count = 0;
  vantor::tessel::Mailbox mailbox;
  vantor::tessel::Signal<bool> signal;
  signal.connectQueued(mailbox, CountTrue{&count});
  vantor::tessel::Signal<Token> tokenSignal;
  tokenSignal.connectQueued(mailbox, [&count](const Token& token) { count += token ? 1 : 0; });
  const auto shared = std::make_shared<int>();
  FloorQueue floor;
  const auto floorCall = [&count, shared, weak = std::weak_ptr<int>(shared), value = true] { count += value; };
  for (auto _ : state) {
    setFigure("mailbox_allocations/queued_call", allocationsPerCall(mailbox, [&] { signal.emit(true); }));
    setFigure("mailbox_allocations/queued_token_call", allocationsPerCall(mailbox, [&] { tokenSignal.emit(Token()); }));
    setFigure("mailbox_allocations/small_post",
              allocationsPerCall(mailbox, [&] { mailbox.post([&count] { ++count; }); }));
    setFigure("mailbox_allocations/floor_queued_size_post", allocationsPerCall(floor, [&] { floor.post(floorCall); }));
  }
  benchmark::DoNotOptimize(count);
}

}  // namespace

void registerMailboxBenchmarks() {
  for (const int batch : kBatches) {
    const auto withBatch = [batch](benchmark::internal::Benchmark* benchmark) { benchmark->Arg(batch); };
    Group()
        .add("post_drain/vantor", postDrain<vantor::tessel::Mailbox>, withBatch)
        .add("post_drain/floor", postDrain<FloorQueue>, withBatch)
        .registerRounds();
    const std::string suffix = "/" + std::to_string(batch);
    addRatio("Mailbox, post + drain per call", "vantor / floor, batches of " + std::to_string(batch),
             "post_drain/vantor" + suffix, "post_drain/floor" + suffix, Goal::AtMost, 1.5);
  }
  benchmark::RegisterBenchmark("mailbox_allocations", countAllocations)->Iterations(1);
  const std::string section = "Mailbox, allocations per call";
  addValue(section, "queued call of Signal<bool>::connectQueued", "mailbox_allocations/queued_call", "per call",
           Goal::AtMost, 1.0);
  addValue(section, "queued call of a token signal (an argument that is not trivially copyable)",
           "mailbox_allocations/queued_token_call", "per call", Goal::AtMost, 1.0);
  addValue(section, "Mailbox::post of a one-pointer call", "mailbox_allocations/small_post", "per call", Goal::AtMost,
           1.0);
  addValue(section, "floor post of a call as large as a queued one", "mailbox_allocations/floor_queued_size_post",
           "per call");
}

}  // namespace vantor_bench
