// Signal, Connection, ScopedConnection and ConnectionBlocker.

#include "vantor/tessel/signal.hpp"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <boost/optional.hpp>

#include "test_support.hpp"

namespace vantor::tessel {
namespace {

// A signal of ints whose slots record (slot index, value) into one log.
struct Recorder {
  Signal<int> signal;
  std::vector<std::pair<int, int>> log;
  std::vector<Connection> connections;

  Connection add(int index) {
    connections.push_back(signal.connect([this, index](int value) { log.emplace_back(index, value); }));
    return connections.back();
  }
  std::vector<int> invokedBy(int value) {
    log.clear();
    signal.emit(value);
    std::vector<int> invoked;
    for (const auto& [index, received] : log) {
      EXPECT_EQ(received, value);
      invoked.push_back(index);
    }
    return invoked;
  }
};

// ---- order and flags ---------------------------------------------------------------------------------

TEST(Signal, InvokesLiveSlotsOnceEachInConnectionOrder) {
  Recorder r;
  EXPECT_TRUE(r.invokedBy(1).empty()) << "no slots";
  for (int i = 0; i < 5; ++i) r.add(i);
  r.add(0);  // the same callback twice makes two independent slots
  EXPECT_EQ(r.invokedBy(7), (std::vector<int>{0, 1, 2, 3, 4, 0}));
  r.connections[5].disconnect();
  EXPECT_EQ(r.invokedBy(8), (std::vector<int>{0, 1, 2, 3, 4}));
}

struct FlagCase {
  bool blocked;
  bool disconnected;
  bool invoked;
  bool statusSurvives;  // the entry (and so its Status) is still in the list after a delivery
};

class SignalFlags : public ::testing::TestWithParam<FlagCase> {};

TEST_P(SignalFlags, DecideWhetherADeliveryInvokesSkipsOrErasesASlot) {
  const FlagCase c = GetParam();
  Recorder r;
  const Connection slot = r.add(1);
  r.add(2);
  if (c.blocked) slot.block();
  if (c.disconnected) slot.disconnect();

  const std::vector<int> invoked = r.invokedBy(3);

  EXPECT_EQ(invoked.size() == 2, c.invoked);
  EXPECT_EQ(invoked.back(), 2);
  // blocked() reads the Status: it answers true only while the Status still exists.
  slot.block();
  EXPECT_EQ(slot.blocked(), c.statusSurvives);
  EXPECT_EQ(slot.connected(), c.statusSurvives && !c.disconnected);
}

INSTANTIATE_TEST_SUITE_P(TruthTable, SignalFlags,
                         ::testing::Values(FlagCase{false, false, true, true}, FlagCase{true, false, false, true},
                                           FlagCase{false, true, false, false}, FlagCase{true, true, false, false}));

TEST(Signal, BlockedSlotStaysAcrossDeliveriesAndConnectsAndReturnsWhenUnblocked) {
  Recorder r;
  const Connection slot = r.add(1);
  slot.block();
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(r.invokedBy(i).empty());
    r.add(10 + i).disconnect();
  }
  slot.unblock();
  EXPECT_EQ(r.invokedBy(4), (std::vector<int>{1}));
}

TEST(Signal, ConnectErasesDisconnectedSlotsAndAppendsTheNewOneLast) {
  Recorder r;
  for (int i = 0; i < 4; ++i) r.add(i);
  r.connections[0].disconnect();
  r.connections[2].disconnect();

  r.add(9);

  EXPECT_FALSE(r.connections[0].blocked() || r.connections[2].blocked());
  r.connections[0].block();  // acts on nothing: the Status is gone
  EXPECT_FALSE(r.connections[0].blocked());
  EXPECT_EQ(r.invokedBy(1), (std::vector<int>{1, 3, 9}));
}

// With live slots A, B, C: the effect of one slot's callback blocking another within one delivery.
struct CrossBlock {
  int setter;
  int target;
  std::vector<int> thisDelivery;
  std::vector<int> nextDelivery;
};

class SignalCrossBlock : public ::testing::TestWithParam<CrossBlock> {};

TEST_P(SignalCrossBlock, TakesEffectOnlyWhereTheWalkHasNotJudgedTheTarget) {
  const CrossBlock c = GetParam();
  Signal<int> signal;
  std::vector<int> invoked;
  std::vector<Connection> slots(3);
  for (int i = 0; i < 3; ++i) {
    slots[i] = signal.connect([&, i](int round) {
      invoked.push_back(i);
      if (i == c.setter && round == 0) slots[c.target].block();
    });
  }

  signal.emit(0);
  EXPECT_EQ(invoked, c.thisDelivery);
  invoked.clear();
  signal.emit(1);
  EXPECT_EQ(invoked, c.nextDelivery);
}

INSTANTIATE_TEST_SUITE_P(ABC, SignalCrossBlock,
                         ::testing::Values(CrossBlock{0, 1, {0, 1, 2}, {0, 2}},   // A blocks B: B still runs once
                                           CrossBlock{0, 2, {0, 1}, {0, 1}},      // A blocks C: C skipped at once
                                           CrossBlock{1, 2, {0, 1, 2}, {0, 1}}),  // B blocks C: C still runs once
                         [](const ::testing::TestParamInfo<CrossBlock>& param) {
                           return std::string(1, static_cast<char>('A' + param.param.setter)) + "Blocks" +
                                  static_cast<char>('A' + param.param.target);
                         });

// ---- arguments ---------------------------------------------------------------------------------------

// Counts how it was constructed.
struct Tracker {
  static inline int copies = 0;
  Tracker() = default;
  Tracker(const Tracker&) { ++copies; }
  Tracker(Tracker&&) noexcept {}
  Tracker& operator=(const Tracker&) = delete;
};

TEST(Signal, CopiesTheArgumentsForEverySlotButTheLastWhichGetsThemForwarded) {
  Signal<Tracker> signal;
  for (int i = 0; i < 4; ++i) signal.connect([](Tracker) {});
  signal.connect([](Tracker) {}).block();  // skipped slots cost nothing

  Tracker::copies = 0;
  signal.emit(Tracker());
  EXPECT_EQ(Tracker::copies, 3) << "an rvalue is moved into the last slot";

  Tracker lvalue;
  Tracker::copies = 0;
  signal.emit(lvalue);
  EXPECT_EQ(Tracker::copies, 4) << "an lvalue is copied for every slot";
}

TEST(Signal, BuildsEachParameterFromTheArgumentsAsTheyAreAtItsInvocation) {
  Signal<int> signal;
  int source = 1;
  std::vector<int> received;
  signal.connect([&](int value) {
    received.push_back(value);
    ++source;
  });
  signal.connect([&](int value) { received.push_back(value); });

  signal.emit(source);

  EXPECT_EQ(received, (std::vector<int>{1, 2}));
}

TEST(Signal, TokenSignalHandsEverySlotAnEngagedOptionalAlsoForZeroBytes) {
  using Token = std::array<unsigned char, 32>;
  Signal<boost::optional<Token>> signal;
  std::vector<boost::optional<Token>> received;
  for (int i = 0; i < 3; ++i) signal.connect([&](boost::optional<Token> token) { received.push_back(token); });

  const Token zeros{};
  signal.emit(zeros);

  ASSERT_EQ(received.size(), 3u);
  for (const auto& token : received) EXPECT_TRUE(token && *token == zeros);
}

// ---- failures ----------------------------------------------------------------------------------------

TEST(Signal, EmptyCallbackRaisesAfterTheSlotsBeforeItUntilBlocked) {
  Recorder r;
  r.add(1);
  const Connection empty = r.signal.connect({});
  r.add(2);

  for (int round = 0; round < 2; ++round) {
    r.log.clear();
    EXPECT_THROW(r.signal.emit(5), std::bad_function_call);
    EXPECT_EQ(r.log, (std::vector<std::pair<int, int>>{{1, 5}})) << "round " << round;
  }
  empty.block();
  EXPECT_EQ(r.invokedBy(6), (std::vector<int>{1, 2})) << "the mutex was released by the failures";
}

TEST(Signal, ThrowingCallbackEndsTheDeliveryButKeepsWhatTheWalkErased) {
  Recorder r;
  const Connection erased = r.add(1);
  r.signal.connect([](int) { throw std::runtime_error("slot failed"); });
  r.add(3);
  erased.block();
  erased.disconnect();

  EXPECT_THROW(r.signal.emit(1), std::runtime_error);

  EXPECT_TRUE(r.log.empty());
  EXPECT_FALSE(erased.blocked()) << "erased before the failure, and stays erased";
  r.connections[1].block();  // the third slot
  r.log.clear();
  EXPECT_THROW(r.signal.emit(2), std::runtime_error);
  EXPECT_TRUE(r.log.empty());
}

// A callable whose copies throw once `failing` is set.
struct FailingCopy {
  static inline bool failing = false;
  FailingCopy() = default;
  FailingCopy(const FailingCopy&) {
    if (failing) throw std::runtime_error("copy failed");
  }
  FailingCopy(FailingCopy&&) noexcept = default;
  void operator()(int) const {}
};

TEST(Signal, FailedConnectAppendsNothingButKeepsItsErasures) {
  Recorder r;
  r.add(1);
  const Connection gone = r.add(2);
  gone.block();
  gone.disconnect();
  const Signal<int>::Callback failing = FailingCopy();

  FailingCopy::failing = true;
  EXPECT_THROW(r.signal.connect(failing), std::runtime_error);
  FailingCopy::failing = false;

  EXPECT_FALSE(gone.blocked()) << "the disconnected slot was erased before the failure";
  EXPECT_EQ(r.invokedBy(1), (std::vector<int>{1})) << "nothing was appended, and the mutex is free";
}

// The operations a callback must not call on its own signal.
TEST(Signal, CallingItsOwnSignalFromACallbackThrowsInsteadOfDeadlocking) {
  Signal<int> signal;
  Signal<int> other;
  int otherReceived = 0;
  other.connect([&](int) { ++otherReceived; });
  std::vector<std::function<void()>> reentries = {
      [&] { signal.connect([](int) {}); },
      [&] { signal.emit(0); },
      [&] { signal.disconnectAll(); },
  };
  std::size_t current = 0;
  int errors = 0;
  signal.connect([&](int) {
    other.emit(1);  // a different signal is fine
    try {
      reentries[current]();
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::errc::resource_deadlock_would_occur);
      ++errors;
      throw;
    }
  });

