// Components that go away while the security state keeps changing, and the two ways to let them go:
//
//   SessionGate  lives in a std::shared_ptr and may be destroyed on any thread, also while another thread
//                publishes. It connects its callbacks (secured flag, new credentials, token) tracked by
//                itself: a call that is running keeps the gate alive until it returns, and no call starts
//                once the gate is gone.
//   StatusLine   lives and dies on the thread that publishes (or while nothing publishes). A
//                ScopedConnection member is enough: it disconnects the callback when the line goes.
//   a one-shot   connected with connectExtended(), a callback receives its own connection and
//                disconnects itself after the first value.
//
// The program checks what happened and exits with status 1 when anything differs.

#include <vantor/messaging/contract_cyber_security.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

using vantor::messaging::CyberSecurityContract;

namespace {

std::atomic<int> usedAfterClosing{0};  // calls that reached a gate whose destruction had begun

class SessionGate {
 public:
  // The contract holds the gate only weakly; the callback may use it freely, since it runs only while
  // the gate is alive and keeps it so.
  static std::shared_ptr<SessionGate> open(CyberSecurityContract& security) {
    auto gate = std::make_shared<SessionGate>();
    SessionGate* raw = gate.get();
    gate->connections_[0] =
        security.connectSecuredSignalWithHandle([raw](bool secured) { raw->use(), raw->secured_ = secured; }, gate);
    gate->connections_[1] = security.connectNewCredentialsSignalWithHandle([raw](bool) { raw->use(); }, gate);
    gate->connections_[2] = security.connectSecurityTokenSignalWithHandle(
        [raw](const CyberSecurityContract::OptionalToken& token) { raw->use(), raw->tokenTag_ = token->front(); },
        gate);
    return gate;
  }
  ~SessionGate() { open_ = false; }
  const std::array<vantor::tessel::Connection, 3>& connections() const { return connections_; }

 private:
  void use() const {
    if (!open_) ++usedAfterClosing;
  }
  std::atomic<bool> open_{true};
  std::atomic<bool> secured_{false};
  std::atomic<unsigned char> tokenTag_{0};
  std::array<vantor::tessel::Connection, 3> connections_;  // plain handles: the tracking disconnects them
};

class StatusLine {
 public:
  explicit StatusLine(CyberSecurityContract& security)
      : connection_(security.connectNewCredentialsSignalWithHandle([this](bool) { ++notices_; })) {}
  int notices() const { return notices_; }

 private:
  int notices_ = 0;
  vantor::tessel::ScopedConnection connection_;  // declared last, so it disconnects before notices_ goes
};

}  // namespace

int main() try {
  CyberSecurityContract& security = CyberSecurityContract::instance();

  // A security thread publishes while this thread opens gates and drops them again.
  std::atomic<bool> done{false};
  std::thread publisher([&] {
    for (unsigned char round = 0; !done; ++round) {
      security.updateSecured(round % 2 == 0), security.updateAboutNewCreds();
      security.updateSecurityToken(CyberSecurityContract::Token{round});
    }
  });
  std::array<vantor::tessel::Connection, 3> lastGate;
  for (int i = 0; i < 2000; ++i) lastGate = SessionGate::open(security)->connections();  // the gate is dropped at once
  done = true;
  publisher.join();
  const bool lastGateDisconnected =
      std::none_of(lastGate.begin(), lastGate.end(), [](const auto& connection) { return connection.connected(); });
  std::printf("gates opened and dropped while publishing: 2000, used after closing: %d\n", usedAfterClosing.load());

  int noticesSeen = 0;
  {
    StatusLine line(security);
    security.updateAboutNewCreds(), security.updateAboutNewCreds();
    noticesSeen = line.notices();
  }
  security.updateAboutNewCreds();  // the line is gone, and so is its callback
  std::printf("notices the status line saw: %d\n", noticesSeen);

  vantor::tessel::Signal<std::string> alerts;
  std::string firstAlert;
  alerts.connectExtended([&firstAlert](const vantor::tessel::Connection& self, const std::string& text) {
    firstAlert = text;
    self.disconnect();
  });
  alerts.emit("intrusion"), alerts.emit("again");
  std::printf("the one-shot alert saw: %s; slots left: %zu\n", firstAlert.c_str(), alerts.slotCount());

  const bool asExpected =
      usedAfterClosing == 0 && lastGateDisconnected && noticesSeen == 2 && firstAlert == "intrusion" && alerts.empty();
  std::printf("%s\n", asExpected ? "every component went away cleanly" : "a component outlived its callback");
  return asExpected ? 0 : 1;
} catch (const std::exception& error) {
  std::printf("failed: %s\n", error.what());
  return 1;
}
