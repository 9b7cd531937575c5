#pragma once

/// @file
/// `Signal<Args...>`: a thread-safe, header-only signal/slot facility. Its slot handles (Connection,
/// ScopedConnection, ConnectionBlocker) are in vantor/tessel/connection.hpp.
///
/// A Signal holds an ordered list of callbacks (slots). emit() calls every live slot synchronously, on
/// the emitting thread, in connection order, while the signal's own mutex is held; so emissions of one
/// signal on different threads never overlap, and an operation of the signal on another thread waits
/// for a running one.
///
/// Re-entry. Code that the signal runs under its lock on the emitting thread (a slot, the destructor of
/// a callback object or of a tracked owner) may call every operation of that signal, and Connection
/// operations on any of its slots. They run nested, on this thread, inside the operation below them:
///  - emit(): calls every live slot in order, then the emission below goes on. Slots [A, B], A emitting
///    once more: the calls are A, A, B, B. Depth is bounded only by the stack.
///  - connect(): the new slot is not called by any emission already running (nested or not), and is
///    called by every emission that starts after the connect, nested ones included.
///  - disconnectAll(): no slot is called after it returns, also not by the emissions still running
///    below; slotCount() is 0 at once; the entries are freed once no emission needs them, at the latest
///    when the outermost operation returns.
///  - slotCount() and empty(): the count at that moment.
///  - an exception from a nested emission reaches the slot that emitted it; if that slot lets it pass,
///    every level unwinds, the lock is released once, and the signal stays whole.
///  - destroying the signal from code it runs under its lock is an error: the destructor throws
///    `std::system_error(resource_deadlock_would_occur)`, which terminates the process.
///
/// Flags take effect at once: a delivery checks a slot's flags right before it calls it, so a slot that
/// an earlier slot (or another thread) blocked or disconnected is not called by that delivery. Once a
/// slot is disconnected the signal lets go of it at once (its callback object and Status are freed), or,
/// if an operation of the signal is running, before that operation returns (connection.hpp).
///
/// Tracked slots: connect(callback, owner...) also takes one or more owners (std::shared_ptr or
/// std::weak_ptr, held weakly). Once an owner has expired, the slot is never called again and counts as
/// disconnected; while the callback runs, the signal holds every owner alive, so an owner released on
/// another thread meanwhile is destroyed only after the call returns. Slots whose owner merely expired
/// are erased by the next walk of the list. connectExtended() connects a callback that receives its own
/// slot's Connection first, to disconnect or block itself.
///
/// Threads and cycles: every operation may be called from any thread. A callback that emits another
/// signal is fine, unless another thread at the same time emits the two in the opposite order (or a
/// longer ring of signals closes): then the thread that closes the cycle gets
/// `std::system_error(resource_deadlock_would_occur)` instead of both threads hanging. Cycles through a
/// mutex of the host's own, or through signals of a module built with VANTOR_TESSEL_STANDALONE (see
/// vantor/tessel/detail/tracked_lock.hpp), are not detected and still hang.
///
/// Lock order with the message board (vantor/messaging/message_board.hpp): a callback may call board
/// operations, that is take the board's mutex while this signal's mutex is held. The reverse order,
/// taking a signal's mutex under the board's mutex, is permitted only while that signal has no
/// callbacks (a contract subscribing its own subscribers in its constructor).
///
/// Lifetime: the destructor lets go of every slot (waiting for a running emission on another thread); no
/// operation may start on a signal once its destruction has begun. Connections outlive their signal
/// safely: they stop resolving once their slot is let go of, and then do nothing.

#include <cstddef>
#include <functional>
#include <iterator>
#include <list>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

#include "vantor/tessel/connection.hpp"
#include "vantor/tessel/detail/thread_annotations.hpp"
#include "vantor/tessel/detail/tracked_lock.hpp"

namespace vantor::tessel {

/// A list of callbacks (slots) that emit() calls in connection order, on the emitting thread, under the
/// signal's own mutex. Every operation may be called from any thread, and from the signal's own
/// callbacks (see the file description for nesting, the errors and the lock order). Neither copyable
/// nor movable.
template <typename... Args>
class Signal {
 public:
  /// A slot's callback. Runs on the emitting thread while this signal's mutex is held; it may call any
  /// operation of this signal except its destructor. It may be empty: connect() stores it, and a
  /// delivery that reaches it throws std::bad_function_call.
  using Callback = std::function<void(Args...)>;
  /// The callback of connectExtended(): a Callback that receives its own slot's Connection first, with
  /// which it may disconnect or block itself. Runs under the same lock and rules as a Callback.
  using ExtendedCallback = std::function<void(const Connection&, Args...)>;

