#pragma once

// TrackedLock: a scoped lock on a std::mutex that remembers which thread holds it, so that a thread
// trying to take the same mutex again gets an exception instead of blocking on itself forever.
//
// The board and every signal run user callbacks while their (non-recursive) mutex is held. A callback
// that calls back into the same object would deadlock its own thread. Both therefore lock through
// this class, which turns that mistake into std::system_error(resource_deadlock_would_occur), the
// error the standard mutex itself may report for the same condition.
//
// Cost on the normal path: one std::this_thread::get_id(), one relaxed load and two relaxed stores.
// A thread_local "locks I hold" set was the road not taken: its storage would exist once per shared
// object that includes this header (with hidden visibility), and thread_local objects with
// destructors pin a shared library in memory until the thread ends.

#include <atomic>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

namespace vantor::tessel::detail {

// The thread that holds the associated mutex, or a default-constructed id while nobody does. Only the
// holding thread writes it (its own id after locking, the default id before unlocking). A thread that
// reads its own id therefore already holds the mutex. Relaxed order suffices: a thread always sees its
// own latest store, and no other thread stores while this one holds the mutex.
using LockHolder = std::atomic<std::thread::id>;
static_assert(LockHolder::is_always_lock_free, "the holder check must not take a lock itself");

// Raises the self-deadlock error; kept out of line of the callers' hot paths.
[[noreturn]] inline void throwWouldDeadlock(std::string_view operation, std::string_view subject) {
  std::string message;
  message.reserve(operation.size() + subject.size() + 96);
  message.append(operation).append(" on ").append(subject).append(
      ": this thread already holds that lock (called from a callback that runs under it)");
  throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur), message);
}

class TrackedLock {
 public:
  // Locks `mutex`. Throws std::system_error(resource_deadlock_would_occur), naming `operation` and
  // `subject`, if the calling thread already holds it; the mutex is then left untouched.
  TrackedLock(std::mutex& mutex, LockHolder& holder, std::string_view operation, std::string_view subject)
      : mutex_(mutex), holder_(holder) {
    const std::thread::id self = std::this_thread::get_id();
    if (holder_.load(std::memory_order_relaxed) == self) throwWouldDeadlock(operation, subject);
    mutex_.lock();
    holder_.store(self, std::memory_order_relaxed);
  }

  TrackedLock(const TrackedLock&) = delete;
  TrackedLock& operator=(const TrackedLock&) = delete;

  ~TrackedLock() { unlock(); }

  // Releases the mutex early; the destructor then does nothing.
  void unlock() noexcept {
    if (!owns_) return;
    owns_ = false;
    holder_.store(std::thread::id(), std::memory_order_relaxed);
    mutex_.unlock();
  }

 private:
  std::mutex& mutex_;
  LockHolder& holder_;
  bool owns_ = true;
};

}  // namespace vantor::tessel::detail