  for (current = 0; current < reentries.size(); ++current) {
    EXPECT_THROW(signal.emit(1), std::system_error) << "re-entry " << current;
  }

  EXPECT_EQ(errors, 3);
  EXPECT_EQ(otherReceived, 3);
  signal.disconnectAll();  // intact and usable
  signal.connect([](int) {});
  signal.emit(2);
}

// ---- disconnectAll, destruction and handles ------------------------------------------------------------

TEST(Signal, DisconnectAllDropsEverySlotAndStaysUsable) {
  Recorder r;
  r.add(1);
  r.add(2).block();
  r.signal.disconnectAll();

  EXPECT_TRUE(r.invokedBy(1).empty());
  for (const Connection& connection : r.connections) EXPECT_FALSE(connection.connected() || connection.blocked());
  r.add(3);
  EXPECT_EQ(r.invokedBy(2), (std::vector<int>{3}));
}

TEST(Signal, ConnectionsOutliveTheirSignalAndThenDoNothing) {
  testing::LifeCount callbacks;
  auto signal = std::make_unique<Signal<int>>();
  const Connection connection = signal->connect(testing::Counted<>(callbacks));
  const Connection dropped = signal->connect(testing::Counted<>(callbacks));
  EXPECT_EQ(callbacks.alive, 2) << "dropping a Connection leaves its slot connected";

  signal.reset();

  EXPECT_EQ(callbacks.alive, 0);
  EXPECT_FALSE(connection.connected());
  connection.block();
  connection.disconnect();
  EXPECT_FALSE(connection.blocked());
}

