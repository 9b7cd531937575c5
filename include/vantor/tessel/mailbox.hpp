#pragma once

/// @file
/// Mailbox: a queue of calls that any thread posts and one consumer runs on its own thread; and
/// QueuedSlot, the callback of a queued connection (Signal::connectQueued), which turns each delivery
/// into a call posted to a mailbox.
///
/// A component with a thread of its own (an event loop, a worker) owns a Mailbox and drains it on that
/// thread: post() queues a call from any thread, drain() runs what is queued, in post order, on the
/// calling thread. The optional wake-up given at construction is called when the mailbox turns
/// non-empty, to poke the event loop; a worker without a loop blocks in waitFor() instead.
///
///     vantor::tessel::Mailbox inbox([&loop] { loop.wake(); });
///     signal.connectQueued(inbox, [this](bool on) { onSecured(on); }, self);  // runs in inbox.drain()
///
/// Threads: post() may be called from any thread, also from a drained call and from the wake-up.
/// drain(), waitFor(), size() and dropped() too; drains from two threads take turns (the second waits
/// for the first), and a drain from inside a drained call of the same mailbox throws
/// `std::system_error(resource_deadlock_would_occur)` naming "Mailbox::drain". The drain turn is one of
/// the library's tracked locks (vantor/tessel/detail/tracked_lock.hpp): two threads whose drained calls
/// drain each other's mailboxes get that error in one of them rather than a hang. Every user call (the
/// queued calls, their destructors, the wake-up) runs with no lock of the mailbox held; the mailbox's
/// own lock guards only the queue and is held for a few pointer moves.
///
/// Lifetime: the Mailbox owns a shared core holding the queue; queued connections and QueuedSlots hold
/// it weakly. Destroying the Mailbox destroys every queued call (and so the arguments it captured), on
/// the destroying thread, and every later post to it is dropped the same way. Destroy it on its
/// consumer's thread: between drains, or from inside one of its own drained calls (the drain then drops
/// the calls after that one and returns), or on another thread once no drain() or waitFor() runs or can
/// start on it. Posts through queued connections may go on during and after its destruction.
///
/// Allocation: at most one per posted call, and none in the steady state for small plain calls. A call
/// lives in one block of memory with its link in the queue (no std::function, no second block for a
/// large callable). The blocks of calls that ran are kept for reuse (up to 128 per mailbox, 128 bytes
/// each): a call of up to 96 bytes whose copy runs no code of the host's (a trivially copyable
/// callable, say a lambda capturing pointers, references and numbers, or a queued connection's call
/// whose arguments are trivially copyable) is copied straight into one, under the mailbox's lock;
/// any other call is built in a block of its own before the lock is taken. A queued connection's call
/// holds the slot's Connection, a shared reference to the callback and copies of the arguments.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "vantor/tessel/detail/tracked_lock.hpp"
#include "vantor/tessel/signal.hpp"

namespace vantor::tessel {

namespace detail {

// A queued call: a link of the mailbox's list followed, in the same block of memory, by the callable
// (CallNode<F>). Blocks of the pool's size are recycled by the mailbox.
struct MailboxCall {
  MailboxCall* next;
  void (*finish)(MailboxCall* call, bool run);  // runs the callable if asked, then destroys it (also when
                                                // it throws); the block stays for the caller to release
  void* block;                                  // the memory the call lives in
  bool pooled;                                  // a block of kMailboxBlockBytes, for the pool
};

constexpr std::size_t kMailboxBlockBytes = 128;  // a pool block: the link and a callable of up to 96 bytes
constexpr std::size_t kMailboxPoolBlocks = 128;  // blocks a mailbox keeps for reuse, at most

template <typename F>
struct CallNode final : MailboxCall {
  template <typename G>
  CallNode(G&& callable, bool inPool)
      : MailboxCall{nullptr, &finishCall, this, inPool}, call(std::forward<G>(callable)) {}
  static void finishCall(MailboxCall* base, bool run) {
    struct Destroy {
      CallNode* node;
      ~Destroy() { node->~CallNode(); }
    } destroy{static_cast<CallNode*>(base)};
    if (run) destroy.node->call();
  }
  F call;
};

// Whether a callable may be copied into a pool block under the mailbox's lock, that is whether
// copying it runs no code of the host's: a trivially copyable type, or one that says so.
template <typename T, typename = void>
struct CopiesWithoutHostCode : std::is_trivially_copyable<T> {};
template <typename T>
struct CopiesWithoutHostCode<T, std::enable_if_t<T::kCopiesWithoutHostCode>> : std::true_type {};

// A free block, in the pool or on its way there.
struct FreeBlock {
  FreeBlock* next;
};

// Destroys every call of a list, calling none, and frees their blocks; with no lock held (the calls'
// destructors are host code).
inline void dropCalls(MailboxCall* calls) noexcept {
  while (calls != nullptr) {
    MailboxCall* call = std::exchange(calls, calls->next);
    void* block = call->block;
    call->finish(call, false);
    ::operator delete(block);
  }
}

inline void freeBlocks(FreeBlock* blocks) noexcept {
  while (blocks != nullptr) ::operator delete(std::exchange(blocks, blocks->next));
}

// The state that a Mailbox shares with the queued connections that post to it.
class MailboxCore {
 public:
  MailboxCore(std::function<void()> wakeUp, std::size_t capacity) : capacity_(capacity), wakeUp_(std::move(wakeUp)) {}
  MailboxCore(const MailboxCore&) = delete;
  MailboxCore& operator=(const MailboxCore&) = delete;
  ~MailboxCore() {  // once the Mailbox has closed the core, only the last drain's blocks are left
    dropCalls(head_);
    freeBlocks(pool_);
    freeBlocks(spent_);
  }

