// A plugin that uses the library, for the unload test: it fills the contract with function objects
// that each hold a copy of the test's shared pointer, so its use count counts them.

#include "test_support.hpp"

using namespace vantor::messaging;

class Logger {};
static Logger hostLogger;

// Stores counted function objects everywhere the contract keeps one, and publishes through them. Returns
// whether the board was new (empty) and the contract it built in its initial state: its three subscribers,
// and nothing else.
extern "C" __attribute__((visibility("default"))) bool pluginUseContract(const std::shared_ptr<int>& count) {
  const auto counted = [count](const auto&...) {};
  const auto logger = [count]() -> Logger& { return hostLogger; };
  const bool emptyBoard = BoardTestPeer::entriesWithPrefix("") == 0;
  CyberSecurityContract& cs = CyberSecurityContract::instance();
  const bool fresh = !cs.isSecured() && !cs.getSecurityToken() && BoardTestPeer::entriesWithPrefix("") == 3;
  cs.connectSecuredSignal(counted), cs.connectNewCredentialsSignal(counted), cs.connectSecurityTokenSignal(counted);
  cs.setUserActivityLogger(logger), cs.subscribeToIpPortAllowed("192.0.2.7", 17161, counted);
  cs.setRegisterConnectonCallback(counted);
  cs.updateSecured(true), cs.updateAboutNewCreds(), cs.updateSecurityToken({{7}}), cs.userActivityLogger();
  cs.updateIpAllPortsAllowed("192.0.2.7", true), cs.registerConnection("192.0.2.7", 17161, true);
  return emptyBoard && fresh;
}
