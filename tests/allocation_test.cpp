// Allocations. This executable replaces the global operator new to count the allocations of the
// calling thread, and to make its Nth allocation throw std::bad_alloc while a measured call runs.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "test_support.hpp"
#include "vantor/messaging/contract_cyber_security.hpp"

class Logger {};

namespace {
thread_local long allocations = 0, failAt = 0;  // failAt: armed while not 0
}  // namespace

void* operator new(std::size_t size) {
  if (++allocations == failAt) failAt = 0, throw std::bad_alloc();  // what unwinds may allocate
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace vantor::messaging {
namespace {

CyberSecurityContract& cs() { return CyberSecurityContract::instance(); }
long allocationsDuring(const std::function<void()>& call) {
  const long before = allocations;
  call();
  return allocations - before;
}

struct Figure {
  const char* operation;
  std::function<void()> call;
  long allocations;  // the most it may make
};
void PrintTo(const Figure& figure, std::ostream* out) { *out << figure.operation; }
class Allocations : public ::testing::TestWithParam<Figure> {};

// Every key below is longer than a std::string holds in place, so building it costs the one
// allocation that the protocol requires (keys are built afresh on every call). Nothing else
// allocates: stored getters are replaced in place, and the delivery's copy of a subscriber whose
// callable fits std::function's own buffer does not allocate.
TEST_P(Allocations, OfAnOperationOnAnExistingKeyAreAtMostTheKeyAndADeliveryCopy) {
  static const tessel::ScopedConnection secured = cs().connectSecuredSignalWithHandle([](bool) {});
  cs().updateSecured(true), cs().updateIpPortAllowed("198.51.100.4", 17161, true);
  cs().updateIpAllPortsAllowed("198.51.100.4", true), cs().updateIpPortAllowed("198.51.100.5", 17161, true);
  cs().subscribeToIpPortAllowed("198.51.100.5", 17161, [](bool) {});
  GetParam().call();  // once to create whatever the first call creates
  EXPECT_LE(allocationsDuring(GetParam().call), GetParam().allocations);
}

INSTANTIATE_TEST_SUITE_P(
    Figures, Allocations,
    ::testing::Values(
        Figure{"UpdateSecuredWithACallback", [] { cs().updateSecured(true); }, 1},
        Figure{"UpdateAboutNewCreds", [] { cs().updateAboutNewCreds(); }, 1},
        Figure{"UpdateSecurityToken", [] { cs().updateSecurityToken(CyberSecurityContract::Token{}); }, 1},
        Figure{"UpdateIpPortAllowedWithoutSubscriber", [] { cs().updateIpPortAllowed("198.51.100.4", 17161, true); },
               1},
        Figure{"UpdateIpPortAllowedWithSubscriber", [] { cs().updateIpPortAllowed("198.51.100.5", 17161, true); }, 1},
        Figure{"SubscribeToIpPortAllowedOnAPublishedPair",
               [] { cs().subscribeToIpPortAllowed("198.51.100.5", 17161, [](bool) {}); }, 1},
        Figure{"IsIpSecured", [] { cs().isIpSecured("198.51.100.4"); }, 1},
        // The address, then the seven default ports: eight keys, and the copy of the port list walked.
        Figure{"UpdateIpAllPortsAllowed", [] { cs().updateIpAllPortsAllowed("198.51.100.4", true); }, 9}),
    [](const auto& param) { return std::string(param.param.operation); });

TEST(Signal, EmissionWithSixtyFourSlotsAllocatesNothing) {
  tessel::Signal<bool> signal;
  int calls = 0;
  for (int i = 0; i < 64; ++i) signal.connect([&calls](bool) { ++calls; });
  signal.emit(true);  // a first emission, so nothing lazily set up is counted
  bool value = true;
  EXPECT_EQ(allocationsDuring([&] { signal.emit(value); }), 0);
  EXPECT_EQ(calls, 128);
}

// ---- allocation failures: each operation runs with its Nth allocation failing, N = 1, 2, ... until it
// completes. After each failure the lock is free, the promise holds, and the next call completes.

const std::string kTopic = "a-topic-long-enough-to-allocate", kAddress = "198.51.100.77";
TestContract& board() {
  static TestContract contract("Fault");
  return contract;
}
tessel::Signal<int> slots;
std::vector<int> received = std::vector<int>(64);  // cleared, never reallocated
auto recorder(int id) {
  return [id](auto&&...) { received.push_back(id); };
}
Logger theLogger;
void arrangeKey() {
  board().unsubscribe(kTopic), board().update<int>(kTopic, [] { return 1; }),
      board().subscribe<int>(kTopic, recorder(1));
}
void arrangePair() {
  { TestContract sweep("CyberSecurity:IP:"); }  // its purge removes every address and pair topic
  cs().updateIpPortAllowed(kAddress, 1, true), cs().subscribeToIpPortAllowed(kAddress, 1, recorder(1));
}
// Publishes unarmed: only the recorder that the arrangement installed may receive it.
void expectFirstOnly(const std::function<void()>& publish) {
  received.clear(), publish();
  EXPECT_EQ(received, std::vector<int>{1}) << "the earlier callback stays, and no other was added";
}
// What a failed walk left: the address topic, then the ports, published up to some point and no further.
void expectPublishedPrefix() {
  const std::string prefix = "CyberSecurity:IP:" + kAddress;
  std::vector<bool> published;
  for (const std::string suffix : {"", ":1", ":2", ":3"})
    published.push_back(BoardTestPeer::hasGetter(prefix + suffix));
  EXPECT_TRUE(std::is_sorted(published.rbegin(), published.rend())) << "only a prefix of the walk was published";
}
void expectBothOrNeither(const std::string& key) {
  EXPECT_EQ(BoardTestPeer::hasGetter(key), BoardTestPeer::hasSubscriber(key));
}

struct Operation {
  const char* name;
  std::function<void()> arrange, act, promise;  // promise: checks the state after a failed act
};
void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }
std::shared_ptr<int> calls;  // of the slot that a connect under test connects
const Operation kOperations[] = {
    {"Signal_connect", [] { slots.disconnectAll(), slots.connect(recorder(1)); }, [] { slots.connect(recorder(2)); },
     [] { expectFirstOnly([] { slots.emit(0); }); }},
    {"Signal_emit_disconnectAll_and_handles",
     [] { slots.connect(recorder(1)); },
     [] {
       tessel::ScopedConnection scoped = slots.connect(recorder(1));
       tessel::ConnectionBlocker blocker(scoped.connection());
       slots.emit(0), slots.disconnectAll();
     },
     {}},
    {"Board_update", arrangeKey, [] { board().update<int>(kTopic, [] { return 2; }); },
     [] { expectFirstOnly([] { board().notify<int>(kTopic, 0); }); }},
    {"Board_notify_get", arrangeKey, [] { board().notify<int>(kTopic, 3), board().get<int>(kTopic); },
     [] { expectFirstOnly([] { board().notify<int>(kTopic, 0); }); }},
    {"Board_subscribe", arrangeKey, [] { board().subscribe<int>(kTopic, recorder(2)); },
     [] { expectFirstOnly([] { board().notify<int>(kTopic, 0); }); }},
    {"Board_unsubscribe", arrangeKey, [] { board().unsubscribe(kTopic); },
     [] { expectBothOrNeither(board().key(kTopic)); }},
    {"CyberSecurityContract_connectSecuredSignal", [] { calls = std::make_shared<int>(0); },
     [] { cs().connectSecuredSignal([count = calls](bool) { ++*count; }); },
     [] {
       cs().updateSecured(false);
       EXPECT_EQ(*calls, 0) << "a failed connect appends nothing";
     }},
    {"CyberSecurityContract_updateSecured", [] { cs().updateSecured(false); }, [] { cs().updateSecured(true); },
     [] { EXPECT_TRUE(cs().isSecured()) << "stored before it is published"; }},
    {"CyberSecurityContract_updateSecurityToken", [] { cs().updateSecurityToken(boost::none); },
     [] { cs().updateSecurityToken(CyberSecurityContract::Token{7}); },
     [] { EXPECT_TRUE(cs().getSecurityToken() && cs().getSecurityToken()->front() == 7) << "stored first"; }},
    {"CyberSecurityContract_updateIpPortAllowed", arrangePair, [] { cs().updateIpPortAllowed(kAddress, 1, false); },
     [] { expectFirstOnly([] { cs().updateIpPortAllowed(kAddress, 1, true); }); }},
    {"CyberSecurityContract_subscribeToIpPortAllowed", arrangePair,
     [] { cs().subscribeToIpPortAllowed(kAddress, 1, recorder(2)); },
     [] { expectFirstOnly([] { cs().updateIpPortAllowed(kAddress, 1, true); }); }},
    {"CyberSecurityContract_updateIpAllPortsAllowed",
     [] {
       { TestContract sweep("CyberSecurity:IP:"); }
       cs().setTcpPortsVector({1, 2, 3});
     },
     [] { cs().updateIpAllPortsAllowed(kAddress, true); }, expectPublishedPrefix},
    {"CyberSecurityContract_unsubscribeFromIpPortAllowed", arrangePair,
     [] { cs().unsubscribeFromIpPortAllowed(kAddress, 1); },
     [] { expectBothOrNeither("CyberSecurity:IP:" + kAddress + ":1"); }},
    {"CyberSecurityContract_hooks_and_ports",
     [] {
       cs().setTcpPortsVector({2, 3});
     },
     [] {
       cs().setUserActivityLogger([]() -> Logger& { return theLogger; }), cs().userActivityLogger();
       cs().setRegisterConnectonCallback(recorder(1)), cs().registerConnection(kAddress, 1, true);
       cs().updateSecured(true), cs().updateIpAllPortsAllowed(kAddress, true), cs().isIpSecured(kAddress);
       cs().setTcpPortsVector({1, 2, 3, 4, 5});
     },
     {}},
};

class Library : public ::testing::TestWithParam<Operation> {};

TEST_P(Library, ThrowsBadAllocAndKeepsItsPromisesWhereverAnAllocationFails) {
  const Operation& operation = GetParam();
  for (long n = 1; n < 1000; ++n) {
    SCOPED_TRACE("allocation " + std::to_string(n) + " failed");
    if (operation.arrange) operation.arrange();
    received.clear(), allocations = 0, failAt = n;
    const bool completed = [&] {
      try {
        return operation.act(), true;
      } catch (const std::bad_alloc&) {
        return false;
      }
    }();
    if (std::exchange(failAt, 0), completed) return;
    EXPECT_TRUE(BoardTestPeer::lockIsFree());
    if (operation.promise) operation.promise();
    operation.act();
    if (HasFailure()) return;
  }
  FAIL() << "still failing after 1000 allocations";
}

INSTANTIATE_TEST_SUITE_P(AllocationFailures, Library, ::testing::ValuesIn(kOperations),
                         [](const auto& param) { return std::string(param.param.name); });

}  // namespace
}  // namespace vantor::messaging