TEST(Connection, ComparesEqualExactlyWhenReferringToTheSameSlot) {
  Signal<int> signal;
  const Connection a = signal.connect([](int) {});
  const Connection b = signal.connect([](int) {});
  const Connection aCopy = a;
  EXPECT_EQ(Connection(), Connection());
  EXPECT_EQ(a, aCopy);
  EXPECT_NE(a, b);
  EXPECT_NE(a, Connection());
  a.disconnect();
  signal.emit(0);
  EXPECT_EQ(a, aCopy) << "still the same (erased) slot";
}

TEST(ScopedConnection, DisconnectsWhenItGoesOutOfScope) {
  Recorder r;
  {
    ScopedConnection scoped = r.add(1);
    EXPECT_EQ(r.invokedBy(1), (std::vector<int>{1}));
  }
  EXPECT_TRUE(r.invokedBy(2).empty());
}

TEST(ScopedConnection, DisconnectsTheOldSlotWhenAssignedOverAndHandsOwnershipOnMove) {
  Recorder r;
  ScopedConnection scoped = r.add(1);
  scoped = ScopedConnection(r.add(2));
  EXPECT_EQ(r.invokedBy(1), (std::vector<int>{2}));

  ScopedConnection moved(std::move(scoped));
  EXPECT_EQ(r.invokedBy(2), (std::vector<int>{2})) << "a move does not disconnect";
  EXPECT_EQ(moved.connection(), r.connections[1]);
}

