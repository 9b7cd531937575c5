#pragma once

// A host's own contract shared by a program and a plugin that may be built by other compilers or without
// RTTI. Each side publishes one value of each type below under its own prefix and receives the other's
// with its own instantiations of the same types; plus a `Secret` that each translation unit declares in an
// unnamed namespace: two distinct types spelled alike, which must never be taken for one.

#include <array>
#include <stdexcept>
#include <string>
#include <vector>

#include "vantor/messaging/contract.hpp"

namespace host {
struct Reading {
  int sensor, value;
  bool operator==(const Reading& other) const { return sensor == other.sensor && value == other.value; }
};
}  // namespace host

namespace {
struct Secret {
  std::string text;
  bool operator==(const Secret& other) const { return text == other.text; }
};
}  // namespace

struct CrossContract : vantor::messaging::Contract {
  explicit CrossContract(bool purge) : Contract("Cross", purge) {}

  template <typename Each>
  static void forEachValue(Each&& each) {
    each("bool", true), each("int", -7), each("unsigned long", 7UL), each("string", std::string("text"));
    each("token", std::array<unsigned char, 32>{1, 2, 3}), each("reading", host::Reading{3, 15});
    each("readings", std::vector<host::Reading>{{1, 20}, {2, 40}}), each("secret", Secret{"mine"});
  }
  void publishAll(const std::string& prefix) {
    forEachValue(
        [&](const char* topic, auto value) { update<decltype(value)>(prefix + topic, [value] { return value; }); });
  }
  // Receives each value under `prefix`: "received" when it arrives intact, "refused" when its type is not
  // recognised. The subscribers stay on the board until the program's contract purges them.
  std::string receiveAll(const std::string& prefix) {
    forEachValue([&](const char* topic, auto expected) {
      try {
        subscribe<decltype(expected)>(
            prefix + topic, [this, expected](const auto& got) { log += got == expected ? "received " : "garbled "; });
      } catch (const std::invalid_argument&) {
        log += "refused ";
      }
    });
    return log.substr(0, log.size() - 1);  // without the last space
  }
  std::string log;
};
