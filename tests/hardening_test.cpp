// Regressions found by outside testing: host code under the contract's lock, blockers released out of
// order, a token left in memory, and errors that did not name what the host called.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

#include "board_test_peer.hpp"
#include "vantor/messaging/contract_cyber_security.hpp"

class Logger {};

namespace vantor {
namespace {

using messaging::CyberSecurityContract;
CyberSecurityContract& contract() { return CyberSecurityContract::instance(); }

// A host callable whose copy constructor calls the contract once: the contract must never copy it
// while holding a lock of its own.
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

class CyberSecurityHookCopy : public ::testing::TestWithParam<std::pair<const char*, std::function<void()>>> {};

TEST_P(CyberSecurityHookCopy, MayCallTheContractFromAHostCallablesCopyConstructor) {
  const CyberSecurityContract::LoggerHook logger = Reentrant();
  const CyberSecurityContract::ConnectionCallback callback = Reentrant();

  Reentrant::onCopy = GetParam().second;
  contract().setUserActivityLogger(logger);
  EXPECT_FALSE(Reentrant::onCopy) << "the setter copies the hook, outside the contract's lock";
  Reentrant::onCopy = GetParam().second;
  contract().setRegisterConnectionCallback(callback);
  // Using a hook may copy it too, but never under a lock the copy constructor needs.
  Reentrant::onCopy = GetParam().second;
  contract().registerConnection("198.51.100.80", 1, true);
  Reentrant::onCopy = GetParam().second;
  contract().setUserActivityLogger(logger);
  contract().userActivityLogger();

  Reentrant::onCopy = nullptr;
  contract().setUserActivityLogger({});
  contract().setRegisterConnectionCallback({});
  contract().setTcpPortsVector({17161, 17168, 17171, 17172, 17175, 17176, 17178});
}

INSTANTIATE_TEST_SUITE_P(
    Operations, CyberSecurityHookCopy,
    ::testing::Values(std::make_pair("setTcpPortsVector", [] { contract().setTcpPortsVector({1}); }),
                      std::make_pair("registerConnection", [] { contract().registerConnection("a", 1, true); }),
                      std::make_pair("setUserActivityLogger", [] { contract().setUserActivityLogger({}); }),
                      std::make_pair("updateIpAllPortsAllowed", [] { contract().updateIpAllPortsAllowed("a", true); })),
    [](const auto& param) { return std::string(param.param.first); });

// Blockers released in every order, mixed with block()/unblock(): the slot is blocked exactly while
// block() is in force or a blocker lives.
TEST(ConnectionBlocker, KeepsTheSlotBlockedUntilTheLastBlockerGoesInAnyReleaseOrder) {
  tessel::Signal<int> signal;
  int calls = 0;
  const tessel::Connection slot = signal.connect([&calls](int) { ++calls; });
  for (const int blockers : {2, 3}) {
    std::vector<int> order(blockers);
    for (int i = 0; i < blockers; ++i) order[i] = i;
    do {
      for (const bool blockCalled : {false, true}) {
        std::vector<std::unique_ptr<tessel::ConnectionBlocker>> alive;
        for (int i = 0; i < blockers; ++i) alive.push_back(std::make_unique<tessel::ConnectionBlocker>(slot));
        if (blockCalled) slot.block();
        for (int released = 0; released < blockers; ++released) {
          alive[order[released]].reset();
          const bool expected = blockCalled || released + 1 < blockers;
          const int before = calls;
          signal.emit(0);
          EXPECT_EQ(slot.blocked(), expected) << blockers << " blockers, " << released + 1 << " released";
          EXPECT_EQ(calls - before, expected ? 0 : 1);
        }
        slot.unblock();
        EXPECT_FALSE(slot.blocked());
      }
    } while (std::next_permutation(order.begin(), order.end()));
  }
}

TEST(CyberSecurityContract, WipesTheTokenStorageWhenTheTokenIsCleared) {
  CyberSecurityContract::Token token;
  token.fill(0xA5);
  contract().updateSecurityToken(token);

  contract().updateSecurityToken(boost::none);

  const auto* bytes = reinterpret_cast<const unsigned char*>(&contract().getSecurityToken());
  EXPECT_EQ(std::count(bytes, bytes + sizeof(CyberSecurityContract::OptionalToken), 0xA5), 0);
}

// Errors name the public operation that was called and the lock it would have waited for.
struct ReentryCase {
  const char* name;
  std::function<void()> arrange;  // connects or subscribes a callback that runs `reenter`
  std::vector<const char*> mentions;
};

class CyberSecurityReentry : public ::testing::TestWithParam<ReentryCase> {};

TEST_P(CyberSecurityReentry, NamesTheOperationAndTheLockItWouldHaveWaitedFor) {
  std::string message;
  try {
    GetParam().arrange();
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::resource_deadlock_would_occur);
    message = error.what();
  }
  for (const char* mention : GetParam().mentions) EXPECT_NE(message.find(mention), std::string::npos) << message;
  EXPECT_TRUE(messaging::BoardTestPeer::lockIsFree());
}

INSTANTIATE_TEST_SUITE_P(
    Calls, CyberSecurityReentry,
    ::testing::Values(
        ReentryCase{"UpdateSecuredDuringAnInitialDelivery",
                    [] {
                      contract().updateIpPortAllowed("198.51.100.81", 1, true);
                      contract().subscribeToIpPortAllowed("198.51.100.81", 1,
                                                          [](bool) { contract().updateSecured(false); });
                    },
                    {"updateSecured", "the message board's lock", "subscribeToIpPortAllowed"}},
        ReentryCase{"ConnectFromItsOwnSignal",
                    [] {
                      tessel::ScopedConnection scoped = contract().connectNewCredentialsSignalWithHandle(
                          [](bool) { contract().connectNewCredentialsSignal([](bool) {}); });
                      contract().updateAboutNewCreds();
                    },
                    {"connectNewCredentialsSignal", "the new-credentials signal's lock", "updateAboutNewCreds"}}),
    [](const auto& param) { return std::string(param.param.name); });

}  // namespace
}  // namespace vantor
