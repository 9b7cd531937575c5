// CyberSecurityContract. The contract is a process-wide singleton: every test uses addresses of its
// own, deactivates the callbacks it connected (slots stay for the contract's lifetime) and restores
// the state it changed, so the tests pass in any order.

#include "vantor/messaging/contract_cyber_security.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "board_test_peer.hpp"
#include "test_support.hpp"

// The host's logger type, as far as these tests need one.
class Logger {
 public:
  int id = 0;
};

namespace vantor::messaging {
namespace {

using Token = CyberSecurityContract::Token;
using OptionalToken = CyberSecurityContract::OptionalToken;
const std::vector<int> kDefaultPorts = {17161, 17168, 17171, 17172, 17175, 17176, 17178};

CyberSecurityContract& contract() { return CyberSecurityContract::instance(); }

// Reads the contract's board entries directly (purges nothing when destroyed).
TestContract& board() {
  static TestContract reader("CyberSecurity", /*purgeOnDestroy=*/false);
  return reader;
}

// Puts back, at the end of a test, everything a test may change.
struct RestoresContract {
  ~RestoresContract() {
    contract().setTcpPortsVector(std::vector<int>(kDefaultPorts));
    contract().updateSecured(false);
    contract().updateSecurityToken(boost::none);
    contract().setUserActivityLogger({});
    contract().setRegisterConnectonCallback({});
  }
};

// Connects a recording callback to one of the contract's signals; it records (and runs `extra`) only
// while the Listener exists.
template <typename T>
class Listener {
 public:
  using Connect = void (CyberSecurityContract::*)(const std::function<void(T)>&);

