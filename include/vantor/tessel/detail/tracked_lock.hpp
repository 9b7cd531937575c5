#pragma once

// TrackedMutex and TrackedLock: the library's lock, which turns a wait that could never end into an
// exception.
//
// The board and every signal run user callbacks while their (non-recursive) mutex is held. Two kinds
// of mistake in those callbacks would otherwise freeze threads for good:
//  - re-entry: a callback calls back into the lock it runs under, so its thread waits for itself (the
//    board's lock refuses it; a signal's lock lets it nest instead, see NestingLock below);
//  - a cycle: thread A holds lock 1 and waits for lock 2 while thread B holds lock 2 and waits for
//    lock 1 (or a longer ring of threads), for example two signals whose callbacks emit each other.
// A TrackedLock refuses to wait in both cases and throws
// std::system_error(std::errc::resource_deadlock_would_occur) instead, before blocking, with every lock
// of the failing operation released by unwinding; the other threads of a cycle then go on. The message
// names the public operation, the lock it would have waited for and, for a cycle, its length.
//
// How. Each TrackedMutex records the thread that holds it. Uncontended, locking is a try_lock plus two
// plain stores, as cheap as a std::lock_guard. Only a thread that has to wait enters the process's wait
// registry: under the registry's own mutex it follows the wait-for chain (the holder of the lock it
// wants, the lock that holder waits for, that lock's holder, ...). If the chain comes back to itself,
// waiting would never end and it throws; otherwise it records "I wait for L" and blocks. Records are
// added and chains are walked under that one mutex, so of the threads that close a cycle, the last to
// arrive sees every other edge of it: a cycle is never missed, and exactly one thread fails. A chain
// that is found is real: every thread in it except the caller has recorded a wait and cannot release
// anything until that wait ends, and the walk is repeated to confirm the holders it read.
// The road not taken was a lock-free registry, with each waiter publishing its edge (sequentially
// consistent) and then reading the chain: two threads closing a cycle at the same instant may then
// both see it, and failing exactly one of them needs a tie-break that can itself miss the cycle.
//
// One registry per process. The registry lives in libvantor_message_board, which the dynamic loader
// maps once per process, so the board, the contract's signals and every signal a host instantiates in
// its executable or in plugins (RTLD_LOCAL, hidden visibility or -fno-gnu-unique included) share it.
// Every module that includes this header refers to the registry with a strong reference, so it must
// link the library, and the linker keeps the library as a dependency whatever its flags (a weak
// reference, the road not taken, let -Wl,--as-needed drop the library from a module that used only
// Signal, which then kept a registry of its own). The registry is a constant-initialised, trivially
// destructible object, so the library stays unloadable; there is no thread_local state.
//
// Code that uses the signal header without linking the library defines VANTOR_TESSEL_STANDALONE for
// every translation unit of its module (on the command line): the module then keeps a registry of its
// own, so re-entry is still reported, but cycles through locks of its signals and of the library's (or
// another standalone module's) are not detected and hang. Nor are waits on mutexes that are not
// TrackedMutexes (a host's own mutex taken inside a callback): such cycles still hang.
//
// Lock order: the only permitted nesting is a signal's lock outside the board's (see
// vantor/messaging/message_board.hpp); any other nesting that closes a cycle at run time fails as above.

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include "vantor/tessel/detail/thread_annotations.hpp"

namespace vantor::tessel::detail {

class TrackedMutex;
class TrackedLock;
class NestingLock;

// A thread that waits, or is about to wait, for `waitsFor`. Lives on that thread's stack for the
// duration of the wait.
struct WaitRecord {
  std::thread::id thread;
  const TrackedMutex* waitsFor;
  WaitRecord* next;
};

struct WaitRegistry {
  std::mutex mutex;
  WaitRecord* waiting = nullptr;  // guarded by mutex: every thread blocked on a TrackedMutex
};

#if !defined(VANTOR_TESSEL_STANDALONE)
// The process's registry, defined by libvantor_message_board.
__attribute__((visibility("default"))) WaitRegistry* processWaitRegistry() noexcept;
#endif

inline WaitRegistry& waitRegistry() noexcept {
#if defined(VANTOR_TESSEL_STANDALONE)
  static WaitRegistry ownModule;
  return ownModule;
#else
  return *processWaitRegistry();
#endif
}

// A non-recursive mutex that knows its holder and its name. Locked only through TrackedLock.
class VANTOR_CAPABILITY("mutex") TrackedMutex {
 public:
  // `name` describes the lock in error messages ("the message board's lock"); it must outlive the mutex.
  explicit TrackedMutex(const char* name) noexcept : name_(name) {}
  TrackedMutex(const TrackedMutex&) = delete;
  TrackedMutex& operator=(const TrackedMutex&) = delete;

