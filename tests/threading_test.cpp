// What the single-threaded model of the library cannot show: races that end in exact invariants, and
// host code that calls the contract from inside a copy constructor of its own.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "test_support.hpp"
#include "vantor/messaging/contract_cyber_security.hpp"

class Logger {};

namespace vantor {
namespace {

using messaging::BoardTestPeer;
using messaging::CyberSecurityContract;
CyberSecurityContract& contract() { return CyberSecurityContract::instance(); }

TEST(Board, NewSubscriberGetsTheCurrentValueBeforeAnyLaterPublication) {
  constexpr int kPublications = 20000;
  messaging::TestContract board("Race");
  board.update<int>("topic", [] { return 0; });
  std::atomic<int> published{0};
  std::vector<int> received;  // deliveries never overlap: one publishing thread
  bool firstUnderLock = false;
  testing::runTogether(2, [&](std::size_t index) {
    for (int value = 1; index == 0 && value <= kPublications; published = value++) {
      board.update<int>("topic", [value] { return value; });
    }
    while (index == 1 && published.load() < kPublications / 4) std::this_thread::yield();
    if (index == 1)
      board.subscribe<int>("topic", [&](const int& value) {
        if (received.empty()) firstUnderLock = BoardTestPeer::heldByThisThread();
        received.push_back(value);
      });
  });
  ASSERT_FALSE(received.empty());
  EXPECT_TRUE(firstUnderLock) << "the first value is the initial delivery";
  for (std::size_t i = 1; i < received.size(); ++i) ASSERT_EQ(received[i], received[i - 1] + 1) << i;
  EXPECT_EQ(received.back(), kPublications);
}

TEST(Signal, FlagsAndConnectsFromOtherThreadsWhileOneEmitsLoseNothing) {
  constexpr int kEmissions = 4000;
  tessel::Signal<int> signal;
  std::atomic<int> steady{0}, toggled{0};
  signal.connect([&](int) { ++steady; });
  const tessel::Connection toggledSlot = signal.connect([&](int) { ++toggled; });
  testing::runTogether(3, [&](std::size_t index) {
    for (int i = 0; i < kEmissions; ++i) {
      if (index == 0) signal.emit(i);
      if (index == 1) tessel::ConnectionBlocker blocker(toggledSlot);
      if (index == 2 && i % 4 == 0) tessel::ScopedConnection transient = signal.connect([](int) {});
    }
    if (index == 1) toggledSlot.disconnect();
  });
  const int toggledBefore = toggled;
  signal.emit(-1);
  EXPECT_EQ(steady, kEmissions + 1);
  EXPECT_EQ(toggled, toggledBefore) << "a slot disconnected before an emission began is not invoked";
  EXPECT_FALSE(toggledSlot.connected());
}

TEST(CyberSecurityContract, HostThreadsUsingEveryOperationAtOnceLoseNoCall) {
  constexpr int kRounds = 1500;
  const std::string address = "198.51.100.70";
  std::atomic<int> registered{0}, portCalls[2] = {{0}, {0}};
  const auto countRegistrations = [&registered](const std::string&, int, bool) { ++registered; };
  contract().setTcpPortsVector({1, 2});
  for (int port : {1, 2})
    contract().subscribeToIpPortAllowed(address, port, [&, port](bool) { ++portCalls[port - 1]; });
  testing::runTogether(5, [&](std::size_t index) {
    for (int round = 0; round < kRounds; ++round) {
      if (index == 0) contract().updateIpAllPortsAllowed(address, round % 2 == 0);
      if (index == 1) contract().setTcpPortsVector(round % 2 ? std::vector<int>{1, 2} : std::vector<int>{2, 1});
      if (index == 2) contract().updateSecured(round % 2 == 0);
      if (index == 3) contract().isIpSecured(address);
      if (index == 4) contract().setRegisterConnectonCallback(countRegistrations);
      if (index == 4) contract().registerConnection(address, round, true);
    }
  });
  EXPECT_EQ(registered, kRounds);
  EXPECT_EQ(portCalls[0], kRounds);
  EXPECT_EQ(portCalls[1], kRounds);
  for (int port : {1, 2}) contract().unsubscribeFromIpPortAllowed(address, port);
  contract().setRegisterConnectonCallback({});
}

// A host callable whose copy constructor calls the contract once: the contract must never copy a
// host callable while it holds a lock of its own.
struct Reentrant {
  static inline std::function<void()> onCopy;
  Reentrant() = default;
  Reentrant(const Reentrant&) {
    if (auto call = std::exchange(onCopy, nullptr)) call();
  }
  void operator()(const std::string&, int, bool) const {}
  Logger& operator()() const {
    static Logger logger;
    return logger;
  }
};

TEST(CyberSecurityContract, MayBeCalledFromTheCopyConstructorOfAHostHook) {
  const std::function<void()> calls[] = {
      [] { contract().setTcpPortsVector({1}); }, [] { contract().registerConnection("a", 1, true); },
      [] { contract().setUserActivityLogger({}); }, [] { contract().updateIpAllPortsAllowed("a", true); }};
  const CyberSecurityContract::LoggerHook logger = Reentrant();
  const CyberSecurityContract::ConnectionCallback registrar = Reentrant();
  for (const auto& call : calls) {
    Reentrant::onCopy = call;
    contract().setUserActivityLogger(logger);
    EXPECT_FALSE(Reentrant::onCopy) << "the setter copies the hook";
    Reentrant::onCopy = call;
    contract().setRegisterConnectionCallback(registrar);
    Reentrant::onCopy = call;
    contract().registerConnection("198.51.100.80", 1, true);
    Reentrant::onCopy = call;
    contract().setUserActivityLogger(logger);
    contract().userActivityLogger();
  }
  Reentrant::onCopy = nullptr;
  contract().setUserActivityLogger({}), contract().setRegisterConnectionCallback({});
}

}  // namespace
}  // namespace vantor
