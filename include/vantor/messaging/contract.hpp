#pragma once

/// @file
/// Contract: the base class of every party that owns topics on the message board.
///
/// A contract named N owns the keys `"N:<topic>"`. Its protected topic operations publish a topic
/// (`update`), hand a value to the topic's subscribers without publishing it (`notify`), subscribe to a
/// topic (`subscribe`), connect a listener to it (`connectTopic`), read a topic back (`get`) and
/// withdraw it (`unsubscribe`). Each key has at most one getter and one subscriber; a second
/// subscription replaces the first.
///
/// Listeners, beside the one subscriber: connectTopic() adds a callback to a key's listeners, any
/// number of them, each with a tessel::Connection of its own and optionally tracked by owners, as a
/// signal's slot is. A listener is handed the current value when it connects (if the topic is
/// published), on the connecting thread, and then every update and notify of the key that takes the
/// board lock after its connect did: none missed, none before that first value. Each publication
/// hands its value to the subscriber first, then to the listeners in connection order; an exception
/// (from the subscriber, std::bad_function_call for an empty one, or from a listener) ends it there,
/// and the listeners after that point miss the value. Listeners run under the topic's listener lock
/// and never under the board lock, also for their first value; a queued listener (connectTopic with a
/// tessel::Mailbox) runs at its mailbox's drain instead. What ends a listener is its Connection
/// (disconnect, an owner's expiry) and the contract's purge:
///  - unsubscribe withdraws the value and the subscriber but leaves the listeners connected; they are
///    handed nothing for it, and the next publication of the key reaches them. A withdrawal also frees
///    the key's listener list once none of its listeners is connected.
///  - the purge disconnects every listener of the keys it erases (their Connections read
///    disconnected), and destroys their callbacks after releasing the board lock.
///
/// Threads: every operation may be called from any thread, in any order. Each takes the board's lock
/// once (BoardData::mutex; connectTopic twice) and has released it on every way out, normal or
/// exceptional. A wait for that lock that would close a cycle of threads waiting for each other's
/// library locks throws `std::system_error(resource_deadlock_would_occur)` in the thread that closes
/// it, instead of hanging.
///
/// Callbacks and the board lock:
///  - Run UNDER the board lock: getters (in update, subscribe, get), the initial delivery of subscribe,
///    and the destruction of replaced or erased function objects. A getter or an initial delivery that
///    calls a board operation gets `std::system_error(resource_deadlock_would_occur)` from that call,
///    naming the operation and the lock, and the board stays intact. The destructor of a stored
///    function object that calls a board operation, and a getter that makes a contract's very first
///    instance() call (its constructor subscribes, fails, and its destructor's purge fails again), raise
///    that error inside a destructor: the process terminates.
///  - Run WITHOUT the lock: the deliveries of update and notify, on a copy of the subscriber. They may
///    call any board operation, including on their own key. Because they run on copies, a subscriber
///    can still be called after it was replaced or withdrawn, from several threads at once, and in an
///    order other than that of the getter stores. A subscriber that always republishes its own key
///    recurses without end.
///  - Run under the topic's LISTENER lock (and not the board lock): listeners, for their first value
///    and for publications. They may call any operation except update, notify and connectTopic on their
///    own key: those throw `std::system_error(resource_deadlock_would_occur)` (a publication then has
///    already stored its getter and handed the value to the subscriber). Deliveries of one key's
///    publications to its listeners take turns, but concurrent publications can reach them in an order
///    other than that of the getter stores, as they reach the subscriber. Modules built with headers
///    older than 13.2 publish to the subscriber only.
///
/// Value types: each key has one value type T, fixed by the first entry stored under it. T is a plain
/// object type: not a reference, not const or volatile, not an array, not void. update, notify,
/// subscribe and get named with any other type fail to compile, with a message that says why (a type
/// that cannot even form the getter's or subscriber's signature, such as an array for update, finds no
/// matching operation). An operation that names a type other than that of an entry the key holds (its
/// getter or its subscriber, empty or not) throws std::invalid_argument naming the key and both types,
/// before it changes or calls anything. A key's listener list (connectTopic), which stays while any listener is
/// connected, fixes the type too. Which types are recognised as one (detail::sameType() holds the
/// rule and the argument for it):
///  - within one module, every type is recognised by identity: a type local to a `static` function or
///    declared in an unnamed namespace is therefore recognised only within its translation unit;
///  - `bool` and CyberSecurityContract::Token, the library's own value types, are recognised by
///    identity in every module: the library defines their keys, and every module uses those;
///  - across modules (an executable and its plugins, built with g++ or clang++ against libstdc++), a
///    type is recognised when both modules were built with RTTI, by its mangled name, which both
///    compilers write alike (so `unsigned long`, `std::string`, enums and structs in named
///    namespaces and templates of them all cross). Refused across modules: a type whose name holds a
///    local name (a type local to any function, static or inline: one local to an inline function is
///    one type, but it is refused across modules all the same), an unnamed namespace, an internal-linkage
///    mark, an unnamed or closure type (a lambda's), an identifier with '$' or any character outside
///    [A-Za-z0-9_], a name g++ marked unique to its translation unit, and any name the check cannot read
///    in full by the mangling grammar;
///  - a module built with `-fno-rtti` recognises, across modules, only type keys that the dynamic
///    linker unified into one object (default visibility, no RTLD_LOCAL); any other is refused.
/// A refusal is always safe. What no check can see is the same qualified name defined differently in
/// two modules (an ODR violation): it is taken for one type. A module built with older headers judges
/// with its own, older rule.
///
/// Lifetime: a contract must outlive every operation on its keys. Its destructor, when purgeOnDestroy
/// is set, erases every board entry whose key begins with the contract's name (a bare prefix test: a
/// contract named "Cyber" also erases the entries of "CyberSecurity"). Two contracts constructed with
/// the same name share their keys: each replaces the other's getters and subscribers, and the first one
/// destroyed purges the other's entries too. Give each contract a name of its own.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include <string.h>  // explicit_bzero  NOLINT(modernize-deprecated-headers)

