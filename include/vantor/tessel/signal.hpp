#pragma once

/// @file
/// `Signal<Args...>`: a thread-safe, header-only signal/slot facility, with its slot handles
/// Connection, ScopedConnection and ConnectionBlocker.
///
/// A Signal holds an ordered list of callbacks (slots). emit() calls every live slot synchronously, on
/// the emitting thread, in connection order, while the signal's own mutex is held; so emissions of one
/// signal never overlap, and connect() or disconnectAll() on another thread wait for a running one.
///
/// connect() returns a Connection: a non-owning handle to the slot's two flags (Connection::Status).
/// A blocked slot is skipped by deliveries; a slot marked disconnected is never called again and is
/// erased by the next walk of the list (by connect or a delivery). The signal itself never sets either
/// flag. Dropping a Connection leaves its slot connected; ScopedConnection disconnects when it goes out
/// of scope, and ConnectionBlocker blocks a slot for its own lifetime.
///
/// Tracked slots: connect(callback, owner...) also takes one or more owners (std::shared_ptr or
/// std::weak_ptr, held weakly). Once an owner has expired, the slot is never called again and counts as
/// disconnected; while the callback runs, the signal holds every owner alive, so an owner released on
/// another thread meanwhile is destroyed only after the call returns. connectExtended() connects a
/// callback that receives its own slot's Connection first, to disconnect or block itself.
///
/// Threads: every operation of Signal may be called from any thread. Connection, ScopedConnection and
/// ConnectionBlocker objects may be used from any thread, also while the signal emits: the flags are
/// one-byte atomics. When a flag change made during an emission takes effect:
///  - disconnect() (and an owner's expiry) at once: a delivery checks the flag again right before it
///    calls a slot, so a slot disconnected by an earlier slot of the same emission, or by another
///    thread, is not called. A call that has already begun on another thread runs to its end:
///    disconnect() does not wait for it. To go away while a call may be running on another thread,
///    track the object the callback uses (it then stays alive until the call returns).
///  - block() and unblock() once the walk reaches the slot. A delivery finds the next live slot before
///    it calls the current one (so that it can hand the last one its arguments forwarded): a callback
///    that blocks the next live slot does not stop it in this emission, but one after that it does.
///
/// Callbacks run while the signal's mutex is held, and so does the destruction of callback objects (by
/// erasure) and of the owners a delivery kept alive (when the call that held the last reference
/// returns); connect() copies a callback before it takes the mutex. What a callback may do:
///  - connect(), emit() or disconnectAll() on its own signal: throws
///    `std::system_error(resource_deadlock_would_occur)` naming the operation and the signal's lock,
///    and leaves the signal intact.
///  - emit another signal: fine, unless another thread at the same time emits the two in the opposite
///    order (or a longer ring of signals closes): then the thread that closes the cycle gets the same
///    `std::system_error` instead of both threads hanging. Cycles that pass through a mutex of the
///    host's own, or through signals of a module built with VANTOR_TESSEL_STANDALONE (see
///    vantor/tessel/detail/tracked_lock.hpp), are not detected and still hang.
///  - destroy its own signal, or run any of the above from the destructor of a callback object or of a
///    tracked owner: the error is raised inside a destructor, which is noexcept, so the process
///    terminates.
///
/// Lock order with the message board (vantor/messaging/message_board.hpp): a callback may call board
/// operations, that is take the board's mutex while this signal's mutex is held. The reverse order,
/// taking a signal's mutex under the board's mutex, is permitted only while that signal has no
/// callbacks (a contract subscribing its own subscribers in its constructor).
///
/// Lifetime: the destructor disconnects every slot (waiting for a running emission); no operation may
/// start on a signal once its destruction has begun. Connections outlive their signal safely: they
/// stop resolving once their slot is erased, and then do nothing.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <type_traits>
#include <utility>

#include "vantor/tessel/detail/thread_annotations.hpp"
#include "vantor/tessel/detail/tracked_lock.hpp"

