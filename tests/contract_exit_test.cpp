// The contract's lifetime within a process: built once however many threads ask first, built with its
// defaults, and destroyed at exit before the board, leaving none of its entries behind.
//
// An exit handler registered after the library was loaded (so after the board registered its
// destruction) and before the first instance() (so before the contract registered its own) runs after
// the contract's destruction and before the board's: it inspects the board at exactly that moment.
// Not a GoogleTest program, because the check that matters runs after main has returned.

#include <cstdio>
#include <cstdlib>

#include "test_support.hpp"

using namespace vantor::messaging;

static std::string failures;  // a line per failed check
static void check(bool ok, const std::string& what) { failures += ok ? "" : "FAILED: " + what + "\n"; }

static void betweenContractAndBoard() {
  check(BoardTestPeer::entriesWithPrefix("CyberSecurity") == 0, "the contract's entries are gone at exit");
  check(BoardTestPeer::hasGetter("Bystander:topic"), "the board itself is still intact");
  if (!failures.empty()) std::fputs(failures.c_str(), stderr), std::_Exit(1);  // skips the rest of exit
}

int main() {
  std::atexit(betweenContractAndBoard);
  CyberSecurityContract* seen[2] = {nullptr, nullptr};
  runTogether(2, [&seen](std::size_t index) { seen[index] = &CyberSecurityContract::instance(); });
  check(seen[0] != nullptr && seen[0] == seen[1], "racing first callers receive the same object");
  CyberSecurityContract& contract = *seen[0];

  check(!contract.isSecured() && !contract.getSecurityToken(), "neither secured nor a token at first");
  try {
    contract.userActivityLogger(), check(false, "no user-activity logger at first");
  } catch (const std::bad_function_call&) {
  }
  contract.registerConnection("192.0.2.1", 1, true);  // without a callback: nothing happens
  for (const std::string topic : {"Secured", "NewCredentials", "SecurityToken"})
    check(BoardTestPeer::hasSubscriber("CyberSecurity:" + topic), "the contract subscribes to its three topics");
  check(BoardTestPeer::entriesWithPrefix("CyberSecurity") == 3, "and stores nothing else");

  std::vector<int> walked, defaults = {17161, 17168, 17171, 17172, 17175, 17176, 17178};
  for (const int port : defaults)
    contract.subscribeToIpPortAllowed("192.0.2.7", port, [&, port](bool) { walked.push_back(port); });
  contract.updateIpAllPortsAllowed("192.0.2.7", true);
  check(walked == defaults, "the default ports, in order");

  // Leave getters and subscribers of every kind for the destruction to remove, beside a bystander's entry.
  contract.updateSecured(true), contract.updateSecurityToken(CyberSecurityContract::Token{1, 2, 3});
  static TestContract bystander("Bystander", /*purgeOnDestroy=*/false);
  bystander.update<int>("topic", [] { return 1; });
}
