// Races that end in exact invariants: what the single-threaded model of the library cannot show.

#include <gtest/gtest.h>

#include <algorithm>

#include "test_support.hpp"
#include "vantor/tessel/mailbox.hpp"

namespace vantor::messaging {

constexpr int kRounds = 2000;  // of each thread's loop in every race

// Only emit() reaches a signal's walk, with the signal's lock held.
template <typename S, typename = void>
constexpr bool kCanDeliver = false;
template <typename S>
constexpr bool kCanDeliver<S, std::void_t<decltype(std::declval<S&>().deliver(std::declval<int&>()))>> = true;
static_assert(!kCanDeliver<tessel::Signal<int>>, "Signal::deliver must not be callable without the lock");

// Also listeners, connected one after another while the publication runs: each is handed the current
// value first (never under the board lock) and then every later one, none twice and none missed.
TEST(Board, NewSubscriberAndListenersGetTheCurrentValueFirstAndThenMissNoLaterPublication) {
  TestContract board("Race");
  board.update<int>("topic", [] { return 0; });
  std::atomic<int> published{0};
  std::vector<std::vector<std::pair<int, bool>>> received(51);  // the subscriber's, then each listener's
  const auto record = [&](std::size_t to) {
    return [&, to](const int& value) {
      received[to].emplace_back(value, BoardTestPeer::heldByThisThread());
      if (to == 0) std::this_thread::yield();  // holds the publication between its board lock and its listeners
    };
  };
  runTogether(3, [&](std::size_t index) {
    for (int value = 1; index == 0 && value <= kRounds; published = value++)
      board.update<int>("topic", [value] { return value; });
    while (index == 1 && published.load() < kRounds / 4) std::this_thread::yield();
    if (index == 1) board.subscribe<int>("topic", record(0));
    for (std::size_t to = 1; index == 2 && to < received.size(); ++to) {  // one every 40 publications
      while (published.load() < 40 * static_cast<int>(to)) std::this_thread::yield();
      board.connectTopic<int>("topic", record(to));
    }
  });
  for (std::size_t to = 0; to < received.size(); ++to) {
    ASSERT_TRUE(!received[to].empty() && received[to][0].second == (to == 0)) << "the first value is the initial one";
    for (std::size_t i = 1; i < received[to].size(); ++i)
      ASSERT_EQ(received[to][i], std::make_pair(received[to][i - 1].first + 1, false)) << to << ", delivery " << i;
    EXPECT_EQ(received[to].back().first, kRounds);
  }
}

// Also components that own their slots (tracked) and go away on a third thread, maybe while their slot
// runs: no slot ever runs once its component's destruction has begun (its weak pointer would then read
// expired), and no slot outlives its component. And slots disconnected on the second thread while the
// first emits, nested emissions included: each is let go of by the time the emitting thread has left the
// signal, and at once for disconnectAndWait().
TEST(Signal, FlagsBlockersAndConnectsFromOtherThreadsWhileOneEmitsLoseNothing) {
  tessel::Signal<int> signal;
  std::atomic<int> steady{0}, toggled{0}, usedAfterDestruction{0}, keptAfterWait{0};
  std::vector<std::weak_ptr<int>> disconnected;  // what the disconnected slots' callbacks held
  signal.connect([&](int value) {
    ++steady;
    if (value > 0 && value % 16 == 0) signal.emit(-value);  // a nested emission
  });
  const tessel::Connection toggledSlot = signal.connect([&](int) { ++toggled; });
  runTogether(3, [&](std::size_t index) {
    for (int i = 0; i < kRounds; ++i) {
      if (index == 0) signal.emit(i);
      if (index == 1) {
        tessel::ConnectionBlocker blocker(toggledSlot);
        auto held = std::make_shared<int>();
        disconnected.push_back(held);
        const tessel::Connection slot = signal.connect([held](int) {});
        held.reset();
        i % 2 ? slot.disconnect() : slot.disconnectAndWait();
        keptAfterWait += i % 2 == 0 && !disconnected.back().expired();
      }
      const auto component = std::make_shared<int>();  // its only owner goes at the end of the round
      const auto use = [weak = std::weak_ptr<int>(component), &usedAfterDestruction](int) {
        usedAfterDestruction += weak.expired();
      };
      if (index == 2) signal.connect(use, component);
    }
    if (index == 1) toggledSlot.disconnect();
  });
  EXPECT_EQ(keptAfterWait, 0) << "disconnectAndWait() returns once the slot's callback is destroyed";
  EXPECT_TRUE(std::all_of(disconnected.begin(), disconnected.end(), [](auto& held) { return held.expired(); }))
      << "every disconnected slot was let go of without another operation of the signal";
  const int toggledBefore = toggled;
  signal.emit(-1);
  EXPECT_EQ(steady, kRounds + (kRounds - 1) / 16 + 1);
  EXPECT_EQ(toggled, toggledBefore) << "a slot disconnected before an emission began is not invoked";
  EXPECT_EQ(usedAfterDestruction, 0);
  EXPECT_EQ(signal.slotCount(), 1u) << "only the steady slot is left";
}

// The emitting thread erases the slot that another thread waits for: the wait ends only after the slot's
// callback object is destroyed (its destructor lingers, to give an early return the time to show).
TEST(Connection, DisconnectAndWaitReturnsOnlyOnceTheSignalHasDestroyedTheCallback) {
  tessel::Signal<int> signal;
  std::atomic<bool> returned{false}, destroyed{false}, sawDestroyed{false};
  struct Lingers {
    Lingers(std::atomic<bool>& wait, std::atomic<bool>& done) : returned(wait), destroyed(done) {}
    std::atomic<bool>& returned;
    std::atomic<bool>& destroyed;
    ~Lingers() {
      for (int spin = 0; spin < 2000 && !returned; ++spin) std::this_thread::yield();
      destroyed = true;
    }
  };
  tessel::Connection waited;
  signal.connect([&](int) {
    while (waited.connected()) std::this_thread::yield();  // until the other thread has disconnected it
  });
  waited = signal.connect([lingers = std::make_shared<Lingers>(returned, destroyed)](int) {});
  runTogether(2, [&](std::size_t index) {
    if (index == 0) return signal.emit(0);
    waited.disconnectAndWait();
    sawDestroyed = destroyed.load(), returned = true;
  });
  EXPECT_TRUE(sawDestroyed);
}

// Also heavy contention without a lock cycle, which must raise nothing: the secured signal's slot reads
// the board (signal before board, the one permitted nesting) while other threads hold either lock. And two
// threads rotate the token (tokens of one repeated byte each) while two copy it: no copy and no delivery
// ever mixes two tokens.
TEST(CyberSecurityContract, OperationsFromFiveHostThreadsAtOnceLoseNoCallTearNoTokenAndRaiseNothing) {
  const std::string address = "198.51.100.70";
  CyberSecurityContract& contract = CyberSecurityContract::instance();
  std::atomic<int> registered{0}, secured{0}, portCalls[2] = {{0}, {0}}, tokens{0}, torn{0};
  const auto check = [&torn](const CyberSecurityContract::OptionalToken& token) {
    torn += token && std::count(token->begin(), token->end(), token->front()) != 32;
  };
  contract.setTcpPortsVector({1, 2});
  for (int port : {1, 2}) contract.subscribeToIpPortAllowed(address, port, [&, port](bool) { ++portCalls[port - 1]; });
  tessel::ScopedConnection reader =
      contract.connectSecuredSignalWithHandle([&](bool) { ++secured, contract.isIpSecured(address); });
  tessel::ScopedConnection watch =
      contract.connectSecurityTokenSignalWithHandle([&](auto token) { check(token), ++tokens; });
  runTogether(5, [&](std::size_t index) {
    for (int round = 0; round < kRounds; ++round) {
      CyberSecurityContract::Token token;
      token.fill(static_cast<unsigned char>(index * 50 + round % 50));
      if (index == 1 || index == 4) contract.updateSecurityToken(token);
      if (index == 0 || index == 3) check(contract.copySecurityToken());
      if (index == 0) contract.updateIpAllPortsAllowed(address, round % 2 == 0);
      if (index == 1) contract.setTcpPortsVector(round % 2 ? std::vector<int>{1, 2} : std::vector<int>{2, 1});
      if (index == 2) contract.updateSecured(round % 2 == 0);
      if (index == 3) tessel::ScopedConnection transient = contract.connectSecuredSignalWithHandle([](bool) {});
      if (index == 3) contract.isIpSecured(address);
      if (index == 4) contract.setRegisterConnectionCallback([&](const std::string&, int, bool) { ++registered; });
      if (index == 4) contract.registerConnection(address, round, true);
    }
  });
  for (const std::atomic<int>* calls : {&registered, &secured, &portCalls[0], &portCalls[1]})
    EXPECT_EQ(*calls, kRounds);
  EXPECT_EQ(tokens, 2 * kRounds);
  EXPECT_EQ(torn, 0);
  for (int port : {1, 2}) contract.unsubscribeFromIpPortAllowed(address, port);  // the listeners count into this frame
  contract.setRegisterConnectionCallback({});
}

// Two producers emit into a queued slot and two post straight to the mailbox, while the consumer waits
// and drains: every call arrives once, and each producer's calls arrive in their order.
TEST(Mailbox, FourProducersAndOneConsumerLoseAndDuplicateNothing) {
  tessel::Mailbox box;
  tessel::Signal<std::size_t, int> signal;
  std::vector<int> next(4, 0);  // per producer, the round expected next; touched by the consumer only
  int misordered = 0, received = 0;
  const auto record = [&](std::size_t producer, int round) { misordered += round != next[producer]++, ++received; };
  signal.connectQueued(box, record);
  runTogether(5, [&](std::size_t index) {
    for (int round = 0; index < 2 && round < kRounds; ++round) signal.emit(index, round);
    for (int round = 0; index >= 2 && index < 4 && round < kRounds; ++round)
      box.post([&, index, round] { record(index, round); });
    while (index == 4 && received < 4 * kRounds && box.waitFor(std::chrono::minutes(1))) box.drain();
  });
  EXPECT_EQ(received, 4 * kRounds);
  EXPECT_EQ(misordered, 0);
}

// A drain that finds another one running waits for it: the second drain runs the call posted during the
// first only after the first call has returned.
TEST(Mailbox, DrainsFromTwoThreadsTakeTurns) {
  const auto waitsForALock = [](std::thread::id thread) {
    tessel::detail::WaitRegistry& registry = tessel::detail::waitRegistry();
    const std::lock_guard<std::mutex> lock(registry.mutex);
    for (const tessel::detail::WaitRecord* record = registry.waiting; record != nullptr; record = record->next)
      if (record->thread == thread) return true;
    return false;
  };
  tessel::Mailbox box;
  std::atomic<bool> firstRuns{false}, secondDone{false};
  std::size_t secondRan = 0;
  std::thread second;
  box.post([&] {
    firstRuns = true;
    box.post([&] { EXPECT_FALSE(firstRuns) << "the second drain ran while the first one's call did"; });
    second = std::thread([&] { secondRan = box.drain(), secondDone = true; });
    while (!waitsForALock(second.get_id()) && !secondDone) std::this_thread::yield();
    firstRuns = false;
  });
  EXPECT_EQ(box.drain(), 1u);
  second.join();
  EXPECT_EQ(secondRan, 1u);
}

}  // namespace vantor::messaging