#include <boost/optional.hpp>

#include "vantor/messaging/detail/stored_function.hpp"
#include "vantor/messaging/detail/topic_listeners.hpp"
#include "vantor/messaging/export.hpp"
#include "vantor/messaging/message_board.hpp"
#include "vantor/tessel/detail/thread_annotations.hpp"
#include "vantor/tessel/detail/tracked_lock.hpp"

namespace vantor::tessel {
class Mailbox;  // vantor/tessel/mailbox.hpp, which the callers of the queued connectTopic() include
}  // namespace vantor::tessel

namespace vantor::messaging {

namespace detail {

// Raise the type-mismatch error for `key` (the first form, without the types, serves modules built
// with the 13.0 headers).
[[noreturn]] VANTOR_MESSAGE_BOARD_API void throwTypeMismatch(const char* operation, const std::string& key);
[[noreturn]] VANTOR_MESSAGE_BOARD_API void throwTypeMismatch(const char* operation, const std::string& key,
                                                             std::string_view held, std::string_view named);
// Raise the refusal of an empty listener for `key`.
[[noreturn]] VANTOR_MESSAGE_BOARD_API void throwEmptyListener(const char* operation, const std::string& key);

inline void checkType(const StoredFunction& entry, const TypeKey& named, const char* operation, const BoardKey& key) {
  if (!sameType(entry.type(), named)) throwTypeMismatch(operation, key.text, spelling(entry.type()), spelling(named));
}

// Checks the entry of `entries` under `key`, if any, against T; returns it or entries.end(). A key's
// entries always share one type (every operation that stores one checks the other first), so an entry
// found in one map vouches for the other.
template <typename T>
[[gnu::always_inline]] inline BoardMap::iterator checkedEntry(BoardMap& entries, const BoardKey& key,
                                                              const char* operation) {
  const auto found = entries.find(key);
  if (found != entries.end()) checkType(found->second, typeKeyOf<T>, operation, key);
  return found;
}

// Byte arrays are the board's secrets (a security token): they are wiped rather than just released.
template <typename T>
struct IsSecretBytes : std::false_type {};
template <std::size_t N>
struct IsSecretBytes<std::array<unsigned char, N>> : std::true_type {};

// A value that the board read from a getter. A secret's bytes are wiped when it goes out of scope, so
// that they do not linger in the dead stack frames of the publication path.
template <typename T>
struct Wiped {
  T value;
  ~Wiped() {
    if constexpr (IsSecretBytes<T>::value) explicit_bzero(value.data(), value.size());
  }
};

}  // namespace detail

/// The base class of every contract: a named party that owns the board keys `"<name>:<topic>"` and
/// publishes, notifies, subscribes, reads and withdraws them through its protected topic operations.
/// A derived contract calls them from public operations of its own; hosts call the derived contract.
/// Any thread may call any operation (see the file description for what runs under the board lock).
class VANTOR_MESSAGE_BOARD_API Contract {
 public:
  /// A topic's getter: returns the current value. Stored as a copy, owned by the board until replaced,
  /// withdrawn or purged; may be empty. Runs under the board lock (in update, subscribe and get), so it
  /// must not call any board operation: that call throws `std::system_error(resource_deadlock_would_occur)`.
  template <typename T>
  using Getter = std::function<T()>;
  /// A topic's subscriber: handed each new value. Stored as a copy, owned by the board until replaced,
  /// withdrawn or purged; may be empty. Its initial delivery (in subscribe) runs under the board lock
  /// and must not call any board operation; the deliveries of update and notify run without it, on a
  /// copy, and may call any operation.
  template <typename T>
  using Subscriber = std::function<void(const T&)>;
  /// A topic's listener (connectTopic): handed the current value when it connects and then each later
  /// publication. Runs under the topic's listener lock, never under the board lock: it may call any
  /// operation except update, notify and connectTopic on its own topic (they throw std::system_error).
  template <typename T>
  using Listener = std::function<void(const T&)>;

