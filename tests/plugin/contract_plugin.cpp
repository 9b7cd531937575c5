// A plugin that uses the library, for the unload test: it fills the contract with function objects
// that count their own lifetimes in the test's memory.

#include <string>

#include "board_test_peer.hpp"
#include "test_support.hpp"
#include "vantor/messaging/contract_cyber_security.hpp"

class Logger {};

namespace {

using vantor::messaging::CyberSecurityContract;
using vantor::testing::Counted;
using vantor::testing::LifeCount;

Logger hostLogger;

struct CountedLogger {
  Counted<> life;
  Logger& operator()() const { return hostLogger; }
};

}  // namespace

#define PLUGIN_API extern "C" __attribute__((visibility("default")))

// Entries on the whole board.
PLUGIN_API std::size_t pluginBoardEntries() { return vantor::messaging::BoardTestPeer::entriesWithPrefix(""); }

// True when the contract shows its initial state.
PLUGIN_API bool pluginContractIsFresh() {
  CyberSecurityContract& contract = CyberSecurityContract::instance();
  return !contract.isSecured() && !contract.getSecurityToken() && pluginBoardEntries() == 3;
}

// Stores counted function objects everywhere the contract keeps one, and publishes through them.
PLUGIN_API void pluginUseContract(LifeCount* count) {
  CyberSecurityContract& contract = CyberSecurityContract::instance();
  contract.connectSecuredSignal(Counted<>(*count));
  contract.connectNewCredentialsSignal(Counted<>(*count));
  contract.connectSecurityTokenSignal(Counted<>(*count));
  contract.subscribeToIpPortAllowed("192.0.2.7", 17161, Counted<>(*count));
  contract.setUserActivityLogger(CountedLogger{Counted<>(*count)});
  contract.setRegisterConnectonCallback(Counted<>(*count));

  contract.updateSecured(true);
  contract.updateAboutNewCreds();
  contract.updateSecurityToken(CyberSecurityContract::Token{7});
  contract.updateIpAllPortsAllowed("192.0.2.7", true);
  contract.userActivityLogger();
  contract.registerConnection("192.0.2.7", 17161, true);
}
