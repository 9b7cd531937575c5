// A component with a thread of its own, which receives the security state on that thread rather than on
// the publishers': it owns a Mailbox, connects queued listeners to a port permission and to the secured
// signal, and drains the mailbox in its loop. Two threads publish all the while, and the component is
// destroyed and built anew several times meanwhile.
//
// What to copy:
//  - the connections are queued (their calls run in the component's drain(), on its thread) and tracked
//    by a token the component owns, so that a call already queued when the component goes is dropped;
//  - the destructor has the component's own thread disconnect (once disconnect() has returned on the
//    draining thread, no call of those connections runs, also none that was queued before), then joins
//    the thread; the mailbox goes last, with what is left in it;
//  - the tracked owner is a token, not the component itself: a queued call keeps its owner alive while it
//    runs on the component's thread, and the component's destructor must not run there (it joins it).
//
// The program checks what happened and exits with status 1 when anything differs.

#include <vantor/messaging/contract_cyber_security.hpp>
#include <vantor/tessel/mailbox.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

using vantor::messaging::CyberSecurityContract;

class Logger {};  // the host's logger type; this example sets no logger hook

namespace {

const char* const kAddress = "198.51.100.4";
constexpr int kPort = 17161;
std::atomic<int> callsAfterClosing{0};  // calls that reached a component after it had disconnected

class Component {
 public:
  explicit Component(CyberSecurityContract& security) {
    connections_.emplace_back(security.connectIpPortAllowed(
        kAddress, kPort, mailbox_, [this](bool allowed) { use(), allowed_ = allowed; }, alive_));
    connections_.emplace_back(security.securedSignal().connectQueued(
        mailbox_, [this](bool secured) { use(), secured_ = secured; }, alive_));
    thread_ = std::thread([this] { run(); });
  }
  Component(const Component&) = delete;
  Component& operator=(const Component&) = delete;

  ~Component() {
    // Disconnects on the component's thread: nothing new is queued, and what is queued is dropped.
    mailbox_.post([this] { connections_.clear(), closed_ = true; });
    thread_.join();
  }  // then the mailbox, with the calls still queued in it, which it destroys without running them

  int allowed() const { return allowed_; }
  int secured() const { return secured_; }
  int calls() const { return calls_; }

 private:
  void run() {
    while (!closed_) {
      mailbox_.waitFor(std::chrono::milliseconds(1));
      mailbox_.drain();  // the component's calls run here, on its own thread, one at a time
    }
  }
  void use() {
    ++calls_;
    if (closed_) ++callsAfterClosing;
  }

  vantor::tessel::Mailbox mailbox_;
  std::shared_ptr<int> alive_ = std::make_shared<int>();  // the connections' tracked owner
  std::atomic<int> allowed_{-1}, secured_{-1}, calls_{0};
  std::atomic<bool> closed_{false};
  std::vector<vantor::tessel::ScopedConnection> connections_;  // used on the component's thread once it runs
  std::thread thread_;
};

// Waits (up to two seconds) until the component has received the last values published.
bool seesLastValues(const Component& component, bool allowed, bool secured) {
  for (int round = 0; round < 2000; ++round) {
    if (component.allowed() == allowed && component.secured() == secured) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

}  // namespace

int main() {
  CyberSecurityContract& security = CyberSecurityContract::instance();
  std::atomic<bool> publishing{true};
  std::vector<std::thread> publishers;
  publishers.emplace_back([&] {
    for (int i = 0; publishing; ++i) security.updateIpPortAllowed(kAddress, kPort, i % 2 == 0);
  });
  publishers.emplace_back([&] {
    for (int i = 0; publishing; ++i) security.updateSecured(i % 2 == 0);
  });

  int calls = 0;
  for (int generation = 0; generation < 20; ++generation) {
    Component component(security);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));  // let it receive while others publish
    calls += component.calls();
  }

  publishing = false;
  for (std::thread& publisher : publishers) publisher.join();
  security.updateIpPortAllowed(kAddress, kPort, true);
  Component last(security);  // a pair's new listener receives its current flag first; a signal replays nothing
  security.updateSecured(false);
  const bool current = seesLastValues(last, true, false);

  std::printf("20 components received %d calls on their own threads while two threads published\n", calls);
  std::printf("the last one sees the current values: %s; calls after a component had disconnected: %d\n",
              current ? "yes" : "no", callsAfterClosing.load());
  return current && callsAfterClosing == 0 && security.isIpPortAllowed(kAddress, kPort) == true ? 0 : 1;
}
