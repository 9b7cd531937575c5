#pragma once

// Signal<Args...>: a thread-safe, header-only signal/slot facility.
//
// A Signal holds an ordered list of callbacks (slots). emit() calls every live slot synchronously, on
// the emitting thread, in connection order, while the signal's own mutex is held; so emissions of one
// signal never overlap, and connect() or disconnectAll() on another thread wait for a running one.
//
// connect() returns a Connection: a non-owning handle to the slot's two flags (Connection::Status).
// Setting `blocked` makes deliveries skip the slot; setting `disconnected` makes the next walk of the
// list (by connect or a delivery) erase it. The signal itself never sets either flag. Dropping a
// Connection leaves its slot connected; ScopedConnection disconnects when it goes out of scope, and
// ConnectionBlocker blocks a slot for a scope.
//
// Threads: every operation of Signal may be called from any thread. Connection, ScopedConnection and
// ConnectionBlocker objects may be used from any thread, also while the signal emits: the flags are
// one-byte atomics. A flag changed while an emission runs takes effect in that emission only if the
// walk has not yet reached the slot (see deliver()). disconnect() does not wait for a running
// emission: a slot that is being called when another thread disconnects it finishes its call.
//
// Callbacks run while the signal's mutex is held. A callback (and the copy and destruction of a
// callback object, which also happen under the mutex) must therefore not call connect(), emit() or
// disconnectAll() on the same signal, nor destroy it. On the same thread such a call throws
// std::system_error(resource_deadlock_would_occur) and leaves the signal intact; emitting a different
// signal from a callback is fine.
//
// Lock order with the message board (vantor/messaging/message_board.hpp): a callback may call board
// operations, i.e. take the board's mutex while this signal's mutex is held. The reverse order, taking
// a signal's mutex under the board's mutex, is permitted only while that signal has no callbacks (a
// contract subscribing its own subscribers in its constructor).
//
// Lifetime: the destructor disconnects every slot (waiting for a running emission); no operation may
// start on a signal once its destruction has begun. Connections outlive their signal safely: they
// stop resolving once their slot is erased, and then do nothing.

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <utility>

#include "vantor/tessel/detail/tracked_lock.hpp"

namespace vantor::tessel {

template <typename... Args>
class Signal;
class ScopedConnection;
class ConnectionBlocker;

// A handle to one slot. Default-constructed, it refers to no slot. Copies refer to the same slot and
// compare equal. Every operation acts through the slot's Status and does nothing once the slot has
// been erased (by a walk after disconnect(), by disconnectAll() or by the signal's destruction).
class Connection {
 public:
  // The slot's flags. Allocated on its own by connect() and owned only by the slot's list entry, so
  // erasing the entry frees it at once; Connections hold weak references.
  struct Status {
    std::atomic<bool> blocked{false};       // deliveries skip the slot while set
    std::atomic<bool> disconnected{false};  // the slot is never called again and is erased at the next walk
  };
  static_assert(sizeof(std::atomic<bool>) == 1 && std::atomic<bool>::is_always_lock_free,
                "Status flags must be one-byte, lock-free atomics");

  Connection() noexcept = default;

  // Marks the slot disconnected. Takes no lock; the signal erases the slot at its next walk.
  void disconnect() const noexcept {
    if (const auto status = status_.lock()) status->disconnected.store(true, std::memory_order_release);
  }

  // Makes deliveries skip the slot until unblock(). Takes no lock.
  void block() const noexcept {
    if (const auto status = status_.lock()) status->blocked.store(true, std::memory_order_release);
  }

  void unblock() const noexcept {
    if (const auto status = status_.lock()) status->blocked.store(false, std::memory_order_release);
  }

  // True while the slot exists and is not marked disconnected.
  bool connected() const noexcept {
    const auto status = status_.lock();
    return status && !status->disconnected.load(std::memory_order_acquire);
  }

  // True while the slot exists and is blocked.
  bool blocked() const noexcept {
    const auto status = status_.lock();
    return status && status->blocked.load(std::memory_order_acquire);
  }

  // Connections are equal when they refer to the same slot (or both to none), erased or not.
  friend bool operator==(const Connection& a, const Connection& b) noexcept {
    return !a.status_.owner_before(b.status_) && !b.status_.owner_before(a.status_);
  }
  friend bool operator!=(const Connection& a, const Connection& b) noexcept { return !(a == b); }

 private:
  template <typename... Args>
  friend class Signal;
  friend class ConnectionBlocker;

  explicit Connection(const std::shared_ptr<Status>& status) noexcept : status_(status) {}

  std::weak_ptr<Status> status_;
};

// Owns a connection: disconnects its slot when destroyed or assigned over. Move-only.
class ScopedConnection {
 public:
  ScopedConnection() noexcept = default;
  ScopedConnection(Connection connection) noexcept : connection_(std::move(connection)) {}  // NOLINT: implicit by design

