#pragma once

// MessageBoard: the one process-wide store through which contracts exchange typed values.
//
// For every full key ("<contract name>:<topic>", compared byte for byte) the board holds at most one
// getter (returns the topic's current value) and at most one subscriber (is handed each new value).
// The board has no operations of its own: every read and write of its maps is a topic operation of
// `Contract` (contract.hpp), performed under the board's single mutex.
//
// Lifetime: `MessageBoard::instance_` is constructed when the library is loaded and destroyed at
// process exit or library unload, after every contract singleton (those register their destruction
// later, so they run earlier). Its destruction destroys every function object still stored without
// calling any of them. No board operation may run before, during or after that destruction.

#include <any>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "vantor/messaging/export.hpp"
#include "vantor/tessel/detail/tracked_lock.hpp"

namespace vantor::messaging {

class Contract;
class BoardTestPeer;  // test-only inspector, defined by the test suite

// The board's record. Each map entry is a type-erased `std::function` of the key's value type T:
// `std::function<T()>` in `getters`, `std::function<void(const T&)>` in `subscribers`. `std::any`
// keeps empty function objects distinguishable from absent entries, is copyable, and lets an operation
// detect a key that holds another value type (see Contract). Destroying the record destroys the
// subscribers, then the getters, then the mutex (reverse declaration order).
struct BoardData {
  // The board's one lock; not recursive. Held by each topic operation for its map work, and while
  // getters and initial deliveries run. Ordering with a signal's mutex (vantor/tessel/signal.hpp): a
  // signal's callback may take this mutex (the signal's mutex is held first); the reverse (taking a
  // signal's mutex while this one is held) happens only while a contract's constructor subscribes
  // its own subscribers, when its signals have no callbacks yet.
  std::mutex mutex;
  std::unordered_map<std::string, std::any> getters;      // guarded by mutex
  std::unordered_map<std::string, std::any> subscribers;  // guarded by mutex
  tessel::detail::LockHolder holder;                      // the thread holding mutex; written only by it
};

class VANTOR_MESSAGE_BOARD_API MessageBoard {
 public:
  // The process's board. Constructed at library load; contracts bind to it.
  static MessageBoard instance_;

  MessageBoard();
  ~MessageBoard();

  MessageBoard(const MessageBoard&) = delete;
  MessageBoard& operator=(const MessageBoard&) = delete;
  MessageBoard(MessageBoard&&) = delete;
  MessageBoard& operator=(MessageBoard&&) = delete;

 private:
  friend class Contract;
  friend class BoardTestPeer;

  std::unique_ptr<BoardData> data_;  // never null while the board exists
};

}  // namespace vantor::messaging
