// Allocation failures. This executable replaces the global operator new so that, while one measured
// call runs, the Nth allocation of the calling thread throws std::bad_alloc. Every public operation is
// run with N = 1, 2, ... until it completes. After each failure: the exception was std::bad_alloc, the
// board lock is free, the state is what failure handling promises, and the next call completes.

#include <gtest/gtest.h>

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
thread_local long failAt = 0;  // armed while not 0, only inside the measured call
thread_local long allocations = 0;
}  // namespace

void* operator new(std::size_t size) {
  if (failAt != 0 && ++allocations == failAt) {
    failAt = 0;  // what runs while the failure unwinds may allocate
    throw std::bad_alloc();
  }
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace vantor::messaging {
namespace {

// True when `call` completes although its Nth allocation fails (it made fewer than N).
bool completesWhenAllocationFails(long n, const std::function<void()>& call) {
  allocations = 0;
  failAt = n;
  try {
    call();
  } catch (const std::bad_alloc&) {
    failAt = 0;
    return false;
  } catch (...) {
    failAt = 0;
    throw;
  }
  failAt = 0;
  return true;
}

struct Operation {
  const char* name;
  std::function<void()> arrange, act, promise;  // promise: checks the state after a failed act
};
void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

// Long enough that keys do not fit a string's own buffer.
const std::string kTopic = "a-topic-long-enough-to-allocate", kAddress = "198.51.100.77";
const std::string kPair = "CyberSecurity:IP:" + kAddress + ":1";
CyberSecurityContract& cs() { return CyberSecurityContract::instance(); }
TestContract& board() {
  static TestContract contract("Fault");  // destroyed, and purged, before the library's board
  return contract;
}
tessel::Signal<int> slots;
std::unique_ptr<TestContract> purged;
std::vector<int> received = std::vector<int>(64);  // written by callbacks: cleared, never reallocated
auto recorder(int id) {
  return [id](auto&&...) { received.push_back(id); };
}
std::shared_ptr<int> calls;  // of the callback that a connect under test connects
auto counter() {
  return [count = calls](auto&&...) { ++*count; };
}
Logger logger;

void arrangeKey() {
  board().unsubscribe(kTopic);
  board().update<int>(kTopic, [] { return 1; });
  board().subscribe<int>(kTopic, recorder(1));
  received.clear();
}
void arrangePair() {
  { TestContract sweep("CyberSecurity:IP:"); }  // its purge removes every address and pair topic
  cs().updateIpPortAllowed(kAddress, 1, true);
  cs().subscribeToIpPortAllowed(kAddress, 1, recorder(1));
  received.clear();
}
// Publishes unarmed: only the recorder that the arrangement installed may receive it.
void expectFirstOnly(const std::function<void()>& publish) {
  received.clear();
  publish();
  EXPECT_EQ(received, std::vector<int>{1}) << "the earlier callback stays, and no other was added";
}
void expectNoCall(const std::function<void()>& publish) {
  publish();
  EXPECT_EQ(*calls, 0) << "a failed connect appends nothing";
}
void expectBothOrNeither(const std::string& key) {
  EXPECT_EQ(BoardTestPeer::hasGetter(key), BoardTestPeer::hasSubscriber(key));
}
void newCounter() { calls = std::make_shared<int>(0); }
Logger& theLogger() { return logger; }

const Operation kOperations[] = {
    {"Signal_connect", [] { slots.disconnectAll(), slots.connect(recorder(1)); }, [] { slots.connect(recorder(2)); },
     [] { expectFirstOnly([] { slots.emit(0); }); }},
    {"Signal_emit", [] { slots.disconnectAll(), slots.connect(recorder(1)); }, [] { slots.emit(0); }, {}},
    {"Signal_disconnectAll", [] { slots.connect(recorder(1)); }, [] { slots.disconnectAll(); }, {}},
    {"Connection_ScopedConnection_ConnectionBlocker", {},
     [] {
       tessel::ScopedConnection scoped = slots.connect(recorder(1));  // allocates before the noexcept handles
       const tessel::Connection& connection = scoped.connection();
       tessel::ConnectionBlocker blocker(connection);
       connection.block(), connection.unblock(), connection.disconnect();
       (void)(connection.connected() || connection.blocked() || connection == tessel::Connection());
     },
     {}},
    {"Board_update", arrangeKey, [] { board().update<int>(kTopic, [] { return 2; }); },
     [] {
       const int value = board().get<int>(kTopic).value_or(0);
       EXPECT_TRUE(value == 1 || value == 2) << "the previous getter or the new one";
       expectFirstOnly([] { board().notify<int>(kTopic, 0); });
     }},
    {"Board_notify", arrangeKey, [] { board().notify<int>(kTopic, 3); },
     [] { expectFirstOnly([] { board().notify<int>(kTopic, 0); }); }},
    {"Board_subscribe", arrangeKey, [] { board().subscribe<int>(kTopic, recorder(2)); },
     [] { expectFirstOnly([] { board().notify<int>(kTopic, 0); }); }},
    {"Board_unsubscribe", arrangeKey, [] { board().unsubscribe(kTopic); },
     [] { expectBothOrNeither(board().key(kTopic)); }},
    {"Board_get", arrangeKey, [] { board().get<int>(kTopic); }, {}},
    {"Board_purgeOnDestruction",
     [] { purged = std::make_unique<TestContract>("FaultPurge"), purged->update<int>(kTopic, [] { return 1; }); },
     [] { purged.reset(); }, {}},
    {"CyberSecurityContract_instance", {}, [] { CyberSecurityContract::instance(); }, {}},
    {"CyberSecurityContract_connectSecuredSignal", newCounter, [] { cs().connectSecuredSignal(counter()); },
     [] { expectNoCall([] { cs().updateSecured(false); }); }},
    {"CyberSecurityContract_connectNewCredentialsSignal", newCounter,
     [] { cs().connectNewCredentialsSignal(counter()); },
     [] { expectNoCall([] { cs().updateAboutNewCreds(); }); }},
    {"CyberSecurityContract_connectSecurityTokenSignal", newCounter, [] { cs().connectSecurityTokenSignal(counter()); },
     [] { expectNoCall([] { cs().updateSecurityToken(boost::none); }); }},
    {"CyberSecurityContract_updateSecured", [] { cs().updateSecured(false); }, [] { cs().updateSecured(true); },
     [] { EXPECT_TRUE(cs().isSecured()) << "stored before it is published"; }},
    {"CyberSecurityContract_updateAboutNewCreds", {}, [] { cs().updateAboutNewCreds(); }, {}},
    {"CyberSecurityContract_updateSecurityToken", [] { cs().updateSecurityToken(boost::none); },
     [] { cs().updateSecurityToken(CyberSecurityContract::Token{7}); },
     [] { EXPECT_TRUE(cs().getSecurityToken() && cs().getSecurityToken()->front() == 7) << "stored first"; }},
    {"CyberSecurityContract_isSecured_getSecurityToken", {}, [] { cs().isSecured(), cs().getSecurityToken(); }, {}},
    {"CyberSecurityContract_updateIpPortAllowed", arrangePair, [] { cs().updateIpPortAllowed(kAddress, 1, false); },
     [] { expectFirstOnly([] { cs().updateIpPortAllowed(kAddress, 1, true); }); }},
    {"CyberSecurityContract_updateIpAllPortsAllowed", [] { arrangePair(), cs().setTcpPortsVector({2, 3, 4}); },
     [] { cs().updateIpAllPortsAllowed(kAddress, true); },
     [] {
       bool published = true;  // what is published is a prefix of: the address, then each port
       for (const std::string topic : {"", ":2", ":3", ":4"}) {
         const bool stored = BoardTestPeer::hasGetter("CyberSecurity:IP:" + kAddress + topic);
         EXPECT_TRUE(published || !stored) << topic;
         published = published && stored;
       }
     }},
    {"CyberSecurityContract_subscribeToIpPortAllowed", arrangePair,
     [] { cs().subscribeToIpPortAllowed(kAddress, 1, recorder(2)); },
     [] { expectFirstOnly([] { cs().updateIpPortAllowed(kAddress, 1, true); }); }},
    {"CyberSecurityContract_unsubscribeFromIpPortAllowed", arrangePair,
     [] { cs().unsubscribeFromIpPortAllowed(kAddress, 1); }, [] { expectBothOrNeither(kPair); }},
    {"CyberSecurityContract_isIpSecured",
     [] { cs().updateSecured(true), cs().updateIpAllPortsAllowed(kAddress, true); },
     [] { cs().isIpSecured(kAddress); }, {}},
    {"CyberSecurityContract_setTcpPortsVector", {}, [] { cs().setTcpPortsVector({1, 2, 3, 4, 5}); }, {}},
    {"CyberSecurityContract_setUserActivityLogger", {}, [] { cs().setUserActivityLogger(theLogger); }, {}},
    {"CyberSecurityContract_userActivityLogger", [] { cs().setUserActivityLogger(theLogger); },
     [] { cs().userActivityLogger(); }, {}},
    {"CyberSecurityContract_setRegisterConnectonCallback", {},
     [] { cs().setRegisterConnectonCallback(recorder(1)); }, {}},
    {"CyberSecurityContract_registerConnection", [] { cs().setRegisterConnectonCallback(recorder(1)); },
     [] { cs().registerConnection(kAddress, 1, true); }, {}},
};

class Library : public ::testing::TestWithParam<Operation> {};

TEST_P(Library, ThrowsBadAllocAndKeepsItsPromisesWhereverAnAllocationFails) {
  const Operation& operation = GetParam();
  for (long n = 1; n < 1000; ++n) {
    SCOPED_TRACE("allocation " + std::to_string(n) + " failed");
    received.clear();
    if (operation.arrange) operation.arrange();
    if (completesWhenAllocationFails(n, operation.act)) return;
    EXPECT_TRUE(BoardTestPeer::lockIsFree());
    if (operation.promise) operation.promise();
    operation.act();
    if (HasFailure()) return;
  }
  FAIL() << "still failing after 1000 allocations";
}

INSTANTIATE_TEST_SUITE_P(AllocationFailures, Library, ::testing::ValuesIn(kOperations),
                         [](const ::testing::TestParamInfo<Operation>& param) { return param.param.name; });

}  // namespace
}  // namespace vantor::messaging