  explicit Listener(Connect connect, std::function<void(const T&)> extra = {}) : probe_(std::make_shared<Probe>()) {
    probe_->extra = std::move(extra);
    (contract().*connect)([probe = probe_](T value) {
      if (!probe->active) return;
      {
        std::lock_guard<std::mutex> lock(probe->mutex);
        probe->values.push_back(value);
      }
      if (probe->extra) probe->extra(value);
    });
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener() { probe_->active = false; }

  std::vector<T> values() const {
    std::lock_guard<std::mutex> lock(probe_->mutex);
    return probe_->values;
  }

 private:
  struct Probe {
    std::atomic<bool> active{true};
    std::mutex mutex;
    std::vector<T> values;  // guarded by mutex
    std::function<void(const T&)> extra;
  };
  std::shared_ptr<Probe> probe_;
};

Token tokenOf(unsigned char first) {
  Token token{};
  for (std::size_t i = 0; i < token.size(); ++i) token[i] = static_cast<unsigned char>(first + i);
  return token;
}

// Records the port of every pair callback of `address`, in call order, for the ports given.
struct PortRecorder {
  std::vector<std::pair<int, bool>> calls;
  std::string address;
  PortRecorder(std::string watched, const std::vector<int>& ports) : address(std::move(watched)) {
    for (const int port : ports) {
      contract().subscribeToIpPortAllowed(address, port, [this, port](bool allowed) { calls.emplace_back(port, allowed); });
    }
  }
  ~PortRecorder() {
    for (const auto& port : std::vector<int>(kDefaultPorts)) contract().unsubscribeFromIpPortAllowed(address, port);
  }
};

// ---- security state and its signals ----------------------------------------------------------------

TEST(CyberSecurityContract, PublishesEverySecuredFlagToEveryCallbackBeforeReturning) {
  RestoresContract restore;
  Listener<bool> first(&CyberSecurityContract::connectSecuredSignal);
  Listener<bool> twice(&CyberSecurityContract::connectSecuredSignal);

  for (const bool flag : {false, true, true, false}) {
    contract().updateSecured(flag);
    EXPECT_EQ(contract().isSecured(), flag);
    EXPECT_EQ(board().get<bool>("Secured"), boost::optional<bool>(flag)) << "the getter reads the live flag";
  }

  EXPECT_EQ(first.values(), (std::vector<bool>{false, true, true, false})) << "also when unchanged";
  Listener<bool> late(&CyberSecurityContract::connectSecuredSignal);
  EXPECT_TRUE(late.values().empty()) << "connecting replays nothing";
}

TEST(CyberSecurityContract, NewCredentialsNoticeDeliversTrueAndStoresNothing) {
  RestoresContract restore;
  contract().updateSecured(true);
  Listener<bool> listener(&CyberSecurityContract::connectNewCredentialsSignal);

  contract().updateAboutNewCreds();
  contract().updateAboutNewCreds();

  EXPECT_EQ(listener.values(), (std::vector<bool>{true, true}));
  EXPECT_FALSE(BoardTestPeer::hasGetter("CyberSecurity:NewCredentials"));
  EXPECT_TRUE(contract().isSecured());
  EXPECT_FALSE(contract().getSecurityToken());
}

struct TokenCase {
  OptionalToken before;
  OptionalToken argument;
};

class CyberSecurityToken : public ::testing::TestWithParam<TokenCase> {};

TEST_P(CyberSecurityToken, SignalAlwaysCarriesBytesWhileTheAccessorTellsAClearFromZeros) {
  RestoresContract restore;
  contract().updateSecurityToken(GetParam().before);
  Listener<OptionalToken> listener(&CyberSecurityContract::connectSecurityTokenSignal);

  contract().updateSecurityToken(GetParam().argument);

  const Token published = GetParam().argument ? *GetParam().argument : Token{};
  ASSERT_EQ(listener.values().size(), 1u);
  EXPECT_TRUE(listener.values()[0] && *listener.values()[0] == published) << "an engaged optional, always";
  EXPECT_EQ(contract().getSecurityToken(), GetParam().argument);
  EXPECT_TRUE(board().get<Token>("SecurityToken") == boost::optional<Token>(published));
}

INSTANTIATE_TEST_SUITE_P(Assignments, CyberSecurityToken,
                         ::testing::Values(TokenCase{tokenOf(1), tokenOf(100)}, TokenCase{tokenOf(1), boost::none},
                                           TokenCase{boost::none, tokenOf(7)}, TokenCase{boost::none, boost::none},
                                           TokenCase{boost::none, Token{}}));

TEST(CyberSecurityContract, FailingCallbackStopsTheEmissionAfterTheNewValueIsStored) {
  RestoresContract restore;
  {
    Listener<bool> throwing(&CyberSecurityContract::connectSecuredSignal,
                            [](const bool&) { throw std::runtime_error("callback failed"); });
    Listener<bool> after(&CyberSecurityContract::connectSecuredSignal);

    EXPECT_THROW(contract().updateSecured(true), std::runtime_error);

    EXPECT_TRUE(contract().isSecured());
    EXPECT_TRUE(after.values().empty());
    EXPECT_EQ(board().get<bool>("Secured"), boost::optional<bool>(true));
  }
  contract().updateSecured(false);  // the signal's mutex was released
}

TEST(CyberSecurityContract, CallbackThatPublishesItsOwnSignalThrowsInsteadOfDeadlocking) {
  RestoresContract restore;
  int errors = 0;
  Listener<bool> reentrant(&CyberSecurityContract::connectSecuredSignal, [&errors](const bool& flag) {
    if (!flag) return;
    try {
      contract().updateSecured(true);  // feeds the signal whose callback this is
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::errc::resource_deadlock_would_occur);
      ++errors;
    }
    EXPECT_FALSE(contract().isIpSecured("198.51.100.201")) << "operations on the board work from a callback";
  });

  contract().updateSecured(true);