  // Queues a call of `callable` (an F), dropping the oldest call when full, or drops it once the core
  // is closed; wakes waiters and calls the wake-up when the queue turns non-empty. A callable that
  // copies without host code and fits a pool block is copied into one under the lock when the pool
  // has one; any other is built in a block of its own before the lock is taken.
  template <typename F, typename G>
  void post(G&& callable) {
    using Node = CallNode<F>;
    static_assert(alignof(Node) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "a mailbox call must not be over-aligned");
    constexpr bool kPoolable = sizeof(Node) <= kMailboxBlockBytes && CopiesWithoutHostCode<F>::value;
    Linked linked;
    if constexpr (kPoolable) {
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (closed_) return;
        if (pool_ != nullptr) {
          void* block = std::exchange(pool_, pool_->next);
          --pooled_;
          linked = link(new (block) Node(std::forward<G>(callable), true));
        }
      }
      if (linked.queued) return announce(linked);
    }
    struct Block {  // freed unless the call is built in it
      void* memory;
      ~Block() { ::operator delete(memory); }
    } block{::operator new(kPoolable ? kMailboxBlockBytes : sizeof(Node))};
    MailboxCall* call = new (block.memory) Node(std::forward<G>(callable), kPoolable);
    block.memory = nullptr;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      linked = closed_ ? Linked{false, false, false, call} : link(call);
    }
    announce(linked);
  }

