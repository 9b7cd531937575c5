// Lock cycles between threads become an error in exactly one of them instead of a frozen process.
// A start line brings every thread to the point where it holds its own lock before it takes the next
// one; these lock-order inversions are deliberate, so ThreadSanitizer's deadlock detector is off here.

#include <gtest/gtest.h>

#include <cstring>

#include "test_support.hpp"

namespace vantor::messaging {

// A link of a ring, a publisher that runs its callbacks under a lock of its own: (connect a callback, publish).
using Link = std::pair<std::function<tessel::Connection(const std::function<void(bool)>&)>, std::function<void()>>;
tessel::Signal<bool> signals[3];
Link signalLink(std::size_t i) {
  return {[i](const auto& slot) { return signals[i].connect(slot); }, [i] { signals[i].emit(true); }};
}
const std::vector<std::pair<std::string, std::vector<Link>>> kRings = {
    {"TwoSignals", {signalLink(0), signalLink(1)}},
    {"ThreeSignals", {signalLink(0), signalLink(1), signalLink(2)}},
    {"TheContractsSecuredAndNewCredentialsSignals",
     {{[](const auto& slot) { return CyberSecurityContract::instance().connectSecuredSignalWithHandle(slot); },
       [] { CyberSecurityContract::instance().updateSecured(true); }},
      {[](const auto& slot) { return CyberSecurityContract::instance().connectNewCredentialsSignalWithHandle(slot); },
       [] { CyberSecurityContract::instance().updateAboutNewCreds(); }}}},
};

class Signal : public ::testing::TestWithParam<std::size_t> {};  // an index into kRings

// Thread i publishes into link i. Each link's first callback waits until every thread holds its own link,
// then publishes into the next one: the waits close a ring, and the thread that closes it is refused.
TEST_P(Signal, CallbacksPublishingIntoEachOtherOnEveryThreadFailExactlyOneThreadAndEverythingWorksAfterwards) {
  const std::vector<Link>& ring = kRings[GetParam()].second;
  std::atomic<std::size_t> waiting{ring.size()}, calls{0}, refused{0};
  std::vector<tessel::ScopedConnection> slots;
  for (std::size_t i = 0; i < ring.size(); ++i)
    slots.emplace_back(ring[i].first([&, i](bool) {
      if (++calls <= ring.size()) arriveAndWait(waiting), ring[(i + 1) % ring.size()].second();
    }));
  runTogether(ring.size(), [&](std::size_t i) {
    try {
      ring[i].second();
    } catch (const std::system_error& error) {
      refused += error.code() == std::errc::resource_deadlock_would_occur && std::strstr(error.what(), "cycle");
    }
  });
  EXPECT_EQ(refused, 1u) << "exactly one thread fails, with a deadlock error that names the cycle";
  for (const auto& [connect, publish] : ring) publish();
  EXPECT_EQ(calls, 3 * ring.size() - 1) << "each link's first call, the nested ones let through, then one per link";
}

INSTANTIATE_TEST_SUITE_P(Rings, Signal, ::testing::Range<std::size_t>(0, kRings.size()),
                         [](const auto& p) { return kRings[p.param].first; });

}  // namespace vantor::messaging
