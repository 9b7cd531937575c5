#pragma once

/// @file
/// The handles of a Signal's slots: Connection, ScopedConnection and ConnectionBlocker.
///
/// Signal::connect() returns a Connection, a non-owning handle to the slot's Status (its two flags). A
/// blocked slot is skipped by deliveries; a disconnected one is never called again and the signal lets go
/// of it. Dropping a Connection leaves its slot connected; ScopedConnection disconnects when it goes out of
/// scope, and ConnectionBlocker blocks a slot for its own lifetime.
///
/// Threads: every operation may run on any thread, also while the signal emits (on that thread, from a
/// slot, or on another one), and after the signal is gone. The flags are one-byte atomics, and a change
/// takes effect at once: an emission checks both flags right before it calls a slot, so a slot that an
/// earlier slot of the same emission (or another thread) blocked or disconnected is not called by it. A
/// call that has already begun on another thread runs to its end: disconnect() does not wait for it, and
/// disconnectAndWait() does.
///
/// Letting go: once disconnect() returns on a thread where no operation of the signal is running, the
/// signal holds nothing of the slot any more: its callback object is destroyed, its owners' weak
/// references are released and its Status is freed. Where an operation of the signal is running (on
/// another thread, or below the caller on its own thread), that operation lets go of the slot before it
/// returns. A module whose code a slot runs (a plugin) calls disconnectAndWait() on its connections before
/// it is unloaded: then nothing of its code is left in the signal.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "vantor/tessel/detail/tracked_lock.hpp"

/// The header-only signal/slot facility: Signal and its slot handles.
namespace vantor::tessel {

template <typename... Args>
class Signal;
class ConnectionBlocker;

/// A handle to one slot of a Signal, as Signal::connect() returns it. Default-constructed, it refers to
/// no slot. Copies refer to the same slot and compare equal. Every operation acts through the slot's
/// Status, may run on any thread (also while the signal emits, and after it is gone) and does nothing
/// once the slot has been released.
class Connection {
 public:
  /// The slot's flags, which the signal reads before each call of the slot. Allocated on its own by
  /// connect() and owned only by the signal's entry of the slot, so letting go of the slot frees it;
  /// Connections hold weak references. Hosts change the flags only through Connection and
  /// ConnectionBlocker.
  struct Status {
    std::atomic<bool> blocked{false};       ///< Deliveries skip the slot while set.
    std::atomic<bool> disconnected{false};  ///< Never called again; the signal lets go of it.
  };
  static_assert(sizeof(std::atomic<bool>) == 1 && std::atomic<bool>::is_always_lock_free,
                "Status flags must be one-byte, lock-free atomics");

  /// A handle that refers to no slot: connected() is false, and every operation does nothing.
  Connection() noexcept = default;

  /// Marks the slot disconnected: it is never called again, also not later in an emission that is
  /// running. Then lets go of it at once if no operation of the signal runs, or else leaves that to the
  /// operation that runs (it lets go before it returns). Takes the signal's lock only if it is free, and
  /// the library's release registry briefly; never waits for a call that has begun on another thread.
  inline void disconnect() const noexcept;

  /// disconnect(), then waits until the signal has let go of the slot: no call of it runs any more and
  /// nothing of it is left (its callback object is destroyed, its owners' weak references released, its
  /// Status freed). Call it before the code of a slot goes away (a plugin is unloaded), while no other
  /// thread uses a Connection of the same slot.
  /// @throws std::system_error (resource_deadlock_would_occur) when called from code that the slot's
  ///         signal runs under its lock on this thread (that slot or another): the wait could never end.
  ///         The slot is disconnected all the same.
  inline void disconnectAndWait() const;

  /// Makes deliveries skip the slot until unblock(). block() itself is not counted: one unblock() ends
  /// any number of block() calls, but the slot stays blocked while a ConnectionBlocker on it lives.
  /// Takes no lock and never throws.
  inline void block() const noexcept;
  /// Ends block(). The slot is called again unless a ConnectionBlocker on it still lives.
  inline void unblock() const noexcept;

  /// True while the slot exists, is not marked disconnected and, if it is tracked, no owner has expired.
  /// Takes no lock and never throws.
  inline bool connected() const noexcept;

  /// True while the slot exists and is blocked (by block() or by a living ConnectionBlocker).
  bool blocked() const noexcept {
    const auto status = status_.lock();
    return status && status->blocked.load(std::memory_order_acquire);
  }

