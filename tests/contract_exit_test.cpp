// The contract's lifetime within a process: built once however many threads ask first, and destroyed
// at exit before the board, leaving none of its entries behind. (The model's driver checks the state it
// is built in, on its first run in a process.)
//
// An exit handler registered after the library was loaded (so after the board registered its
// destruction) and before the first instance() (so before the contract registered its own) runs after
// the contract's destruction and before the board's: it inspects the board at exactly that moment.
// Not a GoogleTest program, because the check that matters runs after main has returned.

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "test_support.hpp"

using namespace vantor::messaging;

static std::string failures;  // a line per failed check
static void check(bool ok, const std::string& what) { failures += ok ? "" : "FAILED: " + what + "\n"; }
static const unsigned char* tokenBytes = nullptr;  // the token's storage, whose object is gone at exit

static void betweenContractAndBoard() {
  check(BoardTestPeer::entriesWithPrefix("CyberSecurity") == 0, "the contract's entries are gone at exit");
  check(std::count(tokenBytes, tokenBytes + sizeof(CyberSecurityContract::OptionalToken), 0xA5) == 0,
        "the token was wiped before its storage was given up");
  check(BoardTestPeer::hasGetter("Bystander:topic"), "the board itself is still intact");
  if (!failures.empty()) std::fputs(failures.c_str(), stderr), std::_Exit(1);  // skips the rest of exit
}

int main() {
  std::atexit(betweenContractAndBoard);
  CyberSecurityContract* seen[2] = {nullptr, nullptr};
  runTogether(2, [&seen](std::size_t index) { seen[index] = &CyberSecurityContract::instance(); });
  check(seen[0] != nullptr && seen[0] == seen[1], "racing first callers receive the same object");
  CyberSecurityContract& contract = *seen[0];
  // Leave getters and subscribers of every kind for the destruction to remove, beside a bystander's entry.
  contract.updateSecured(true), contract.updateSecurityToken(CyberSecurityContract::Token{0xA5, 0xA5, 0xA5});
  tokenBytes = reinterpret_cast<const unsigned char*>(&contract.getSecurityToken());
  contract.updateIpAllPortsAllowed("192.0.2.7", true), contract.subscribeToIpPortAllowed("192.0.2.7", 1, [](bool) {});
  static TestContract bystander("Bystander", /*purgeOnDestroy=*/false);
  bystander.update<int>("topic", [] { return 1; });
}