  Contract(const Contract&) = delete;
  Contract& operator=(const Contract&) = delete;
  Contract(Contract&&) = delete;
  Contract& operator=(Contract&&) = delete;

  /// Purges the contract's keys if purgeOnDestroy was set (takes the board lock). Must not run
  /// concurrently with an operation on the contract's keys, nor from a callback under the board lock
  /// (that error would leave a destructor and terminate the process).
  virtual ~Contract();  // NOLINT(bugprone-exception-escape)

 protected:
  /// Binds to MessageBoard::instance_ under `name`, the first part of every key of the contract; with
  /// `purgeOnDestroy` the destructor erases those keys. Stores nothing on the board and takes no lock.
  Contract(std::string name, bool purgeOnDestroy);

  /// The full key of `topic`: name, ":", topic. The topic may be empty or contain colons. Takes no lock.
  /// @throws std::bad_alloc when the key cannot be allocated.
  std::string key(const std::string& topic) const;

  /// Publishes `topic`: stores a copy of `getter` (replacing the previous one), calls it once under
  /// the board lock, and, if the key has a subscriber, hands the value to a copy of that subscriber
  /// after the lock is released, on this thread. Every call delivers, also an unchanged value.
  /// @throws std::bad_function_call for an empty getter (after storing it) or an empty subscriber
  ///         (after releasing the lock; the getter stays stored).
  /// @throws std::invalid_argument when the key's getter or subscriber was stored for another value
  ///         type; nothing changes.
  /// @throws std::system_error (resource_deadlock_would_occur) when called under the board lock (from
  ///         a getter or an initial delivery) or when waiting would close a lock cycle; nothing changes.
  /// @throws std::bad_alloc on allocation failure. What the getter or subscriber throws passes through.
  template <typename T>
  void update(const std::string& topic, const Getter<T>& getter) {
    publish<T>(key(topic), getter, "Contract::update");
  }

