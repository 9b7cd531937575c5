#pragma once

// Contract: the base class of every party that owns topics on the message board.
//
// A contract named N owns the keys "N:<topic>". Its protected topic operations publish a topic
// (`update`), hand a value to the topic's subscriber without publishing it (`notify`), subscribe to a
// topic (`subscribe`), read a topic back (`get`) and withdraw it (`unsubscribe`). Each key has at most
// one getter and one subscriber; a second subscription replaces the first. Fan-out to many listeners
// belongs to signals (vantor/tessel/signal.hpp), not to the board.
//
// Threads: every operation may be called from any thread, in any order. Each takes the board's mutex
// once (see BoardData::mutex) and has released it on every way out, normal or exceptional.
//
// Callbacks and the board lock:
//  - Run UNDER the board lock: getters (in update, subscribe, get), the initial delivery of subscribe,
//    and the destruction of replaced or erased function objects. They must not call any board
//    operation; if they do on the same thread, that call throws
//    std::system_error(resource_deadlock_would_occur) instead of blocking forever.
//  - Run WITHOUT the lock: the deliveries of update and notify, on a copy of the subscriber. They may
//    call any board operation, including on their own key. Because they run on copies, a subscriber
//    can still be called after it was replaced or withdrawn, from several threads at once, and in an
//    order other than that of the getter stores.
//
// Value types: each key has one value type T, fixed by its owner. An operation that names another T
// than the one its key's entry was stored with throws std::invalid_argument naming the key.
//
// Lifetime: a contract must outlive every operation on its keys. Its destructor, when purgeOnDestroy
// is set, erases every board entry whose key begins with the contract's name (a bare prefix test: a
// contract named "Cyber" also erases the entries of "CyberSecurity").

#include <any>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include <boost/optional.hpp>

#include "vantor/messaging/export.hpp"
#include "vantor/messaging/message_board.hpp"
#include "vantor/tessel/detail/tracked_lock.hpp"

namespace vantor::messaging {

namespace detail {

// Raises the type-mismatch error for `key`.
[[noreturn]] VANTOR_MESSAGE_BOARD_API void throwTypeMismatch(std::string_view operation,
                                                            const std::string& key);

// The function object stored in `entry`, which must be of type F.
template <typename F>
const F& entryAs(const std::any& entry, std::string_view operation, const std::string& key) {
  if (const F* function = std::any_cast<F>(&entry)) return *function;
  throwTypeMismatch(operation, key);
}

}  // namespace detail

class VANTOR_MESSAGE_BOARD_API Contract {
 public:
  // A getter returns the topic's current value; a subscriber is handed each new value. Either may be
  // empty. Both are stored as copies, owned by the board until replaced, withdrawn or purged.
  template <typename T>
  using Getter = std::function<T()>;
  template <typename T>
  using Subscriber = std::function<void(const T&)>;

  Contract(const Contract&) = delete;
  Contract& operator=(const Contract&) = delete;
  Contract(Contract&&) = delete;
  Contract& operator=(Contract&&) = delete;

  // Purges the contract's keys if purgeOnDestroy was set (takes the board lock). Must not run
  // concurrently with an operation on the contract's keys, nor from a callback under the board lock
  // (that throws inside a destructor and so terminates the process).
  virtual ~Contract();

 protected:
  // Binds to MessageBoard::instance_; stores nothing on the board.
  Contract(std::string name, bool purgeOnDestroy);

  // The full key of `topic`: name, ":", topic. The topic may be empty or contain colons.
  std::string key(const std::string& topic) const;

  // Publishes `topic`: stores a copy of `getter` (replacing the previous one), calls it once under
  // the board lock, and, if the key has a subscriber, hands the value to a copy of that subscriber
  // after the lock is released. Every call delivers, also when the value did not change.
  // Throws std::bad_function_call for an empty getter (after storing it) or an empty subscriber
  // (after releasing the lock; the getter stays stored); passes on what the getter or subscriber throws.
  template <typename T>
  void update(const std::string& topic, const Getter<T>& getter);

  // Hands `value` to the key's subscriber, if any, after releasing the lock. Stores no getter, so a
  // later subscribe or get does not see the value. Throws std::bad_function_call for an empty
  // subscriber; passes on what the subscriber throws.
  template <typename T>
  void notify(const std::string& topic, const T& value);

