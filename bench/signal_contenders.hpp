#pragma once

// The signals that Signal<bool> is measured against, shared by vantor_bench (times) and
// vantor_count_instructions (instructions per emission), so that both measure the same code:
//  - FloorSignal: a std::vector<std::function<void(bool)>> walked under a std::mutex, which is what any
//    thread-safe signal must at least do;
//  - Signal131: the emission of release 13.1, frozen, so that every run measures today's walk beside
//    the one it replaced (before/after in one run);
//  - sigslot::signal<bool> of palacaze/sigslot, when the build found its header (the macro
//    VANTOR_MESSAGE_BOARD_BENCH_SIGSLOT; see bench/CMakeLists.txt).
// Each is used from one thread at a time here, but locks as it would in a multi-threaded host.

#include <atomic>
#include <cstdint>
#include <functional>
#include <iterator>
#include <list>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "vantor/tessel/detail/tracked_lock.hpp"

#if VANTOR_MESSAGE_BOARD_BENCH_SIGSLOT
// The folder holding sigslot's signal.hpp is a system include directory of the benchmark targets only,
// so that its header is not held to our warning flags.
#include <signal.hpp>
#endif

namespace vantor_bench {

// The floor: the callbacks, in order, under one plain mutex.
class FloorSignal {
 public:
  void connect(std::function<void(bool)> callback) {
    const std::lock_guard<std::mutex> lock(mutex_);
    callbacks_.push_back(std::move(callback));
  }
  void emit(bool value) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& callback : callbacks_) callback(value);
  }

 private:
  std::mutex mutex_;
  std::vector<std::function<void(bool)>> callbacks_;  // guarded by mutex_
};

// Signal<bool>'s emission as release 13.1 shipped it: the signal's TrackedLock, a std::list of slots,
// each a std::function and a status allocated apart from its shared_ptr's control block, of the size
// 13.1 allocated for a plain slot.
// The walk judges every entry up to the next live slot before it calls the pending one (so that the last
// live slot gets the arguments forwarded), erases disconnected entries as it passes them, and checks the
// pending slot's `disconnected` flag again right before calling it.
class Signal131 {
 public:
  void connect(std::function<void(bool)> callback) {
    vantor::tessel::detail::TrackedLock lock(mutex_, "Signal131::connect");
    for (auto it = slots_.begin(); it != slots_.end();)
      it = it->second->disconnected.load(std::memory_order_acquire) ? slots_.erase(it) : std::next(it);
    slots_.emplace_back(std::move(callback), std::shared_ptr<Status>(new Status()));  // apart, as 13.1 did
  }
  template <typename... A>
  void emit(A&&... args) {
    vantor::tessel::detail::TrackedLock lock(mutex_, "Signal131::emit");
    auto pending = slots_.end();
    for (auto it = slots_.begin(); it != slots_.end();) {
      const Status& status = *it->second;
      if (status.disconnected.load(std::memory_order_acquire)) {
        it = slots_.erase(it);
        continue;
      }
      if (!status.blocked.load(std::memory_order_acquire)) {
        if (pending != slots_.end()) invoke(*pending, args...);
        pending = it;
      }
      ++it;
    }
    if (pending != slots_.end()) invoke(*pending, std::forward<A>(args)...);
  }

 private:
  // 13.1's per-slot state: the two flags the walk reads, then the block count and the owners' place.
  struct Status {
    std::atomic<bool> blocked{false};
    std::atomic<bool> disconnected{false};
    std::atomic<std::uint32_t> blocks{0};
    void* owners = nullptr;
    std::uint32_t ownerCount = 0;
  };
  using Slot = std::pair<std::function<void(bool)>, std::shared_ptr<Status>>;

  template <typename... A>
  static void invoke(const Slot& slot, A&&... args) {
    if (!slot.second->disconnected.load(std::memory_order_acquire)) slot.first(std::forward<A>(args)...);
  }

  vantor::tessel::detail::TrackedMutex mutex_{"release 13.1's signal lock"};
  std::list<Slot> slots_;  // guarded by mutex_
};

// One emission of `value`: through emit() where a signal has one, else through operator() (Boost.Signals2,
// sigslot). Call as emitOnce(signal, value, 0).
template <typename SignalType>
auto emitOnce(SignalType& signal, bool& value, int /*prefer emit*/) -> decltype(signal.emit(value), void()) {
  signal.emit(value);
}
template <typename SignalType>
void emitOnce(SignalType& signal, bool& value, long /*else call*/) {
  signal(value);
}

}  // namespace vantor_bench
