// Allocations. This executable replaces the global operator new to count the allocations of the
// calling thread, and to make its Nth allocation throw std::bad_alloc while a call under test runs.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "test_support.hpp"

static thread_local long allocations = 0, failAt = 0;  // failAt: armed while not 0

// Replaced at link time, so kept out of line: g++ would inline delete's free() beside an out-of-line new and warn.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (++allocations == failAt) failAt = 0, throw std::bad_alloc();  // what unwinds may allocate
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

class Logger {};
Logger theLogger;

namespace vantor::messaging {

CyberSecurityContract& cs = CyberSecurityContract::instance();
// Every key built from the address is too long for a std::string to hold in place.
const std::string kAddress = "198.51.100.77", kAddressKey = "CyberSecurity:IP:" + kAddress;
const std::vector<int> kPorts = {1, 2, 3};
tessel::Signal<int> slots;
std::vector<int> received = std::vector<int>(64);  // room for every call's deliveries; cleared before a call
const auto recorder = [](int id) { return [id](auto&&...) { received.push_back(id); }; };
tessel::ScopedConnection first, added;       // secured-signal slots: the arrangement's, and the one a connect added
const auto owner = std::make_shared<int>();  // of the tracked slots
void arrangeSlots(int count, bool tracked = false) {  // `count` recorders, ids 1, 2, ...
  slots.disconnectAll();
  for (int id = 1; id <= count; ++id) tracked ? slots.connect(recorder(id), owner) : slots.connect(recorder(id));
}
void sweepPairs() { TestContract sweeper("CyberSecurity:IP:"); }  // its purge removes every address and pair topic
void arrangePair() {
  sweepPairs(), cs.updateIpPortAllowed(kAddress, 1, true), cs.subscribeToIpPortAllowed(kAddress, 1, recorder(1));
}
void arrangeSecured() { first = cs.connectSecuredSignalWithHandle(recorder(1)), added = tessel::ScopedConnection(); }
void expectPublishedPrefix() {  // of the walk: the address topic, then the ports
  std::vector<bool> published = {BoardTestPeer::hasGetter(kAddressKey)};
  for (int port : kPorts) published.push_back(BoardTestPeer::hasGetter(kAddressKey + ":" + std::to_string(port)));
  EXPECT_TRUE(std::is_sorted(published.rbegin(), published.rend())) << "only a prefix of the walk was published";
}

// A call under test. `budget` is the most allocations it may make on existing keys: building each key is
// one (keys are built afresh on every call), and nothing else allocates for a callable that fits in place.
// After a failed call, `republish` (run unarmed) must reach exactly the callback that `arrange` installed,
// and `promise` checks what else the call guarantees.
struct Operation {
  const char* name;
  long budget;
  std::function<void()> arrange, act, republish = nullptr, promise = nullptr;
};
void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

const Operation kOperations[] = {
    {"Signal_connect", 3 /* the list entry, its Status, the Status's count */, [] { arrangeSlots(1); },
     [] { slots.connect(recorder(2)); }, [] { slots.emit(0); }},
    {"Signal_emit_with_64_slots", 0, [] { arrangeSlots(64); }, [] { slots.emit(0); }},
    {"Signal_emit_with_64_tracked_slots", 0, [] { arrangeSlots(64, true); }, [] { slots.emit(0); }},
    {"CyberSecurityContract_connectSecuredSignalWithHandle", 3, arrangeSecured,
     [] { added = cs.connectSecuredSignalWithHandle(recorder(2)); }, [] { cs.updateSecured(false); }},
    {"CyberSecurityContract_updateSecured", 1, [] { arrangeSecured(), cs.updateSecured(false); },
     [] { cs.updateSecured(true); }, nullptr, [] { EXPECT_TRUE(cs.isSecured()) << "stored before it is published"; }},
    {"CyberSecurityContract_updateAboutNewCreds", 1, nullptr, [] { cs.updateAboutNewCreds(); }},
    {"CyberSecurityContract_updateSecurityToken", 1, [] { cs.updateSecurityToken(boost::none); },
     [] { cs.updateSecurityToken(CyberSecurityContract::Token{7}); }, nullptr,
     [] { EXPECT_TRUE(cs.getSecurityToken() && cs.getSecurityToken()->front() == 7) << "stored first"; }},
    {"CyberSecurityContract_updateIpPortAllowed", 1, arrangePair, [] { cs.updateIpPortAllowed(kAddress, 1, false); },
     [] { cs.updateIpPortAllowed(kAddress, 1, true); }},
    {"CyberSecurityContract_subscribeToIpPortAllowed", 1, arrangePair,
     [] { cs.subscribeToIpPortAllowed(kAddress, 1, recorder(2)); }, [] { cs.updateIpPortAllowed(kAddress, 1, true); }},
    {"CyberSecurityContract_updateIpAllPortsAllowed", 5 /* the address, three ports, and the port list's copy */,
     [] { sweepPairs(), cs.setTcpPortsVector(std::vector<int>(kPorts)); },
     [] { cs.updateIpAllPortsAllowed(kAddress, true); }, nullptr, expectPublishedPrefix},
    {"CyberSecurityContract_unsubscribeFromIpPortAllowed", 1, arrangePair,
     [] { cs.unsubscribeFromIpPortAllowed(kAddress, 1); }, nullptr,
     [] { EXPECT_EQ(BoardTestPeer::entries()[kAddressKey + ":1"].size() % 2, 0u) << "both entries or none"; }},
    {"CyberSecurityContract_isIpSecured", 1, [] { cs.updateSecured(true); }, [] { cs.isIpSecured(kAddress); }},
    {"CyberSecurityContract_hooks_and_ports", 4 /* each hook's shared copy, the port list and its copy */, nullptr,
     [] {
       cs.setUserActivityLogger([]() -> Logger& { return theLogger; }), cs.setRegisterConnectionCallback(recorder(1));
       cs.setTcpPortsVector(std::vector<int>(kPorts)), cs.userActivityLogger(), cs.registerConnection("a", 1, true);
     }},
};

class Library : public ::testing::TestWithParam<Operation> {};

TEST_P(Library, StaysWithinItsAllocationBudgetAndKeepsItsPromisesWhereverAnAllocationFails) {
  const Operation& operation = GetParam();
  if (operation.arrange) operation.arrange();
  operation.act();  // once, to create whatever a first call creates
  received.clear(), allocations = 0;
  operation.act();
  EXPECT_LE(allocations, operation.budget) << "allocations of a call on existing keys";
  for (long n = 1; failAt == 0 && !HasFailure(); ++n) {  // allocation n fails, until the call completes first
    SCOPED_TRACE("allocation " + std::to_string(n) + " failed");
    if (operation.arrange) operation.arrange();
    received.clear(), allocations = 0, failAt = n;
    try {
      operation.act();
    } catch (const std::bad_alloc&) {  // which disarmed failAt
      EXPECT_TRUE(BoardTestPeer::lockIsFree());
      received.clear();
      if (operation.republish) operation.republish();
      EXPECT_TRUE(!operation.republish || received == std::vector<int>{1}) << "the earlier callback stays, none added";
      if (operation.promise) operation.promise();
      operation.act();
    }
  }
  failAt = 0;
}

INSTANTIATE_TEST_SUITE_P(AllocationFailures, Library, ::testing::ValuesIn(kOperations),
                         [](const auto& param) { return std::string(param.param.name); });

}  // namespace vantor::messaging
