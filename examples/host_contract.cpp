// A contract of the host's own. A media player files its state under the name "Player": the title it
// plays, read live through a getter, and volume changes, announced without being stored. A display
// component listens to both, and the player asks the CyberSecurity contract which servers it may use.
//
// The program checks what it received and exits with status 1 when anything differs, because the build
// also runs it as a consumer of the library: the install check compiles it against an installed copy,
// and the test suite compiles it with -fno-rtti. Its first line names the version of the headers.

#include <vantor/messaging/contract_cyber_security.hpp>
#include <vantor/messaging/version.hpp>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// Contract's topic operations are protected: a contract decides which topics it has and which type
// each one holds, and offers them as members of its own.
class PlayerContract : public vantor::messaging::Contract {
 public:
  // With purgeOnDestroy, every key that begins with "Player" leaves the board with the contract.
  PlayerContract() : Contract("Player", /*purgeOnDestroy=*/true) {}

  // The board calls `current` under its lock whenever the title is published or read: it must be
  // short and must not call the board.
  void playing(const Getter<std::string>& current) { update<std::string>("Title", current); }
  void changeVolume(int volume) { notify<int>("Volume", volume); }
  std::string title() { return get<std::string>("Title").value_or("(nothing)"); }
  // A title listener first receives the current title; later titles and volume changes reach their
  // listener on the publishing thread, after the board's lock is released.
  void onTitle(const Subscriber<std::string>& listener) { subscribe<std::string>("Title", listener); }
  void onVolume(const Subscriber<int>& listener) { subscribe<int>("Volume", listener); }
  // A mistake the library catches: "Title" holds a string, not a number.
  int titleAsNumber() { return get<int>("Title").value_or(0); }
};

}  // namespace

int main() try {
  std::printf("vantor_message_board %s\n", VANTOR_MESSAGE_BOARD_VERSION);
  auto& security = vantor::messaging::CyberSecurityContract::instance();
  PlayerContract player;
  std::vector<std::string> shown;  // what the display showed, in order

  std::string track = "Overture";
  player.playing([&track] { return track; });
  player.onTitle([&shown](const std::string& title) { shown.push_back("title " + title); });  // at once
  player.onVolume([&shown](const int& volume) { shown.push_back("volume " + std::to_string(volume)); });
  security.connectSecuredSignal([&shown](bool secured) { shown.emplace_back(secured ? "secured" : "open"); });
  track = "Nocturne";  // read live: the next get() sees it without a new publication
  player.changeVolume(7);
  security.updateSecured(true);
  security.updateIpAllPortsAllowed("192.0.2.10", true);
  for (const std::string& line : shown) std::printf("display: %s\n", line.c_str());
  std::printf("now playing: %s\n", player.title().c_str());

  bool refused = false;
  try {
    player.titleAsNumber();
  } catch (const std::invalid_argument& error) {
    refused = true;
    std::printf("refused: %s\n", error.what());
  }
  const bool asExpected = shown == std::vector<std::string>{"title Overture", "volume 7", "secured"} &&
                          player.title() == "Nocturne" && refused && security.isIpSecured("192.0.2.10") &&
                          !security.isIpSecured("192.0.2.11");
  std::printf("%s\n", asExpected ? "every value arrived as expected" : "the library answered differently");
  return asExpected ? 0 : 1;
} catch (const std::exception& error) {  // any other error the library raises
  std::printf("failed: %s\n", error.what());
  return 1;
}
