// A plugin that uses the library, for the unload test: it fills the contract with function objects
// that count their own copies in the test's memory.

#include "test_support.hpp"
#include "vantor/messaging/contract_cyber_security.hpp"

class Logger {};

namespace {
using vantor::messaging::CyberSecurityContract;
using vantor::testing::Counted;
Logger hostLogger;
struct CountedLogger : Counted<> {
  Logger& operator()() const { return hostLogger; }
};
}  // namespace

#define PLUGIN_API extern "C" __attribute__((visibility("default")))

PLUGIN_API std::size_t pluginBoardEntries() { return vantor::messaging::BoardTestPeer::entriesWithPrefix(""); }

// True when the contract shows its initial state: its three subscribers and nothing else.
PLUGIN_API bool pluginContractIsFresh() {
  CyberSecurityContract& contract = CyberSecurityContract::instance();
  return !contract.isSecured() && !contract.getSecurityToken() && pluginBoardEntries() == 3;
}

// Stores counted function objects everywhere the contract keeps one, and publishes through them.
PLUGIN_API void pluginUseContract(std::atomic<int>* alive) {
  CyberSecurityContract& contract = CyberSecurityContract::instance();
  contract.connectSecuredSignal(Counted<>(*alive));
  contract.connectNewCredentialsSignal(Counted<>(*alive));
  contract.connectSecurityTokenSignal(Counted<>(*alive));
  contract.subscribeToIpPortAllowed("192.0.2.7", 17161, Counted<>(*alive));
  contract.setUserActivityLogger(CountedLogger{Counted<>(*alive)});
  contract.setRegisterConnectonCallback(Counted<>(*alive));
  contract.updateSecured(true), contract.updateAboutNewCreds(),
      contract.updateSecurityToken(CyberSecurityContract::Token{7});
  contract.updateIpAllPortsAllowed("192.0.2.7", true), contract.userActivityLogger();
  contract.registerConnection("192.0.2.7", 17161, true);
}