TEST(ScopedConnection, ReleaseHandsBackAConnectionThatStaysConnected) {
  Recorder r;
  Connection released;
  {
    ScopedConnection scoped = r.add(1);
    released = scoped.release();
  }
  EXPECT_TRUE(released.connected());
  EXPECT_EQ(r.invokedBy(1), (std::vector<int>{1}));
}

TEST(ConnectionBlocker, BlocksForItsScopeAndRestoresThePreviousState) {
  Recorder r;
  const Connection slot = r.add(1);
  {
    ConnectionBlocker outer(slot);
    EXPECT_TRUE(r.invokedBy(1).empty());
    {
      ConnectionBlocker inner(slot);
    }
    EXPECT_TRUE(slot.blocked()) << "the inner blocker found it blocked and leaves it so";
  }
  EXPECT_FALSE(slot.blocked());
  EXPECT_EQ(r.invokedBy(2), (std::vector<int>{1}));
}

// ---- threads -----------------------------------------------------------------------------------------

TEST(Signal, FlagsAndConnectsFromOtherThreadsWhileOneEmitsLoseNothing) {
  constexpr int kEmissions = 4000;
  Signal<int> signal;
  std::atomic<int> steady{0};
  std::atomic<int> toggled{0};
  signal.connect([&](int) { ++steady; });
  const Connection toggledSlot = signal.connect([&](int) { ++toggled; });

  testing::runTogether(3, [&](std::size_t index) {
    if (index == 0) {
      for (int i = 0; i < kEmissions; ++i) signal.emit(i);
    } else if (index == 1) {
      for (int i = 0; i < kEmissions; ++i) {
        ConnectionBlocker blocker(toggledSlot);
      }
      toggledSlot.disconnect();
    } else {
      for (int i = 0; i < kEmissions / 4; ++i) {
        ScopedConnection transient = signal.connect([](int) {});
      }
    }
  });

  const int toggledBefore = toggled;
  signal.emit(-1);
  EXPECT_EQ(steady, kEmissions + 1);
  EXPECT_LE(toggledBefore, kEmissions);
  EXPECT_EQ(toggled, toggledBefore) << "a slot disconnected before an emission began is not invoked";
  EXPECT_FALSE(toggledSlot.connected());
}

}  // namespace
}  // namespace vantor::tessel