  const char* name() const noexcept { return name_; }

  // The thread that holds the mutex, or a default-constructed id while none does (a snapshot).
  std::thread::id holder() const noexcept { return holder_.load(std::memory_order_acquire); }

 private:
  friend class TrackedLock;
  friend class NestingLock;

  // The holder's bookkeeping, by the locks: right after locking, and unlocking.
  [[gnu::always_inline]] void held(std::thread::id self, const char* operation) noexcept {
    holder_.store(self, std::memory_order_relaxed);
    holderOperation_ = operation;
  }
  [[gnu::always_inline]] void release() noexcept {
    holder_.store(std::thread::id(), std::memory_order_relaxed);
    mutex_.unlock();
  }

  std::mutex mutex_;
  // Written only by the thread that holds mutex_: its id right after locking, the default id right
  // before unlocking. A thread that reads its own id therefore holds the mutex. Other threads read it
  // only while walking a wait-for chain under the registry's mutex.
  std::atomic<std::thread::id> holder_{std::thread::id()};
  const char* holderOperation_ = nullptr;  // the operation that took the lock; used only by its holder
  const char* name_;
};
static_assert(std::atomic<std::thread::id>::is_always_lock_free, "the holder check must not take a lock itself");

// Locks a TrackedMutex for a scope. `operation` (a string literal) names the public operation that
// takes the lock, `subject` optionally what it works on (a board key); both appear in errors.
class VANTOR_SCOPED_CAPABILITY TrackedLock {
 public:
  // Throws std::system_error(resource_deadlock_would_occur), leaving `mutex` untouched, when the
  // calling thread already holds `mutex` or when waiting for it would close a cycle of waiting threads.
  // The fast path is always inlined (the slow ones never are), so that an uncontended lock costs what a
  // std::lock_guard does, however large the operation that takes it grows.
  [[gnu::always_inline]] TrackedLock(TrackedMutex& mutex, const char* operation, std::string_view subject = {})
      VANTOR_ACQUIRE(mutex)
      : mutex_(mutex) {
    const std::thread::id self = std::this_thread::get_id();
    if (mutex.holder_.load(std::memory_order_relaxed) == self) throwReentry(mutex, operation, subject);
    if (!mutex.mutex_.try_lock()) waitFor(mutex, self, operation, subject);
    mutex.held(self, operation);
  }

  TrackedLock(const TrackedLock&) = delete;
  TrackedLock& operator=(const TrackedLock&) = delete;

  [[gnu::always_inline]] ~TrackedLock() VANTOR_RELEASE() { unlock(); }

  // Releases the mutex early; the destructor then does nothing.
  [[gnu::always_inline]] void unlock() noexcept VANTOR_RELEASE() {
    if (!owns_) return;
    owns_ = false;
    mutex_.release();
  }

 private:
  friend class NestingLock;

  // The slow path: `mutex` is held by another thread.
  [[gnu::noinline]] static void waitFor(TrackedMutex& mutex, std::thread::id self, const char* operation,
                                        std::string_view subject) {
    WaitRegistry& registry = waitRegistry();
    WaitRecord record{self, &mutex, nullptr};
    std::size_t cycle = 0;
    {
      std::lock_guard<std::mutex> guard(registry.mutex);
      // Holders are read without their mutexes: the second walk must confirm what the first found.
      cycle = cycleThrough(registry, mutex, self);
      if (cycle != 0 && cycleThrough(registry, mutex, self) != cycle) cycle = 0;
      if (cycle == 0) {
        record.next = registry.waiting;
        registry.waiting = &record;
      }
    }
    if (cycle != 0) throwCycle(mutex, operation, subject, cycle);

    struct Unregister {
      WaitRegistry& registry;
      WaitRecord& record;
      ~Unregister() {
        std::lock_guard<std::mutex> guard(registry.mutex);
        WaitRecord** link = &registry.waiting;
        while (*link != &record) link = &(*link)->next;
        *link = record.next;
      }
    } unregister{registry, record};
    mutex.mutex_.lock();
  }