  /// Connections are equal when they refer to the same slot (or both to none), released or not.
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

// What an attempt to let go of a slot came to.
enum class Release {
  kDone,      // the slot's entry is gone (erased now or before)
  kDeferred,  // another thread holds the signal's lock: it lets go on its way out
  kInside,    // this thread runs inside the signal: its outermost operation lets go on its way out
};

// The signals whose lock holder must let go of disconnected slots on its way out, because a Connection
// found the lock taken (by another thread, or by its own thread further down the stack). One per process
// (defined by the library; a VANTOR_TESSEL_STANDALONE module keeps its own), constant-initialised and
// trivially destructible like the lock registry, so that the library stays unloadable.
//
// The handshake. A Connection marks its slot, takes `mutex`, and tries the signal's lock. If that fails it
// adds the signal here, then tries the lock once more; every outermost holder of a signal's lock, once it
// has unlocked, reads `pending` and, if it is not zero, takes `mutex` and lets go of the slots of its
// signal if it is listed and its lock is free. Of the Connection's second try and the holder's read one
// always sees the other's write, so no listed signal is forgotten: both the holder's unlock and the
// Connection's add (a sequentially consistent read-modify-write of `pending`) are locked instructions,
// that is full barriers, on the processors we build for. A signal is listed once however many slots
// wait, and the one who lets go walks the whole list.
// Entries are plain addresses, compared and never followed, except under `mutex` while listed: a signal
// unlists itself under `mutex` in its destructor, so one found listed is alive.
struct ReleaseRegistry {
  static constexpr std::size_t kCapacity = 64;  // when full, slots wait for the next walk of their list

  std::mutex mutex;
  std::atomic<std::size_t> pending{0};  // entries in use; read without `mutex` on every way out
  const void* signals[kCapacity] = {};  // guarded by mutex; null: a free entry

  // Lists `signal` (once); false when the registry is full. Caller holds `mutex`.
  bool add(const void* signal) noexcept {
    const void** free = nullptr;
    for (const void*& entry : signals) {
      if (entry == signal) return true;
      if (entry == nullptr && free == nullptr) free = &entry;
    }
    if (free == nullptr) return false;
    *free = signal;
    pending.fetch_add(1, std::memory_order_seq_cst);  // a full barrier before the caller's second try
    return true;
  }
  // Unlists `signal`; true when it was listed. Caller holds `mutex`.
  bool take(const void* signal) noexcept {
    if (pending.load(std::memory_order_relaxed) == 0) return false;
    for (const void*& entry : signals) {
      if (entry != signal) continue;
      entry = nullptr;
      pending.fetch_sub(1, std::memory_order_relaxed);
      return true;
    }
    return false;
  }
  bool listed(const void* signal) const noexcept {
    if (pending.load(std::memory_order_relaxed) == 0) return false;
    for (const void* entry : signals)
      if (entry == signal) return true;
    return false;
  }
};

#if !defined(VANTOR_TESSEL_STANDALONE)
// The process's registry, defined by libvantor_message_board. A variable rather than a function, so
// that the test on every way out of a signal's lock is two loads, not a call.
extern __attribute__((visibility("default"))) ReleaseRegistry processReleaseRegistry;
#endif

inline ReleaseRegistry& releaseRegistry() noexcept {
#if defined(VANTOR_TESSEL_STANDALONE)
  static ReleaseRegistry ownModule;
  return ownModule;
#else
  return processReleaseRegistry;
#endif
}

// One owner of a tracked slot: watched weakly, and kept alive by a delivery while the slot runs.
struct TrackedOwner {
  std::weak_ptr<const void> watched;  // set by connect(), then only read
  std::shared_ptr<const void> kept;   // set and reset by a delivery, under the signal's mutex
};

// What connect() allocates for each slot: the Status that deliveries read, followed by the state from
// which `blocked` is derived, the way back to the signal, and for a tracked slot its owners.
// block()/unblock() and ConnectionBlockers change `blocks` from any thread in any order, and the slot is
// blocked while it is non-zero. The owners are fixed before the slot is published; a tracked slot's own
// callback (see Signal::keepingOwners), Connection::connected(), connect() and slotCount() read them.
struct SlotState : Connection::Status {
  using Releaser = Release (*)(void* signal, std::unique_lock<std::mutex>& registry, const char** lockName) noexcept;

  static constexpr std::uint32_t kBlockCalled = 1;  // block() is in force
  static constexpr std::uint32_t kOneBlocker = 2;   // added per living ConnectionBlocker
  std::atomic<std::uint32_t> blocks{0};
  // The signal whose list holds the slot: set before the slot is published, cleared by the signal's lock
  // holder when it erases the entry. Read under the release registry's mutex, which keeps the signal
  // alive while it is read (a signal's destructor clears every slot's, then takes that mutex once).
  std::atomic<void*> signal{nullptr};
  Releaser releaser = nullptr;     // the signal's releaseSlots(), set with `signal`
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

