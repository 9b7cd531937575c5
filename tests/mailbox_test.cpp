// The mailbox and queued connections, case by case on one thread, and the contract's signal views.

#include <gtest/gtest.h>

#include <cstring>

#include "test_support.hpp"
#include "vantor/tessel/mailbox.hpp"

namespace vantor::messaging {

using namespace std::chrono_literals;

// "E" when `call` throws std::system_error(resource_deadlock_would_occur) naming `operation`.
std::string refusal(const std::function<void()>& call, const char* operation) {
  try {
    call();
  } catch (const std::system_error& error) {
    const bool named = std::strstr(error.what(), operation) != nullptr;
    return error.code() == std::errc::resource_deadlock_would_occur && named ? "E" : error.what();
  }
  return "not refused";
}

// What a case works on, writing into `log`: a mailbox whose wake-up writes "w" and the queue's size
// (size() takes the mailbox's lock: a wake-up called under it would hang), and a signal.
struct Scene {
  std::string log;
  std::unique_ptr<tessel::Mailbox> box;
  tessel::Signal<const std::string&> signal;
  std::shared_ptr<int> owner = std::make_shared<int>();
  TestContract board{"Queued"};  // its topic "t" is a std::string
  std::function<void()> note(const char* text) {
    return [this, text] { log += text; };
  }
  std::function<void(const std::string&)> recorder() {
    return [this](const std::string& value) { log += value; };
  }
  void drain() { log += std::to_string(box->drain()); }
};

struct Case {
  const char* name;
  std::size_t capacity;
  std::function<void(Scene&)> act;
  const char* log;
};
void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

const Case kCases[] = {
    {"RunsCallsInPostOrderAndCountsThem", 0,
     [](Scene& s) { s.box->post(s.note("a")), s.box->post(s.note("b")), s.drain(); }, "w1ab2"},
    {"RunsACallPostedDuringADrainAtTheNextOne", 0,
     [](Scene& s) { s.box->post([&s] { s.log += "a", s.box->post(s.note("b")); }), s.drain(), s.drain(); }, "w1aw11b1"},
    {"RefusesADrainFromADrainedCallAndGoesOn", 0,
     [](Scene& s) {
       s.box->post([&s] { s.log += refusal([&s] { s.box->drain(); }, "Mailbox::drain"); });
       s.box->post(s.note("b")), s.drain();
     },
     "w1Eb2"},
    {"LeavesTheCallsAfterAThrowingOneQueued", 0,
     [](Scene& s) {
       s.box->post(s.note("a")), s.box->post([] { throw std::out_of_range("x"); }), s.box->post(s.note("c"));
       EXPECT_THROW(s.box->drain(), std::out_of_range);
       s.log += std::to_string(s.box->size()), s.drain();
     },
     "w1a1c1"},
    {"DropsTheOldestCallWhenFullAndCountsIt", 2,
     [](Scene& s) {
       for (const char* text : {"a", "b", "c"}) s.box->post(s.note(text));
       s.log += std::to_string(s.box->dropped()), s.drain();
     },
     "w11bc2"},
    {"WaitsOnlyForQueuedCalls", 0,
     [](Scene& s) {
       s.log += std::to_string(s.box->waitFor(0s));
       std::thread poster([&s] { s.box->post(s.note("a")); });
       const bool queued = s.box->waitFor(1min);
       poster.join();
       s.log += std::to_string(queued), s.drain(), s.log += std::to_string(s.box->waitFor(-1s));
     },
     "0w11a10"},
    {"DropsItsCallsAndWhatTheyCapturedWhenDestroyed", 0,
     [](Scene& s) { s.box->post([kept = s.owner] {}), s.box.reset(), s.log += std::to_string(s.owner.use_count()); },
     "w11"},
    {"MayBeDestroyedByItsOwnDrainedCallWhichDropsTheRest", 0,
     [](Scene& s) {
       s.box->post([&s] { s.box.reset(); }), s.box->post([kept = s.owner] {});
       s.drain(), s.log += std::to_string(s.owner.use_count());
     },
     "w111"},
    {"RunsAQueuedSlotAtTheDrainWithCopiesOfTheArguments", 0,
     [](Scene& s) { s.signal.connectQueued(*s.box, s.recorder()), s.signal.emit("a"), s.log += "-", s.drain(); },
     "w1-a1"},
    {"DropsAQueuedCallWhoseSlotWasDisconnectedAfterItWasQueued", 0,
     [](Scene& s) {
       const tessel::Connection slot = s.signal.connectQueued(*s.box, s.recorder());
       s.signal.emit("a"), slot.disconnect(), s.drain();
     },
     "w11"},
    {"DropsAQueuedCallWhoseOwnerExpiredAndDisconnectsItsSlot", 0,
     [](Scene& s) {
       const tessel::Connection slot = s.signal.connectQueued(*s.box, s.recorder(), s.owner);
       s.signal.emit("a"), s.owner.reset(), s.drain(), s.log += slot.connected() ? "c" : "d";
     },
     "w11d"},
    {"KeepsTheOwnerOfAQueuedCallAliveWhileItRuns", 0,
     [](Scene& s) {
       const std::weak_ptr<int> owner = s.owner;
       const auto release = [&s, owner](const std::string&) { s.owner.reset(), s.log += owner.expired() ? "-" : "k"; };
       s.signal.connectQueued(*s.box, release, s.owner), s.signal.emit("a"), s.drain();
       s.log += owner.expired() ? "-" : "k";
     },
     "w1k1-"},
    {"DropsQueuedCallsOnceTheMailboxIsGone", 0,
     [](Scene& s) {
       s.signal.connectQueued(*s.box, s.recorder()), s.box.reset(), s.signal.emit("a");
       s.log += std::to_string(s.signal.slotCount());
     },
     "1"},
    {"HandsAQueuedTopicListenerTheCurrentValueFirstAtTheDrain", 0,
     [](Scene& s) {
       s.board.update<std::string>("t", [] { return std::string("a"); });
       s.board.connectTopic<std::string>("t", *s.box, s.recorder()), s.board.notify<std::string>("t", "b");
       s.log += "-", s.drain();
     },
     "w1-ab2"},
    {"HandsAQueuedPairListenerItsFlagsAtTheDrainUntilItIsDisconnected", 0,
     [](Scene& s) {
       CyberSecurityContract& cs = CyberSecurityContract::instance();
       cs.updateIpPortAllowed("192.0.2.10", 1, true);
       const tessel::Connection listener = cs.connectIpPortAllowed(
           "192.0.2.10", 1, *s.box, [&s](bool on) { s.log += on ? "1" : "0"; }, s.owner);
       s.drain(), cs.updateIpPortAllowed("192.0.2.10", 1, false), listener.disconnect(), s.drain();
       cs.unsubscribeFromIpPortAllowed("192.0.2.10", 1);
     },
     "w111w11"},
};

class Mailbox : public ::testing::TestWithParam<Case> {};

TEST_P(Mailbox, LeavesTheLogItsCaseExpects) {
  Scene scene;
  scene.box = std::make_unique<tessel::Mailbox>([&scene] { scene.log += "w" + std::to_string(scene.box->size()); },
                                                GetParam().capacity);
  GetParam().act(scene);
  EXPECT_EQ(scene.log, GetParam().log);
}

INSTANTIATE_TEST_SUITE_P(Cases, Mailbox, ::testing::ValuesIn(kCases), [](const auto& c) { return c.param.name; });

TEST(CyberSecurityContract, SignalViewsOfferEveryConnectFormAndRefuseUnderTheBoardLock) {
  CyberSecurityContract& cs = CyberSecurityContract::instance();
  tessel::Mailbox box;
  std::string log;
  const tessel::SignalView<bool> secured = cs.securedSignal();
  const std::size_t slots = secured.slotCount();
  const tessel::ScopedConnection once = secured.connectExtended(
      [&](const tessel::Connection& self, bool on) { log += on ? "1" : "0", self.disconnect(); });
  const tessel::ScopedConnection queued = cs.securityTokenSignal().connectQueued(
      box, [&](const CyberSecurityContract::OptionalToken& token) { log += std::to_string(token->front()); });
  EXPECT_EQ(secured.slotCount(), slots + 1);
  cs.updateSecured(true), cs.updateSecured(false), cs.updateSecurityToken(CyberSecurityContract::Token{7});
  EXPECT_EQ((box.drain(), log), "17");
  EXPECT_EQ(secured.slotCount(), slots) << "the extended slot disconnected itself";
  EXPECT_FALSE(cs.securityTokenSignal().empty());

  const tessel::SignalView<bool> notices = cs.newCredentialsSignal();
  const std::pair<const char*, std::function<void()>> operations[] = {
      {"SignalView::connect", [&] { notices.connect(nullptr); }},
      {"SignalView::connectExtended", [&] { notices.connectExtended(nullptr); }},
      {"SignalView::connectQueued", [&] { notices.connectQueued(box, nullptr); }},
      {"SignalView::slotCount", [&] { notices.slotCount(); }},
      {"SignalView::empty", [&] { notices.empty(); }}};
  cs.updateIpPortAllowed("192.0.2.9", 1, true);
  for (const auto& operation : operations) {  // from an initial delivery, under the board lock
    std::string outcome;
    cs.subscribeToIpPortAllowed("192.0.2.9", 1, [&](bool) { outcome = refusal(operation.second, operation.first); });
    EXPECT_EQ(outcome, "E") << operation.first;
  }
  cs.unsubscribeFromIpPortAllowed("192.0.2.9", 1);
  EXPECT_TRUE(notices.empty());
}

}  // namespace vantor::messaging
