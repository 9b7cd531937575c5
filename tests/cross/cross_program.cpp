// Exchanges a host contract's topics with a plugin (argv[1]) that another compiler, or the same one without
// RTTI, built against this library: each side receives what the other published, with its own types. Exits
// 1 unless both sides logged argv[2]. Run by check_cross.cmake, which always passes both arguments.

#include <dlfcn.h>

#include <cstdio>

#include "cross/cross_contract.hpp"

int main(int, char** argv) {
  CrossContract contract(/*purge=*/true);
  contract.publishAll("ToPlugin:");
  void* plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  auto* exchange = plugin ? reinterpret_cast<std::string (*)()>(dlsym(plugin, "crossExchange")) : nullptr;
  if (exchange == nullptr) return std::printf("%s\n", dlerror()), 2;
  const std::string pluginSide = exchange(), programSide = contract.receiveAll("FromPlugin:");
  std::printf("plugin:  %s\nprogram: %s\n", pluginSide.c_str(), programSide.c_str());
  return pluginSide == argv[2] && programSide == argv[2] ? 0 : 1;
}