/// The header-only signal/slot facility: Signal and its slot handles.
namespace vantor::tessel {

template <typename... Args>
class Signal;
class ConnectionBlocker;

namespace detail {
struct SlotState;
}

/// A handle to one slot of a Signal, as Signal::connect() returns it. Default-constructed, it refers to
/// no slot. Copies refer to the same slot and compare equal. Every operation acts through the slot's
/// Status, takes no lock, never throws, may run on any thread (also while the signal emits, and after
/// it is gone) and does nothing once the slot has been erased (by a walk after disconnect() or after an
/// owner of a tracked slot expired, by disconnectAll() or by the signal's destruction).
class Connection {
 public:
  /// The slot's flags, which the signal reads as it walks its list. Allocated on its own by connect()
  /// and owned only by the slot's list entry, so erasing the entry frees it at once; Connections hold
  /// weak references. Hosts change the flags only through Connection and ConnectionBlocker.
  struct Status {
    std::atomic<bool> blocked{false};       ///< Deliveries skip the slot while set.
    std::atomic<bool> disconnected{false};  ///< Never called again; erased at the next walk.
  };
  static_assert(sizeof(std::atomic<bool>) == 1 && std::atomic<bool>::is_always_lock_free,
                "Status flags must be one-byte, lock-free atomics");

  /// A handle that refers to no slot: connected() is false, and every operation does nothing.
  Connection() noexcept = default;

  /// Marks the slot disconnected: it is never called again, also not later in an emission that is
  /// running (on this thread or another), and the signal erases it at its next walk. Does not wait for
  /// a call of the slot that has already begun on another thread; track the callback's owner for that.
  void disconnect() const noexcept {
    if (const auto status = status_.lock()) status->disconnected.store(true, std::memory_order_release);
  }

  /// Makes deliveries skip the slot until unblock(). block() itself is not counted: one unblock() ends
  /// any number of block() calls, but the slot stays blocked while a ConnectionBlocker on it lives.
  inline void block() const noexcept;
  /// Ends block(). The slot is called again unless a ConnectionBlocker on it still lives.
  inline void unblock() const noexcept;

  /// True while the slot exists, is not marked disconnected and, if it is tracked, no owner has expired.
  inline bool connected() const noexcept;

  /// True while the slot exists and is blocked (by block() or by a living ConnectionBlocker).
  bool blocked() const noexcept {
    const auto status = status_.lock();
    return status && status->blocked.load(std::memory_order_acquire);
  }

  /// Connections are equal when they refer to the same slot (or both to none), erased or not.
  friend bool operator==(const Connection& a, const Connection& b) noexcept {
    return !a.status_.owner_before(b.status_) && !b.status_.owner_before(a.status_);
  }
  /// The negation of operator==.
  friend bool operator!=(const Connection& a, const Connection& b) noexcept { return !(a == b); }

 private:
  template <typename... Args>
  friend class Signal;
  friend class ConnectionBlocker;

  explicit Connection(const std::shared_ptr<Status>& status) noexcept : status_(status) {}

  // Applies `change` to the slot's block count, if the slot still exists; returns whether it did.
  template <typename Change>
  bool changeBlocking(Change change) const noexcept;

  std::weak_ptr<Status> status_;
};

namespace detail {

// One owner of a tracked slot: watched weakly, and kept alive by a delivery while the slot runs.
struct TrackedOwner {
  std::weak_ptr<const void> watched;  // set by connect(), then only read
  std::shared_ptr<const void> kept;   // set and reset by a delivery, under the signal's mutex
};

// What connect() allocates for each slot: the Status that the walk reads, followed by the state from
// which `blocked` is derived and, for a tracked slot, its owners. block()/unblock() and
// ConnectionBlockers change `blocks` from any thread in any order, and the slot is blocked while it is
// non-zero. The owners are fixed before the slot is published; a tracked slot's own callback (see
// Signal::keepingOwners), Connection::connected(), connect() and slotCount() read them, but a delivery's
// walk never does, and a plain slot's Status stays within the allocator's smallest block.
struct SlotState : Connection::Status {
  static constexpr std::uint32_t kBlockCalled = 1;  // block() is in force
  static constexpr std::uint32_t kOneBlocker = 2;   // added per living ConnectionBlocker
  std::atomic<std::uint32_t> blocks{0};
  TrackedOwner* owners = nullptr;  // the TrackedSlotState's owners; none for a plain slot
  std::uint32_t ownerCount = 0;

