// A host program outside the library, with a contract of its own that instantiates the library's member
// templates. Built in the tree with -fno-rtti: the library must behave for it as for any other host. Built
// against an installed copy through find_package() and pkg-config, which pass the version they found as
// VANTOR_CONSUMER_EXPECTED_VERSION.

#include <vantor/messaging/contract_cyber_security.hpp>
#include <vantor/messaging/version.hpp>

#include <cstdio>
#include <string_view>

#ifdef VANTOR_CONSUMER_EXPECTED_VERSION
static_assert(std::string_view(VANTOR_MESSAGE_BOARD_VERSION) == VANTOR_CONSUMER_EXPECTED_VERSION,
              "the installed version header disagrees with the version the build system found");
#endif
static_assert(vantor::messaging::abiVersion == VANTOR_MESSAGE_BOARD_VERSION_MAJOR &&
                  vantor::messaging::version == VANTOR_MESSAGE_BOARD_VERSION,
              "the version constants disagree with the version macros");

namespace {

class HostContract : public vantor::messaging::Contract {
 public:
  HostContract() : Contract("Host", /*purgeOnDestroy=*/true) {}
  void publish(bool flag) {
    update<bool>("Flag", [flag] { return flag; });
  }
  bool read() { return get<bool>("Flag").value_or(false); }
};

}  // namespace

int main() {
  HostContract host;
  host.publish(true);
  auto& security = vantor::messaging::CyberSecurityContract::instance();
  bool secured = false, allowed = false;
  security.connectSecuredSignal([&secured](bool flag) { secured = flag; });
  security.updateSecured(true);
  security.updateIpAllPortsAllowed("192.0.2.1", true);
  security.subscribeToIpPortAllowed("192.0.2.1", 17161, [&allowed](bool flag) { allowed = flag; });
  const bool asExpected = host.read() && secured && security.isSecured() && allowed &&
                          security.isIpSecured("192.0.2.1") && !security.isIpSecured("192.0.2.2");
  std::puts(asExpected ? "consumer: ok" : "consumer: the library answered differently");
  return asExpected ? 0 : 1;
}
