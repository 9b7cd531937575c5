#pragma once

// One table of value-type pairs, included by every translation unit of the cross-module test: a program
// and a plugin of two translation units each (cross_second.cpp is the second of both). A row names the
// type a topic is published with, the type it is read back with, and how far the two are one type.
// Types declared in the unnamed namespace or local to a `static` function are new types in every
// translation unit that includes this header; a type local to an inline function is one type, which the
// board recognises within a module only.

#include <stdexcept>
#include <string>

#include "vantor/messaging/contract_cyber_security.hpp"

namespace host {
struct Text {
  std::string text;
  bool operator==(const Text& other) const { return text == other.text; }
};
template <typename T>
struct Box {
  T inner;
  bool operator==(const Box& other) const { return inner == other.inner; }
};
enum Level { low, high };
enum class Mode : long { off, on };
using Alias = Text;
typedef unsigned long Count;  // NOLINT(modernize-use-using): a typedef is what this row tests
inline auto inlineLocal() {
  struct Local : Text {};
  return Local{{"inline"}};
}
}  // namespace host

namespace {
struct Secret : host::Text {};
}  // namespace
static auto staticLocal() {
  struct Local : host::Text {};
  return Local{{"static"}};
}
namespace app {
static auto setup() {
  struct Settings : host::Text {};
  return Settings{{"setup"}};
}
}  // namespace app

// How far a row's two types are one type: nowhere, within a translation unit, within a module, or in
// every module (there when both sides have RTTI; without it the board recognises a type by identity only).
enum Scope { kNowhere, kUnit, kModule, kProcess };
enum Arrangement { kOneUnit, kTwoUnits, kTwoModules };

// '1' where the board must take a row's two types for one type, 'r' where it must refuse them.
inline char expected(Scope scope, Arrangement where, bool rtti) {
  const bool one = where == kOneUnit ? scope >= kUnit : where == kTwoUnits ? scope >= kModule : scope == kProcess && rtti;
  return one ? '1' : 'r';
}

// Calls each(row, published value, received value, scope) for every row, and again with both types
// wrapped in a template.
template <typename Each>
void forEachRow(Each&& each) {
  using Token = vantor::messaging::CyberSecurityContract::Token;
  const auto row = [&](const std::string& name, auto published, auto received, Scope scope) {
    each(name, published, received, scope);
    each(name + " in a template", host::Box<decltype(published)>{published}, host::Box<decltype(received)>{received},
         scope);
  };
  row("bool", true, true, kProcess);
  row("the token", Token{1, 2, 3}, Token{1, 2, 3}, kProcess);
  row("a string", std::string("text"), std::string("text"), kProcess);
  row("a struct in a namespace", host::Text{"text"}, host::Text{"text"}, kProcess);
  row("an alias and its type", host::Alias{"text"}, host::Text{"text"}, kProcess);
  row("a typedef and its type", host::Count{7}, 7UL, kProcess);
  row("an enum", host::high, host::high, kProcess);
  row("an enum class", host::Mode::on, host::Mode::on, kProcess);
  row("an enum class and its underlying type", host::Mode::on, 1L, kNowhere);
  row("two structs of one layout", host::Text{"text"}, Secret{{"text"}}, kNowhere);
  row("a type in an unnamed namespace", Secret{{"secret"}}, Secret{{"secret"}}, kUnit);
  row("a type local to a static function", staticLocal(), staticLocal(), kUnit);
  row("a type local to a static function in a namespace", app::setup(), app::setup(), kUnit);
  row("a type local to an inline function", host::inlineLocal(), host::inlineLocal(), kModule);
}

namespace {
// Publishes each row's first type under a prefix, and reads it back with the second.
struct TypeTable : vantor::messaging::Contract {
  TypeTable() : Contract("Types", /*purgeOnDestroy=*/false) {}
  void publishAll(const std::string& prefix) {
    forEachRow([&](const std::string& row, auto published, auto, Scope) {
      update<decltype(published)>(prefix + row, [published] { return published; });
    });
  }
  // One letter per row: '1' when the value arrived intact as the receiver's type, 'r' when the board
  // refused the type, 'g' when it arrived garbled, '-' when nothing arrived.
  std::string receiveAll(const std::string& prefix) {
    std::string verdicts;
    forEachRow([&](const std::string& row, auto, auto received, Scope) {
      char verdict = '-';
      try {
        subscribe<decltype(received)>(
            prefix + row, [&verdict, received](const auto& got) { verdict = got == received ? '1' : 'g'; });
        unsubscribe(prefix + row);
      } catch (const std::invalid_argument&) {
        verdict = 'r';
      }
      verdicts += verdict;
    });
    return verdicts;
  }
};
}  // namespace

// The same reception, in the other translation unit of the module (cross_second.cpp).
std::string receiveInSecondUnit(const std::string& prefix);
