// A host that loads a plugin whose code runs in its slots, lets the plugin disconnect, unloads it and
// publishes again: nothing of the plugin may be left in a signal (its callback objects, its owners'
// control blocks), or the next publication runs unmapped code. Exits non-zero with a message on failure.

#include <dlfcn.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "vantor/messaging/contract_cyber_security.hpp"

class Logger {};

static int fail(const char* what) {
  std::fprintf(stderr, "unload_host: %s\n", what);
  return 1;
}

int main(int argc, char** argv) {
  if (argc != 2) return fail("usage: unload_host PLUGIN");
  vantor::tessel::Signal<int> signal;
  auto& contract = vantor::messaging::CyberSecurityContract::instance();
  void* plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (plugin == nullptr) return fail(dlerror());
  auto* connect = reinterpret_cast<void (*)(vantor::tessel::Signal<int>&)>(dlsym(plugin, "pluginConnect"));
  auto* disconnect = reinterpret_cast<int (*)()>(dlsym(plugin, "pluginDisconnect"));
  if (connect == nullptr || disconnect == nullptr) return fail("the plugin's entry points are missing");
  connect(signal);
  signal.emit(1), contract.updateSecured(true);
  if (disconnect() != 3) return fail("the plugin's slots were not called once each");
  if (!signal.empty()) return fail("the host's signal still counts the plugin's slots");
  if (dlclose(plugin) != 0) return fail(dlerror());
  std::ifstream maps("/proc/self/maps");
  if (std::string(std::istreambuf_iterator<char>(maps), {}).find(argv[1]) != std::string::npos)
    return fail("the plugin stayed mapped, so the test proves nothing");
  signal.emit(2), contract.updateSecured(false), signal.emit(3);
  std::puts("unload_host: published after the plugin was unloaded");
  return 0;
}