  // Makes `subscriber` the key's subscriber (replacing and destroying the previous one). If the key
  // has a non-empty getter, first calls it and hands the value to `subscriber`, under the lock and
  // before returning; so the subscriber receives the current value before any later publication.
  // If that initial delivery fails (std::bad_function_call for an empty subscriber, or whatever the
  // getter or subscriber throws), nothing is stored and the previous subscriber stays.
  template <typename T>
  void subscribe(const std::string& topic, const Subscriber<T>& subscriber);

  // Erases the key's getter and subscriber, if any. A key with no entries is not an error.
  void unsubscribe(const std::string& topic);

  // The value read through the key's getter (called once, under the lock), or none when the key has
  // no getter or an empty one. Never calls a subscriber and never creates an entry.
  template <typename T>
  boost::optional<T> get(const std::string& topic);

 private:
  BoardData& data() const { return *board_.data_; }

  // With `lock` held: if the key has a subscriber, copies it, releases `lock` and hands `value` to the
  // copy. Releases nothing when there is no subscriber (the caller's lock goes out of scope).
  template <typename T>
  void deliverUnlocked(tessel::detail::TrackedLock& lock, const std::string& fullKey, const T& value,
                       std::string_view operation);

  MessageBoard& board_;
  std::string name_;
  bool purgeOnDestroy_;
};

// ---- implementation of the templates ------------------------------------------------------------

template <typename T>
void Contract::update(const std::string& topic, const Getter<T>& getter) {
  static constexpr std::string_view kOperation = "vantor::messaging::Contract::update";
  const std::string fullKey = key(topic);
  std::any stored(getter);  // the stored copy is made before locking, to keep the lock short
  BoardData& board = data();
  tessel::detail::TrackedLock lock(board.mutex, board.holder, kOperation, fullKey);
  board.getters.insert_or_assign(fullKey, std::move(stored));
  const T value = getter();  // std::bad_function_call for an empty getter, which stays stored
  deliverUnlocked(lock, fullKey, value, kOperation);
}

template <typename T>
void Contract::notify(const std::string& topic, const T& value) {
  static constexpr std::string_view kOperation = "vantor::messaging::Contract::notify";
  const std::string fullKey = key(topic);
  BoardData& board = data();
  tessel::detail::TrackedLock lock(board.mutex, board.holder, kOperation, fullKey);
  deliverUnlocked(lock, fullKey, value, kOperation);
}

template <typename T>
void Contract::deliverUnlocked(tessel::detail::TrackedLock& lock, const std::string& fullKey, const T& value,
                               std::string_view operation) {
  BoardData& board = data();
  const auto found = board.subscribers.find(fullKey);
  if (found == board.subscribers.end()) return;
  const Subscriber<T> delivery = detail::entryAs<Subscriber<T>>(found->second, operation, fullKey);
  lock.unlock();
  delivery(value);  // std::bad_function_call for an empty subscriber, raised with the lock released
}

template <typename T>
void Contract::subscribe(const std::string& topic, const Subscriber<T>& subscriber) {
  static constexpr std::string_view kOperation = "vantor::messaging::Contract::subscribe";
  const std::string fullKey = key(topic);
  std::any stored(subscriber);
  BoardData& board = data();
  tessel::detail::TrackedLock lock(board.mutex, board.holder, kOperation, fullKey);
  const auto found = board.getters.find(fullKey);
  if (found != board.getters.end()) {
    const Getter<T>& getter = detail::entryAs<Getter<T>>(found->second, kOperation, fullKey);
    if (getter) subscriber(getter());
  }
  board.subscribers.insert_or_assign(fullKey, std::move(stored));
}

template <typename T>
boost::optional<T> Contract::get(const std::string& topic) {
  static constexpr std::string_view kOperation = "vantor::messaging::Contract::get";
  const std::string fullKey = key(topic);
  BoardData& board = data();
  tessel::detail::TrackedLock lock(board.mutex, board.holder, kOperation, fullKey);
  const auto found = board.getters.find(fullKey);
  if (found == board.getters.end()) return boost::none;
  const Getter<T>& getter = detail::entryAs<Getter<T>>(found->second, kOperation, fullKey);
  if (!getter) return boost::none;
  return getter();
}

}  // namespace vantor::messaging
