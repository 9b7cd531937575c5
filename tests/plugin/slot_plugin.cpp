// A plugin whose code runs in a host's slots, for the unloading test: it connects to the host's signal
// (plain, and tracked by a component of its own) and to the contract's secured signal (tracked), counts
// the calls, and lets go of everything when asked, before the host unloads it.

#include <memory>
#include <vector>

#include "vantor/messaging/contract_cyber_security.hpp"

namespace {

struct Component {
  int calls = 0;
};

struct Plugin {
  std::shared_ptr<Component> component = std::make_shared<Component>();
  std::vector<vantor::tessel::ScopedConnection> connections;
};
Plugin* plugin = nullptr;

}  // namespace

extern "C" __attribute__((visibility("default"))) void pluginConnect(vantor::tessel::Signal<int>& hostSignal) {
  plugin = new Plugin;
  Component* const component = plugin->component.get();
  const auto count = [component](auto&&...) { ++component->calls; };
  plugin->connections.emplace_back(hostSignal.connect(count));
  plugin->connections.emplace_back(hostSignal.connect(count, plugin->component));
  plugin->connections.emplace_back(
      vantor::messaging::CyberSecurityContract::instance().connectSecuredSignalWithHandle(count, plugin->component));
}

// Disconnects every slot (as the ScopedConnections end) and destroys the component; returns the calls seen.
extern "C" __attribute__((visibility("default"))) int pluginDisconnect() {
  const int calls = plugin->component->calls;
  delete plugin;
  return calls;
}
