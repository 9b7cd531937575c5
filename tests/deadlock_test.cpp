// Lock cycles between threads become an error in exactly one of them instead of a frozen process.
// Latches bring every thread to the point where it holds its own lock before it takes the next one;
// these lock-order inversions are deliberate, so ThreadSanitizer's deadlock detector is off for them.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <string>
#include <system_error>

#include "test_support.hpp"
#include "vantor/messaging/contract_cyber_security.hpp"

namespace vantor {
namespace {

using messaging::CyberSecurityContract;
using testing::StartLine;
CyberSecurityContract& contract() { return CyberSecurityContract::instance(); }

// Runs `bodies` on threads of their own and counts the deadlock errors they raise; anything else fails.
template <std::size_t N>
int deadlockErrors(const std::array<std::function<void()>, N>& bodies) {
  std::atomic<int> errors{0};
  testing::runTogether(N, [&](std::size_t index) {
    try {
      bodies[index]();
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::errc::resource_deadlock_would_occur) << error.what();
      EXPECT_NE(std::string(error.what()).find("cycle"), std::string::npos) << error.what();
      ++errors;
    }
  });
  return errors;
}

// A callback that, the first time it runs, waits for `line` and then calls `next`.
std::function<void(bool)> onceThen(std::atomic<bool>& armed, StartLine& line, std::function<void()> next) {
  return [&armed, &line, next](bool) {
    if (!armed.exchange(false)) return;
    line.arriveAndWait();
    next();
  };
}

TEST(CyberSecurityContract, TwoSignalsPublishingIntoEachOtherFailOneThreadAndBothWorkAfterwards) {
  StartLine bothHoldTheirSignal(2);
  std::atomic<bool> securedArmed{true}, credentialsArmed{true};
  tessel::ScopedConnection secured = contract().connectSecuredSignalWithHandle(
      onceThen(securedArmed, bothHoldTheirSignal, [] { contract().updateAboutNewCreds(); }));
  tessel::ScopedConnection credentials = contract().connectNewCredentialsSignalWithHandle(
      onceThen(credentialsArmed, bothHoldTheirSignal, [] { contract().updateSecured(true); }));

  EXPECT_EQ(deadlockErrors<2>({[] { contract().updateSecured(true); }, [] { contract().updateAboutNewCreds(); }}), 1);

  int received = 0;
  tessel::ScopedConnection after = contract().connectSecuredSignalWithHandle([&received](bool) { ++received; });
  tessel::ScopedConnection afterToo =
      contract().connectNewCredentialsSignalWithHandle([&received](bool) { ++received; });
  contract().updateSecured(false);
  contract().updateAboutNewCreds();
  EXPECT_EQ(received, 2);
}

// Connecting under the board lock is refused at once (that order may close a cycle), so it is the
// subscribing thread that fails, whichever thread would have closed the cycle.
TEST(CyberSecurityContract, InitialDeliveryConnectingWhileASecuredCallbackPublishesFailsOneThread) {
  StartLine securedCallbackRuns(2), boardLockTaken(2);
  std::atomic<bool> armed{true};
  tessel::ScopedConnection secured =
      contract().connectSecuredSignalWithHandle(onceThen(armed, securedCallbackRuns, [&boardLockTaken] {
        boardLockTaken.arriveAndWait();
        contract().updateIpPortAllowed("198.51.100.91", 1, true);
      }));
  contract().updateIpPortAllowed("198.51.100.90", 1, true);

  const int errors = deadlockErrors<2>({[] { contract().updateSecured(true); },
                                        [&] {
                                          securedCallbackRuns.arriveAndWait();
                                          contract().subscribeToIpPortAllowed("198.51.100.90", 1, [&](bool) {
                                            boardLockTaken.arriveAndWait();
                                            contract().connectSecuredSignal([](bool) {});
                                          });
                                        }});

  EXPECT_EQ(errors, 1);
  EXPECT_TRUE(messaging::BoardTestPeer::lockIsFree());
  contract().unsubscribeFromIpPortAllowed("198.51.100.90", 1);
  contract().unsubscribeFromIpPortAllowed("198.51.100.91", 1);
}

TEST(Signal, CycleOfThreeSignalsOnThreeThreadsFailsExactlyOne) {
  std::array<tessel::Signal<int>, 3> signals;
  StartLine allHoldTheirSignal(3);
  std::array<std::atomic<bool>, 3> armed{true, true, true};
  std::atomic<int> delivered{0};
  for (std::size_t i = 0; i < 3; ++i) {
    signals[i].connect([&, i](int) {
      ++delivered;
      if (!armed[i].exchange(false)) return;
      allHoldTheirSignal.arriveAndWait();
      signals[(i + 1) % 3].emit(0);
    });
  }

  EXPECT_EQ(deadlockErrors<3>({[&] { signals[0].emit(0); }, [&] { signals[1].emit(0); }, [&] { signals[2].emit(0); }}),
            1);
  EXPECT_EQ(delivered, 5) << "three emissions and the two nested ones that were let through";
}

TEST(Board, HeavyContentionWithoutACycleRaisesNothing) {
  constexpr int kIterations = 2000;
  messaging::TestContract board("Contention");
  std::array<tessel::Signal<int>, 2> signals;
  std::atomic<int> calls{0};
  // Each signal's callback takes the board's lock (signal before board, the one permitted nesting).
  for (auto& signal : signals)
    signal.connect([&](int value) {
      ++calls;
      board.get<int>("k" + std::to_string(value % 4));
    });
  for (int key = 0; key < 4; ++key) {
    board.subscribe<int>("k" + std::to_string(key), [&](const int& value) { signals[value % 2].emit(value); });
  }

  testing::runTogether(4, [&](std::size_t index) {
    for (int i = 0; i < kIterations; ++i) {
      const int value = static_cast<int>(index) + i;
      board.update<int>("k" + std::to_string(value % 4), [value] { return value; });
      signals[index % 2].emit(value);
      tessel::ScopedConnection transient = signals[(index + 1) % 2].connect([](int) {});
    }
  });

  EXPECT_EQ(calls, 4 * kIterations * 2);
}

}  // namespace
}  // namespace vantor