  /// A signal without slots, whose lock errors call its lock "a signal's lock".
  Signal() noexcept : Signal("a signal's lock") {}
  /// A signal without slots. `lockName` (a string literal) names its lock in error messages, for
  /// example "the secured signal's lock".
  explicit Signal(const char* lockName) noexcept : mutex_(lockName) {}
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;
  Signal(Signal&&) = delete;
  Signal& operator=(Signal&&) = delete;

  /// Lets go of every slot (takes the mutex, so waits for a running emission on another thread).
  /// Destroying a signal from code it runs under its lock, or where the wait would close a lock cycle,
  /// raises inside this destructor and so terminates the process.
  ~Signal() { destroy(); }  // NOLINT(bugprone-exception-escape)

  /// Appends a copy of `callback` as the last slot and returns its Connection. Copies the callback first,
  /// then takes the mutex (waiting for a running emission on another thread; nesting in one on this
  /// thread). The new slot is not called by an emission already running. On failure nothing is appended.
  /// @throws std::system_error (resource_deadlock_would_occur) when waiting would close a cycle of
  ///         threads waiting for each other's library locks.
  /// @throws std::bad_alloc when the slot cannot be allocated; whatever the callback's copy throws.
  Connection connect(const Callback& callback) { return connectAs("Signal::connect", callback); }

  /// connect() for a slot tracked by `owners` (each a std::shared_ptr or std::weak_ptr of any type,
  /// held weakly): once any owner has expired, the slot is never called again and counts as
  /// disconnected; a slot connected with an owner that has already expired (or is empty) is never
  /// called. While the callback runs, the delivery keeps every owner alive: an owner released meanwhile,
  /// on any thread, is destroyed only after the call returns, on the emitting thread and under the mutex
  /// (its destructor may call this signal). Throws what connect() throws.
  template <typename Owner, typename... Owners, typename = std::enable_if_t<!std::is_member_function_pointer_v<Owner>>>
  Connection connect(const Callback& callback, const Owner& owner, const Owners&... owners) {
    return connectAs("Signal::connect", callback, owner, owners...);
  }

  /// connect() for the member function `method` of `object`: a raw pointer (not tracked: the object
  /// must outlive the slot), or a std::shared_ptr or std::weak_ptr, which also tracks the slot as
  /// connect() with an owner does. Throws what connect() throws.
  template <typename Method, typename Object, typename = std::enable_if_t<std::is_member_function_pointer_v<Method>>>
  Connection connect(Method method, const Object& object) {
    if constexpr (std::is_pointer_v<Object>) {
      return connect([method, object](Args... args) { (object->*method)(std::forward<Args>(args)...); });
    } else {
      auto* const target = lockedTarget(object).get();  // alive while the tracked slot runs
      return connect([method, target](Args... args) { (target->*method)(std::forward<Args>(args)...); }, object);
    }
  }

  /// connect() for a callback that receives its own slot's Connection before the arguments, to
  /// disconnect or block itself; `owners`, if any, track the slot as connect() does. An empty callback
  /// is accepted, and a delivery that reaches it throws std::bad_function_call. Throws what connect()
  /// throws.
  template <typename... Owners>
  Connection connectExtended(const ExtendedCallback& callback, const Owners&... owners) {
    std::shared_ptr<Connection::Status> status = makeStatus(owners...);
    Callback bound = [callback, self = Connection(status)](Args... args) {
      callback(self, std::forward<Args>(args)...);
    };
    if constexpr (sizeof...(Owners) != 0) bound = keepingOwners(bound, status);
    return attach("Signal::connectExtended", std::move(bound), std::move(status));
  }

  // ---- queued connections: delivery on the thread that drains a tessel::Mailbox (mailbox.hpp)

  /// connect() for a callback that runs on the thread that drains `mailbox`, a tessel::Mailbox (the
  /// caller includes vantor/tessel/mailbox.hpp). Each delivery to the slot posts a call holding decayed
  /// copies of the arguments, on the emitting thread and under this signal's mutex; the call runs at
  /// the mailbox's next drain(), without this signal's lock. A call whose slot was disconnected, or an
  /// owner expired, by then is dropped: once disconnect() has returned on the draining thread, no call
  /// of the slot runs. `owners` track the slot as connect() does, and each call keeps them alive while
  /// it runs, on the draining thread. Posts to a destroyed mailbox are dropped. Built on
  /// connectExtended() (whose name errors give) and throws what it throws; an emission also throws what
  /// Mailbox::post() throws.
  template <typename MailboxType, typename... Owners>
  Connection connectQueued(MailboxType& mailbox, const Callback& callback, const Owners&... owners) {
    return connectExtended(makeQueuedSlot(mailbox, callback, owners...), owners...);  // found with the mailbox
  }