  // True when an owner has expired (its destruction may have begun): the slot is never called again.
  bool ownerGone() const noexcept {
    for (std::uint32_t i = 0; i < ownerCount; ++i)
      if (owners[i].watched.expired()) return true;
    return false;
  }
  // True when the slot is never called again: disconnected, or an owner has expired.
  bool gone() const noexcept { return disconnected.load(std::memory_order_acquire) || ownerGone(); }
};

// The state of a slot tracked by N owners.
template <std::size_t N>
struct TrackedSlotState final : SlotState {
  template <typename... Owners>
  explicit TrackedSlotState(const Owners&... tracked) : storage{TrackedOwner{tracked, nullptr}...} {
    owners = storage;
    ownerCount = N;
  }
  TrackedOwner storage[N];
};

// Holds a tracked slot's owners alive for one call, under the signal's mutex. False when one has
// expired; then the slot is marked disconnected. An owner whose last other reference went meanwhile is
// destroyed by the destructor, on this thread, once the call has returned.
class KeptOwners {
 public:
  explicit KeptOwners(SlotState& slot) noexcept : slot_(slot) {
    for (std::uint32_t i = 0; i < slot.ownerCount; ++i) {
      slot.owners[i].kept = slot.owners[i].watched.lock();
      alive_ = alive_ && slot.owners[i].kept;
    }
    if (!alive_) slot.disconnected.store(true, std::memory_order_release);
  }
  KeptOwners(const KeptOwners&) = delete;
  KeptOwners& operator=(const KeptOwners&) = delete;
  ~KeptOwners() {
    for (std::uint32_t i = 0; i < slot_.ownerCount; ++i) slot_.owners[i].kept.reset();
  }
  explicit operator bool() const noexcept { return alive_; }

 private:
  SlotState& slot_;
  bool alive_ = true;
};

// The SlotState of a signal's list entry (every Status a signal allocates is one).
template <typename Slot>
SlotState& stateOf(const Slot& slot) noexcept {
  return static_cast<SlotState&>(*slot.second);
}

}  // namespace detail

bool Connection::connected() const noexcept {
  const auto status = status_.lock();
  return status && !static_cast<const detail::SlotState&>(*status).gone();
}

template <typename Change>
bool Connection::changeBlocking(Change change) const noexcept {
  const auto status = status_.lock();
  if (!status) return false;
  auto& slot = static_cast<detail::SlotState&>(*status);
  change(slot.blocks);
  // Two threads may change `blocks` and store the flag in either order. Each stores the flag derived
  // from the state it read, then re-reads the state and stores again until the two agree; so the last
  // store is always derived from the latest state. (A lock per slot was the road not taken: it would
  // grow every slot and put a lock on the signal's hot path.)
  for (;;) {
    const std::uint32_t blocks = slot.blocks.load();
    slot.blocked.store(blocks != 0);
    if (slot.blocks.load() == blocks) return true;
  }
}

void Connection::block() const noexcept {
  changeBlocking([](std::atomic<std::uint32_t>& blocks) { blocks.fetch_or(detail::SlotState::kBlockCalled); });
}

void Connection::unblock() const noexcept {
  changeBlocking([](std::atomic<std::uint32_t>& blocks) { blocks.fetch_and(~detail::SlotState::kBlockCalled); });
}

/// Owns a Connection: disconnects its slot when destroyed or assigned over. Move-only. Like Connection it
/// takes no lock, never throws, may be used on any thread and outlive the signal. The slot is not called
/// again, also not later in an emission that is running, but a call that has already begun on another
/// thread runs to its end: a member ScopedConnection is enough for an object destroyed on the emitting
/// thread, or while no emission can run; otherwise track the object (Signal::connect with an owner).
class ScopedConnection {
 public:
  /// Owns no connection.
  ScopedConnection() noexcept = default;
  /// Takes ownership of `connection` (implicit, so that `ScopedConnection c = signal.connect(...)` reads
  /// naturally).
  ScopedConnection(Connection connection) noexcept
      : connection_(std::move(connection)) {}  // NOLINT: implicit by design

  /// Takes over the connection of `other`, which is left owning none.
  ScopedConnection(ScopedConnection&& other) noexcept : connection_(other.release()) {}
  /// Disconnects the slot owned so far, then takes over the connection of `other`.
  ScopedConnection& operator=(ScopedConnection&& other) noexcept {
    if (this != &other) {
      connection_.disconnect();
      connection_ = other.release();
    }
    return *this;
  }
  ScopedConnection(const ScopedConnection&) = delete;
  ScopedConnection& operator=(const ScopedConnection&) = delete;

  /// Disconnects the owned slot, if any.
  ~ScopedConnection() { connection_.disconnect(); }

  /// Gives up ownership: returns the connection, which stays connected, and leaves this owning none.
  Connection release() noexcept { return std::exchange(connection_, Connection()); }

  /// The owned connection (a Connection that refers to no slot when none is owned).
  const Connection& connection() const noexcept { return connection_; }