  // Has the signal let go of this (disconnected) slot, if it can now; `lockName` receives the signal's
  // lock when this thread runs inside it.
  Release release(const char** lockName) const noexcept {
    if (signal.load(std::memory_order_acquire) == nullptr) return Release::kDone;
    std::unique_lock<std::mutex> registry(releaseRegistry().mutex);
    void* const owner = signal.load(std::memory_order_acquire);
    return owner == nullptr ? Release::kDone : releaser(owner, registry, lockName);
  }
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
// expired (its control block says so: an owner that stores a null pointer is alive); then the slot is
// marked disconnected. An owner whose last other reference went meanwhile is destroyed by the
// destructor, on this thread, once the call has returned. A call of the slot nested inside another call
// of it (the slot emitted its own signal) finds the owners kept already, and leaves them to the outer one.
class KeptOwners {
 public:
  explicit KeptOwners(SlotState& slot) noexcept
      : slot_(slot), outer_(slot.ownerCount != 0 && slot.owners[0].kept.use_count() == 0) {
    if (!outer_) return;
    for (std::uint32_t i = 0; i < slot.ownerCount; ++i) {
      slot.owners[i].kept = slot.owners[i].watched.lock();
      alive_ = alive_ && slot.owners[i].kept.use_count() != 0;
    }
    if (!alive_) slot.disconnected.store(true, std::memory_order_release);
  }
  KeptOwners(const KeptOwners&) = delete;
  KeptOwners& operator=(const KeptOwners&) = delete;
  ~KeptOwners() {
    if (!outer_) return;
    for (std::uint32_t i = 0; i < slot_.ownerCount; ++i) slot_.owners[i].kept.reset();
  }
  explicit operator bool() const noexcept { return alive_; }

 private:
  SlotState& slot_;
  const bool outer_;  // false inside another call of the same slot, which keeps the owners
  bool alive_ = true;
};

inline SlotState& stateOf(Connection::Status& status) noexcept { return static_cast<SlotState&>(status); }

[[noreturn, gnu::noinline]] inline void throwWaitInside(const char* lockName) {
  std::string message("Connection::disconnectAndWait would wait for ");
  message.append(lockName).append(
      ", which this thread holds: it runs inside that signal (in a slot, or in a destructor the signal runs), so "
      "the slot could never be let go of while it waits");
  throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur), message);
}

}  // namespace detail

void Connection::disconnect() const noexcept {
  if (const auto status = status_.lock()) {
    detail::SlotState& slot = detail::stateOf(*status);
    slot.disconnected.store(true, std::memory_order_release);
    const char* lockName = nullptr;
    slot.release(&lockName);
  }
}

void Connection::disconnectAndWait() const {
  // Holding the Status until the signal has let go of it (its reference is then the only other one)
  // makes the last release, and with it the release of the owners' weak references, happen here.
  const auto status = status_.lock();
  if (!status) return;
  detail::SlotState& slot = detail::stateOf(*status);
  slot.disconnected.store(true, std::memory_order_release);
  for (unsigned round = 0;; ++round) {
    const char* lockName = nullptr;
    if (slot.release(&lockName) == detail::Release::kInside) detail::throwWaitInside(lockName);
    if (status.use_count() == 1) return;
    // Another thread holds the signal's lock and lets go of the slot on its way out, or a Connection
    // operation on another thread holds the Status for a moment.
    if (round < 64) {
      std::this_thread::yield();
    } else {
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
  }
}

bool Connection::connected() const noexcept {
  const auto status = status_.lock();
  return status && !detail::stateOf(*status).gone();
}

template <typename Change>
bool Connection::changeBlocking(Change change) const noexcept {
  const auto status = status_.lock();
  if (!status) return false;
  detail::SlotState& slot = detail::stateOf(*status);
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

/// Owns a Connection: disconnects its slot when destroyed or assigned over (Connection::disconnect(), so
/// the signal lets go of the slot as that says). Move-only. Like Connection it may be used on any thread
/// and outlive the signal, and never throws. A call that has already begun on another thread runs to its
/// end: a member ScopedConnection is enough for an object destroyed on the emitting thread, or while no
/// emission can run; otherwise track the object (Signal::connect with an owner).
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

}  // namespace vantor::tessel