  /// Takes the mutex (or nests, on a thread that runs inside this signal) and calls each live slot once
  /// with `args`, in connection order, on this thread: disconnected and blocked slots are skipped, each
  /// judged right before its call. Every slot but the last receives copies of `args`; the last receives
  /// them forwarded. Allocates nothing.
  /// @throws std::system_error (resource_deadlock_would_occur) as connect() does; nothing is delivered.
  /// @throws std::bad_function_call when the delivery reaches an empty callback. That exception, or one
  ///         that a callback throws, ends the delivery and propagates with the mutex released.
  template <typename... A>
  void emit(A&&... args) {
    emitAs("Signal::emit", std::forward<A>(args)...);
  }
  /// emit().
  template <typename... A>
  void operator()(A&&... args) {
    emitAs("Signal::emit", std::forward<A>(args)...);
  }

  /// connect() for owners that expose the signal through operations of their own: errors name
  /// `operation` (a string literal) instead of "Signal::connect". Throws what connect() throws.
  Connection connectAs(const char* operation, const Callback& callback) {
    return attach(operation, Callback(callback), makeStatus());
  }
  /// connect() with tracked `owners`, whose errors name `operation`. Throws what connect() throws.
  template <typename Owner, typename... Owners>
  Connection connectAs(const char* operation, const Callback& callback, const Owner& owner, const Owners&... owners) {
    std::shared_ptr<Connection::Status> status = makeStatus(owner, owners...);
    Callback tracked = keepingOwners(callback, status);
    return attach(operation, std::move(tracked), std::move(status));
  }

  /// emit() for owners that expose the signal through operations of their own: errors name
  /// `operation` (a string literal) instead of "Signal::emit". Throws what emit() throws.
  template <typename... A>
  void emitAs(const char* operation, A&&... args) {
    const Hold hold(*this, operation);
    walk(hold.outermost(), std::forward<A>(args)...);
  }

  /// The name of this signal's lock, as errors give it.
  const char* lockName() const noexcept { return mutex_.name(); }

  /// Disconnects every slot without invoking any: no slot is called after it returns (also not by an
  /// emission running below it on this thread), and their entries are freed at once, or once no
  /// emission needs them. The signal stays usable. Takes the mutex like connect().
  /// @throws std::system_error (resource_deadlock_would_occur) as connect() does; nothing changes.
  void disconnectAll() { clear("Signal::disconnectAll"); }

  /// The number of slots that are connected (Connection::connected() would say so), blocked ones
  /// included, at this moment. Takes the mutex like connect(), and throws what disconnectAll() throws.
  std::size_t slotCount() const { return count("Signal::slotCount"); }
  /// True when slotCount() is 0. Takes the mutex and throws as slotCount() does.
  bool empty() const { return count("Signal::empty") == 0; }

 private:
  using Slot = std::pair<Callback, std::shared_ptr<Connection::Status>>;

  // The signal's lock for one operation: taken, or nested inside this thread's own hold further down the
  // stack. Only the outermost hold erases entries (a nested one would pull them from under the walks
  // below it) and, on its way out, lets go of the slots that were disconnected meanwhile.
  class VANTOR_SCOPED_CAPABILITY Hold {
   public:
    [[gnu::always_inline]] Hold(const Signal& signal, const char* operation) VANTOR_ACQUIRE(signal.mutex_)
        : signal_(const_cast<Signal&>(signal)), lock_(signal.mutex_, operation) {}
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    [[gnu::always_inline]] ~Hold() VANTOR_RELEASE() {
      if (lock_.outermost()) signal_.leave(lock_);
    }
    bool outermost() const noexcept { return lock_.outermost(); }

   private:
    Signal& signal_;
    detail::NestingLock lock_;
  };

  // Each Status gets an allocation of its own (not make_shared), so that erasing the entry frees it.
  template <typename... Owners>
  static std::shared_ptr<Connection::Status> makeStatus(const Owners&... owners) {
    static_assert((std::is_convertible_v<const Owners&, std::weak_ptr<const void>> && ...),
                  "a tracked owner is a std::shared_ptr or a std::weak_ptr");
    if constexpr (sizeof...(Owners) == 0) {
      return std::shared_ptr<Connection::Status>(new detail::SlotState());
    } else {
      return std::shared_ptr<Connection::Status>(new detail::TrackedSlotState<sizeof...(Owners)>(owners...));
    }
  }