 private:
  Connection connection_;
};

/// Blocks a slot for its own lifetime. Blockers are counted: with several blockers on one slot, released
/// in any order and on any threads, the slot stays blocked until the last is gone (and after that while
/// block() is in force). Takes no lock, never throws, and may be made and destroyed on any thread.
class ConnectionBlocker {
 public:
  /// Blocks the slot of `connection` until this blocker is destroyed. A blocker made on a connection
  /// whose slot no longer exists (or that refers to none) does nothing.
  explicit ConnectionBlocker(Connection connection) noexcept
      : connection_(std::move(connection)), counted_(connection_.changeBlocking([](std::atomic<std::uint32_t>& blocks) {
          blocks.fetch_add(detail::SlotState::kOneBlocker);
        })) {}
  ConnectionBlocker(const ConnectionBlocker&) = delete;
  ConnectionBlocker& operator=(const ConnectionBlocker&) = delete;

  /// Lifts this blocker's block; the slot is called again once no other blocker and no block() holds it.
  ~ConnectionBlocker() {
    if (!counted_) return;
    connection_.changeBlocking(
        [](std::atomic<std::uint32_t>& blocks) { blocks.fetch_sub(detail::SlotState::kOneBlocker); });
  }

 private:
  Connection connection_;
  bool counted_;  // the slot existed when this blocker was made, so it holds one count
};

/// A list of callbacks (slots) that emit() calls in connection order, on the emitting thread, under the
/// signal's own mutex. Every operation may be called from any thread; callbacks must not call
/// connect(), emit(), disconnectAll(), slotCount() or empty() on the signal that runs them (see the
/// file description for the rules, the errors and the lock order). Neither copyable nor movable.
template <typename... Args>
class Signal {
 public:
  /// A slot's callback. Runs on the emitting thread while this signal's mutex is held: it must not
  /// call connect(), emit(), disconnectAll(), slotCount() or empty() on this signal (they throw
  /// `std::system_error`), nor destroy it. It may be empty: connect() stores it, and a delivery that
  /// reaches it throws std::bad_function_call.
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

  /// Disconnects every slot (takes the mutex, so waits for a running emission). Destroying a signal
  /// from its own callback, or where the wait would close a lock cycle, raises inside this destructor
  /// and so terminates the process, as the file description says.
  ~Signal() { clear("Signal::~Signal"); }  // NOLINT(bugprone-exception-escape)

  /// Appends a copy of `callback` as the last slot, after erasing slots marked disconnected, and returns
  /// its Connection. Copies the callback first, then takes the mutex, so it waits for a running
  /// emission; the new slot is not called by an emission already running. On failure nothing is
  /// appended.
  /// @throws std::system_error (resource_deadlock_would_occur) when called from this signal's callback
  ///         or when waiting would close a cycle of threads waiting for each other's library locks.
  /// @throws std::bad_alloc when the slot cannot be allocated; whatever the callback's copy throws.
  Connection connect(const Callback& callback) { return connectAs("Signal::connect", callback); }

