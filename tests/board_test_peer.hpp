#pragma once

// Test access to the board: a contract whose topic operations are public, and an inspector of the
// board's maps and lock (a friend of MessageBoard).

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
    std::lock_guard<std::mutex> lock(board.mutex);
    std::size_t found = 0;
    for (const auto* map : {&board.getters, &board.subscribers}) {
      for (const auto& entry : *map) found += entry.first.compare(0, prefix.size(), prefix) == 0;
    }
    return found;
  }

  static bool heldByThisThread() {
    return data().holder.load(std::memory_order_relaxed) == std::this_thread::get_id();
  }

  // True when no thread holds the board lock (never locks twice on the calling thread).
  static bool lockIsFree() {
    if (heldByThisThread()) return false;
    if (!data().mutex.try_lock()) return false;
    data().mutex.unlock();
    return true;
  }

 private:
  static BoardData& data() { return *MessageBoard::instance_.data_; }

  static std::size_t count(std::unordered_map<std::string, std::any> BoardData::*map, const std::string& key) {
    BoardData& board = data();
    std::lock_guard<std::mutex> lock(board.mutex);
    return (board.*map).count(key);
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
