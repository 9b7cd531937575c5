#pragma once

// Test access to the board (a contract whose topic operations are public, and an inspector of the
// board's maps and lock, a friend of MessageBoard), a start line for threading tests, and a callable
// that counts its own copies.

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "vantor/messaging/contract.hpp"
#include "vantor/messaging/message_board.hpp"

namespace vantor::messaging {

class BoardTestPeer {
 public:
  static bool hasGetter(const std::string& key) { return count(&BoardData::getters, key) != 0; }
  static bool hasSubscriber(const std::string& key) { return count(&BoardData::subscribers, key) != 0; }
  // Entries in both maps whose key starts with `prefix`.
  static std::size_t entriesWithPrefix(const std::string& prefix) {
    std::size_t found = 0;
    for (auto map : {&BoardData::getters, &BoardData::subscribers}) found += count(map, prefix, true);
    return found;
  }
  static bool heldByThisThread() { return data().mutex.holder() == std::this_thread::get_id(); }
  static bool lockIsFree() { return data().mutex.holder() == std::thread::id(); }

 private:
  static BoardData& data() { return *MessageBoard::instance_.data_; }
  static std::size_t count(BoardMap BoardData::*map, const std::string& key,
                           bool prefix = false) VANTOR_NO_THREAD_SAFETY_ANALYSIS {
    tessel::detail::TrackedLock lock(data().mutex, "BoardTestPeer::count");
    if (!prefix) return (data().*map).count(BoardKey(key));
    std::size_t found = 0;
    for (const auto& entry : data().*map) found += entry.first.text.compare(0, key.size(), key) == 0;
    return found;
  }
};

class TestContract : public Contract {
 public:
  explicit TestContract(std::string name, bool purgeOnDestroy = true) : Contract(std::move(name), purgeOnDestroy) {}
  using Contract::get, Contract::key, Contract::notify, Contract::subscribe, Contract::unsubscribe, Contract::update;
};

}  // namespace vantor::messaging

namespace vantor::testing {

// A one-shot latch: the `count` threads that arrive leave together.
struct StartLine {
  std::atomic<std::size_t> waiting;
  explicit StartLine(std::size_t count) : waiting(count) {}
  void arriveAndWait() {
    for (--waiting; waiting.load() != 0;) std::this_thread::yield();
  }
};

// Runs `body(index)` on `count` threads that leave a start line together, and joins them.
template <typename Body>
void runTogether(std::size_t count, Body body) {
  StartLine start(count);
  std::vector<std::thread> threads;
  for (std::size_t index = 0; index < count; ++index) {
    threads.emplace_back([&, index] { start.arriveAndWait(), body(index); });
  }
  for (auto& thread : threads) thread.join();
}

// A callable of any signature returning R() that counts in `*alive` how many of its copies exist.
template <typename R = void>
struct Counted {
  std::atomic<int>* alive;
  explicit Counted(std::atomic<int>& count) : alive(&count) { ++*alive; }
  Counted(const Counted& other) : alive(other.alive) { ++*alive; }
  ~Counted() { --*alive; }
  template <typename... Args>
  R operator()(Args&&...) const {
    return R();
  }
};

}  // namespace vantor::testing
