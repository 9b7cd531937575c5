// The contract's lifetime within a process: built once however many threads ask first, built with its
// defaults, and destroyed at exit before the board, leaving none of its entries behind.
//
// An exit handler registered after the library was loaded (so after the board registered its
// destruction) and before the first instance() (so before the contract registered its own) runs after
// the contract's destruction and before the board's: it inspects the board at exactly that moment.
// Not a GoogleTest program, because the check that matters runs after main has returned.

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

#include "test_support.hpp"
#include "vantor/messaging/contract_cyber_security.hpp"

namespace {

using vantor::messaging::BoardTestPeer;
using vantor::messaging::CyberSecurityContract;

int passed = 0;
int failed = 0;

void check(bool ok, const char* what) {
  ++(ok ? passed : failed);
  if (!ok) std::fprintf(stderr, "FAILED: %s\n", what);
}

void betweenContractAndBoard() {
  check(BoardTestPeer::entriesWithPrefix("CyberSecurity") == 0, "the contract's entries are gone at exit");
  check(BoardTestPeer::hasGetter("Bystander:topic"), "the board itself is still intact");
  std::printf("contract_exit_test: %d passed, %d failed\n", passed, failed);
  std::fflush(stdout);
  if (failed != 0) _exit(1);
}

}  // namespace

int main() {
  std::atexit(betweenContractAndBoard);

  CyberSecurityContract* seen[2] = {nullptr, nullptr};
  vantor::testing::runTogether(2, [&seen](std::size_t index) { seen[index] = &CyberSecurityContract::instance(); });
  check(seen[0] != nullptr && seen[0] == seen[1], "racing first callers receive the same object");
  CyberSecurityContract& contract = *seen[0];

  // Defaults.
  check(!contract.isSecured(), "not secured at first");
  check(!contract.getSecurityToken(), "no token at first");
  bool loggerUnset = false;
  try {
    contract.userActivityLogger();
  } catch (const std::bad_function_call&) {
    loggerUnset = true;
  }
  check(loggerUnset, "no user-activity logger at first");
  contract.registerConnection("192.0.2.1", 1, true);  // no callback: nothing happens
  check(BoardTestPeer::hasSubscriber("CyberSecurity:Secured") &&
            BoardTestPeer::hasSubscriber("CyberSecurity:NewCredentials") &&
            BoardTestPeer::hasSubscriber("CyberSecurity:SecurityToken"),
        "the contract's three subscribers are installed");
  check(BoardTestPeer::entriesWithPrefix("CyberSecurity") == 3, "and nothing else: no getter");

  const std::vector<int> defaults = {17161, 17168, 17171, 17172, 17175, 17176, 17178};
  std::vector<int> walked;
  for (const int port : defaults) {
    contract.subscribeToIpPortAllowed("192.0.2.7", port, [&walked, port](bool) { walked.push_back(port); });
  }
  contract.updateIpAllPortsAllowed("192.0.2.7", true);
  check(walked == defaults, "the default ports, in order");

  // Leave entries of every kind behind for the destruction to remove.
  contract.updateSecured(true);
  contract.updateSecurityToken(CyberSecurityContract::Token{1, 2, 3});
  contract.updateIpPortAllowed("192.0.2.8", -1, false);
  contract.subscribeToIpPortAllowed("192.0.2.9", 0, [](bool) {});
  static vantor::messaging::TestContract bystander("Bystander", /*purgeOnDestroy=*/false);
  bystander.update<int>("topic", [] { return 1; });
  return 0;
}