  EXPECT_EQ(errors, 1);
}

// ---- hooks and ports ------------------------------------------------------------------------------------

TEST(CyberSecurityContract, LoggerHookHandsOutTheHostsLoggerWhileSet) {
  RestoresContract restore;
  Logger hostLogger;
  EXPECT_THROW(contract().userActivityLogger(), std::bad_function_call);

  contract().setUserActivityLogger([&hostLogger]() -> Logger& { return hostLogger; });
  EXPECT_EQ(&contract().userActivityLogger(), &hostLogger);

  contract().setUserActivityLogger({});
  EXPECT_THROW(contract().userActivityLogger(), std::bad_function_call);
}

TEST(CyberSecurityContract, RegisterConnectionCallsTheHostCallbackOnceWhileSet) {
  RestoresContract restore;
  contract().registerConnection("198.51.100.1", 1, true);  // nothing set: nothing happens

  std::vector<std::tuple<std::string, int, bool>> calls;
  contract().setRegisterConnectonCallback(
      [&calls](const std::string& address, int port, bool allowed) { calls.emplace_back(address, port, allowed); });
  contract().registerConnection("198.51.100.1", -5, false);
  contract().setRegisterConnectonCallback({});
  contract().registerConnection("198.51.100.1", 2, true);

  EXPECT_EQ(calls, (std::vector<std::tuple<std::string, int, bool>>{{"198.51.100.1", -5, false}}));
}

TEST(CyberSecurityContract, AllPortsUpdateWalksThePortListInOrderAfterTheAddress) {
  RestoresContract restore;
  contract().updateSecured(true);
  const std::string address = "198.51.100.10";
  std::vector<bool> addressAllowedDuringWalk;
  PortRecorder recorder(address, kDefaultPorts);
  contract().subscribeToIpPortAllowed(address, 17161, [&](bool allowed) {
    recorder.calls.emplace_back(17161, allowed);
    addressAllowedDuringWalk.push_back(contract().isIpSecured(address));
  });

  contract().updateIpAllPortsAllowed(address, true);

  std::vector<std::pair<int, bool>> expected;
  for (const int port : kDefaultPorts) expected.emplace_back(port, true);
  EXPECT_EQ(recorder.calls, expected) << "the default ports, in order";
  EXPECT_EQ(addressAllowedDuringWalk, std::vector<bool>{true}) << "the address topic is published first";
  PortRecorder other("198.51.100.11", kDefaultPorts);
  contract().updateIpAllPortsAllowed(address, false);
  EXPECT_TRUE(other.calls.empty());
}

TEST(CyberSecurityContract, PortListIsCopiedAndWalkedAsItWasWhenTheWalkBegan) {
  RestoresContract restore;
  const std::string address = "198.51.100.20";
  std::vector<int> ports = {17161, 17161, -1, 17168};
  contract().setTcpPortsVector(std::move(ports));
  EXPECT_EQ(ports, (std::vector<int>{17161, 17161, -1, 17168})) << "the argument keeps its elements";  // NOLINT

  std::vector<int> walked;
  for (const int port : {17161, -1, 17168}) {
    contract().subscribeToIpPortAllowed(address, port, [&walked, port](bool) {
      walked.push_back(port);
      if (port == 17161) contract().setTcpPortsVector(std::vector<int>{17175});  // changes only later walks
    });
  }
  contract().updateIpAllPortsAllowed(address, true);
  EXPECT_EQ(walked, (std::vector<int>{17161, 17161, -1, 17168})) << "a port listed twice is published twice";

  contract().setTcpPortsVector({});
  walked.clear();
  contract().updateIpAllPortsAllowed(address, false);
  EXPECT_TRUE(walked.empty());
  EXPECT_EQ(board().get<bool>("IP:" + address), boost::optional<bool>(false)) << "only the address topic";
  for (const int port : {17161, -1, 17168}) contract().unsubscribeFromIpPortAllowed(address, port);
}

TEST(CyberSecurityContract, AllPortsUpdateStopsAtTheFirstFailingPort) {
  RestoresContract restore;
  const std::string address = "198.51.100.30";
  contract().setTcpPortsVector({1, 2, 3});
  contract().subscribeToIpPortAllowed(address, 2, [](bool) { throw std::runtime_error("listener failed"); });

  EXPECT_THROW(contract().updateIpAllPortsAllowed(address, true), std::runtime_error);

  EXPECT_TRUE(BoardTestPeer::hasGetter("CyberSecurity:IP:" + address + ":1"));
  EXPECT_TRUE(BoardTestPeer::hasGetter("CyberSecurity:IP:" + address + ":2")) << "stored before its listener ran";
  EXPECT_FALSE(BoardTestPeer::hasGetter("CyberSecurity:IP:" + address + ":3"));
  for (const int port : {1, 2}) contract().unsubscribeFromIpPortAllowed(address, port);
}

// ---- keys and allowance --------------------------------------------------------------------------------

struct KeyCase {
  std::string address;
  int port;
  std::string key;
};

class CyberSecurityKeys : public ::testing::TestWithParam<KeyCase> {};

TEST_P(CyberSecurityKeys, PortTopicJoinsAddressAndPortAsPrintedWithoutEscaping) {
  const KeyCase c = GetParam();
  std::vector<bool> received;
  contract().subscribeToIpPortAllowed(c.address, c.port, [&received](bool allowed) { received.push_back(allowed); });

  contract().updateIpPortAllowed(c.address, c.port, true);

  EXPECT_TRUE(BoardTestPeer::hasGetter(c.key));
  EXPECT_TRUE(BoardTestPeer::hasSubscriber(c.key));
  EXPECT_EQ(received, std::vector<bool>{true});
  contract().unsubscribeFromIpPortAllowed(c.address, c.port);
  EXPECT_FALSE(BoardTestPeer::hasGetter(c.key) || BoardTestPeer::hasSubscriber(c.key));
}

INSTANTIATE_TEST_SUITE_P(
    Forms, CyberSecurityKeys,
    ::testing::Values(KeyCase{"192.0.2.7", 17161, "CyberSecurity:IP:192.0.2.7:17161"},
                      KeyCase{"192.0.2.7", -1, "CyberSecurity:IP:192.0.2.7:-1"},
                      KeyCase{"", 0, "CyberSecurity:IP::0"},
                      KeyCase{"192.000.002.007", 2147483647, "CyberSecurity:IP:192.000.002.007:2147483647"},
                      KeyCase{"a b:c", -2147483647 - 1, "CyberSecurity:IP:a b:c:-2147483648"}));

TEST(CyberSecurityContract, AddressTopicOfAnAddressWithAPortIsThatPairsPortTopic) {
  RestoresContract restore;
  contract().setTcpPortsVector({});
  std::vector<bool> received;
  contract().subscribeToIpPortAllowed("192.0.2.7", 17161, [&received](bool allowed) { received.push_back(allowed); });

  contract().updateIpAllPortsAllowed("192.0.2.7:17161", true);

  EXPECT_EQ(received, std::vector<bool>{true});
  contract().unsubscribeFromIpPortAllowed("192.0.2.7", 17161);
}

TEST(CyberSecurityContract, PairListenerGetsThePublishedFlagFirstAndEveryLaterOne) {
  const std::string address = "198.51.100.40";
  std::vector<int> received;  // 10 + flag for the first listener, 20 + flag for the second
  contract().updateIpPortAllowed(address, 17161, true);
  contract().subscribeToIpPortAllowed(address, 17161, [&received](bool allowed) { received.push_back(10 + allowed); });
  contract().updateIpPortAllowed(address, 17161, true);
  contract().updateIpPortAllowed(address, 17168, false);  // another pair
  contract().subscribeToIpPortAllowed(address, 17161, [&received](bool allowed) { received.push_back(20 + allowed); });
  contract().updateIpPortAllowed(address, 17161, false);

  EXPECT_EQ(received, (std::vector<int>{11, 11, 21, 20}));
  contract().unsubscribeFromIpPortAllowed(address, 17161);
  contract().unsubscribeFromIpPortAllowed(address, 17168);
}

TEST(CyberSecurityContract, WithdrawingAPairKeepsTheAddressAllowanceAndEndsInitialDeliveries) {
  RestoresContract restore;
  contract().updateSecured(true);
  const std::string address = "198.51.100.50";
  contract().unsubscribeFromIpPortAllowed(address, 17161);  // nothing there: nothing happens
  contract().updateIpAllPortsAllowed(address, true);

  contract().unsubscribeFromIpPortAllowed(address, 17161);

  EXPECT_TRUE(contract().isIpSecured(address));
  int calls = 0;
  contract().subscribeToIpPortAllowed(address, 17161, [&calls](bool) { ++calls; });
  EXPECT_EQ(calls, 0);
  for (const int port : kDefaultPorts) contract().unsubscribeFromIpPortAllowed(address, port);
}

TEST(CyberSecurityContract, EmptyPairCallbackFailsAtOnceIfPublishedOtherwiseAtEveryPublication) {
  const std::string address = "198.51.100.60";
  // Published pair: the initial delivery fails and the earlier listener stays.
  std::vector<bool> earlier;
  contract().updateIpPortAllowed(address, 1, true);
  contract().subscribeToIpPortAllowed(address, 1, [&earlier](bool allowed) { earlier.push_back(allowed); });
  EXPECT_THROW(contract().subscribeToIpPortAllowed(address, 1, {}), std::bad_function_call);
  contract().updateIpPortAllowed(address, 1, false);
  EXPECT_EQ(earlier, (std::vector<bool>{true, false}));

  // Unpublished pair: the empty listener is stored, and each publication fails after storing its flag.
  contract().subscribeToIpPortAllowed(address, 2, {});
  EXPECT_THROW(contract().updateIpPortAllowed(address, 2, true), std::bad_function_call);
  EXPECT_EQ(board().get<bool>("IP:" + address + ":2"), boost::optional<bool>(true));
  contract().unsubscribeFromIpPortAllowed(address, 2);
  contract().updateIpPortAllowed(address, 2, true);  // withdrawn: no failure any more
  for (const int port : {1, 2}) contract().unsubscribeFromIpPortAllowed(address, port);
}

// The state of an address topic, against which isIpSecured is judged.
enum class Address { Never, OnlyPortsAllowed, Allowed, Denied };

struct SecuredCase {
  bool secured;
  Address address;
  bool expected;
};

class CyberSecurityIsIpSecured : public ::testing::TestWithParam<SecuredCase> {};

TEST_P(CyberSecurityIsIpSecured, FollowsTheSecuredFlagAndTheAddressTopicOnly) {
  RestoresContract restore;
  const SecuredCase c = GetParam();
  const std::string address = "198.51.100." + std::to_string(100 + static_cast<int>(c.address));
  switch (c.address) {
    case Address::Never: break;
    case Address::OnlyPortsAllowed:
      for (const int port : kDefaultPorts) contract().updateIpPortAllowed(address, port, true);
      break;
    case Address::Allowed: contract().updateIpAllPortsAllowed(address, true); break;
    case Address::Denied: contract().updateIpAllPortsAllowed(address, false); break;
  }
  contract().updateSecured(c.secured);

  EXPECT_EQ(contract().isIpSecured(address), c.expected);
  for (const int port : kDefaultPorts) contract().unsubscribeFromIpPortAllowed(address, port);
}

INSTANTIATE_TEST_SUITE_P(TruthTable, CyberSecurityIsIpSecured,
                         ::testing::Values(SecuredCase{false, Address::Never, true},
                                           SecuredCase{false, Address::Denied, true},
                                           SecuredCase{true, Address::Never, false},
                                           SecuredCase{true, Address::OnlyPortsAllowed, false},
                                           SecuredCase{true, Address::Allowed, true},
                                           SecuredCase{true, Address::Denied, false}));

// ---- threads --------------------------------------------------------------------------------------------

TEST(CyberSecurityContract, HostThreadsUsingEveryOperationAtOnceLoseNoCall) {
  constexpr int kRounds = 1500;
  RestoresContract restore;
  const std::string address = "198.51.100.70";
  std::atomic<int> registered{0};
  std::atomic<int> portCalls[2] = {{0}, {0}};
  const auto countRegistrations = [&registered](const std::string&, int, bool) { ++registered; };
  contract().setRegisterConnectonCallback(countRegistrations);
  contract().setTcpPortsVector({1, 2});
  for (int port : {1, 2}) {
    contract().subscribeToIpPortAllowed(address, port, [&portCalls, port](bool) { ++portCalls[port - 1]; });
  }

  testing::runTogether(5, [&](std::size_t index) {
    for (int round = 0; round < kRounds; ++round) {
      switch (index) {
        case 0: contract().updateIpAllPortsAllowed(address, round % 2 == 0); break;
        case 1: contract().setTcpPortsVector(round % 2 == 0 ? std::vector<int>{2, 1} : std::vector<int>{1, 2}); break;
        case 2: contract().updateSecured(round % 2 == 0); break;
        case 3: contract().isIpSecured(address); break;
        case 4:
          contract().setRegisterConnectonCallback(countRegistrations);
          contract().registerConnection(address, round, true);
          break;
      }
    }
  });

  EXPECT_EQ(registered, kRounds);
  EXPECT_EQ(portCalls[0], kRounds);
  EXPECT_EQ(portCalls[1], kRounds);
  for (int port : {1, 2}) contract().unsubscribeFromIpPortAllowed(address, port);
}

}  // namespace
}  // namespace vantor::messaging
