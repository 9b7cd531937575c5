// The plugin side of the cross-module test (cross_program.cpp): built by another compiler, or without RTTI.

#include "cross/cross_contract.hpp"

extern "C" __attribute__((visibility("default"))) std::string crossExchange() {
  static CrossContract contract(/*purge=*/false);  // outlives its subscribers, which the program's contract purges
  std::string received = contract.receiveAll("ToPlugin:");
  contract.publishAll("FromPlugin:");
  return received;
}