  // Runs the calls queued now, in order, holding the drain turn but not the queue's lock. The blocks of
  // the calls that ran wait in spent_ and go to the pool at the next drain, under the lock this one
  // takes anyway. On the way out, normal or not, the calls not run go back to the front of the queue;
  // a core that the Mailbox left to this drain (destroyed by one of the calls) is freed last, after the
  // turn is released.
  std::size_t drain() {
    std::shared_ptr<MailboxCore> lastOwner;
    const TrackedLock turn(turn_, "Mailbox::drain");
    MailboxCall* rest = nullptr;
    FreeBlock* surplus = spent_;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      rest = std::exchange(head_, nullptr);
      tail_ = nullptr;
      size_ = 0;
      for (; surplus != nullptr && !closed_ && pooled_ < kMailboxPoolBlocks; ++pooled_)
        pool_ = new (std::exchange(surplus, surplus->next)) FreeBlock{pool_};
    }
    spent_ = nullptr;
    freeBlocks(surplus);
    struct Finish {
      MailboxCore& core;
      MailboxCall*& notRun;
      std::shared_ptr<MailboxCore>& freedLast;
      ~Finish() {
        freedLast = std::move(core.keptByDrain_);
        core.requeue(notRun);
      }
    } finish{*this, rest, lastOwner};
    std::size_t ran = 0;
    while (rest != nullptr && !keptByDrain_) {
      MailboxCall* call = std::exchange(rest, rest->next);
      struct Spend {  // the call's block, once the call is destroyed, also when it throws
        void* block;
        bool pooled;
        FreeBlock*& spent;
        ~Spend() {
          if (pooled) spent = new (block) FreeBlock{spent};
          if (!pooled) ::operator delete(block);
        }
      } spend{call->block, call->pooled, spent_};
      call->finish(call, true);
      ++ran;
    }
    return ran;
  }

  // Waits until a call is queued or `deadline` passes; true when one is queued.
  bool waitUntil(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    ++waiters_;
    const bool found = queued_.wait_until(lock, deadline, [this] { return head_ != nullptr; });
    --waiters_;
    return found;
  }

  std::size_t size() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return size_;
  }
  std::size_t dropped() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return dropped_;
  }

  // The Mailbox is being destroyed, on a thread that may be draining this core (from a drained call):
  // that drain then keeps the core alive until it ends. Every queued call is dropped, and so is every
  // later post.
  void close(const std::shared_ptr<MailboxCore>& owner) {
    if (turn_.holder() == std::this_thread::get_id()) keptByDrain_ = owner;
    MailboxCall* queued = nullptr;
    FreeBlock* pool = nullptr;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      closed_ = true;
      queued = std::exchange(head_, nullptr);
      tail_ = nullptr;
      size_ = 0;
      pool = std::exchange(pool_, nullptr);
    }
    dropCalls(queued);
    freeBlocks(pool);
  }

 private:
  // What a post did under the lock, for announce() to finish after it.
  struct Linked {
    bool queued = false;
    bool turnedNonEmpty = false;
    bool notify = false;
    MailboxCall* dropped = nullptr;  // the oldest call, dropped because the queue was full
  };

  // Appends `call`, after dropping the oldest call when the queue is full. Caller holds mutex_.
  Linked link(MailboxCall* call) {
    Linked linked{true, size_ == 0, false, nullptr};
    if (capacity_ != 0 && size_ == capacity_) {
      linked.dropped = std::exchange(head_, head_->next);
      linked.dropped->next = nullptr;
      tail_ = head_ != nullptr ? tail_ : nullptr;
      --size_, ++dropped_;
    }
    (tail_ != nullptr ? tail_->next : head_) = call;
    tail_ = call;
    ++size_;
    linked.notify = linked.turnedNonEmpty && waiters_ != 0;
    return linked;
  }

  // After the lock is released: drops what the post dropped, then wakes.
  void announce(const Linked& linked) {
    dropCalls(linked.dropped);
    if (linked.notify) queued_.notify_all();
    if (linked.turnedNonEmpty && wakeUp_) wakeUp_();
  }

  // Puts the calls that a drain did not run back at the front of the queue, before those posted
  // meanwhile, dropping the oldest beyond the capacity; once the core is closed, drops them all.
  void requeue(MailboxCall* calls) noexcept {
    if (calls == nullptr) return;
    MailboxCall* last = calls;
    std::size_t count = 1;
    for (; last->next != nullptr; last = last->next) ++count;
    MailboxCall* dropped = calls;
    bool notify = false;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (!closed_) {
        last->next = head_;
        head_ = calls;
        tail_ = tail_ != nullptr ? tail_ : last;
        size_ += count;
        MailboxCall** cut = &dropped;  // the oldest beyond the capacity move to `dropped`
        for (; capacity_ != 0 && size_ > capacity_; --size_, ++dropped_) {
          *cut = head_;
          cut = &head_->next;
          head_ = head_->next;
        }
        *cut = nullptr;
        tail_ = head_ != nullptr ? tail_ : nullptr;
        notify = waiters_ != 0;
      }
    }
    if (notify) queued_.notify_all();
    dropCalls(dropped);
  }

  std::mutex mutex_;                // guards the queue, the pool and the counts below; held for pointer moves only
  std::condition_variable queued_;  // notified when the queue turns non-empty, for waitUntil()
  MailboxCall* head_ = nullptr;     // guarded by mutex_: the oldest queued call
  MailboxCall* tail_ = nullptr;     // guarded by mutex_: the newest
  std::size_t size_ = 0;            // guarded by mutex_
  std::size_t dropped_ = 0;         // guarded by mutex_: dropped because the queue was full
  std::size_t waiters_ = 0;         // guarded by mutex_: threads in waitUntil()
  FreeBlock* pool_ = nullptr;       // guarded by mutex_: blocks of the calls that ran, for reuse
  std::size_t pooled_ = 0;          // guarded by mutex_: blocks in pool_
  bool closed_ = false;             // guarded by mutex_: the Mailbox is gone
  const std::size_t capacity_;
  const std::function<void()> wakeUp_;
  // Held by a drain while its calls run: drains take turns, and re-entry throws.
  TrackedMutex turn_{"a mailbox's drain turn"};
  // Touched only by the thread that holds turn_ (and the destructor): the blocks of the calls the last
  // drain ran, and the core itself once a drained call destroyed the Mailbox.
  FreeBlock* spent_ = nullptr;
  std::shared_ptr<MailboxCore> keptByDrain_;
};

}  // namespace detail

