// What allocates and what must not: this executable replaces the global operator new to count the
// allocations made by the calling thread during one operation, on keys that already exist.

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <new>
#include <string>

#include "vantor/messaging/contract_cyber_security.hpp"
#include "vantor/tessel/signal.hpp"

namespace {
thread_local long allocations = 0;
}  // namespace

void* operator new(std::size_t size) {
  ++allocations;
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace vantor {
namespace {

using messaging::CyberSecurityContract;
CyberSecurityContract& contract() { return CyberSecurityContract::instance(); }

// Allocations made on this thread while `operation` runs.
long allocationsDuring(const std::function<void()>& operation) {
  const long before = allocations;
  operation();
  return allocations - before;
}

struct Figure {
  const char* operation;
  std::function<void()> call;
  long allocations;  // the most it may make
};

class Allocations : public ::testing::TestWithParam<Figure> {};

// Every key below is longer than a std::string holds in place, so building it costs the one
// allocation that the protocol requires (keys are built afresh on every call). Nothing else
// allocates: stored getters are replaced in place, and the delivery's copy of a subscriber whose
// callable fits std::function's own buffer does not allocate. A subscriber larger than that buffer
// would cost one more allocation per delivery.
TEST_P(Allocations, OfAnOperationOnAnExistingKeyAreAtMostTheKeyAndADeliveryCopy) {
  static const CyberSecurityContract::FlagCallback listener = [](bool) {};
  static const tessel::ScopedConnection secured = contract().connectSecuredSignalWithHandle([](bool) {});
  contract().updateSecured(true);
  contract().updateIpPortAllowed("198.51.100.4", 17161, true);
  contract().updateIpAllPortsAllowed("198.51.100.4", true);
  contract().updateIpPortAllowed("198.51.100.5", 17161, true);
  contract().subscribeToIpPortAllowed("198.51.100.5", 17161, listener);
  GetParam().call();  // once to create whatever the first call creates

  EXPECT_LE(allocationsDuring(GetParam().call), GetParam().allocations);
}

INSTANTIATE_TEST_SUITE_P(
    Figures, Allocations,
    ::testing::Values(
        Figure{"UpdateSecuredWithACallback", [] { contract().updateSecured(true); }, 1},
        Figure{"UpdateAboutNewCreds", [] { contract().updateAboutNewCreds(); }, 1},
        Figure{"UpdateSecurityToken", [] { contract().updateSecurityToken(CyberSecurityContract::Token{}); }, 1},
        Figure{"UpdateIpPortAllowedWithoutSubscriber", [] { contract().updateIpPortAllowed("198.51.100.4", 17161, true); }, 1},
        Figure{"UpdateIpPortAllowedWithSubscriber", [] { contract().updateIpPortAllowed("198.51.100.5", 17161, true); }, 1},
        Figure{"SubscribeToIpPortAllowedOnAPublishedPair",
               [] { contract().subscribeToIpPortAllowed("198.51.100.5", 17161, [](bool) {}); }, 1},
        Figure{"IsIpSecured", [] { contract().isIpSecured("198.51.100.4"); }, 1},
        // The address, then the seven default ports: eight keys, and the copy of the port list walked.
        Figure{"UpdateIpAllPortsAllowed", [] { contract().updateIpAllPortsAllowed("198.51.100.4", true); }, 9}),
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

}  // namespace
}  // namespace vantor
