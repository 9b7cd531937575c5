#pragma once

// Test access to the board: a contract whose topic operations are public, and an inspector of the
// board's maps and lock (a friend of MessageBoard). And threads that leave a start line together.

#include <map>

#include "vantor/messaging/contract_cyber_security.hpp"  // the board, Contract, <atomic>, <thread>, <vector>

namespace vantor::messaging {

// Reads the board without taking its lock, so call it only while no other thread uses the board (a callback
// that runs under the lock may call it too).
class BoardTestPeer {
 public:
  static bool heldByThisThread() { return data().mutex.holder() == std::this_thread::get_id(); }
  static bool lockIsFree() { return data().mutex.holder() == std::thread::id(); }
  static BoardData& data() { return *MessageBoard::instance_.data_; }
  // Every key on the board, with "g" for a getter and then "s" for a subscriber.
  static std::map<std::string, std::string> entries() VANTOR_NO_THREAD_SAFETY_ANALYSIS {
    std::map<std::string, std::string> found;
    for (const auto& entry : data().getters) found[entry.first.text] += "g";
    for (const auto& entry : data().subscribers) found[entry.first.text] += "s";
    return found;
  }
  static bool hasGetter(const std::string& key) { return entries()[key].find('g') != std::string::npos; }
  // How many entries of both maps have a key that begins with `prefix`.
  static std::size_t entriesWithPrefix(const std::string& prefix) {
    std::size_t found = 0;
    for (const auto& [key, kinds] : entries()) found += key.rfind(prefix, 0) == 0 ? kinds.size() : 0;
    return found;
  }
};

struct TestContract : Contract {
  explicit TestContract(std::string name, bool purgeOnDestroy = true) : Contract(std::move(name), purgeOnDestroy) {}
  using Contract::connectTopic, Contract::get, Contract::key, Contract::notify, Contract::publish, Contract::subscribe,
      Contract::unsubscribe, Contract::update;
};

// A start line: `waiting` counts the threads yet to arrive; each arrives, then spins until none is left.
inline void arriveAndWait(std::atomic<std::size_t>& waiting) {
  for (--waiting; waiting.load() != 0;) std::this_thread::yield();
}

// Runs `body(index)` on `count` threads that leave a start line together, and joins them.
inline void runTogether(std::size_t count, const std::function<void(std::size_t)>& body) {
  std::atomic<std::size_t> waiting{count};
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < count; ++i) threads.emplace_back([&, i] { arriveAndWait(waiting), body(i); });
  for (auto& thread : threads) thread.join();
}

}  // namespace vantor::messaging