  /// Hands `value` to a copy of the key's subscriber, if any, after releasing the lock, on this thread.
  /// Stores no getter, so a later subscribe or get does not see the value.
  /// @throws std::bad_function_call for an empty subscriber.
  /// @throws std::invalid_argument when the key's getter or subscriber was stored for another value type.
  /// @throws std::system_error (resource_deadlock_would_occur) as update() does.
  /// @throws std::bad_alloc on allocation failure. What the subscriber throws passes through.
  template <typename T>
  void notify(const std::string& topic, const T& value) {
    notifyKey<T>(key(topic), value, "Contract::notify");
  }

  /// Makes `subscriber` the key's subscriber (replacing and destroying the previous one). If the key
  /// has a non-empty getter, first calls it and hands the value to `subscriber`, under the lock and
  /// before returning; so the subscriber receives the current value before any later publication.
  /// @throws std::bad_function_call when `subscriber` is empty and the key has a non-empty getter.
  ///         Then, and when the getter or the initial delivery throws (which passes through), nothing
  ///         is stored and the previous subscriber stays.
  /// @throws std::invalid_argument when the key's getter or subscriber was stored for another value
  ///         type; nothing is called or changed.
  /// @throws std::system_error (resource_deadlock_would_occur) as update() does.
  /// @throws std::bad_alloc on allocation failure.
  template <typename T>
  void subscribe(const std::string& topic, const Subscriber<T>& subscriber) {
    subscribeKey<T>(key(topic), subscriber, "Contract::subscribe");
  }

  /// Connects `callback` as a listener of `topic` (beside the subscriber and any other listeners) and
  /// returns its Connection. If the topic is published, first hands it the current value, on this thread
  /// before returning; then every update and notify that takes the board lock after this call did.
  /// `owners` (std::shared_ptr or std::weak_ptr) track it as Signal::connect does. Takes the topic's
  /// listener lock, and the board lock twice inside it; the listener runs under the first only.
  /// @throws std::invalid_argument when `callback` is empty or the key holds another value type;
  ///         nothing changes.
  /// @throws std::system_error (resource_deadlock_would_occur) when called under the board lock, from a
  ///         listener of this topic, or when waiting would close a lock cycle; nothing is connected.
  /// @throws std::bad_alloc on allocation failure. What the getter or the first delivery throws passes
  ///         through; nothing is connected then.
  template <typename T, typename... Owners>
  tessel::Connection connectTopic(const std::string& topic, const Listener<T>& callback, const Owners&... owners) {
    return listen<T>(key(topic), callback, "Contract::connectTopic", owners...);
  }
  /// connectTopic() for a listener that runs on the thread that drains `mailbox` (the caller includes
  /// vantor/tessel/mailbox.hpp): the current value, and then each publication, is posted to the mailbox
  /// as a copy, in that order, under the topic's listener lock; the call runs at the mailbox's next
  /// drain() unless the listener was disconnected, or an owner expired, by then (owners are kept alive
  /// while it runs). The mailbox's wake-up runs on the posting thread under the listener lock. Throws
  /// what connectTopic() throws; a publication also throws what Mailbox::post() throws.
  template <typename T, typename... Owners>
  tessel::Connection connectTopic(const std::string& topic, tessel::Mailbox& mailbox, const Listener<T>& callback,
                                  const Owners&... owners) {
    return listenQueued<T>(key(topic), mailbox, callback, "Contract::connectTopic", owners...);
  }

  /// Erases the key's getter and subscriber, if any, destroying them under the lock, and leaves its
  /// listeners connected (see the file description). A key with no entries is not an error.
  /// @throws std::system_error (resource_deadlock_would_occur) as update() does.
  /// @throws std::bad_alloc when the key cannot be allocated.
  void unsubscribe(const std::string& topic);

