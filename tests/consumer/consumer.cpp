// A program outside the project that uses the installed library as a host would.
// VANTOR_CONSUMER_EXPECTED_VERSION is the version that its build found (find_package or pkg-config).
#include <vantor/messaging/contract.hpp>
#include <vantor/messaging/contract_cyber_security.hpp>
#include <vantor/messaging/version.hpp>

#include <cstdio>
#include <string_view>

static_assert(std::string_view(VANTOR_MESSAGE_BOARD_VERSION) == VANTOR_CONSUMER_EXPECTED_VERSION,
              "the installed version header disagrees with the version the build system found");
static_assert(vantor::messaging::abiVersion == VANTOR_MESSAGE_BOARD_VERSION_MAJOR &&
                  vantor::messaging::version == VANTOR_MESSAGE_BOARD_VERSION,
              "the version constants disagree with the version macros");

namespace {

class Greeting : public vantor::messaging::Contract {
 public:
  Greeting() : Contract("Greeting", true) {}
  void publish(int value) {
    update<int>("Value", [value] { return value; });
  }
  int read() { return get<int>("Value").value_or(-1); }
};

}  // namespace

int main() {
  Greeting greeting;
  greeting.publish(13);
  if (greeting.read() != 13) {
    std::puts("consumer: the installed library did not hand back the published value");
    return 1;
  }
  auto& security = vantor::messaging::CyberSecurityContract::instance();
  bool received = false;
  security.connectSecuredSignal([&received](bool secured) { received = secured; });
  security.updateSecured(true);
  if (!received || !security.isSecured()) {
    std::puts("consumer: the installed contract did not deliver the secured flag");
    return 1;
  }
  std::puts("consumer: ok");
  return 0;
}
