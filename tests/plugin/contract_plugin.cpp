// A plugin that uses the library, for the unload test: it fills the contract with function objects
// that count their own copies in the test's memory.

#include "test_support.hpp"

using namespace vantor::messaging;

class Logger {};
static Logger hostLogger;

// A callable of any signature that counts in `*alive` how many of its copies exist. Called without
// arguments, as the logger hook, it returns the host's Logger.
struct Counted {
  std::atomic<int>* alive;
  explicit Counted(std::atomic<int>* count) : alive(count) { ++*alive; }
  Counted(const Counted& other) : Counted(other.alive) {}
  ~Counted() { --*alive; }
  template <typename... Args>
  void operator()(const Args&...) const {}
  Logger& operator()() const { return hostLogger; }
};

// Stores counted function objects everywhere the contract keeps one, and publishes through them. Returns
// whether the board was new (empty) and the contract it built in its initial state: its three subscribers,
// and nothing else.
extern "C" __attribute__((visibility("default"))) bool pluginUseContract(std::atomic<int>* alive) {
  const bool emptyBoard = BoardTestPeer::entriesWithPrefix("") == 0;
  CyberSecurityContract& cs = CyberSecurityContract::instance();
  const bool fresh = !cs.isSecured() && !cs.getSecurityToken() && BoardTestPeer::entriesWithPrefix("") == 3;
  cs.connectSecuredSignal(Counted(alive)), cs.connectNewCredentialsSignal(Counted(alive));
  cs.connectSecurityTokenSignal(Counted(alive)), cs.setUserActivityLogger(Counted(alive));
  cs.subscribeToIpPortAllowed("192.0.2.7", 17161, Counted(alive)), cs.setRegisterConnectonCallback(Counted(alive));
  cs.updateSecured(true), cs.updateAboutNewCreds(), cs.updateSecurityToken({{7}}), cs.userActivityLogger();
  cs.updateIpAllPortsAllowed("192.0.2.7", true), cs.registerConnection("192.0.2.7", 17161, true);
  return emptyBoard && fresh;
}