  /// The value read through the key's getter (called once, under the lock), or none when the key has
  /// no getter or an empty one. Never calls a subscriber and never creates an entry.
  /// @throws std::invalid_argument when the key's getter or subscriber was stored for another value type.
  /// @throws std::system_error (resource_deadlock_would_occur) as update() does.
  /// @throws std::bad_alloc on allocation failure. What the getter throws passes through.
  template <typename T>
  boost::optional<T> get(const std::string& topic) {
    return read<T>(key(topic), "Contract::get");
  }

  /// @cond INTERNAL
  // ---- the same operations on a full key that the caller has built, with errors naming `operation`
  // (a string literal): for the library's own contract, whose public operations build their keys in one
  // step. A host's contract has no need of them; the operations above are its interface.

  /// For derived contracts whose `operation` is about to take `lockName`, a lock that must never be
  /// taken under the board's (a signal's): refuses when the calling thread holds the board's lock.
  /// @throws std::system_error with std::errc::resource_deadlock_would_occur in that case.
  void refuseUnderBoardLock(const char* operation, const char* lockName) const;

  /// `"name:"` with room for a topic of `topicSize` characters, to which the caller appends the topic.
  /// @throws std::bad_alloc when the key cannot be allocated.
  std::string keyWithRoom(std::size_t topicSize) const;

  /// update() on the full key `fullKey`; errors name `operation`. `getter` is a Getter<T> or any
  /// other callable returning T; the board stores a copy of it. Throws what update() throws.
  template <typename T, typename G>
  void publish(std::string fullKey, const G& getter, const char* operation);
  /// notify() on the full key `fullKey`; errors name `operation`. Throws what notify() throws.
  template <typename T>
  void notifyKey(std::string fullKey, const T& value, const char* operation);
  /// subscribe() on the full key `fullKey`; errors name `operation`. `subscriber` is a std::function
  /// taking a `const T&` or a `T`. Throws what subscribe() throws.
  template <typename T, typename S>
  void subscribeKey(std::string fullKey, const S& subscriber, const char* operation);
  /// unsubscribe() on the full key `fullKey`; errors name `operation`. Throws what unsubscribe() throws.
  void withdraw(std::string fullKey, const char* operation);
  /// get() on the full key `fullKey`; errors name `operation`. Throws what get() throws.
  template <typename T>
  boost::optional<T> read(std::string fullKey, const char* operation);
  /// connectTopic() on the full key `fullKey`; errors name `operation`. `callback` is any callable
  /// taking a `const T&` (a std::function in practice). Throws what connectTopic() throws.
  template <typename T, typename C, typename... Owners>
  tessel::Connection listen(std::string fullKey, const C& callback, const char* operation, const Owners&... owners);
  /// The queued connectTopic() on the full key `fullKey`; errors name `operation`. `callback` is a
  /// std::function taking a `const T&` or a `T`. Throws what connectTopic() throws.
  template <typename T, typename F, typename... Owners>
  tessel::Connection listenQueued(std::string fullKey, tessel::Mailbox& mailbox, const std::function<F>& callback,
                                  const char* operation, const Owners&... owners) {
    if (!callback) detail::throwEmptyListener(operation, fullKey);
    return listen<T>(std::move(fullKey), makeQueuedSlot(mailbox, callback, owners...), operation, owners...);
  }

