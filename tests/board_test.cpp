// The message board and the topic protocol of Contract.

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "board_test_peer.hpp"
#include "test_support.hpp"

namespace vantor::messaging {
namespace {

using testing::Counted;
using testing::LifeCount;

// ---- the protocol against a model of one key ---------------------------------------------------

// What one key holds: for each map, nothing, an empty function object, or a function object.
enum class Held { Nothing, Empty, Function };

struct KeyModel {
  Held getter = Held::Nothing;
  int value = 0;  // what the getter returns
  Held subscriber = Held::Nothing;
  int subscriberId = 0;
};

enum class Op { Update, UpdateEmpty, Notify, Subscribe, SubscribeEmpty, Unsubscribe, Get };

// Random sequences of the six operations on one key; after every step the deliveries, the failures
// and the value read back must be exactly those the model predicts.
class BoardAgainstModel : public ::testing::TestWithParam<unsigned> {};

TEST_P(BoardAgainstModel, EveryOperationDeliversFailsAndReadsBackAsTheModelSays) {
  TestContract contract("Model" + std::to_string(GetParam()));
  std::vector<std::pair<int, int>> delivered;  // (subscriber id, value)
  auto subscriberWithId = [&delivered](int id) {
    return Contract::Subscriber<int>([&delivered, id](const int& value) { delivered.emplace_back(id, value); });
  };

  KeyModel model;
  std::mt19937 random(GetParam());
  for (int step = 1; step <= 3000; ++step) {
    const auto op = static_cast<Op>(std::uniform_int_distribution<int>(0, 6)(random));
    delivered.clear();
    std::vector<std::pair<int, int>> expected;
    bool expectThrow = false;

    switch (op) {
      case Op::Update:
        model.getter = Held::Function;
        model.value = step;
        if (model.subscriber == Held::Function) expected.emplace_back(model.subscriberId, step);
        expectThrow = model.subscriber == Held::Empty;
        try {
          contract.update<int>("topic", [step] { return step; });
        } catch (const std::bad_function_call&) {
          EXPECT_TRUE(expectThrow) << "step " << step;
          expectThrow = false;
        }
        break;
      case Op::UpdateEmpty:
        model.getter = Held::Empty;
        EXPECT_THROW(contract.update<int>("topic", {}), std::bad_function_call) << "step " << step;
        break;
      case Op::Notify:
        if (model.subscriber == Held::Function) expected.emplace_back(model.subscriberId, -step);
        expectThrow = model.subscriber == Held::Empty;
        try {
          contract.notify<int>("topic", -step);
        } catch (const std::bad_function_call&) {
          EXPECT_TRUE(expectThrow) << "step " << step;
          expectThrow = false;
        }
        break;
      case Op::Subscribe:
        if (model.getter == Held::Function) expected.emplace_back(step, model.value);
        model.subscriber = Held::Function;
        model.subscriberId = step;
        contract.subscribe<int>("topic", subscriberWithId(step));
        break;
      case Op::SubscribeEmpty:
        if (model.getter == Held::Function) {
          EXPECT_THROW(contract.subscribe<int>("topic", {}), std::bad_function_call) << "step " << step;
        } else {
          model.subscriber = Held::Empty;
          contract.subscribe<int>("topic", {});
        }
        break;
      case Op::Unsubscribe:
        model.getter = Held::Nothing;
        model.subscriber = Held::Nothing;
        contract.unsubscribe("topic");
        break;
      case Op::Get: {
        const boost::optional<int> read = contract.get<int>("topic");
        if (model.getter == Held::Function) {
          EXPECT_EQ(read, boost::optional<int>(model.value)) << "step " << step;
        } else {
          EXPECT_FALSE(read) << "step " << step;
        }
        break;
      }
    }
    EXPECT_FALSE(expectThrow) << "step " << step << ": the expected std::bad_function_call was not raised";
    EXPECT_EQ(delivered, expected) << "step " << step;
    EXPECT_EQ(BoardTestPeer::hasGetter(contract.key("topic")), model.getter != Held::Nothing) << "step " << step;
    EXPECT_EQ(BoardTestPeer::hasSubscriber(contract.key("topic")), model.subscriber != Held::Nothing)
        << "step " << step;
    ASSERT_TRUE(BoardTestPeer::lockIsFree()) << "step " << step;
    if (HasFailure()) break;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, BoardAgainstModel, ::testing::Values(1u, 2u, 3u, 4u));

// ---- keys ------------------------------------------------------------------------------------------

TEST(Board, KeyIsTheNameAColonAndTheTopicUnchanged) {
  TestContract contract("Keys");
  EXPECT_EQ(contract.key("Secured"), "Keys:Secured");
  EXPECT_EQ(contract.key(""), "Keys:");
  EXPECT_EQ(contract.key("IP:192.0.2.7:-1"), "Keys:IP:192.0.2.7:-1");

  contract.update<bool>("", [] { return true; });
  EXPECT_TRUE(BoardTestPeer::hasGetter("Keys:"));
}

// ---- lock discipline --------------------------------------------------------------------------------

TEST(Board, GettersAndInitialDeliveriesRunUnderTheLockAndPublicationsOutsideIt) {
  TestContract contract("Discipline");
  std::vector<bool> lockHeld;
  contract.update<int>("topic", [&lockHeld] {
    lockHeld.push_back(BoardTestPeer::heldByThisThread());
    return 1;
  });
  contract.subscribe<int>("topic", [&lockHeld](const int&) { lockHeld.push_back(BoardTestPeer::heldByThisThread()); });
  // update: getter under the lock, delivery outside it; notify: delivery outside it.
  contract.update<int>("topic", [&lockHeld] {
    lockHeld.push_back(BoardTestPeer::heldByThisThread());
    return 2;
  });
  contract.notify<int>("topic", 3);

  // 1st update's getter, subscribe's getter call and initial delivery, 2nd update's getter and
  // delivery, notify's delivery.
  EXPECT_EQ(lockHeld, (std::vector<bool>{true, true, true, true, false, false}));
}

TEST(Board, SubscriberOfAPublicationMayPublishItsOwnKey) {
  TestContract contract("Reentry");
  std::vector<int> received;
  contract.subscribe<int>("topic", [&](const int& value) {
    received.push_back(value);
    if (value == 1) contract.update<int>("topic", [] { return 2; });
    received.push_back(contract.get<int>("topic").value_or(-1));
  });

  contract.update<int>("topic", [] { return 1; });

  EXPECT_EQ(received, (std::vector<int>{1, 2, 2, 2}));
}

TEST(Board, NewSubscriberGetsTheCurrentValueBeforeAnyLaterPublication) {
  constexpr int kPublications = 20000;
  TestContract contract("Race");
  std::atomic<int> published{0};
  contract.update<int>("topic", [] { return 0; });

  std::vector<int> received;  // written by whichever thread delivers; deliveries never overlap here
  std::atomic<bool> subscribed{false};
  std::thread::id subscriber;
  bool firstWasInitial = false;
  testing::runTogether(2, [&](std::size_t index) {
    if (index == 0) {
      for (int value = 1; value <= kPublications; ++value) {
        contract.update<int>("topic", [value] { return value; });
        published = value;
      }
    } else {
      while (published.load() < kPublications / 4) std::this_thread::yield();
      subscriber = std::this_thread::get_id();
      contract.subscribe<int>("topic", [&](const int& value) {
        if (received.empty()) firstWasInitial = BoardTestPeer::heldByThisThread();
        received.push_back(value);
      });
      subscribed = true;
    }
  });

  ASSERT_TRUE(subscribed);
  ASSERT_FALSE(received.empty());
  EXPECT_TRUE(firstWasInitial);
  // After the initial value, every publication that follows it, in order, and none that preceded it.
  for (std::size_t i = 1; i < received.size(); ++i) EXPECT_EQ(received[i], received[i - 1] + 1);
  EXPECT_EQ(received.back(), kPublications);
}

// ---- ownership of stored function objects -----------------------------------------------------------

TEST(Board, ReplacedWithdrawnAndPurgedFunctionObjectsAreDestroyedExactlyOnce) {
  LifeCount firstSubscriber, secondSubscriber, getter;
  {
    TestContract contract("Lifetimes");
    contract.subscribe<int>("topic", Counted<>(firstSubscriber));
    EXPECT_EQ(firstSubscriber.alive, 1);

    contract.subscribe<int>("topic", Counted<>(secondSubscriber));
    EXPECT_EQ(firstSubscriber.alive, 0) << "a replaced subscriber is destroyed";

    contract.update<int>("topic", Counted<int>(getter));
    EXPECT_EQ(getter.alive, 1);
    EXPECT_EQ(secondSubscriber.alive, 1) << "the copy made for a delivery is destroyed after it";

    contract.unsubscribe("topic");
    EXPECT_EQ(getter.alive, 0);
    EXPECT_EQ(secondSubscriber.alive, 0);

    contract.update<int>("topic", Counted<int>(getter));
    contract.subscribe<int>("other", Counted<>(secondSubscriber));
  }
  EXPECT_EQ(getter.alive, 0) << "purged";
  EXPECT_EQ(secondSubscriber.alive, 0) << "purged";
  EXPECT_GT(getter.destroyed, 0);
}

TEST(Board, PurgeRemovesEveryKeyThatStartsWithTheBareName) {
  TestContract other("Other");
  other.update<int>("kept", [] { return 1; });
  {
    TestContract keeper("PurgeLonger", /*purgeOnDestroy=*/false);
    keeper.update<int>("a", [] { return 1; });
    keeper.subscribe<int>("b", [](const int&) {});
  }
  EXPECT_EQ(BoardTestPeer::entriesWithPrefix("PurgeLonger:"), 2u) << "a contract that does not purge leaves its entries";
  {
    TestContract purger("Purge");
    purger.update<int>("c", [] { return 1; });
    purger.subscribe<int>("d", [](const int&) {});
  }
  EXPECT_EQ(BoardTestPeer::entriesWithPrefix("Purge"), 0u) << "'Purge' also matches 'PurgeLonger'";
  EXPECT_TRUE(BoardTestPeer::hasGetter("Other:kept"));
}

// ---- failures --------------------------------------------------------------------------------------

TEST(Board, ExceptionsFromCallbacksReachTheCallerWithTheLockReleased) {
  TestContract contract("Throwing");
  const auto throwing = [](const char* what) { return [what](auto&&...) -> int { throw std::runtime_error(what); }; };
  std::vector<int> received;
  const Contract::Subscriber<int> recording = [&received](const int& value) { received.push_back(value); };

  // A throwing getter in update stays stored: get calls it again.
  EXPECT_THROW(contract.update<int>("getter", throwing("getter")), std::runtime_error);
  EXPECT_TRUE(BoardTestPeer::lockIsFree());
  EXPECT_THROW(contract.get<int>("getter"), std::runtime_error);
  EXPECT_TRUE(BoardTestPeer::lockIsFree());

  // A throwing initial delivery stores nothing: the previous subscriber stays.
  contract.subscribe<int>("initial", recording);
  contract.update<int>("initial", [] { return 1; });
  EXPECT_THROW(contract.subscribe<int>("initial", throwing("initial delivery")), std::runtime_error);
  EXPECT_TRUE(BoardTestPeer::lockIsFree());
  contract.update<int>("initial", [] { return 2; });
  EXPECT_EQ(received, (std::vector<int>{1, 2}));

  // A throwing subscriber in update: the new getter stays.
  contract.subscribe<int>("delivery", throwing("delivery"));
  EXPECT_THROW(contract.update<int>("delivery", [] { return 7; }), std::runtime_error);
  EXPECT_TRUE(BoardTestPeer::lockIsFree());
  EXPECT_EQ(contract.get<int>("delivery"), boost::optional<int>(7));
}

// Which board operation a callback under the lock calls back into.
struct Reentry {
  const char* name;
  std::function<void(TestContract&)> call;
};

class BoardReentry : public ::testing::TestWithParam<Reentry> {};

TEST_P(BoardReentry, FromAGetterOrAnInitialDeliveryThrowsInsteadOfDeadlocking) {
  TestContract contract(std::string("Reentry") + GetParam().name);
  const auto expectWouldDeadlock = [](const std::function<void()>& operation, const char* context) {
    try {
      operation();
      ADD_FAILURE() << context << ": no exception";
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::errc::resource_deadlock_would_occur) << context;
      EXPECT_NE(std::string(error.what()).find("Reentry"), std::string::npos) << error.what();
    }
    EXPECT_TRUE(BoardTestPeer::lockIsFree()) << context;
  };

  expectWouldDeadlock([&] { contract.update<int>("topic", [&] { GetParam().call(contract); return 1; }); },
                      "from a getter");
  contract.update<int>("topic", [] { return 1; });
  expectWouldDeadlock([&] { contract.subscribe<int>("topic", [&](const int&) { GetParam().call(contract); }); },
                      "from an initial delivery");

  // The board is intact and usable afterwards.
  EXPECT_EQ(contract.get<int>("topic"), boost::optional<int>(1));
  EXPECT_FALSE(BoardTestPeer::hasSubscriber(contract.key("topic")));
}

INSTANTIATE_TEST_SUITE_P(
    Operations, BoardReentry,
    ::testing::Values(Reentry{"Update", [](TestContract& c) { c.update<int>("other", [] { return 0; }); }},
                      Reentry{"Notify", [](TestContract& c) { c.notify<int>("other", 0); }},
                      Reentry{"Subscribe", [](TestContract& c) { c.subscribe<int>("other", [](const int&) {}); }},
                      Reentry{"Unsubscribe", [](TestContract& c) { c.unsubscribe("other"); }},
                      Reentry{"Get", [](TestContract& c) { c.get<int>("other"); }}),
    [](const ::testing::TestParamInfo<Reentry>& param) { return std::string(param.param.name); });

TEST(Board, NamingAnotherValueTypeThanTheKeyHoldsThrowsAndNamesTheKey) {
  TestContract contract("Types");
  contract.update<int>("number", [] { return 1; });
  contract.subscribe<int>("listened", [](const int&) {});
  const std::vector<std::pair<const char*, std::function<void()>>> mismatches = {
      {"get", [&] { contract.get<bool>("number"); }},
      {"subscribe", [&] { contract.subscribe<bool>("number", [](const bool&) {}); }},
      {"notify", [&] { contract.notify<bool>("listened", true); }},
      {"update", [&] { contract.update<bool>("listened", [] { return true; }); }},
  };
  for (const auto& [operation, call] : mismatches) {
    try {
      call();
      ADD_FAILURE() << operation << ": no exception";
    } catch (const std::invalid_argument& error) {
      EXPECT_NE(std::string(error.what()).find("\"Types:"), std::string::npos) << error.what();
    }
    EXPECT_TRUE(BoardTestPeer::lockIsFree()) << operation;
  }
}

// ---- threads ---------------------------------------------------------------------------------------

TEST(Board, ConcurrentPublicationsReachTheirSubscribersExactlyOncePerCall) {
  constexpr std::size_t kThreads = 4;
  constexpr int kIterations = 3000;
  TestContract contract("Threads");
  std::atomic<int> shared{0};
  std::vector<std::atomic<int>> own(kThreads);
  contract.subscribe<int>("shared", [&shared](const int&) { ++shared; });
  for (std::size_t i = 0; i < kThreads; ++i) {
    contract.subscribe<int>("own" + std::to_string(i), [&own, i](const int&) { ++own[i]; });
  }

  testing::runTogether(kThreads, [&](std::size_t index) {
    const std::string mine = "own" + std::to_string(index);
    for (int i = 0; i < kIterations; ++i) {
      contract.update<int>(mine, [i] { return i; });
      contract.notify<int>("shared", i);
      contract.get<int>("own" + std::to_string((index + 1) % kThreads));
      contract.subscribe<int>("scratch", [](const int&) {});
      contract.unsubscribe("scratch");
    }
  });

  EXPECT_EQ(shared, static_cast<int>(kThreads) * kIterations);
  for (std::size_t i = 0; i < kThreads; ++i) EXPECT_EQ(own[i], kIterations) << "thread " << i;
}

}  // namespace
}  // namespace vantor::messaging