  ScopedConnection(ScopedConnection&& other) noexcept : connection_(other.release()) {}
  ScopedConnection& operator=(ScopedConnection&& other) noexcept {
    if (this != &other) {
      connection_.disconnect();
      connection_ = other.release();
    }
    return *this;
  }
  ScopedConnection(const ScopedConnection&) = delete;
  ScopedConnection& operator=(const ScopedConnection&) = delete;

  ~ScopedConnection() { connection_.disconnect(); }

  // Gives up ownership: returns the connection, which stays connected, and leaves this empty.
  Connection release() noexcept { return std::exchange(connection_, Connection()); }

  const Connection& connection() const noexcept { return connection_; }

 private:
  Connection connection_;
};

// Blocks a slot for its own lifetime, then restores the blocked state the slot had before.
class ConnectionBlocker {
 public:
  explicit ConnectionBlocker(Connection connection) noexcept
      : connection_(std::move(connection)), wasBlocked_(exchangeBlocked(true)) {}
  ConnectionBlocker(const ConnectionBlocker&) = delete;
  ConnectionBlocker& operator=(const ConnectionBlocker&) = delete;

  ~ConnectionBlocker() { exchangeBlocked(wasBlocked_); }

 private:
  bool exchangeBlocked(bool blocked) const noexcept {
    const auto status = connection_.status_.lock();
    return status && status->blocked.exchange(blocked, std::memory_order_acq_rel);
  }

  Connection connection_;
  bool wasBlocked_;
};

template <typename... Args>
class Signal {
 public:
  // A slot's callback. It may be empty: connect() stores it, and invoking it raises
  // std::bad_function_call. Runs under this signal's mutex (see the header comment for what it must
  // not call).
  using Callback = std::function<void(Args...)>;

  Signal() = default;
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;
  Signal(Signal&&) = delete;
  Signal& operator=(Signal&&) = delete;

  // Disconnects every slot (takes the mutex, so waits for a running emission).
  ~Signal() { disconnectAll(); }

  // Appends a copy of `callback` as the last slot, after erasing slots marked disconnected. Takes the
  // mutex. On failure (allocation, or the callback's copy throws) nothing is appended.
  // Throws std::system_error(resource_deadlock_would_occur) when called from this signal's callback.
  Connection connect(const Callback& callback) {
    detail::TrackedLock lock(mutex_, holder_, "vantor::tessel::Signal::connect", "a signal");
    for (auto it = slots_.begin(); it != slots_.end();) {
      it = it->second->disconnected.load(std::memory_order_acquire) ? slots_.erase(it) : std::next(it);
    }
    // The Status gets an allocation of its own (not make_shared), so that erasing the entry frees it.
    std::shared_ptr<Connection::Status> status(new Connection::Status());
    slots_.emplace_back(callback, std::move(status));
    return Connection(slots_.back().second);
  }

  // Takes the mutex and delivers `args` to the live slots (see deliver()). An exception from a callback
  // ends the delivery and propagates with the mutex released.
  // Throws std::system_error(resource_deadlock_would_occur) when called from this signal's callback.
  template <typename... A>
  void emit(A&&... args) {
    detail::TrackedLock lock(mutex_, holder_, "vantor::tessel::Signal::emit", "a signal");
    deliver(std::forward<A>(args)...);
  }

  // Walks the slots in order with the caller holding the mutex: erases disconnected entries, skips
  // blocked ones, and invokes each live slot once. A live slot is invoked only after the walk has
  // judged every entry up to the next live slot, so a flag change that a callback makes to that next
  // slot (or to entries before it) takes effect at the next delivery. Every slot but the last live one
  // receives copies of `args`; the last receives them forwarded. Allocates nothing.
  template <typename... A>
  void deliver(A&&... args) {
    auto pending = slots_.end();
    for (auto it = slots_.begin(); it != slots_.end();) {
      const Connection::Status& status = *it->second;
      if (status.disconnected.load(std::memory_order_acquire)) {
        it = slots_.erase(it);
        continue;
      }
      if (!status.blocked.load(std::memory_order_acquire)) {
        if (pending != slots_.end()) pending->first(args...);
        pending = it;
      }
      ++it;
    }
    if (pending != slots_.end()) pending->first(std::forward<A>(args)...);
  }

  // Erases every slot without reading flags or invoking callbacks; the signal stays usable. Takes the
  // mutex. Throws std::system_error(resource_deadlock_would_occur) when called from this signal's
  // callback.
  void disconnectAll() {
    detail::TrackedLock lock(mutex_, holder_, "vantor::tessel::Signal::disconnectAll", "a signal");
    slots_.clear();
  }

 private:
  using Slot = std::pair<Callback, std::shared_ptr<Connection::Status>>;

  std::mutex mutex_;                 // guards slots_ and every read of the slots' flags
  std::list<Slot> slots_;            // guarded by mutex_; connection order, oldest first
  detail::LockHolder holder_;        // the thread holding mutex_; written only by it
};

}  // namespace vantor::tessel
