#pragma once

/// @file
/// MessageBoard: the one process-wide store through which contracts exchange typed values.
///
/// For every full key (`"<contract name>:<topic>"`, compared byte for byte) the board holds at most one
/// getter (returns the topic's current value) and at most one subscriber (is handed each new value).
/// The board has no operations of its own: every read and write of its maps is a topic operation of
/// `Contract` (contract.hpp), performed under the board's single mutex. Hosts never touch the board;
/// they call a contract. Beside the two maps, the library keeps the listener list of each key that has
/// listeners (Contract::connectTopic; vantor/messaging/detail/topic_listeners.hpp), under the same mutex
/// but outside BoardData, whose layout is part of the ABI.
///
/// Lifetime: `MessageBoard::instance_` is constructed when the library is loaded and destroyed at
/// process exit or library unload, after every contract singleton (those register their destruction
/// later, so they run earlier). Its destruction destroys every function object still stored without
/// calling any of them. No board operation may run before, during or after that destruction.

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

/// The message board, the Contract base class and the library's contract, CyberSecurityContract.
namespace vantor::messaging {

class Contract;
class BoardTestPeer;  // test-only inspector, defined by the test suite

/// A full key with its hash, computed once per operation and used for the look-ups in both maps. Part of
/// the board's record, which only Contract's operations use; hosts never build one.
struct BoardKey {
  /// Takes `key` and hashes it.
  explicit BoardKey(std::string key) noexcept : text(std::move(key)), hash(std::hash<std::string>()(text)) {}

  std::string text;  ///< The full key: contract name, ":", topic.
  std::size_t hash;  ///< `std::hash<std::string>` of `text`.
};

/// The board maps' hash: the hash a BoardKey carries.
struct BoardKeyHash {
  /// Returns `key.hash`.
  std::size_t operator()(const BoardKey& key) const noexcept { return key.hash; }
};

/// The board maps' key equality: byte for byte, case-sensitive.
struct BoardKeyEqual {
  /// True when both keys have the same text.
  bool operator()(const BoardKey& a, const BoardKey& b) const noexcept { return a.hash == b.hash && a.text == b.text; }
};

/// Full key to a getter (in `getters`) or a subscriber (in `subscribers`) of the key's value type.
using BoardMap = std::unordered_map<BoardKey, detail::StoredFunction, BoardKeyHash, BoardKeyEqual>;

/// The board's record, reached only by Contract's topic operations. Destroying it destroys the
/// subscribers, then the getters, then the mutex (reverse declaration order), calling none of the
/// function objects.
struct BoardData {
  /// The board's one lock; not recursive. Held by each topic operation for its map work, and while
  /// getters, initial deliveries and the destructors of replaced or erased function objects run.
  /// Ordering with a signal's lock (vantor/tessel/signal.hpp): a signal's callback may take this lock
  /// (the signal's lock is held first); the reverse happens only while a contract's constructor
  /// subscribes its own subscribers, when its signals have no callbacks yet. A topic's listener lock is
  /// likewise taken before this one and never under it.
  tessel::detail::TrackedMutex mutex{"the message board's lock"};
  BoardMap getters VANTOR_GUARDED_BY(mutex);      ///< At most one getter per full key.
  BoardMap subscribers VANTOR_GUARDED_BY(mutex);  ///< At most one subscriber per full key.
};

/// The process-wide message board: owns the BoardData under which contracts file their getters and
/// subscribers. It has no operations; Contract's topic operations work on its data under its mutex. One
/// object, `instance_`; neither copyable nor movable.
class VANTOR_MESSAGE_BOARD_API MessageBoard {
 public:
  /// The process's board. Constructed at library load, destroyed at process exit or library unload;
  /// every contract binds to it.
  static MessageBoard instance_;

  /// An empty board with a free mutex. Runs once, for `instance_`.
  /// @throws std::bad_alloc when the record cannot be allocated (the library then fails to load).
  MessageBoard();
  /// Destroys every stored getter and subscriber without calling any, then the mutex. Takes no lock.
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
