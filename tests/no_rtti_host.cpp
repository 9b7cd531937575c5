// A host built with -fno-rtti that has a contract of its own and instantiates the same member
// templates as the library: the library must behave exactly as it does for any other host.

#include <cstdio>
#include <exception>

#include "vantor/messaging/contract_cyber_security.hpp"

namespace {

class HostContract : public vantor::messaging::Contract {
 public:
  HostContract() : Contract("Host", true) {}
  void publish(bool value) {
    update<bool>("Flag", [value] { return value; });
  }
  bool read() { return get<bool>("Flag").value_or(false); }
};

int fail(const char* what) {
  std::printf("no_rtti_host: %s\n0 passed, 1 failed\n", what);
  return 1;
}

}  // namespace

int main() {
  try {
    HostContract host;
    host.publish(true);
    if (!host.read()) return fail("the host's own contract lost its flag");

    auto& security = vantor::messaging::CyberSecurityContract::instance();
    security.updateSecured(true);
    security.updateIpAllPortsAllowed("192.0.2.1", true);
    bool delivered = false;
    security.subscribeToIpPortAllowed("192.0.2.1", 17161, [&delivered](bool allowed) { delivered = allowed; });
    if (!security.isIpSecured("192.0.2.1") || security.isIpSecured("192.0.2.2") || !delivered) {
      return fail("the contract answered differently");
    }
  } catch (const std::exception& error) {
    return fail(error.what());
  }
  std::puts("no_rtti_host: 1 passed, 0 failed");
  return 0;
}