  /// Under the board lock: the key's listener list, or null when it has none.
  /// @throws std::invalid_argument when the list holds another value type than `type`.
  std::shared_ptr<detail::TopicListeners>* listenersOf(const BoardKey& key, const detail::TypeKey& type,
                                                       const char* operation) const;
  /// Takes the board lock: checks `type` against the key's entries and returns its listener list,
  /// made if it has none. A withdrawal never frees a list that someone else holds.
  /// @throws std::invalid_argument when the key holds another value type; nothing changes.
  std::shared_ptr<detail::TopicListeners> joinListeners(const BoardKey& key, const detail::TypeKey& type,
                                                        const char* operation);
  /// Under the board lock: records `connection` among the list's listeners, dropping gone ones, and
  /// returns the number of the list's last publication.
  std::uint64_t admitListener(detail::TopicListeners& listeners, const tessel::Connection& connection) const;
  /// Without the board lock: hands `value` (of the list's type) to the listeners of `delivery`, under the
  /// list's lock. Throws what a listener throws, and std::system_error from a listener of the same key.
  static void deliverToListeners(const detail::ListenerDelivery& delivery, const void* value, const char* operation);
  /// @endcond

 private:
  BoardData& data() const { return *board_.data_; }
  // Under the board lock: the publication's hold on the key's listeners, with its number; checks `type`.
  detail::ListenerDelivery takeListeners(const BoardKey& key, const detail::TypeKey& type,
                                         const char* operation) const {
    std::shared_ptr<detail::TopicListeners>* found = listenersOf(key, type, operation);
    return found != nullptr ? detail::ListenerDelivery{*found, ++(*found)->published} : detail::ListenerDelivery{};
  }