template <typename... Args>
class QueuedSlot;

/// A queue of calls for one consumer. Any thread posts; the consumer runs the calls with drain() on
/// its own thread. Neither copyable nor movable (queued connections refer to it). See the file
/// description for the threads and the lifetime.
class Mailbox {
 public:
  /// An empty mailbox. `wakeUp`, if not empty, is called on the posting thread, with no lock of the
  /// mailbox held, each time a post turns the mailbox non-empty (also during a drain, whose calls were
  /// taken out of the queue): it should only poke the consumer's event loop, and must not drain (from
  /// a post inside a drained call that would be re-entry). Posts on several threads may call it at
  /// once; a post from a queued connection calls it on the emitting thread, under that signal's lock.
  /// With a `capacity` other than 0, a post to a full mailbox first drops the oldest queued call.
  /// @throws std::bad_alloc when the shared core cannot be allocated.
  explicit Mailbox(std::function<void()> wakeUp = {}, std::size_t capacity = 0)
      : core_(std::make_shared<detail::MailboxCore>(std::move(wakeUp), capacity)) {}
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;
  Mailbox(Mailbox&&) = delete;
  Mailbox& operator=(Mailbox&&) = delete;

  /// Destroys every queued call, on this thread; later posts to the mailbox are dropped. From inside
  /// one of its own drained calls, that drain drops the calls after the current one and returns.
  /// No drain() or waitFor() may run or start on another thread.
  ~Mailbox() { core_->close(core_); }

  /// Queues `call` (a callable taking no arguments, moved or copied into the queue) to run at the next
  /// drain(). Any thread; takes the mailbox's lock for a few pointer moves (and the copy of a call
  /// that runs no host code, see the file description). When the mailbox is full, destroys the oldest
  /// queued call (counted by dropped()) after releasing the lock. Drops `call` once the mailbox is gone.
  /// @throws std::bad_alloc, or what copying `call` throws: nothing is queued. What the wake-up throws,
  ///         after `call` was queued.
  template <typename F>
  void post(F&& call) {
    static_assert(std::is_invocable_v<std::decay_t<F>&>, "a mailbox call takes no arguments");
    core_->post<std::decay_t<F>>(std::forward<F>(call));
  }

  /// Runs the calls queued now on this thread, in post order, and returns how many ran; calls posted
  /// meanwhile run at the next drain(). Each call is destroyed right after it ran. Waits while another
  /// thread drains. No lock of the mailbox is held while a call runs.
  /// @throws std::system_error (resource_deadlock_would_occur) when called from one of this mailbox's
  ///         drained calls, or when waiting for the other drain would close a cycle of waiting
  ///         threads; nothing runs.
  /// @throws what a call throws: that call is consumed, and the calls after it stay queued, in front
  ///         of those posted meanwhile (beyond a capacity, the oldest are dropped).
  std::size_t drain() {
    detail::MailboxCore& core = *core_;  // a drained call may destroy *this; the core outlives the drain
    return core.drain();
  }

  /// Blocks until a call is queued or `timeout` has passed (0 or less: only looks); returns whether a
  /// call is queued. Calls taken by a running drain do not count. Takes the mailbox's lock.
  template <typename Rep, typename Period>
  bool waitFor(const std::chrono::duration<Rep, Period>& timeout) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point now = Clock::now();
    // A timeout beyond the clock's range waits until its end rather than overflowing.
    const bool endless =
        std::chrono::duration<double>(timeout) >= std::chrono::duration<double>(Clock::time_point::max() - now);
    const Clock::time_point deadline =
        endless ? Clock::time_point::max() : now + std::chrono::duration_cast<Clock::duration>(timeout);
    return core_->waitUntil(timeout <= timeout.zero() ? now : deadline);
  }

  /// The number of queued calls (not counting those a running drain has taken). Takes the lock.
  std::size_t size() const { return core_->size(); }
  /// How many calls were dropped because the mailbox was full. Takes the lock.
  std::size_t dropped() const { return core_->dropped(); }

 private:
  template <typename... Args>
  friend class QueuedSlot;

  std::shared_ptr<detail::MailboxCore> core_;  // never null; shared weakly with QueuedSlots
};