  template <typename T>
  static std::shared_ptr<T> lockedTarget(const std::shared_ptr<T>& object) noexcept {
    return object;
  }
  template <typename T>
  static std::shared_ptr<T> lockedTarget(const std::weak_ptr<T>& object) noexcept {
    return object.lock();
  }

  // A tracked slot's callback: calls `callback` only while every owner of the slot can be kept alive, and
  // keeps them so until it returns; once one has expired, marks the slot disconnected instead. Tracking
  // lives here, in the callback, so that a delivery to plain slots pays nothing for it. The slot's
  // Status outlives every call of its callback (both go with the slot's entry).
  static Callback keepingOwners(const Callback& callback, const std::shared_ptr<Connection::Status>& status) {
    return [callback, &slot = detail::stateOf(*status)](Args... args) {
      const detail::KeptOwners kept(slot);
      if (kept) callback(std::forward<Args>(args)...);
    };
  }

  // Appends a slot made of a callback copied and a Status allocated before locking (after erasing the
  // slots that are gone, when not nested). On failure nothing is appended and both are freed.
  Connection attach(const char* operation, Callback&& callback, std::shared_ptr<Connection::Status>&& status) {
    detail::SlotState& slot = detail::stateOf(*status);
    slot.releaser = &Signal::releaseSlots;
    const Hold hold(*this, operation);
    if (hold.outermost()) eraseGone();
    slots_.emplace_back(std::move(callback), std::move(status));
    slot.signal.store(this, std::memory_order_release);
    return Connection(slots_.back().second);
  }

  // Walks the slots that were in the list when it began (later ones belong to later emissions), calling
  // each live one; a slot's flags are judged right before its call, so a change made by an earlier slot
  // takes effect at once. The outermost walk erases the disconnected entries it passes; a nested one
  // leaves them to it (an erasure would pull an entry from under a walk below). Erasing never moves
  // another entry, and nested operations only append and mark, so the iterators of the walks below stay
  // valid. Allocates nothing. Throws std::bad_function_call when it reaches an empty callback, and
  // whatever a callback throws; either ends the walk.
  template <typename... A>
  void walk(bool outermost, A&&... args) VANTOR_REQUIRES(mutex_) {
    // The first `left` entries are the ones to walk: later ones are appended behind them, and only this
    // walk erases (entries it has passed).
    auto it = slots_.begin();
    for (std::size_t left = slots_.size(); left != 0; --left) {
      const auto entry = it++;
      const Connection::Status& status = *entry->second;
      if (status.disconnected.load(std::memory_order_acquire)) {
        if (outermost) erase(entry);
      } else if (!status.blocked.load(std::memory_order_acquire)) {
        if (left == 1) return entry->first(std::forward<A>(args)...);
        entry->first(args...);
      }
    }
  }

  // The walk of release 13.1's callers, who hold the mutex themselves.
  template <typename... A>
  void deliver(A&&... args) VANTOR_REQUIRES(mutex_) {
    walk(true, std::forward<A>(args)...);
  }

  std::size_t count(const char* operation) const {
    const Hold hold(*this, operation);
    std::size_t connected = 0;
    for (const Slot& slot : slots_) connected += detail::stateOf(*slot.second).gone() ? 0 : 1;
    return connected;
  }

  // Nested (on a thread that runs inside the signal), marks every slot disconnected and leaves the
  // entries to the outermost operation, which lets go of them on its way out; otherwise erases them all.
  void clear(const char* operation) {
    const Hold hold(*this, operation);
    if (hold.outermost()) return eraseAll();
    for (const Slot& slot : slots_) slot.second->disconnected.store(true, std::memory_order_release);
    detail::ReleaseRegistry& registry = detail::releaseRegistry();
    const std::lock_guard<std::mutex> guard(registry.mutex);
    if (!slots_.empty()) registry.add(this);
  }

  // The destructor's work: erases every slot, then unlists the signal from the release registry under its
  // mutex, after which no Connection can reach the signal (every slot's way back was cut first).
  void destroy() {
    const Hold hold(*this, "Signal::~Signal");
    if (!hold.outermost()) throwDestroyedInside();
    eraseAll();
    detail::ReleaseRegistry& registry = detail::releaseRegistry();
    const std::lock_guard<std::mutex> guard(registry.mutex);
    registry.take(this);
  }