  MessageBoard& board_;
  std::string name_;
  bool purgeOnDestroy_;
};

/// @cond INTERNAL
// ---- implementation of the templates ------------------------------------------------------------

template <typename T, typename G>
void Contract::publish(std::string fullKey, const G& getter, const char* operation) {
  detail::requireTopicValueType<T>();
  BoardKey key(std::move(fullKey));
  // The stored copy is made before locking, to keep the lock short; storing it moves it in place.
  detail::StoredFunction stored = detail::StoredFunction::getter<T>(getter);
  BoardData& board = data();
  detail::ListenerDelivery listeners;  // declared before the lock: a list is never released under it
  tessel::detail::TrackedLock lock(board.mutex, operation, key.text);
  // Every type is checked before the getter is stored: a key never holds entries of two types.
  listeners = takeListeners(key, detail::typeKeyOf<T>, operation);
  const auto subscriber = detail::checkedEntry<T>(board.subscribers, key, operation);
  const auto [entry, inserted] = board.getters.try_emplace(std::move(key), std::move(stored));
  if (!inserted) {
    detail::checkType(entry->second, detail::typeKeyOf<T>, operation, entry->first);
    entry->second = std::move(stored);  // the previous getter is destroyed here, under the lock
  }
  // std::bad_function_call for an empty getter, which stays stored
  const detail::Wiped<T> value{detail::invokeOrThrow(getter)};
  if (subscriber != board.subscribers.end()) {
    const detail::StoredFunction delivery = subscriber->second;
    lock.unlock();
    delivery.template deliver<T>(value.value);  // std::bad_function_call for an empty subscriber
  } else {
    lock.unlock();
  }
  if (listeners.listeners) deliverToListeners(listeners, &value.value, operation);
}

template <typename T>
void Contract::notifyKey(std::string fullKey, const T& value, const char* operation) {
  detail::requireTopicValueType<T>();
  const BoardKey key(std::move(fullKey));
  BoardData& board = data();
  detail::ListenerDelivery listeners;
  tessel::detail::TrackedLock lock(board.mutex, operation, key.text);
  listeners = takeListeners(key, detail::typeKeyOf<T>, operation);
  const auto subscriber = detail::checkedEntry<T>(board.subscribers, key, operation);
  if (subscriber == board.subscribers.end()) {
    detail::checkedEntry<T>(board.getters, key, operation);
    lock.unlock();
  } else {
    const detail::StoredFunction delivery = subscriber->second;
    lock.unlock();
    delivery.template deliver<T>(value);
  }
  if (listeners.listeners) deliverToListeners(listeners, &value, operation);
}

template <typename T, typename S>
void Contract::subscribeKey(std::string fullKey, const S& subscriber, const char* operation) {
  detail::requireTopicValueType<T>();
  BoardKey key(std::move(fullKey));
  detail::StoredFunction stored = detail::StoredFunction::subscriber<T>(subscriber);
  BoardData& board = data();
  tessel::detail::TrackedLock lock(board.mutex, operation, key.text);
  const auto getter = detail::checkedEntry<T>(board.getters, key, operation);
  const auto previous = detail::checkedEntry<T>(board.subscribers, key, operation);
  listenersOf(key, detail::typeKeyOf<T>, operation);
  if (getter != board.getters.end() && !getter->second.empty()) {
    const detail::Wiped<T> value{getter->second.template get<T>()};
    detail::invokeOrThrow(subscriber, value.value);  // the initial delivery; nothing is stored if it throws
  }
  if (previous != board.subscribers.end()) {
    previous->second = std::move(stored);  // the previous subscriber is destroyed here, under the lock
  } else {
    board.subscribers.emplace(std::move(key), std::move(stored));
  }
}

template <typename T>
boost::optional<T> Contract::read(std::string fullKey, const char* operation) {
  detail::requireTopicValueType<T>();
  const BoardKey key(std::move(fullKey));
  BoardData& board = data();
  tessel::detail::TrackedLock lock(board.mutex, operation, key.text);
  const auto getter = detail::checkedEntry<T>(board.getters, key, operation);
  if (getter == board.getters.end()) {
    detail::checkedEntry<T>(board.subscribers, key, operation);
    listenersOf(key, detail::typeKeyOf<T>, operation);
    return boost::none;
  }
  if (getter->second.empty()) return boost::none;
  return getter->second.template get<T>();
}

// The listener is attached under the list's lock, before the current value and the last publication's
// number are read under the board's: no delivery can reach it before it has that number (deliveries
// take the list's lock), and every publication numbered after it waits for the list's lock, which is
// held until the listener has been handed the current value (topic_listeners.hpp has the argument).
template <typename T, typename C, typename... Owners>
tessel::Connection Contract::listen(std::string fullKey, const C& callback, const char* operation,
                                    const Owners&... owners) {
  refuseUnderBoardLock(operation, detail::TopicListeners::kLockName);
  const BoardKey key(std::move(fullKey));
  if (detail::isEmpty(callback)) detail::throwEmptyListener(operation, key.text);
  const auto listener = std::make_shared<detail::TopicListener<T, C>>(callback);
  const std::shared_ptr<detail::TopicListeners> listeners = joinListeners(key, detail::typeKeyOf<T>, operation);
  tessel::detail::TrackedLock listening(listeners->mutex, operation, key.text);
  struct Undo {  // a connect that fails leaves its listener disconnected, never called
    tessel::Connection connection;
    bool done = false;
    ~Undo() {
      if (!done) connection.disconnect();
    }
  } undo{listeners->signal.connectAs(
      operation, [listener](const void* value, std::uint64_t number) { (*listener)(value, number); }, owners...)};
  listener->self = undo.connection;
  BoardData& board = data();
  tessel::detail::TrackedLock lock(board.mutex, operation, key.text);
  const auto getter = detail::checkedEntry<T>(board.getters, key, operation);  // a 13.1 module checks no list
  listener->joinedAfter = admitListener(*listeners, undo.connection);
  if (getter != board.getters.end() && !getter->second.empty()) {
    const detail::Wiped<T> current{getter->second.template get<T>()};
    lock.unlock();
    // An owner that has expired, or expires now, gets no first value: the listener is never called.
    const std::array<std::shared_ptr<const void>, sizeof...(Owners)> kept{std::weak_ptr<const void>(owners).lock()...};
    if (std::all_of(kept.begin(), kept.end(), [](const auto& owner) { return owner != nullptr; }))
      listener->deliver(current.value);
  } else {
    lock.unlock();
  }
  undo.done = true;
  return undo.connection;
}

/// @endcond

}  // namespace vantor::messaging
