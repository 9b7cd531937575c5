#pragma once

// Test access to the board: a contract whose topic operations are public, and an inspector of the
// board's maps and lock (a friend of MessageBoard).

#include <cstddef>
#include <thread>
#include <string>
#include <utility>

#include "vantor/messaging/contract.hpp"
#include "vantor/messaging/message_board.hpp"

namespace vantor::messaging {

class BoardTestPeer {
 public:
  static bool hasGetter(const std::string& key) { return count(&BoardData::getters, key) != 0; }
  static bool hasSubscriber(const std::string& key) { return count(&BoardData::subscribers, key) != 0; }

  // Entries in both maps whose key starts with `prefix`.
  static std::size_t entriesWithPrefix(const std::string& prefix) {
    BoardData& board = data();
    tessel::detail::TrackedLock lock(board.mutex, "BoardTestPeer::entriesWithPrefix");
    std::size_t found = 0;
    for (const auto* map : {&board.getters, &board.subscribers}) {
      for (const auto& entry : *map) found += entry.first.text.compare(0, prefix.size(), prefix) == 0;
    }
    return found;
  }

  static bool heldByThisThread() { return data().mutex.holder() == std::this_thread::get_id(); }

  // True when no thread holds the board lock.
  static bool lockIsFree() { return data().mutex.holder() == std::thread::id(); }

 private:
  static BoardData& data() { return *MessageBoard::instance_.data_; }

  static std::size_t count(BoardMap BoardData::*map, const std::string& key) VANTOR_NO_THREAD_SAFETY_ANALYSIS {
    BoardData& board = data();
    tessel::detail::TrackedLock lock(board.mutex, "BoardTestPeer::count");
    return (board.*map).count(BoardKey(key));
  }
};

// A contract whose topic operations anyone may call.
class TestContract : public Contract {
 public:
  explicit TestContract(std::string name, bool purgeOnDestroy = true) : Contract(std::move(name), purgeOnDestroy) {}

  using Contract::get;
  using Contract::key;
  using Contract::notify;
  using Contract::subscribe;
  using Contract::unsubscribe;
  using Contract::update;
};

}  // namespace vantor::messaging