  void eraseAll() VANTOR_REQUIRES(mutex_) {
    while (!slots_.empty()) {
      std::list<Slot> erased;
      erased.splice(erased.end(), slots_);
      for (Slot& slot : erased) cut(slot);
    }  // the Statuses are freed here; slots connected meanwhile by the callbacks' destructors go next round
  }

  [[noreturn, gnu::noinline]] void throwDestroyedInside() const {
    std::string message("Signal::~Signal would wait for ");
    message.append(mutex_.name())
        .append(", which this thread holds: a signal cannot be destroyed by code that it runs under its lock");
    throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur), message);
  }

  // Erases one entry: cut(), then its Status is freed (unless a Connection operation holds it for a
  // moment, as disconnectAndWait() does on purpose).
  [[gnu::noinline]] void erase(typename std::list<Slot>::iterator entry) VANTOR_REQUIRES(mutex_) {
    std::list<Slot> erased;
    erased.splice(erased.end(), slots_, entry);
    cut(erased.front());
  }
  // The first steps of erasing an entry already out of the list: cuts the slot's way back to the signal,
  // then destroys its callback object, so that both are done before the Status can be freed (which is
  // what disconnectAndWait() waits for).
  static void cut(Slot& slot) noexcept {
    detail::stateOf(*slot.second).signal.store(nullptr, std::memory_order_release);
    slot.first = nullptr;
  }

  // Erases every slot that is gone (disconnected, or an owner expired). Outermost holder only.
  void eraseGone() VANTOR_REQUIRES(mutex_) {
    for (auto it = slots_.begin(); it != slots_.end();) {
      const auto next = std::next(it);
      if (detail::stateOf(*it->second).gone()) erase(it);
      it = next;
    }
  }

  // The outermost hold's way out: unlocks, then lets go of the slots that Connections disconnected while
  // the lock was held (the release registry's handshake). After the unlock the signal is touched only
  // under the registry's mutex while it is listed there (then it is alive).
  [[gnu::always_inline]] void leave(detail::NestingLock& lock) noexcept VANTOR_NO_THREAD_SAFETY_ANALYSIS {
    lock.unlock();
    if (detail::releaseRegistry().pending.load(std::memory_order_relaxed) != 0) releasePending();
  }

  [[gnu::noinline]] void releasePending() noexcept VANTOR_NO_THREAD_SAFETY_ANALYSIS {
    detail::ReleaseRegistry& registry = detail::releaseRegistry();
    for (;;) {
      std::unique_lock<std::mutex> guard(registry.mutex);
      if (!registry.listed(this)) return;
      detail::NestingLock lock(mutex_, "Signal: letting go of disconnected slots", std::try_to_lock);
      if (!lock.outermost()) return;  // its new holder lets go on its way out
      registry.take(this);
      guard.unlock();
      eraseGone();
    }
  }

  // SlotState::releaser: called by a Connection that disconnected a slot of `self`, under the release
  // registry's mutex (which keeps `self` alive). Erases the signal's gone slots now if its lock is free;
  // otherwise lists the signal, so that the lock's holder does it on its way out.
  static detail::Release releaseSlots(void* self, std::unique_lock<std::mutex>& registryLock,
                                      const char** lockName) noexcept VANTOR_NO_THREAD_SAFETY_ANALYSIS {
    Signal& signal = *static_cast<Signal*>(self);
    detail::ReleaseRegistry& registry = detail::releaseRegistry();
    if (signal.mutex_.holder() == std::this_thread::get_id()) {
      *lockName = signal.mutex_.name();
      registry.add(&signal);
      return detail::Release::kInside;
    }
    detail::NestingLock lock(signal.mutex_, "Connection::disconnect", std::try_to_lock);
    if (!lock.outermost()) {
      if (!registry.add(&signal)) return detail::Release::kDeferred;  // full: the next walk erases it
      if (!lock.tryAgain("Connection::disconnect")) return detail::Release::kDeferred;
    }
    registry.take(&signal);
    registryLock.unlock();
    signal.eraseGone();
    signal.leave(lock);
    return detail::Release::kDone;
  }

  // Guards slots_, every read of the slots' flags and the owners that deliveries keep alive. Held while
  // callbacks run, and while callback objects and kept owners are destroyed; code running under it on the
  // holder's thread nests (Hold). Lock order with the board's mutex (BoardData::mutex): a callback may
  // take the board's mutex while this one is held; this mutex is taken under the board's only while the
  // signal has no callbacks (a contract's constructor subscribing its own subscribers).
  mutable detail::TrackedMutex mutex_;
  std::list<Slot> slots_ VANTOR_GUARDED_BY(mutex_);  // connection order, oldest first
};

}  // namespace vantor::tessel
