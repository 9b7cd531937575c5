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

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "vantor/messaging/detail/stored_function.hpp"
#include "vantor/messaging/export.hpp"
#include "vantor/tessel/detail/thread_annotations.hpp"
#include "vantor/tessel/detail/tracked_lock.hpp"

namespace vantor::messaging {

class Contract;
class BoardTestPeer;  // test-only inspector, defined by the test suite

// A full key with its hash, computed once per operation and used for the look-ups in both maps.
struct BoardKey {
  explicit BoardKey(std::string key) noexcept : text(std::move(key)), hash(std::hash<std::string>()(text)) {}

  std::string text;
  std::size_t hash;
};

struct BoardKeyHash {
  std::size_t operator()(const BoardKey& key) const noexcept { return key.hash; }
};

struct BoardKeyEqual {
  bool operator()(const BoardKey& a, const BoardKey& b) const noexcept { return a.hash == b.hash && a.text == b.text; }
};

// Full key -> a getter (in `getters`) or a subscriber (in `subscribers`) of the key's value type.
using BoardMap = std::unordered_map<BoardKey, detail::StoredFunction, BoardKeyHash, BoardKeyEqual>;

// The board's record. Destroying it destroys the subscribers, then the getters, then the mutex
// (reverse declaration order), calling none of the function objects.
struct BoardData {
  // The board's one lock; not recursive. Held by each topic operation for its map work, and while
  // getters, initial deliveries and the destructors of replaced or erased function objects run.
  // Ordering with a signal's lock (vantor/tessel/signal.hpp): a signal's callback may take this lock
  // (the signal's lock is held first); the reverse happens only while a contract's constructor
  // subscribes its own subscribers, when its signals have no callbacks yet.
  tessel::detail::TrackedMutex mutex{"the message board's lock"};
  BoardMap getters VANTOR_GUARDED_BY(mutex);
  BoardMap subscribers VANTOR_GUARDED_BY(mutex);
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