  /// connect() for a slot tracked by `owners` (each a std::shared_ptr or std::weak_ptr of any type,
  /// held weakly): once any owner has expired, the slot is never called again and counts as
  /// disconnected (connected() is false; the next connect() erases it, and so does the delivery after
  /// the first one that reaches it); a slot connected with an owner that
  /// has already expired (or is empty) is never called. While the callback runs, the delivery keeps
  /// every owner alive: an owner released meanwhile, on any thread, is destroyed only after the call
  /// returns, on the emitting thread and under the mutex. Throws what connect() throws.
  template <typename Owner, typename... Owners>
  Connection connect(const Callback& callback, const Owner& owner, const Owners&... owners) {
    return connectAs("Signal::connect", callback, owner, owners...);
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

  /// Takes the mutex and calls each live slot once with `args`, in connection order, on this thread:
  /// disconnected slots are erased, blocked ones skipped (the file description says when a flag change
  /// made during the emission takes effect). Every slot but the last live one receives copies of
  /// `args`; the last receives them forwarded. Allocates nothing.
  /// @throws std::system_error (resource_deadlock_would_occur) as connect() does; nothing is delivered.
  /// @throws std::bad_function_call when the delivery reaches an empty callback. That exception, or one
  ///         that a callback throws, ends the delivery and propagates with the mutex released.
  template <typename... A>
  void emit(A&&... args) {
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
    detail::TrackedLock lock(mutex_, operation);
    deliver(std::forward<A>(args)...);
  }

  /// The name of this signal's lock, as errors give it.
  const char* lockName() const noexcept { return mutex_.name(); }

  /// Erases every slot without reading flags or invoking callbacks; the signal stays usable. Takes the
  /// mutex, so it waits for a running emission.
  /// @throws std::system_error (resource_deadlock_would_occur) as connect() does; nothing is erased.
  void disconnectAll() { clear("Signal::disconnectAll"); }

  /// The number of slots that are connected (Connection::connected() would say so), blocked ones
  /// included. Takes the mutex like connect(), so it waits for a running emission, and throws what
  /// disconnectAll() throws.
  std::size_t slotCount() const { return count("Signal::slotCount"); }
  /// True when slotCount() is 0. Takes the mutex and throws as slotCount() does.
  bool empty() const { return count("Signal::empty") == 0; }

 private:
  using Slot = std::pair<Callback, std::shared_ptr<Connection::Status>>;

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

  // A tracked slot's callback: calls `callback` only while every owner of the slot can be kept alive, and
  // keeps them so until it returns; once one has expired, marks the slot disconnected instead. Tracking
  // lives here, in the callback, so that a delivery to plain slots pays nothing for it. The slot's
  // Status outlives every call of its callback (both go with the slot's entry).
  static Callback keepingOwners(const Callback& callback, const std::shared_ptr<Connection::Status>& status) {
    return [callback, &slot = static_cast<detail::SlotState&>(*status)](Args... args) {
      const detail::KeptOwners kept(slot);
      if (kept) callback(std::forward<Args>(args)...);
    };
  }

  // Appends a slot made of a callback copied and a Status allocated before locking, after erasing the
  // slots that are gone. On failure nothing is appended and both are freed.
  Connection attach(const char* operation, Callback&& callback, std::shared_ptr<Connection::Status>&& status) {
    detail::TrackedLock lock(mutex_, operation);
    for (auto it = slots_.begin(); it != slots_.end();)
      it = detail::stateOf(*it).gone() ? slots_.erase(it) : std::next(it);
    slots_.emplace_back(std::move(callback), std::move(status));
    return Connection(slots_.back().second);
  }

  // Walks the slots in order with the caller holding the mutex (only emitAs() does): erases the slots
  // marked disconnected, skips blocked ones, and invokes each live slot once. A live slot is invoked
  // only after the walk has judged every entry up to the next live slot, so that the last one can
  // receive `args` forwarded while every other receives copies; a flag change that a callback makes to
  // that next slot takes effect in this delivery only for disconnection, which invoke() checks again.
  // (A tracked slot whose owner has expired is marked disconnected by its own callback when the walk
  // reaches it, and erased by the next walk.) Allocates nothing. Throws std::bad_function_call when it
  // reaches an empty callback, and whatever a callback throws; either ends the walk, and entries
  // already erased stay erased.
  template <typename... A>
  void deliver(A&&... args) VANTOR_REQUIRES(mutex_) {
    auto pending = slots_.end();
    for (auto it = slots_.begin(); it != slots_.end();) {
      const Connection::Status& status = *it->second;
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

  // Calls a slot the walk found live, unless it was disconnected since (by an earlier slot of this
  // delivery or by another thread).
  template <typename... A>
  static void invoke(const Slot& slot, A&&... args) {
    if (!slot.second->disconnected.load(std::memory_order_acquire)) slot.first(std::forward<A>(args)...);
  }

  std::size_t count(const char* operation) const {
    detail::TrackedLock lock(mutex_, operation);
    std::size_t connected = 0;
    for (const Slot& slot : slots_) connected += detail::stateOf(slot).gone() ? 0 : 1;
    return connected;
  }

  void clear(const char* operation) {
    detail::TrackedLock lock(mutex_, operation);
    slots_.clear();
  }

  // Guards slots_, every read of the slots' flags and the owners that deliveries keep alive. Held while
  // callbacks run, and while callback objects and kept owners are destroyed. Lock order with the board's mutex
  // (BoardData::mutex): a callback may take the board's mutex while this one is held; this mutex is taken under the
  // board's only while the signal has no callbacks (a contract's constructor subscribing its own subscribers).
  mutable detail::TrackedMutex mutex_;
  std::list<Slot> slots_ VANTOR_GUARDED_BY(mutex_);  // connection order, oldest first
};

}  // namespace vantor::tessel