  // The number of threads in the cycle that waiting for `wanted` would close, or 0 when the chain from
  // `wanted` ends at a free lock or at a holder that does not wait. Caller holds registry.mutex.
  static std::size_t cycleThrough(const WaitRegistry& registry, const TrackedMutex& wanted, std::thread::id self) {
    std::size_t waiting = 0;
    for (const WaitRecord* record = registry.waiting; record != nullptr; record = record->next) ++waiting;
    const TrackedMutex* lock = &wanted;
    for (std::size_t length = 1; length <= waiting + 1; ++length) {
      const std::thread::id holder = lock->holder_.load(std::memory_order_acquire);
      if (holder == self) return length;
      if (holder == std::thread::id()) return 0;
      const WaitRecord* edge = registry.waiting;
      while (edge != nullptr && edge->thread != holder) edge = edge->next;
      if (edge == nullptr) return 0;
      lock = edge->waitsFor;
    }
    return 0;  // a chain that loops without reaching this thread: not ours to break
  }

  static std::string describe(const char* operation, std::string_view subject, const TrackedMutex& mutex) {
    std::string message(operation);
    if (!subject.empty()) message.append(" on \"").append(subject).append("\"");
    return message.append(" would wait for ").append(mutex.name());
  }

  [[noreturn, gnu::noinline]] static void throwReentry(const TrackedMutex& mutex, const char* operation,
                                                       std::string_view subject) {
    std::string message = describe(operation, subject, mutex);
    message.append(", which this thread already holds in ")
        .append(mutex.holderOperation_ != nullptr ? mutex.holderOperation_ : "another operation")
        .append(" (a callback that runs under that lock called back into it)");
    throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur), message);
  }

  [[noreturn, gnu::noinline]] static void throwCycle(const TrackedMutex& mutex, const char* operation,
                                                     std::string_view subject, std::size_t threads) {
    std::string message = describe(operation, subject, mutex);
    message.append(", whose holder waits, through a cycle of ")
        .append(std::to_string(threads))
        .append(
            " threads, for a lock this thread holds: the wait could never end, so this call fails and "
            "the other threads go on");
    throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur), message);
  }

  TrackedMutex& mutex_;
  bool owns_ = true;
};

// Locks a TrackedMutex for a scope like TrackedLock, except on a thread that already holds it: there
// it takes nothing and the caller runs nested inside the outer hold, which alone releases the mutex.
// Signals lock this way, so that code they run under their lock may call them again; the board does
// not (its callbacks must not call it). Waiting, and the error for a cycle of waiting threads, are
// TrackedLock's.
class VANTOR_SCOPED_CAPABILITY NestingLock {
 public:
  [[gnu::always_inline]] NestingLock(TrackedMutex& mutex, const char* operation) VANTOR_ACQUIRE(mutex) : mutex_(mutex) {
    const std::thread::id self = std::this_thread::get_id();
    if (mutex.holder_.load(std::memory_order_relaxed) == self) return;  // nested: the outer hold owns it
    if (!mutex.mutex_.try_lock()) TrackedLock::waitFor(mutex, self, operation, {});
    take(self, operation);
  }

  // Takes the mutex only if it is free: never waits and never nests (a thread that holds the mutex must
  // not call this; it would be undefined for the std::mutex inside). outermost() tells whether it did.
  NestingLock(TrackedMutex& mutex, const char* operation, std::try_to_lock_t) noexcept VANTOR_ACQUIRE(mutex)
      : mutex_(mutex) {
    if (mutex.mutex_.try_lock()) take(std::this_thread::get_id(), operation);
  }

  NestingLock(const NestingLock&) = delete;
  NestingLock& operator=(const NestingLock&) = delete;

  [[gnu::always_inline]] ~NestingLock() VANTOR_RELEASE() { unlock(); }

  // True when this lock took the mutex (and so releases it), false when it runs nested or a try failed.
  bool outermost() const noexcept { return owns_; }

  // Tries once more to take the mutex, after a try that failed. Returns outermost().
  bool tryAgain(const char* operation) noexcept {
    if (!owns_ && mutex_.mutex_.try_lock()) take(std::this_thread::get_id(), operation);
    return owns_;
  }

  // Releases the mutex if this lock took it; the destructor then does nothing.
  [[gnu::always_inline]] void unlock() noexcept VANTOR_RELEASE() {
    if (!owns_) return;
    owns_ = false;
    mutex_.release();
  }

 private:
  [[gnu::always_inline]] void take(std::thread::id self, const char* operation) noexcept {
    mutex_.held(self, operation);
    owns_ = true;
  }

  TrackedMutex& mutex_;
  bool owns_ = false;
};

}  // namespace vantor::tessel::detail