/// The callback of a queued connection: delivers `Args...` to a callback on the thread that drains a
/// mailbox. Each post() queues one call holding decayed copies of the arguments; at the drain, the call
/// runs the callback only if its slot is still connected and every owner is alive, and keeps the owners
/// alive until the callback returns. Cheap to copy (a shared pointer); the callback and the owners'
/// weak references are shared by the copies and by every queued call.
///
/// Signal::connectQueued() connects one through connectExtended(), which hands each delivery the
/// slot's own Connection. A publisher of another kind (a board listener) calls post() with a status of
/// its own: any `Status` with `bool connected() const` and `void disconnect() const`.
///
/// The callback object is destroyed by the last of the QueuedSlot copies and the queued calls to go:
/// on the thread that erases the slot, or that runs or drops the last call.
template <typename... Args>
class QueuedSlot {
 public:
  /// The callback that drained calls run. An empty one is accepted, and a drained call that reaches
  /// it throws std::bad_function_call from drain().
  using Callback = std::function<void(Args...)>;

  /// Delivers to `callback` through `mailbox`, tracked by `owners` (each a std::shared_ptr or
  /// std::weak_ptr, held weakly). The mailbox is held weakly: once it is destroyed, posts are dropped.
  /// @throws std::bad_alloc; what copying `callback` throws.
  template <typename... Owners>
  QueuedSlot(Mailbox& mailbox, Callback callback, const Owners&... owners)
      : target_(std::make_shared<const Target>(
            Target{mailbox.core_, std::move(callback), {std::weak_ptr<const void>(owners)...}})) {
    static_assert((std::is_convertible_v<const Owners&, std::weak_ptr<const void>> && ...),
                  "a tracked owner is a std::shared_ptr or a std::weak_ptr");
  }

  /// Posts one call of the callback with decayed copies of `args`, if the mailbox still exists (else
  /// does nothing). At the drain the call locks every owner: if one has expired it calls
  /// `status.disconnect()` and does nothing more; otherwise, if `status.connected()`, it calls the
  /// callback, and releases the owners after it returns (on the draining thread). Any thread.
  /// @throws what Mailbox::post() throws; what copying `status` or the arguments throws.
  template <typename Status, typename... A>
  void post(const Status& status, A&&... args) const {
    if (const std::shared_ptr<detail::MailboxCore> core = target_->mailbox.lock())
      core->post<Call<Status>>(
          Call<Status>{target_, status, std::tuple<std::decay_t<Args>...>(std::forward<A>(args)...)});
  }

  /// post(), in the form of a Signal's extended callback: (the slot's Connection, the arguments).
  template <typename Status>
  void operator()(const Status& status, Args... args) const {
    post(status, std::forward<Args>(args)...);
  }

 private:
  struct Target {
    std::weak_ptr<detail::MailboxCore> mailbox;
    Callback callback;
    std::vector<std::weak_ptr<const void>> owners;
  };

  template <typename Status>
  struct Call {
    // A queued connection's call holds only the library's handles and the arguments: when those are
    // trivially copyable, copying the call runs no code of the host's (see the pool of Mailbox).
    static constexpr bool kCopiesWithoutHostCode =
        std::is_same_v<Status, Connection> && (std::is_trivially_copyable_v<std::decay_t<Args>> && ...);

    void operator()() {
      if (!runKeepingOwners(0)) status.disconnect();
    }
    // Locks owner `index` and the ones after it (one stack frame each: no allocation), then runs the
    // callback; false when an owner has expired.
    bool runKeepingOwners(std::size_t index) {
      if (index < target->owners.size()) {
        const std::shared_ptr<const void> kept = target->owners[index].lock();
        return kept != nullptr && runKeepingOwners(index + 1);
      }
      if (status.connected())
        std::apply([this](auto&... values) { target->callback(std::forward<Args>(values)...); }, args);
      return true;
    }

    std::shared_ptr<const Target> target;
    Status status;
    std::tuple<std::decay_t<Args>...> args;
  };

  std::shared_ptr<const Target> target_;
};

/// A QueuedSlot for `callback` through `mailbox`, tracked by `owners`: what Signal::connectQueued()
/// connects. Throws what the QueuedSlot constructor throws.
template <typename... Args, typename... Owners>
QueuedSlot<Args...> makeQueuedSlot(Mailbox& mailbox, const std::function<void(Args...)>& callback,
                                   const Owners&... owners) {
  return QueuedSlot<Args...>(mailbox, callback, owners...);
}

}  // namespace vantor::tessel
