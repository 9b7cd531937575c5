// The plugin side of the cross-module test (cross_program.cpp): built by another compiler, or without RTTI.

#include "cross/cross_contract.hpp"

extern "C" __attribute__((visibility("default"))) std::string crossExchange() {
  CrossContract contract(/*purge=*/false);  // the program's contract purges the shared name at its end
  std::string received = contract.receiveAll("ToPlugin:");
  contract.publishAll("FromPlugin:");
  return received;
}
