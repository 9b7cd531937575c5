#pragma once

// The listeners of one board key: any number of callbacks that, beside the key's one subscriber, are
// handed the key's current value when they connect and then every later publication of the key.
//
// The board keeps one TopicListeners per key that has listeners, in a map of the library's own
// (message_board.cpp) beside BoardData, under the board's mutex; Contract's operations reach it
// through exported functions. (The map is not a member of BoardData, whose layout is part of the ABI.)
//
// Lock order: `mutex` is taken before the board's mutex, never under it, and the list's signal only
// under `mutex`. Deliveries run outside the board's mutex, like the subscriber's.
//
// Why a new listener misses nothing and gets nothing stale. A publication numbers itself and takes a
// reference to the list under the board's mutex, and delivers under `mutex` once the board's is
// released. A connect takes `mutex`, attaches its listener to the signal, then, in one hold of the
// board's mutex, reads the current value and the number of the last publication, and keeps `mutex`
// until it has handed the listener that value. So:
//  - a publication that took the board's mutex after the connect's read has a larger number, and its
//    delivery waits for `mutex`, which the connect holds until the listener has its first value: the
//    listener gets it, after that value;
//  - one that took it before has a number no larger than the one read, and its value is the current
//    one or an older one; if its delivery comes after the connect (it may, since it waits for `mutex`),
//    the listener skips it by its number.
// Attaching before the read keeps the number and the Connection (which a withdrawal reads) in one
// hold of the board's mutex; no delivery can reach the listener meanwhile, as they wait for `mutex`.
// (A ticket per publication that made deliveries run in number order was the road not taken: a
// delivery would wait for other threads' publications, and one that failed would stop them all.)

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "vantor/messaging/detail/stored_function.hpp"
#include "vantor/tessel/detail/thread_annotations.hpp"
#include "vantor/tessel/detail/tracked_lock.hpp"
#include "vantor/tessel/signal.hpp"

namespace vantor::messaging::detail {

struct TopicListeners {
  static constexpr const char* kLockName = "the topic's listener lock";

  TopicListeners(std::string fullKey, const TypeKey& valueType) : key(std::move(fullKey)), type(valueType) {}

  const std::string key;  // the full key, for error messages
  const TypeKey& type;    // the key's value type: the list fixes it as a getter or a subscriber does
  // Held by a connect from before it reads the current value until its listener has it, and by each
  // delivery while the listeners run. Never taken under the board's mutex.
  tessel::detail::TrackedMutex mutex{kLockName};
  // Guarded by the board's mutex: the number of the last publication that took this list.
  std::uint64_t published = 0;
  // Guarded by the board's mutex: every listener connected (gone ones are dropped when one joins), by
  // which a withdrawal tells whether the list still serves anyone.
  std::vector<tessel::Connection> connections;
  // Guarded by the board's mutex: links the lists that one purge erased, to be destroyed after it.
  std::shared_ptr<TopicListeners> purgedNext;
  // The listeners, each handed a pointer to the value (of `type`) and the publication's number.
  // Connected and emitted only under `mutex`, so its own lock is never contended.
  tessel::Signal<const void*, std::uint64_t> signal VANTOR_GUARDED_BY(mutex){"a topic's listener list"};
};

// What a publication takes, under the board's mutex, to deliver to the key's listeners after releasing
// it: the list (null when the key has none) and the publication's number.
struct ListenerDelivery {
  std::shared_ptr<TopicListeners> listeners;
  std::uint64_t number = 0;
};

// One listener: its callback (a callable taking a const T&, or its own Connection and a const T& as a
// queued listener's tessel::QueuedSlot does), its Connection, and the number of the last publication it
// must not be handed. Its connect sets both under the list's mutex before any delivery can reach it;
// until then the number is the largest.
template <typename T, typename C>
struct TopicListener {
  explicit TopicListener(C function) : callback(std::move(function)) {}
  void operator()(const void* value, std::uint64_t number) const {
    if (number > joinedAfter) deliver(*static_cast<const T*>(value));
  }
  void deliver(const T& value) const {
    if constexpr (std::is_invocable_v<const C&, const tessel::Connection&, const T&>) {
      callback(self, value);
    } else {
      callback(value);
    }
  }
  C callback;
  tessel::Connection self;
  std::uint64_t joinedAfter = UINT64_MAX;
};

}  // namespace vantor::messaging::detail
